#include "cli/Commands.h"

#include <QTextStream>

#include <cstdio>
#include <functional>
#include <map>

namespace cli {

namespace {

QTextStream& out() {
    static QTextStream s(stdout);
    return s;
}

QTextStream& err() {
    static QTextStream s(stderr);
    return s;
}

const char* kUsage = "usage: tarnwick-cli --version | <command> [arguments]";

} // namespace

int run(const QStringList& arguments) {
    const QStringList args = arguments.mid(1);
    if (args.isEmpty()) {
        err() << kUsage << Qt::endl;
        return kExitUsage;
    }
    const QString command = args.first();
    if (command == QLatin1String("--version") || command == QLatin1String("version")) {
        out() << "tarnwick-cli " << TARNWICK_VERSION << Qt::endl;
        return kExitOk;
    }
    err() << "tarnwick-cli: unknown command '" << command << "'; " << kUsage << Qt::endl;
    return kExitUsage;
}

} // namespace cli
