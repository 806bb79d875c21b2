#include "cli/Commands.h"

#include "core/Startup.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QJsonArray>
#include <QJsonDocument>

#include <map>

namespace cli {

namespace {

constexpr int kHelpWidth = 79;

const QString kJsonOption = QStringLiteral("json");
const QString kHelpOption = QStringLiteral("help");

std::map<QString, Command>& registry() {
    static std::map<QString, Command> commands;
    return commands;
}

// What the JSON document of this run collects.
struct RunState {
    QString command;
    bool json = false;
    QString error;
    QJsonArray warnings;
    QJsonObject members;
};

RunState& state() {
    static RunState s;
    return s;
}

const QString kExitStatusText =
    QStringLiteral("0 all done, 1 some source failed, 2 usage error, 130 interrupted (Ctrl-C; "
                   "143 after SIGTERM).");

// `text` broken into lines of at most `width` columns, each after `indent`
// blanks (the first after `firstIndent` characters already printed).
QString wrapped(const QString& text, int indent, int firstIndent, int width = kHelpWidth) {
    QString result;
    int column = firstIndent;
    bool lineStart = true;
    for (const QString& word : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (!lineStart && column + 1 + word.size() > width) {
            result += QLatin1Char('\n') + QString(indent, u' ');
            column = indent;
            lineStart = true;
        }
        if (!lineStart) {
            result += QLatin1Char(' ');
            ++column;
        }
        result += word;
        column += int(word.size());
        lineStart = false;
    }
    return result;
}

QString optionLabel(const Option& option) {
    QStringList names;
    for (const QString& name : option.names)
        names << (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
    QString label = names.join(QStringLiteral(", "));
    if (!option.valueName.isEmpty())
        label += QLatin1Char(' ') + option.valueName;
    return label;
}

// The options the parser knows for a command: its own, --json, -h/--help.
QList<Option> allOptions(const Command& command) {
    QList<Option> options = command.options;
    if (command.json)
        options.append({{kJsonOption},
                        {},
                        QStringLiteral("print one JSON document on standard output instead of "
                                       "text (its shape: the README's JSON section)")});
    options.append({{QStringLiteral("h"), kHelpOption}, {}, QStringLiteral("show this help")});
    return options;
}

QString usageLine(const Command& command) {
    QString text;
    for (qsizetype i = 0; i < command.synopsis.size(); ++i)
        text += (i == 0 ? QStringLiteral("usage: tarnwick-cli ")
                        : QStringLiteral("       tarnwick-cli ")) +
                command.synopsis.at(i) + QLatin1Char('\n');
    return text;
}

QString helpText(const Command& command) {
    QString text = usageLine(command);
    if (!command.description.isEmpty()) {
        text += QLatin1Char('\n');
        for (const QString& paragraph : command.description.split(QStringLiteral("\n\n")))
            text += wrapped(paragraph.simplified(), 0, 0) + QStringLiteral("\n\n");
    } else {
        text += QLatin1Char('\n');
    }
    auto table = [&text](const QString& title, const QList<QPair<QString, QString>>& rows) {
        if (rows.isEmpty())
            return;
        text += title + QStringLiteral(":\n");
        int labelWidth = 0;
        for (const auto& [label, description] : rows)
            labelWidth = std::max(labelWidth, int(label.size()));
        labelWidth = std::min(labelWidth, 24);
        const int indent = 2 + labelWidth + 2;
        for (const auto& [label, description] : rows) {
            QString line = QStringLiteral("  ") + label;
            if (label.size() > labelWidth)
                line += QLatin1Char('\n') + QString(indent, u' ');
            else
                line += QString(labelWidth - label.size() + 2, u' ');
            text += line + wrapped(description, indent, indent) + QLatin1Char('\n');
        }
        text += QLatin1Char('\n');
    };
    QList<QPair<QString, QString>> arguments;
    for (const Argument& argument : command.arguments)
        arguments.append({argument.name, argument.description});
    table(QStringLiteral("Arguments"), arguments);
    QList<QPair<QString, QString>> options;
    for (const Option& option : allOptions(command))
        options.append({optionLabel(option), option.description});
    table(QStringLiteral("Options"), options);
    const QString exit = command.exitStatus.isEmpty() ? kExitStatusText : command.exitStatus;
    text += wrapped(QStringLiteral("Exit status: ") + exit, 2, 0) + QLatin1Char('\n');
    return text;
}

void printOverview(QTextStream& s) {
    s << "usage: tarnwick-cli COMMAND [options] [arguments]\n"
         "       tarnwick-cli help COMMAND | COMMAND --help | --help | --version\n\n"
         "Commands:\n";
    int width = 0;
    for (const auto& [name, command] : registry())
        width = std::max(width, int(name.size()));
    for (const auto& [name, command] : registry())
        s << "  " << name.leftJustified(width + 2) << wrapped(command.summary, width + 4, width + 4)
          << '\n';
    s << '\n'
      << wrapped(QStringLiteral("Options may come before or after the arguments, as --opt VALUE "
                                "or --opt=VALUE; -- ends the options."),
                 0, 0)
      << '\n'
      << wrapped(QStringLiteral("Exit status: ") + kExitStatusText, 2, 0) << Qt::endl;
}

// "--bogus" or "-x" for a name the parser did not know.
QString dashed(const QString& name) {
    return (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
}

// The parser's complaint in this program's words.
QString parseError(const QCommandLineParser& parser) {
    const QStringList unknown = parser.unknownOptionNames();
    if (!unknown.isEmpty()) {
        QStringList names;
        for (const QString& name : unknown)
            names << QLatin1Char('\'') + dashed(name) + QLatin1Char('\'');
        return (names.size() == 1 ? QStringLiteral("unknown option ")
                                  : QStringLiteral("unknown options ")) +
               names.join(QStringLiteral(", "));
    }
    // Qt's own words otherwise: "Missing value after '--dest'." and
    // "Unexpected value after '--json'.".
    QString text = parser.errorText();
    static const QString missing = QStringLiteral("Missing value after ");
    static const QString unexpected = QStringLiteral("Unexpected value after ");
    if (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    if (text.startsWith(missing))
        return QStringLiteral("option %1 needs a value").arg(text.mid(missing.size()));
    if (text.startsWith(unexpected))
        return QStringLiteral("option %1 takes no value").arg(text.mid(unexpected.size()));
    return text.isEmpty() ? text : text.at(0).toLower() + text.mid(1);
}

void printJsonDocument(int exitStatus) {
    RunState& s = state();
    QJsonObject document = s.members;
    document.insert(QStringLiteral("command"), s.command);
    document.insert(QStringLiteral("exitStatus"), exitStatus);
    if (s.error.isEmpty() && exitStatus > 128)
        s.error = QStringLiteral("interrupted");
    document.insert(QStringLiteral("error"),
                    s.error.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(s.error));
    document.insert(QStringLiteral("warnings"), s.warnings);
    out() << QJsonDocument(document).toJson(QJsonDocument::Indented);
    out().flush();
}

void noteError(const QString& message) {
    if (state().error.isEmpty())
        state().error = message;
}

// The options the raw arguments name before a "--": whether --json is among
// them, so even a command line that does not parse answers in JSON.
bool asksForJson(const QStringList& args) {
    for (const QString& arg : args) {
        if (arg == QLatin1String("--"))
            break;
        if (arg == QLatin1String("--json"))
            return true;
    }
    return false;
}

int runCommand(const Command& command, const QStringList& args) {
    RunState& s = state();
    s = RunState();
    s.command = command.name;
    s.json = command.json && asksForJson(args);
    s.members = command.jsonMembers;

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    const QList<Option> options = allOptions(command);
    for (const Option& option : options)
        parser.addOption(QCommandLineOption(option.names, option.description, option.valueName));

    int status;
    if (!parser.parse(QStringList{QStringLiteral("tarnwick-cli ") + command.name} + args)) {
        // --help wins over the rest of a broken line.
        if (args.contains(QStringLiteral("--help")) || args.contains(QStringLiteral("-h"))) {
            out() << helpText(command);
            out().flush();
            return kExitOk;
        }
        status = usageError(command.name, parseError(parser));
    } else if (parser.isSet(kHelpOption)) {
        out() << helpText(command);
        out().flush();
        return kExitOk;
    } else {
        QList<QStringList> values;
        for (qsizetype i = 0; i < command.options.size(); ++i)
            values.append(parser.values(command.options.at(i).names.constFirst()));
        // A switch has no values; its presence is kept as one empty value.
        for (qsizetype i = 0; i < command.options.size(); ++i) {
            if (command.options.at(i).valueName.isEmpty())
                values[i] = parser.isSet(command.options.at(i).names.constFirst())
                                ? QStringList{QString()}
                                : QStringList{};
        }
        s.json = command.json && parser.isSet(kJsonOption);
        s.members = command.jsonMembers;
        Invocation invocation(command, parser.positionalArguments(), values, s.json);
        status = command.run(invocation);
    }
    if (s.json)
        printJsonDocument(status);
    out().flush();
    err().flush();
    return status;
}

} // namespace

// --- invocation --------------------------------------------------------------------

Invocation::Invocation(const Command& command, QStringList positional, QList<QStringList> values,
                       bool json)
    : m_command(command), m_positional(std::move(positional)), m_values(std::move(values)),
      m_json(json) {}

int Invocation::indexOf(const QString& name) const {
    for (qsizetype i = 0; i < m_command.options.size(); ++i) {
        if (m_command.options.at(i).names.contains(name))
            return int(i);
    }
    return -1;
}

bool Invocation::isSet(const QString& name) const {
    const int i = indexOf(name);
    return i >= 0 && !m_values.at(i).isEmpty();
}

QString Invocation::value(const QString& name) const {
    const int i = indexOf(name);
    return i >= 0 && !m_values.at(i).isEmpty() ? m_values.at(i).constLast() : QString();
}

QStringList Invocation::values(const QString& name) const {
    const int i = indexOf(name);
    return i >= 0 ? m_values.at(i) : QStringList();
}

// --- output --------------------------------------------------------------------------

QString movieIDOption(const Invocation& run) {
    bool ok = false;
    const qulonglong id = run.value(QStringLiteral("id")).trimmed().toULongLong(&ok);
    return ok && id > 0 ? QString::number(id) : QString();
}

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
    out().flush();
    const auto it = registry().find(command);
    err() << "tarnwick-cli" << (it != registry().end() ? QLatin1Char(' ') + command : QString())
          << ": " << message;
    // One line: "(usage: tarnwick-cli settings list | get KEY | ...; ...)".
    if (it != registry().end()) {
        QStringList forms;
        for (const QString& line : it->second.synopsis)
            forms << (forms.isEmpty() ? line : line.mid(command.size() + 1));
        err() << " (usage: tarnwick-cli " << forms.join(QStringLiteral(" | "))
              << "; tarnwick-cli help " << command << " explains it)";
    }
    err() << Qt::endl;
    noteError(message);
    return kExitUsage;
}

int failure(const QString& message) {
    out().flush();
    err() << "tarnwick-cli: " << message << Qt::endl;
    noteError(message);
    return kExitFailure;
}

void warning(const QString& message) {
    err() << "tarnwick-cli: " << message << Qt::endl;
    state().warnings.append(message);
}

bool jsonOutput() {
    return state().json;
}

void setJsonMember(const QString& key, const QJsonValue& value) {
    state().members.insert(key, value);
}

QString commandHelp(const QString& name) {
    const auto it = registry().find(name);
    return it == registry().end() ? QString() : helpText(it->second);
}

QStringList commandNames() {
    QStringList names;
    for (const auto& [name, command] : registry())
        names << name;
    return names;
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
    if (name == QLatin1String("--help") || name == QLatin1String("-h") ||
        name == QLatin1String("help")) {
        if (name == QLatin1String("help") && args.size() > 1) {
            const QString help = commandHelp(args.at(1));
            if (help.isEmpty() || args.size() > 2) {
                err() << "tarnwick-cli help: "
                      << (help.isEmpty() ? QStringLiteral("unknown command '%1'").arg(args.at(1))
                                         : QStringLiteral("one command at a time"))
                      << "; try tarnwick-cli --help" << Qt::endl;
                return kExitUsage;
            }
            out() << help;
            out().flush();
            return kExitOk;
        }
        printOverview(out());
        return kExitOk;
    }
    const auto it = registry().find(name);
    if (it == registry().end()) {
        err() << "tarnwick-cli: unknown command '" << name << "'; try tarnwick-cli --help"
              << Qt::endl;
        return kExitUsage;
    }
    return runCommand(it->second, args.mid(1));
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
