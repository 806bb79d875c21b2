#include "ScanRelay.h"

#include "JsonView.h"
#include "ScanReport.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_scanPid = 0;
// When we were asked to end (seconds of the monotonic clock), 0 before.
volatile sig_atomic_t g_endRequested = 0;

// A scan asked to end gets this long to do so before it is killed.
constexpr int kEndGraceSeconds = 3;

long monotonicSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return long(now.tv_sec);
}

void forwardSignal(int sig) {
    const int saved = errno;
    if (g_scanPid > 0)
        ::kill(g_scanPid, sig);
    if (sig != SIGCONT && g_endRequested == 0)
        g_endRequested = sig_atomic_t(monotonicSeconds() + 1);
    errno = saved;
}

int removeEntry(const char* path, const struct stat*, int, FTW*) {
    ::remove(path);
    return 0;
}

// HandBrakeCLI keeps its previews in "hb.<pid>" in the temporary folder and
// removes it only when it ends normally.
void removeEncoderTemp(pid_t pid) {
    const char* base = std::getenv("TMPDIR");
    if (!base || !*base)
        base = std::getenv("TEMP");
    if (!base || !*base)
        base = "/tmp";
    const std::string folder = std::string(base) + "/hb." + std::to_string(int(pid));
    ::nftw(folder.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void installForwarding() {
    struct sigaction sa {};
    sa.sa_handler = forwardSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCONT})
        ::sigaction(sig, &sa, nullptr);
}

char processState(pid_t pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", int(pid));
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    char buf[512];
    const ssize_t n = ::read(fd, buf, sizeof buf - 1);
    ::close(fd);
    if (n <= 0)
        return 0;
    buf[n] = 0;
    // The command name may hold blanks and parentheses: the state follows the last ")".
    const char* close = std::strrchr(buf, ')');
    return close && close[1] == ' ' ? close[2] : 0;
}

// SIGSTOP cannot be caught, so a small watcher process mirrors our stopped
// state onto the scan; it ends as soon as we are gone.
pid_t startStopWatcher(pid_t scanPid) {
    const pid_t self = ::getpid();
    const pid_t watcher = ::fork();
    if (watcher != 0)
        return watcher;
    // Holding our output streams open would delay end-of-file for our reader.
    const int devNull = ::open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd)
        ::dup2(devNull, fd);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCONT})
        ::signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    bool stopped = false;
    while (::getppid() == self) {
        const bool parentStopped = processState(self) == 'T';
        if (parentStopped != stopped) {
            ::kill(scanPid, parentStopped ? SIGSTOP : SIGCONT);
            stopped = parentStopped;
        }
        ::usleep(50 * 1000);
    }
    if (stopped)
        ::kill(scanPid, SIGCONT);
    ::_exit(0);
}

// Splits a byte stream into lines; carriage returns count as line ends
// because HandBrakeCLI redraws progress with them.
class LineSplitter {
public:
    template <typename F> void feed(const char* data, ssize_t n, F&& onLine) {
        for (ssize_t i = 0; i < n; ++i) {
            const char c = data[i];
            if (c == '\n' || c == '\r') {
                if (!m_line.empty())
                    onLine(m_line);
                m_line.clear();
            } else {
                m_line += c;
            }
        }
    }
    template <typename F> void finish(F&& onLine) {
        if (!m_line.empty())
            onLine(m_line);
        m_line.clear();
    }

private:
    std::string m_line;
};

class OutputSorter {
public:
    explicit OutputSorter(ScanOutcome& outcome) : m_outcome(outcome) {}

    // HandBrakeCLI's standard output: JSON blocks among library messages.
    void stdoutLine(const std::string& line) {
        if (!m_blockKind.empty()) {
            if (line == "}") {
                m_block += line;
                finishBlock();
            } else if (line.front() == ' ' || line.front() == '\t' || line.front() == ']') {
                m_block += line;
                m_block += '\n';
            } else {
                // A library message printed by another thread in mid-block.
                relay(line);
            }
            return;
        }
        static const char* const kinds[] = {"Version", "Progress", "JSON Title Set"};
        for (const char* kind : kinds) {
            const std::string prefix = std::string(kind) + ": {";
            if (line.starts_with(prefix)) {
                m_blockKind = kind;
                m_block = line.substr(prefix.size() - 1) + '\n';
                if (line.ends_with('}')) {
                    if (auto object = parseJson(m_block); object && object->is_object())
                        finishBlock(std::move(*object));
                }
                return;
            }
        }
        relay(line);
    }

    void stderrLine(const std::string& line) {
        // The verdict and the farewell come at the end of our own report.
        if (line == "HandBrake has exited." || line == "No title found.")
            return;
        relay(line);
    }

private:
    void relay(const std::string& line) {
        static constexpr std::string_view kDvdMarker = "libdvdnav: DVD disk reports";
        const std::size_t marker = line.find(kDvdMarker);
        if (marker != std::string::npos && m_outcome.dvdMarker.empty())
            m_outcome.dvdMarker = asciiOnly(std::string_view(line).substr(marker));
        std::string clean = asciiOnly(line);
        while (!clean.empty() && (clean.back() == ' ' || clean.back() == '\t'))
            clean.pop_back();
        if (!clean.empty()) {
            clean += '\n';
            writeAll(STDERR_FILENO, clean);
        }
    }

    void finishBlock() {
        std::optional<nlohmann::json> object = parseJson(m_block);
        // Anything but an object, malformed text included, counts as empty.
        finishBlock(object && object->is_object() ? std::move(*object) : nlohmann::json());
    }

    void finishBlock(nlohmann::json object) {
        if (m_blockKind == "JSON Title Set")
            m_outcome.titleSet = std::move(object);
        else if (m_blockKind == "Progress")
            progress(object);
        m_blockKind.clear();
        m_block.clear();
    }

    void progress(JsonView state) {
        if (state["State"].toString() != "SCANNING")
            return;
        const JsonView s = state["Scanning"];
        const std::string line = "Scanning title " + std::to_string(s["Title"].toInt()) + " of " +
                                 std::to_string(s["TitleCount"].toInt()) + ", preview " +
                                 std::to_string(s["Preview"].toInt()) + ", " +
                                 fixedPoint(s["Progress"].toDouble() * 100.0, 2) + " %\n";
        if (line != m_lastProgress)
            writeAll(STDERR_FILENO, line);
        m_lastProgress = line;
    }

    ScanOutcome& m_outcome;
    std::string m_blockKind;
    std::string m_block;
    std::string m_lastProgress;
};

} // namespace

void writeAll(int fd, std::string_view bytes) {
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, size_t(left));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        p += n;
        left -= std::size_t(n);
    }
}

std::string asciiOnly(std::string_view line) {
    std::string out;
    out.reserve(line.size());
    for (char c : line) {
        const auto u = static_cast<unsigned char>(c);
        if (u >= 0x80)
            out += '?';
        else if (u >= 0x20 || c == '\t')
            out += c;
    }
    return out;
}

ScanOutcome runScan(const std::vector<std::string>& args) {
    ScanOutcome outcome;

    // In JSON mode HandBrakeCLI buffers its standard output unless it is a
    // terminal, and its scan progress would only arrive at the end.
    int master = -1, slave = -1;
    struct termios raw {};
    cfmakeraw(&raw);
    if (::openpty(&master, &slave, nullptr, &raw, nullptr) != 0) {
        std::perror("Tarnwick_Pro_Encoder: openpty");
        return outcome;
    }
    int errPipe[2];
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        std::perror("Tarnwick_Pro_Encoder: pipe");
        return outcome;
    }
    ::fcntl(master, F_SETFD, FD_CLOEXEC);

    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    // A reader that has gone (our parent killed) must not end us before the
    // scan and its temporary folder are gone: writes then simply fail.
    ::signal(SIGPIPE, SIG_IGN);

    // Signals sent before the child exists are held until it can receive them.
    sigset_t block, previous;
    sigemptyset(&block);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCONT})
        sigaddset(&block, sig);
    ::sigprocmask(SIG_BLOCK, &block, &previous);

    // No input for the scan: HandBrakeCLI waits on its standard input between
    // status checks, and an idle pipe or terminal there delays the end of
    // every scan by up to a tenth of a second.
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t self = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The scan must not outlive us, however we end.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != self)
            ::_exit(127);
        ::signal(SIGPIPE, SIG_DFL);
        ::sigprocmask(SIG_SETMASK, &previous, nullptr);
        if (devNull >= 0)
            ::dup2(devNull, STDIN_FILENO);
        ::dup2(slave, STDOUT_FILENO);
        ::dup2(errPipe[1], STDERR_FILENO);
        ::close(slave);
        ::execv(argv[0], argv.data());
        const std::string msg =
            "Tarnwick_Pro_Encoder: cannot run " + args.front() + ": " + std::strerror(errno) + '\n';
        writeAll(STDERR_FILENO, msg);
        ::_exit(127);
    }
    ::close(slave);
    ::close(errPipe[1]);
    if (devNull >= 0)
        ::close(devNull);
    if (pid < 0) {
        ::sigprocmask(SIG_SETMASK, &previous, nullptr);
        std::perror("Tarnwick_Pro_Encoder: fork");
        ::close(master);
        ::close(errPipe[0]);
        return outcome;
    }
    outcome.started = true;
    g_scanPid = pid;
    installForwarding();
    const pid_t watcher = startStopWatcher(pid);
    ::sigprocmask(SIG_SETMASK, &previous, nullptr);

    OutputSorter sorter(outcome);
    LineSplitter outLines, errLines;
    auto onOut = [&](const std::string& l) { sorter.stdoutLine(l); };
    auto onErr = [&](const std::string& l) { sorter.stderrLine(l); };
    bool outOpen = true, errOpen = true;
    char buf[16384];
    while (outOpen || errOpen) {
        pollfd fds[2] = {{outOpen ? master : -1, POLLIN, 0},
                         {errOpen ? errPipe[0] : -1, POLLIN, 0}};
        // Once asked to end, the scan gets a grace period, then is killed.
        const long endAt = g_endRequested;
        if (endAt != 0 && monotonicSeconds() - endAt >= kEndGraceSeconds)
            ::kill(pid, SIGKILL);
        if (::poll(fds, 2, endAt != 0 ? 250 : -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (outOpen && fds[0].revents) {
            const ssize_t n = ::read(master, buf, sizeof buf);
            if (n > 0) {
                outLines.feed(buf, n, onOut);
            } else if (n == 0 || errno != EINTR) {
                // A terminal master reports EIO once the last writer has gone.
                outLines.finish(onOut);
                outOpen = false;
            }
        }
        if (errOpen && fds[1].revents) {
            const ssize_t n = ::read(errPipe[0], buf, sizeof buf);
            if (n > 0) {
                errLines.feed(buf, n, onErr);
            } else if (n == 0 || errno != EINTR) {
                errLines.finish(onErr);
                errOpen = false;
            }
        }
    }
    ::close(master);
    ::close(errPipe[0]);

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    g_scanPid = 0;
    removeEncoderTemp(pid);
    outcome.waitStatus = status;
    if (watcher > 0) {
        ::kill(watcher, SIGKILL);
        while (::waitpid(watcher, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    return outcome;
}
