#pragma once

#include <QString>
#include <QStringList>
#include <QTextStream>

#include <functional>

namespace cli {

// Exit statuses shared by every command.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// A subcommand: `tarnwick-cli NAME ARGS...`. `run` gets the arguments after NAME.
struct Command {
    QString name;
    QString usage; // one line, shown by --help and in usage errors
    std::function<int(const QStringList& args)> run;
};

// Each command file registers itself with a static CommandRegistration.
void registerCommand(Command command);
struct CommandRegistration {
    explicit CommandRegistration(Command command) { registerCommand(std::move(command)); }
};

QTextStream& out();
QTextStream& err();

// Prints "tarnwick-cli: MESSAGE" and the command's usage; answers kExitUsage.
int usageError(const QString& command, const QString& message);

// Prints "tarnwick-cli: MESSAGE" on standard error; answers kExitFailure.
int failure(const QString& message);

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

} // namespace cli
