#include "cli/Commands.h"

#include "core/Startup.h"

#include <map>

namespace cli {

namespace {

std::map<QString, Command>& registry() {
    static std::map<QString, Command> commands;
    return commands;
}

void printHelp(QTextStream& s) {
    s << "usage: tarnwick-cli --version | --help | <command> [arguments]" << Qt::endl;
    for (const auto& [name, command] : registry())
        s << "  tarnwick-cli " << command.usage << Qt::endl;
}

} // namespace

void registerCommand(Command command) {
    const QString name = command.name;
    registry()[name] = std::move(command);
}

QTextStream& out() {
    static QTextStream s(stdout);
    return s;
}

QTextStream& err() {
    static QTextStream s(stderr);
    return s;
}

int usageError(const QString& command, const QString& message) {
    err() << "tarnwick-cli: " << message;
    const auto it = registry().find(command);
    if (it != registry().end())
        err() << " (usage: tarnwick-cli " << it->second.usage << ")";
    err() << Qt::endl;
    return kExitUsage;
}

int failure(const QString& message) {
    out().flush();
    err() << "tarnwick-cli: " << message << Qt::endl;
    return kExitFailure;
}

int run(const QStringList& arguments) {
    const QStringList args = arguments.mid(1);
    if (args.isEmpty()) {
        err() << "tarnwick-cli: no command given; try tarnwick-cli --help" << Qt::endl;
        return kExitUsage;
    }
    const QString name = args.first();
    if (name == QLatin1String("--version") || name == QLatin1String("version")) {
        out() << "tarnwick-cli " << TARNWICK_VERSION << Qt::endl;
        return kExitOk;
    }
    if (name == QLatin1String("--help") || name == QLatin1String("help")) {
        printHelp(out());
        return kExitOk;
    }
    const auto it = registry().find(name);
    if (it == registry().end()) {
        err() << "tarnwick-cli: unknown command '" << name << "'; try tarnwick-cli --help"
              << Qt::endl;
        return kExitUsage;
    }
    const int status = it->second.run(args.mid(1));
    out().flush();
    err().flush();
    return status;
}

StartupScope::~StartupScope() {
    if (m_started)
        Startup::cleanupAtExit();
}

bool StartupScope::begin(QString* error) {
    m_started = Startup::run(error);
    return m_started;
}

} // namespace cli
