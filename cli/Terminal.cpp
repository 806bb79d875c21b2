#include "cli/Terminal.h"

#include "cli/Commands.h"
#include "core/HttpClient.h"
#include "core/UserDefaults.h"

#include <QSocketNotifier>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace cli {

// --- progress line ---------------------------------------------------------------

namespace {

int terminalWidth() {
    struct winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

QString percentText(double percent) {
    return QString::number(percent, 'f', 1) + QStringLiteral(" %");
}

} // namespace

ProgressLine::ProgressLine(bool terminal, double plainStep)
    : m_terminal(terminal), m_plainStep(plainStep) {}

ProgressLine::~ProgressLine() {
    finish();
}

QString ProgressLine::bar(double percent, int width) {
    const double clamped = std::clamp(percent, 0.0, 100.0);
    const int filled = int(std::lround(clamped / 100.0 * width));
    return u'[' + QString(filled, u'#') + QString(width - filled, u'-') + u']';
}

void ProgressLine::draw(const QString& text) {
    if (text == m_last)
        return;
    m_last = text;
    if (m_terminal) {
        // One column short of the width: a full line would wrap on some terminals.
        const int width = terminalWidth() - 1;
        const QString shown = text.size() > width ? text.left(std::max(width, 0)) : text;
        err() << "\r\033[K" << shown << Qt::flush;
        m_open = true;
    } else {
        err() << text << Qt::endl;
    }
}

void ProgressLine::show(const QString& line) {
    if (line.isEmpty())
        return;
    m_lastPrefix.clear();
    m_lastPercent = -1;
    draw(line);
}

void ProgressLine::showProgress(const QString& prefix, double percent, const QString& suffix) {
    QString tail;
    if (m_terminal) {
        tail = QStringLiteral("  ") + bar(percent) + QStringLiteral("  ") + percentText(percent);
    } else {
        const bool samePhase = prefix == m_lastPrefix;
        const bool stepped =
            percent >= m_lastPercent + m_plainStep || (percent >= 100.0 && m_lastPercent < 100.0);
        if (samePhase && !stepped)
            return;
        tail = QStringLiteral("  ") + percentText(percent);
    }
    if (!suffix.isEmpty())
        tail += QStringLiteral("  ") + suffix;
    QString head = prefix;
    if (m_terminal) {
        // A long name gives way before the bar and the numbers do.
        const qsizetype room = terminalWidth() - 1 - tail.size();
        if (head.size() > room && room > 1)
            head = head.left(room - 1) + QChar(0x2026);
    }
    m_lastPrefix = prefix;
    m_lastPercent = percent;
    draw(head + tail);
}

void ProgressLine::message(const QString& text) {
    if (m_open) {
        err() << "\r\033[K";
        // The progress is drawn again below by its next update, even if unchanged.
        m_last.clear();
        m_lastPrefix.clear();
        m_lastPercent = -1;
    }
    err() << text << Qt::endl;
    m_open = false;
}

void ProgressLine::finish() {
    if (!m_open)
        return;
    err() << "\r\033[K" << Qt::flush;
    m_open = false;
    m_last.clear();
    m_lastPrefix.clear();
    m_lastPercent = -1;
}

// --- interrupts ------------------------------------------------------------------

namespace {

int g_pipe[2] = {-1, -1};
std::atomic<bool> g_pending{false};

void onSignal(int sig) {
    const int saved = errno;
    g_pending = true;
    // A pending request of the movie database ends at once, on any thread.
    HttpClient::interruptAll();
    const unsigned char byte = static_cast<unsigned char>(sig);
    if (g_pipe[1] >= 0) {
        const ssize_t written = ::write(g_pipe[1], &byte, 1);
        (void)written;
    }
    errno = saved;
}

} // namespace

InterruptWatcher::InterruptWatcher(std::initializer_list<int> watched, QObject* parent)
    : QObject(parent), m_signals(watched) {
    g_pending = false;
    HttpClient::clearInterrupt();
    if (g_pipe[0] < 0 && ::pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        g_pipe[0] = g_pipe[1] = -1;
    if (g_pipe[0] >= 0) {
        m_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &InterruptWatcher::drain);
    }
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int sig : m_signals) {
        struct sigaction previous = {};
        sigaction(sig, &action, &previous);
        m_previous.push_back(previous);
    }
}

InterruptWatcher::~InterruptWatcher() {
    for (size_t i = 0; i < m_signals.size(); ++i)
        sigaction(m_signals[i], &m_previous[i], nullptr);
}

bool InterruptWatcher::pending() {
    return g_pending;
}

void InterruptWatcher::drain() {
    unsigned char byte = 0;
    while (::read(g_pipe[0], &byte, 1) == 1) {
        ++m_count;
        if (!m_first)
            m_first = byte;
        emit interrupted(byte, m_count);
    }
}

// --- questions -------------------------------------------------------------------

bool stderrIsTerminal() {
    return isatty(STDERR_FILENO);
}

bool interactive() {
    return isatty(STDIN_FILENO) && isatty(STDERR_FILENO);
}

std::optional<QString> readAnswer() {
    std::string line;
    if (!std::getline(std::cin, line) || InterruptWatcher::pending()) {
        std::cin.clear();
        return std::nullopt;
    }
    return QString::fromStdString(line);
}

bool askYesNo(const QString& question) {
    err() << question << " [y/N] " << Qt::flush;
    const std::optional<QString> answer = readAnswer();
    if (!answer) {
        err() << Qt::endl;
        return false;
    }
    const QString a = answer->trimmed().toLower();
    return a == QLatin1String("y") || a == QLatin1String("yes");
}

// --- settings for one run ----------------------------------------------------------

void RunSettings::set(const QString& key, const QVariant& value) {
    UserDefaults& defaults = UserDefaults::standard();
    bool known = false;
    for (const Saved& s : m_saved)
        known = known || s.key == key;
    if (!known)
        m_saved.push_back({key, defaults.hasUserValue(key), defaults.objectForKey(key)});
    defaults.setObject(value, key);
}

void RunSettings::restore() {
    UserDefaults& defaults = UserDefaults::standard();
    // Last set first, so the oldest state wins for a key.
    for (auto it = m_saved.rbegin(); it != m_saved.rend(); ++it) {
        if (it->had)
            defaults.setObject(it->value, it->key);
        else
            defaults.removeObject(it->key);
    }
    m_saved.clear();
}

} // namespace cli
