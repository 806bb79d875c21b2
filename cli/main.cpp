#include "cli/Commands.h"

#include <QCoreApplication>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARNWICK_VERSION));
    return cli::run(QCoreApplication::arguments());
}
