#pragma once

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <optional>

#include <sys/types.h>

class QSocketNotifier;
class QTimer;
class AMShellWrapper;

// Controller protocol of the process runner. Every callback
// arrives on the thread that called AMShellWrapper::startProcess, in the order
// processStarted, any number of stdOutput / stdError (arrival order per
// stream), processFinished — exactly once and last.
class AMShellWrapperController {
public:
    virtual ~AMShellWrapperController() = default;

    // First thing in startProcess, before the child exists.
    virtual void processStarted(AMShellWrapper* runner) = 0;
    // One decoded chunk of the child's standard output / standard error.
    virtual void stdOutput(const QString& text) = 0;
    virtual void stdError(const QString& text) = 0;
    // `processFinished:withTerminationStatus:` — the child has terminated and
    // both output streams have reached their end. The runner has already
    // forgotten its controller; the receiver may delete the runner here.
    virtual void processFinished(AMShellWrapper* runner, int status) = 0;
    // Never sent by the runner (kept for the protocol's shape).
    virtual void processLaunchException(const QString& failure) { Q_UNUSED(failure); }
};

// The process runner: runs one child with its
// standard streams on pipes, turns every chunk it writes into text for the
// controller, and reports the end exactly once, after the child has
// terminated AND both output streams have reached end-of-file.
//
// Platform mapping (POSIX, Linux):
// - The child is made with fork + execve; the pipes' read ends are
//   non-blocking and watched by QSocketNotifiers; the child's termination is
//   watched through a pidfd (pidfd_open, Linux >= 5.3) with a QSocketNotifier,
//   or, where pidfd_open fails, by polling waitpid(pid, WNOHANG) on a timer.
//   QProcess is not used: it emits finished() when the child exits, after
//   reading only what is buffered at that moment; it does not wait for
//   end-of-file on both streams (a helper that inherited the pipes may still
//   write), which our controllers rely on. With our own descriptors the order
//   they need (all output, then one finish) holds by construction.
//   QProcess is the one packaged runner built on Qt's event loop and it does
//   not give that order; what is left is a few system calls (vfork, pipes,
//   pidfd), written here. No SIGCHLD handler is installed and only our own
//   pid is ever waited for, so any number of runners (and QProcess) coexist.
//   A process that sets SIGCHLD to SIG_IGN or reaps with waitpid(-1) breaks
//   every child API, this one too (the status then reads -1).
// - The child dies with the thread that started it (PR_SET_PDEATHSIG with
//   SIGTERM, set between vfork and exec), so no tool outlives the
//   application, however that ends (SIGKILL and _Exit included); the tools
//   in turn end their own helpers on SIGTERM.
// - The child gets its own process group (setpgid) and stop / suspend /
//   resume signal that group, so a tool that runs helpers of its own (the
//   encoder wrapper runs HandBrakeCLI) is stopped and continued as a whole.
//   Each signal is sent once (HandBrakeCLI treats a second SIGTERM as "quit
//   now"). Consequence: a terminal's Ctrl-C reaches the application, not the
//   child; a front end that wants Ctrl-C to end the tool calls stopProcess().
// - All descriptors other than 0, 1, 2 are closed in the child; signal
//   dispositions and the signal mask are reset to their defaults.
// - The first start sets SIGPIPE to SIG_IGN when it is at its default (as Qt's
//   own QProcess does), so writing to a child that closed its input cannot
//   kill the application.
//
// Exit status: a normal exit gives the exit code (0-255); a death by signal
// gives 128 + the signal number, as shells report it (SIGTERM -> 143,
// SIGKILL -> 137). A start that fails before the child exists gives -1.
//
// A child that cannot be started (missing or non-executable file, or a
// working directory that cannot be entered): the runner still reports
// processStarted, then one stdError chunk "cannot run <path>: <reason>" (or
// "cannot change directory to <dir>: <reason>"), then processFinished with
// status 127 when the file (or directory) does not exist, 126 otherwise, as a
// shell would. If fork itself fails, the same message follows and the status
// is -1.
//
// Ownership and lifetime: the caller owns the runner (a QObject parent or a
// smart pointer). The runner needs no reference to itself: the finish
// sequence is run from an event posted to the runner, and nothing touches the
// runner after processFinished returns, so the controller may delete it
// inside processFinished (or deleteLater). Do not delete it inside
// stdOutput/stdError — call stopProcess and wait for the finish. Destroying a
// runner whose child still runs kills the child's process group (SIGKILL),
// reaps the child and sends no callback. A runner runs one child only.
//
// Threads: startProcess must be called on the thread the runner lives in;
// that thread must run its event loop until processFinished. No locks.
class AMShellWrapper : public QObject {
    Q_OBJECT
public:
    // Text-encoding codes, numbered as the classic platform string-encoding
    // constants so stored values stay meaningful.
    enum StringEncoding : quint64 {
        ASCIIStringEncoding = 1,     // 7-bit; a chunk with a byte > 127 is invalid
        UTF8StringEncoding = 4,      // the default
        ISOLatin1StringEncoding = 5, // every byte is valid
        UnicodeStringEncoding = 10,  // UTF-16: see below
        UTF16BigEndianStringEncoding = 0x90000100,
        UTF16LittleEndianStringEncoding = 0x94000100,
    };
    // UTF-8 and UTF-16 are decoded as streams: a character cut in two by a
    // chunk boundary (an incomplete trailing UTF-8 sequence, an odd byte, a
    // lone high surrogate at the end) is carried over into the next chunk of
    // the same stream and is not by itself a failure; only a chunk with a
    // truly invalid sequence is dropped (together with any carried bytes).
    // Bytes still carried at end-of-file are dropped. UnicodeStringEncoding
    // reads a byte-order mark at the start of a stream (and strips it);
    // without one it reads little-endian. Writing with it puts a BOM before
    // the first bytes written and then writes little-endian.
    // Text that cannot be encoded for stdInput (a character above 127 in
    // ASCII, above 255 in Latin-1) is not written at all.

    // Which of the child's standard streams (for createPipe).
    enum StandardStream { StdIn = 0, StdOut = 1, StdErr = 2 };

    using Environment = QMap<QString, QString>;

    // `initWithController:inputPipe:outputPipe:errorPipe:workingDirectory:
    // environment:arguments:`. The controller is not owned.
    //
    // Pipes: -1 ("none") makes the runner create its own pipe for that stream
    // (every caller in the system does this). A caller-supplied descriptor is
    // given to the child as that stream as it is; the caller keeps owning it
    // and closes it. For a supplied input descriptor stdInput writes nothing;
    // a supplied output or error descriptor is not read by the runner (the
    // caller reads its other end) and counts as already at end-of-file.
    //
    // workingDirectory: a null or empty string inherits the caller's.
    // environment: std::nullopt inherits the caller's; otherwise it is the
    // child's complete environment. arguments: element 0 is the executable's
    // path (no PATH search; a relative path is taken relative to the caller's
    // current directory), the rest are the child's arguments, in order.
    AMShellWrapper(AMShellWrapperController* controller, int inputPipe, int outputPipe,
                   int errorPipe, const QString& workingDirectory,
                   const std::optional<Environment>& environment, const QStringList& arguments,
                   QObject* parent = nullptr);
    // The form every caller of the system uses: no pipes, no environment.
    AMShellWrapper(AMShellWrapperController* controller, const QString& workingDirectory,
                   const QStringList& arguments, QObject* parent = nullptr);
    ~AMShellWrapper() override;

    AMShellWrapper(const AMShellWrapper&) = delete;
    AMShellWrapper& operator=(const AMShellWrapper&) = delete;

    // Change the encodings before start (takes a StringEncoding value; an
    // unknown code encodes nothing and decodes nothing).
    void setInputStringEncoding(quint64 encoding) { m_inputStringEncoding = encoding; }
    void setOutputStringEncoding(quint64 encoding) { m_outputStringEncoding = encoding; }
    quint64 inputStringEncoding() const { return m_inputStringEncoding; }
    quint64 outputStringEncoding() const { return m_outputStringEncoding; }

    // Launch; failures are reported through the finish callback. A second
    // call does nothing.
    void startProcess();
    // SIGTERM to the child (its process group); no effect before start or
    // after the child has been reaped. The usual finish sequence follows.
    void stopProcess();
    // SIGSTOP / SIGCONT to the child's process group.
    void suspendProcess();
    void resumeProcess();
    // Encodes the text with inputStringEncoding and writes it to the child's
    // standard input. Writes never block the event loop: what the pipe does
    // not take at once is queued and written, in order, as the child reads.
    // Bytes still queued when the child has exited are discarded.
    void stdInput(const QString& text);

    AMShellWrapperController* controller() const { return m_controller; }
    QStringList arguments() const { return m_arguments; }
    QString workingDirectory() const { return m_workingDirectory; }
    std::optional<Environment> environment() const { return m_environment; }
    // The child's pid (also its process-group id) once launched, else -1.
    pid_t processIdentifier() const { return m_pid; }
    bool isRunning() const { return m_pid > 0 && !m_taskDidTerminate; }
    bool taskDidTerminate() const { return m_taskDidTerminate; }
    bool isFinished() const { return m_finished; }

    // Test hook: use the waitpid polling fallback even where pidfd_open works.
    static void setForcePollingForTesting(bool force);

    // Decoding of one chunk of a stream (public for tests). `carry` holds the
    // stream's undecoded trailing bytes and `byteOrder` its UTF-16 byte order
    // (0 = not yet known, 1 = little-endian, 2 = big-endian); both start
    // empty / 0. Answers false when the chunk is invalid: the chunk and the
    // carry are then dropped and `text` is empty.
    static bool decodeChunk(quint64 encoding, QByteArray& carry, const QByteArray& bytes,
                            QString& text, int& byteOrder);
    // Encoding for stdInput; nullopt when the text cannot be encoded.
    static std::optional<QByteArray> encodeText(quint64 encoding, const QString& text,
                                                bool firstWrite);

protected:
    // Test seam: creates the pipe of one standard stream (both ends
    // close-on-exec). Answers 0 or an errno value.
    virtual int createPipe(int fds[2], StandardStream which);
    // Internal byte-level handlers: called with each
    // chunk read from the stream (one read, at most 64 KiB); decodes it with
    // outputStringEncoding and passes the text to the controller, or drops
    // the chunk without notice when it is not valid. Virtual so that tests
    // can see the raw chunks.
    virtual void stdOutput(const QByteArray& bytes);
    virtual void stdError(const QByteArray& bytes);

private:
    struct OutputStream {
        int fd = -1;        // our read end (-1: none or caller-supplied)
        bool ownFd = false; // we created it and close it
        QSocketNotifier* notifier = nullptr;
        bool empty = false; // stdoutEmpty / stderrEmpty
        QByteArray carry;   // undecoded trailing bytes
        int byteOrder = 0;  // UTF-16 byte order of the stream
    };

    void getData(StandardStream which);
    void taskStopped();
    bool reapChild(bool block);
    void scheduleCleanup();
    void cleanup();
    void deliver(StandardStream which, const QByteArray& bytes);
    void decodeAndPass(StandardStream which, const QByteArray& bytes);
    void drain(StandardStream which);
    void writePendingInput();
    void closeInput();
    void closeOutput(OutputStream& s);
    void signalChild(int sig);
    void reportPipeFailure(const char* what, int err);

    AMShellWrapperController* m_controller = nullptr;
    QString m_workingDirectory;
    std::optional<Environment> m_environment;
    QStringList m_arguments;
    int m_stdinPipe = -1, m_stdoutPipe = -1, m_stderrPipe = -1; // supplied by the caller
    quint64 m_inputStringEncoding = UTF8StringEncoding;
    quint64 m_outputStringEncoding = UTF8StringEncoding;

    int m_stdinHandle = -1; // our write end (only when we made the pipe)
    QSocketNotifier* m_stdinNotifier = nullptr;
    QByteArray m_pendingInput;
    bool m_inputWritten = false;
    OutputStream m_out, m_err;

    pid_t m_pid = -1;
    int m_pidfd = -1;
    QSocketNotifier* m_pidNotifier = nullptr;
    QTimer* m_pollTimer = nullptr;
    int m_status = -1;
    QString m_launchFailure; // message for stdError before the finish

    bool m_started = false;
    bool m_taskDidTerminate = false;
    bool m_cleanupScheduled = false;
    bool m_finished = false;
};
