#include "cli/Commands.h"

#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    int code;
    {
        QCoreApplication app(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("Tarnwick"));
        QCoreApplication::setApplicationVersion(QStringLiteral(TARNWICK_VERSION));
        code = cli::run(QCoreApplication::arguments());
    } // the application's end routines (the settings written) run here
    // Everything of ours is on disk and flushed below: the libraries' own
    // teardown would only cost every run a few milliseconds.
    cli::out().flush();
    cli::err().flush();
    std::fflush(nullptr);
    std::_Exit(code);
}
