#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTextStream>

#include <functional>

namespace cli {

// Exit statuses shared by every command (the README lists them).
inline constexpr int kExitOk = 0;            // all done
inline constexpr int kExitFailure = 1;       // some source (file, lookup, write) failed
inline constexpr int kExitUsage = 2;         // bad command line
inline constexpr int kExitInterrupted = 130; // Ctrl-C (128 + SIGINT; SIGTERM gives 143)

// One option of a command, for the parser and the help: long names without
// dashes ("dest"), a one-letter name where there is one ("y" beside "yes").
struct Option {
    QStringList names;
    QString valueName; // empty for a switch
    QString description;
};

// A positional argument, for the help only.
struct Argument {
    QString name;
    QString description;
};

class Invocation;

// A subcommand: `tarnwick-cli NAME ARGS...`, parsed by one parser for all
// commands (QCommandLineParser): `--opt value` and `--opt=value`, `-h` and
// `--help` on every command, `--` ends the options.
struct Command {
    QString name;
    QStringList synopsis; // usage lines after "tarnwick-cli ", such as "scan SOURCE... [options]"
    QString summary;      // one line for the overview
    QString description;  // what it does, for its help
    QList<Argument> arguments;
    QList<Option> options;
    bool json = false;  // takes --json: one JSON document on standard output
    QString exitStatus; // what 0 and 1 mean for it, when it says more than the common words
    std::function<int(Invocation&)> run;
    // The command's members of its JSON document before it sets them, so a
    // run that ends early still prints every member ("items": [], "match": null...).
    QJsonObject jsonMembers = {};
};

// Each command file registers itself with a static CommandRegistration.
void registerCommand(Command command);
struct CommandRegistration {
    explicit CommandRegistration(Command command) { registerCommand(std::move(command)); }
};

// One parsed run of a command.
class Invocation {
public:
    Invocation(const Command& command, QStringList positional, QList<QStringList> values,
               bool json);

    const Command& command() const { return m_command; }
    const QStringList& positional() const { return m_positional; }
    bool isSet(const QString& name) const;
    // The last value given for an option; empty when it was not given.
    QString value(const QString& name) const;
    QStringList values(const QString& name) const;
    bool json() const { return m_json; }

private:
    int indexOf(const QString& name) const;

    const Command& m_command;
    QStringList m_positional;
    QList<QStringList> m_values; // parallel to the command's options
    bool m_json;
};

QTextStream& out();
QTextStream& err();

// The movie database id given with --id, without leading zeros; empty when
// it is no positive number.
QString movieIDOption(const Invocation& run);

// Prints "tarnwick-cli COMMAND: MESSAGE (usage: ...)" as one line on
// standard error; answers kExitUsage. With --json the message is the
// document's "error".
int usageError(const QString& command, const QString& message);

// Prints "tarnwick-cli: MESSAGE" on standard error; answers kExitFailure.
// With --json the first such message is the document's "error".
int failure(const QString& message);

// A warning that belongs to the run rather than to one item: "tarnwick-cli:
// MESSAGE" on standard error, and the document's "warnings" with --json.
void warning(const QString& message);

// --- the JSON document of a --json run --------------------------------------
// Every --json run prints exactly one object on standard output when the
// command ends, whatever happened:
//   {"command": NAME, "exitStatus": N, "error": null | MESSAGE,
//    "warnings": [...], ...the members the command set}
bool jsonOutput();
void setJsonMember(const QString& key, const QJsonValue& value);

// The program's start-up for a command (settings, scratch folder, presets),
// undone when the command ends: the scratch folder goes with it.
class StartupScope {
public:
    StartupScope() = default;
    ~StartupScope();
    StartupScope(const StartupScope&) = delete;
    StartupScope& operator=(const StartupScope&) = delete;
    // False with the reason when start-up failed (nothing to undo then).
    bool begin(QString* error);

private:
    bool m_started = false;
};

// Runs one command line (element 0 is the program) and answers its exit status.
int run(const QStringList& arguments);

// The help of one command, as `tarnwick-cli help NAME` prints it; empty for
// an unknown name.
QString commandHelp(const QString& name);
QStringList commandNames();

} // namespace cli
