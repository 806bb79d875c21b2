#include "core/AMShellWrapper.h"

#include "core/ChildSpawn.h"

#include <QFile>
#include <QFileInfo>
#include <QMetaObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<bool> g_forcePolling{false};

constexpr int kPollIntervalMs = 20;  // waitpid polling when pidfd_open is unavailable
constexpr size_t kReadChunk = 65536; // one background read

// Like Qt's own QProcess: a write to a pipe whose reader has gone must report
// EPIPE, not kill the application.
void ignoreSigpipeOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction old {};
        if (sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
            struct sigaction ign {};
            ign.sa_handler = SIG_IGN;
            sigemptyset(&ign.sa_mask);
            sigaction(SIGPIPE, &ign, nullptr);
        }
    });
}

int openPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
    if (g_forcePolling.load())
        return -1;
    const long fd = syscall(SYS_pidfd_open, pid, 0);
    if (fd >= 0)
        fcntl(int(fd), F_SETFD, FD_CLOEXEC);
    return int(fd);
#else
    Q_UNUSED(pid);
    return -1;
#endif
}

void closeFd(int& fd) {
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

void setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// The status a shell gives a command it could not run.
int launchFailureStatus(int error) {
    return error == ENOENT || error == ENOTDIR ? 127 : 126;
}

int statusFromWait(int st) {
    if (WIFEXITED(st))
        return WEXITSTATUS(st);
    if (WIFSIGNALED(st))
        return 128 + WTERMSIG(st);
    return -1;
}

} // namespace

// --- AMShellWrapper ----------------------------------------------------------

AMShellWrapper::AMShellWrapper(AMShellWrapperController* controller, int inputPipe, int outputPipe,
                               int errorPipe, const QString& workingDirectory,
                               const std::optional<Environment>& environment,
                               const QStringList& arguments, QObject* parent)
    : QObject(parent), m_controller(controller), m_workingDirectory(workingDirectory),
      m_environment(environment), m_arguments(arguments), m_stdinPipe(inputPipe),
      m_stdoutPipe(outputPipe), m_stderrPipe(errorPipe) {}

AMShellWrapper::AMShellWrapper(AMShellWrapperController* controller,
                               const QString& workingDirectory, const QStringList& arguments,
                               QObject* parent)
    : AMShellWrapper(controller, -1, -1, -1, workingDirectory, std::nullopt, arguments, parent) {}

AMShellWrapper::~AMShellWrapper() {
    if (m_pidNotifier)
        m_pidNotifier->setEnabled(false);
    if (m_out.notifier)
        m_out.notifier->setEnabled(false);
    if (m_err.notifier)
        m_err.notifier->setEnabled(false);
    if (m_stdinNotifier)
        m_stdinNotifier->setEnabled(false);
    if (m_pid > 0 && !m_taskDidTerminate) {
        // Destroyed while the child runs: end it and reap it, silently.
        signalChild(SIGKILL);
        int st = 0;
        while (waitpid(m_pid, &st, 0) < 0 && errno == EINTR) {
        }
        m_taskDidTerminate = true;
    }
    closeInput();
    closeOutput(m_out);
    closeOutput(m_err);
    closeFd(m_pidfd);
}

void AMShellWrapper::setForcePollingForTesting(bool force) {
    g_forcePolling.store(force);
}

int AMShellWrapper::createPipe(int fds[2], StandardStream) {
    return pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno;
}

void AMShellWrapper::reportPipeFailure(const char* what, int err) {
    // The system error line: message text, then the system's description.
    std::fprintf(stderr, "AMShellWrapper - failed to create pipe for %s: %s\n", what,
                 std::strerror(err));
    std::fflush(stderr);
}

void AMShellWrapper::startProcess() {
    if (m_started)
        return;
    m_started = true;
    if (thread() != QThread::currentThread())
        qWarning("AMShellWrapper::startProcess called outside the runner's thread");

    {
        QPointer<AMShellWrapper> self(this);
        if (m_controller)
            m_controller->processStarted(this);
        if (!self)
            return;
    }
    ignoreSigpipeOnce();

    int childIn = -1, childOut = -1, childErr = -1; // what the child gets
    int ownChildEnds[3] = {-1, -1, -1};             // child ends we made and close after fork
    bool failed = false;

    // Standard input.
    if (m_stdinPipe >= 0) {
        childIn = m_stdinPipe;
    } else {
        int fds[2] = {-1, -1};
        if (const int e = createPipe(fds, StdIn)) {
            reportPipeFailure("stdIn", e);
            failed = true;
        } else {
            childIn = ownChildEnds[0] = fds[0];
            m_stdinHandle = fds[1];
            setNonBlocking(m_stdinHandle);
        }
    }
    // Standard output.
    if (m_stdoutPipe >= 0) {
        childOut = m_stdoutPipe;
    } else {
        int fds[2] = {-1, -1};
        if (const int e = createPipe(fds, StdOut)) {
            reportPipeFailure("stdOut", e);
            failed = true;
        } else {
            m_out.fd = fds[0];
            m_out.ownFd = true;
            childOut = ownChildEnds[1] = fds[1];
            setNonBlocking(m_out.fd);
        }
    }
    // Standard error.
    if (m_stderrPipe >= 0) {
        childErr = m_stderrPipe;
    } else {
        int fds[2] = {-1, -1};
        if (const int e = createPipe(fds, StdErr)) {
            reportPipeFailure("stdErr", e);
            failed = true;
        } else {
            m_err.fd = fds[0];
            m_err.ownFd = true;
            childErr = ownChildEnds[2] = fds[1];
            setNonBlocking(m_err.fd);
        }
    }
    auto closeChildEnds = [&] {
        for (int& fd : ownChildEnds)
            closeFd(fd);
    };
    if (failed) {
        closeChildEnds();
        scheduleCleanup();
        return;
    }

    const QString program = m_arguments.value(0);
    if (program.isEmpty()) {
        closeChildEnds();
        m_launchFailure = QStringLiteral("cannot run: no executable given\n");
        scheduleCleanup();
        return;
    }
    const QByteArray path = QFile::encodeName(QFileInfo(program).absoluteFilePath());
    std::vector<QByteArray> argBytes;
    argBytes.reserve(m_arguments.size());
    for (const QString& a : m_arguments)
        argBytes.push_back(a.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& a : argBytes)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<QByteArray> envBytes;
    std::vector<char*> envp;
    char* const* envArray = environ;
    if (m_environment) {
        for (auto it = m_environment->cbegin(); it != m_environment->cend(); ++it)
            envBytes.push_back(it.key().toLocal8Bit() + '=' + it.value().toLocal8Bit());
        for (QByteArray& e : envBytes)
            envp.push_back(e.data());
        envp.push_back(nullptr);
        envArray = envp.data();
    }
    const QByteArray cwd =
        m_workingDirectory.isEmpty() ? QByteArray() : QFile::encodeName(m_workingDirectory);

    const int streams[3] = {childIn, childOut, childErr};
    const char* dir = cwd.isEmpty() ? nullptr : cwd.constData();
    // The spawn's one error number cannot tell a bad working folder from a bad program: the
    // folder is checked first.
    int chdirError = 0;
    if (dir) {
        struct stat st {};
        if (::stat(dir, &st) != 0)
            chdirError = errno;
        else if (!S_ISDIR(st.st_mode))
            chdirError = ENOTDIR;
        else if (::access(dir, X_OK) != 0)
            chdirError = errno;
    }
    pid_t pid = -1;
    const int spawnError =
        chdirError ? 0 : spawnChild(&pid, path.constData(), argv.data(), envArray, dir, streams);
    closeChildEnds();
    if (chdirError || spawnError) {
        // No child: the run ends as a shell's would, with 127 or 126.
        const int error = chdirError ? chdirError : spawnError;
        const QString reason = QString::fromLocal8Bit(std::strerror(error));
        m_launchFailure = chdirError ? QStringLiteral("cannot change directory to %1: %2\n")
                                           .arg(m_workingDirectory, reason)
                                     : QStringLiteral("cannot run %1: %2\n").arg(program, reason);
        m_status = launchFailureStatus(error);
        m_taskDidTerminate = true;
    } else {
        setpgid(pid, pid); // also done in the child; whichever comes first wins the race
        m_pid = pid;
    }

    // A caller-supplied output descriptor is not read by the runner: that
    // stream counts as ended.
    m_out.empty = m_out.fd < 0;
    m_err.empty = m_err.fd < 0;
    if (m_out.fd >= 0) {
        m_out.notifier = new QSocketNotifier(m_out.fd, QSocketNotifier::Read, this);
        connect(m_out.notifier, &QSocketNotifier::activated, this, [this] { getData(StdOut); });
    }
    if (m_err.fd >= 0) {
        m_err.notifier = new QSocketNotifier(m_err.fd, QSocketNotifier::Read, this);
        connect(m_err.notifier, &QSocketNotifier::activated, this, [this] { getData(StdErr); });
    }

    if (m_taskDidTerminate) {
        if (m_out.empty && m_err.empty)
            scheduleCleanup();
        return; // otherwise the last end-of-stream schedules it
    }
    m_pidfd = openPidfd(pid);
    if (m_pidfd >= 0) {
        m_pidNotifier = new QSocketNotifier(m_pidfd, QSocketNotifier::Read, this);
        connect(m_pidNotifier, &QSocketNotifier::activated, this, [this] { taskStopped(); });
    } else {
        m_pollTimer = new QTimer(this);
        m_pollTimer->setInterval(kPollIntervalMs);
        connect(m_pollTimer, &QTimer::timeout, this, [this] { taskStopped(); });
        m_pollTimer->start();
    }
}

void AMShellWrapper::signalChild(int sig) {
    if (m_pid <= 0 || m_taskDidTerminate)
        return; // not launched, or reaped (the pid may belong to someone else now)
    // The child's group; if the child has left it (and it is empty), the child.
    if (::kill(-m_pid, sig) != 0 && errno == ESRCH)
        ::kill(m_pid, sig);
}

void AMShellWrapper::stopProcess() {
    signalChild(SIGTERM);
}

void AMShellWrapper::suspendProcess() {
    signalChild(SIGSTOP);
}

void AMShellWrapper::resumeProcess() {
    signalChild(SIGCONT);
}

void AMShellWrapper::stdInput(const QString& text) {
    if (m_stdinHandle < 0)
        return;
    const std::optional<QByteArray> bytes =
        encodeText(m_inputStringEncoding, text, !m_inputWritten);
    if (!bytes)
        return;
    m_inputWritten = true;
    m_pendingInput += *bytes;
    writePendingInput();
}

void AMShellWrapper::writePendingInput() {
    while (!m_pendingInput.isEmpty() && m_stdinHandle >= 0) {
        const ssize_t n =
            ::write(m_stdinHandle, m_pendingInput.constData(), size_t(m_pendingInput.size()));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (!m_stdinNotifier) {
                    m_stdinNotifier =
                        new QSocketNotifier(m_stdinHandle, QSocketNotifier::Write, this);
                    connect(m_stdinNotifier, &QSocketNotifier::activated, this,
                            [this] { writePendingInput(); });
                }
                m_stdinNotifier->setEnabled(true);
                return;
            }
            closeInput(); // EPIPE: the child no longer reads its input
            return;
        }
        m_pendingInput.remove(0, n);
    }
    if (m_stdinNotifier)
        m_stdinNotifier->setEnabled(false);
}

void AMShellWrapper::closeInput() {
    if (m_stdinNotifier) {
        m_stdinNotifier->setEnabled(false);
        m_stdinNotifier->deleteLater();
        m_stdinNotifier = nullptr;
    }
    closeFd(m_stdinHandle);
    m_pendingInput.clear();
}

void AMShellWrapper::closeOutput(OutputStream& s) {
    if (s.notifier) {
        s.notifier->setEnabled(false);
        s.notifier->deleteLater();
        s.notifier = nullptr;
    }
    if (s.ownFd)
        closeFd(s.fd);
    s.fd = -1;
}

void AMShellWrapper::deliver(StandardStream which, const QByteArray& bytes) {
    if (which == StdOut)
        stdOutput(bytes);
    else
        stdError(bytes);
}

void AMShellWrapper::stdOutput(const QByteArray& bytes) {
    decodeAndPass(StdOut, bytes);
}

void AMShellWrapper::stdError(const QByteArray& bytes) {
    decodeAndPass(StdErr, bytes);
}

void AMShellWrapper::decodeAndPass(StandardStream which, const QByteArray& bytes) {
    OutputStream& s = which == StdOut ? m_out : m_err;
    QString text;
    if (!decodeChunk(m_outputStringEncoding, s.carry, bytes, text, s.byteOrder))
        return; // not valid in the output encoding: dropped without notice
    if (text.isEmpty() || !m_controller)
        return;
    if (which == StdOut)
        m_controller->stdOutput(text);
    else
        m_controller->stdError(text);
}

// `getData:` — one background read on one output stream.
void AMShellWrapper::getData(StandardStream which) {
    OutputStream& s = which == StdOut ? m_out : m_err;
    if (s.fd < 0 || s.empty)
        return;
    char buf[kReadChunk];
    ssize_t n;
    do
        n = ::read(s.fd, buf, sizeof buf);
    while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return; // spurious wake-up
    if (n > 0) {
        deliver(which, QByteArray(buf, n));
        return; // the notifier fires again while data is waiting
    }
    // End of stream (or a read error, taken as the end).
    s.empty = true;
    if (s.notifier)
        s.notifier->setEnabled(false);
    s.carry.clear(); // an incomplete character at the very end is dropped
    if (m_out.empty && m_err.empty && m_taskDidTerminate)
        scheduleCleanup();
}

bool AMShellWrapper::reapChild(bool block) {
    int st = 0;
    pid_t r;
    do
        r = waitpid(m_pid, &st, block ? 0 : WNOHANG);
    while (r < 0 && errno == EINTR);
    if (r == 0)
        return false;
    m_status = r == m_pid ? statusFromWait(st) : -1; // -1: reaped by someone else
    return true;
}

// `taskStopped:` — the child-termination notice.
void AMShellWrapper::taskStopped() {
    if (m_taskDidTerminate)
        return; // a second notice is ignored
    if (!reapChild(false))
        return;
    m_taskDidTerminate = true;
    if (m_pidNotifier)
        m_pidNotifier->setEnabled(false);
    if (m_pollTimer)
        m_pollTimer->stop();
    if (m_out.empty && m_err.empty)
        scheduleCleanup();
    // otherwise the last end-of-stream in getData schedules it
}

void AMShellWrapper::scheduleCleanup() {
    if (m_cleanupScheduled)
        return;
    m_cleanupScheduled = true;
    // A posted call to the runner itself: the finish callback then runs from
    // the event loop with no notifier of the runner on the stack, so the
    // controller may delete the runner in it; a runner destroyed before the
    // call simply drops it.
    QMetaObject::invokeMethod(
        this, [this] { cleanup(); }, Qt::QueuedConnection);
}

void AMShellWrapper::drain(StandardStream which) {
    OutputStream& s = which == StdOut ? m_out : m_err;
    if (s.fd < 0)
        return;
    char buf[kReadChunk];
    for (;;) {
        const ssize_t n = ::read(s.fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        QPointer<AMShellWrapper> self(this);
        deliver(which, QByteArray(buf, n));
        if (!self)
            return;
    }
}

// `cleanup` — the finish sequence, run once.
void AMShellWrapper::cleanup() {
    if (m_finished)
        return;
    QPointer<AMShellWrapper> self(this);
    int status = -1;
    if (m_taskDidTerminate) {
        if (m_out.notifier)
            m_out.notifier->setEnabled(false);
        if (m_err.notifier)
            m_err.notifier->setEnabled(false);
        drain(StdOut);
        if (!self)
            return;
        drain(StdErr);
        if (!self)
            return;
        status = m_status;
    }
    if (!m_launchFailure.isEmpty() && m_controller) {
        m_controller->stdError(m_launchFailure);
        if (!self)
            return;
    }
    closeInput();
    closeOutput(m_out);
    closeOutput(m_err);
    closeFd(m_pidfd);
    if (m_pidNotifier) {
        m_pidNotifier->deleteLater();
        m_pidNotifier = nullptr;
    }
    m_finished = true;
    AMShellWrapperController* controller = m_controller;
    m_controller = nullptr;
    if (controller)
        controller->processFinished(this, status);
    // Nothing may touch the runner from here on: it may be gone.
}
