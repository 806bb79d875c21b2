#pragma once

// Pieces every long-running command shares: a progress line on stderr, the
// Ctrl-C / SIGTERM watch, questions on the terminal, and settings that hold
// for one run only.

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <initializer_list>
#include <optional>
#include <vector>

#include <signal.h>

class QSocketNotifier;

namespace cli {

// One line of progress on stderr. On a terminal it is redrawn in place (cut
// to the terminal's width so it never wraps); otherwise every change is a
// line of its own, and percentages only every `plainStep` percent, so a log
// stays readable.
class ProgressLine {
public:
    explicit ProgressLine(bool terminal, double plainStep = 5.0);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    bool terminal() const { return m_terminal; }

    // A status text; nothing happens when it did not change.
    void show(const QString& line);
    // "PREFIX  [#####-----]  45.2 %  SUFFIX" on a terminal. Without one,
    // "PREFIX  45.2 %  SUFFIX" is printed when the prefix changes or the
    // percentage moved by at least the step (or reached 100) since the last
    // printed line.
    void showProgress(const QString& prefix, double percent, const QString& suffix = QString());
    // A line of its own that stays (a warning, a question); the progress is
    // drawn again below it by the next update.
    void message(const QString& text);
    // Clears the line on a terminal.
    void finish();

    // "[#####-----]" for 0..100 percent.
    static QString bar(double percent, int width = 10);

private:
    void draw(const QString& text);

    bool m_terminal;
    double m_plainStep;
    bool m_open = false;
    QString m_last;
    QString m_lastPrefix;
    double m_lastPercent = -1;
};

// Turns SIGINT and SIGTERM (or the given signals) into a Qt signal on the
// main thread, for as long as it lives; the previous handlers come back when
// it goes. The handlers do not restart interrupted system calls, so a pending
// read of an answer on the terminal ends too, and they end every pending
// network request at once (HttpClient::interruptAll).
class InterruptWatcher : public QObject {
    Q_OBJECT
public:
    explicit InterruptWatcher(std::initializer_list<int> watched = {SIGINT, SIGTERM},
                              QObject* parent = nullptr);
    ~InterruptWatcher() override;

    // The first signal received (0: none) and how many arrived.
    int firstSignal() const { return m_first; }
    int count() const { return m_count; }
    // Async-signal-safe view of the same, for code that cannot wait for the
    // event loop (a blocking read).
    static bool pending();
    // Takes in signals that arrived while no event loop ran.
    void poll() { drain(); }
    // 128 + the first signal, as a shell reports a death by it.
    int exitStatus() const { return m_first ? 128 + m_first : 0; }

signals:
    // Once per signal received; `count` counts from 1.
    void interrupted(int signal, int count);

private:
    void drain();

    std::vector<int> m_signals;
    std::vector<struct sigaction> m_previous;
    QSocketNotifier* m_notifier = nullptr;
    int m_first = 0;
    int m_count = 0;
};

// Both stdin and stderr are a terminal: a question can be asked and answered.
bool interactive();
bool stderrIsTerminal();

// Asks QUESTION [y/N] on stderr and reads the answer from stdin; only "y" or
// "yes" (any case) counts as yes; end of input or an interrupt as no.
bool askYesNo(const QString& question);
// Reads one line from stdin; none at end of input or on an interrupt.
std::optional<QString> readAnswer();

// Settings changed for this run only: each key's stored state is kept the
// first time it is set here, and put back (the user value, or no user value)
// when this goes or restore() is called, before the store is written at exit.
class RunSettings {
public:
    RunSettings() = default;
    ~RunSettings() { restore(); }
    RunSettings(const RunSettings&) = delete;
    RunSettings& operator=(const RunSettings&) = delete;

    void set(const QString& key, const QVariant& value);
    void restore();

private:
    struct Saved {
        QString key;
        bool had = false;
        QVariant value;
    };
    std::vector<Saved> m_saved;
};

} // namespace cli
