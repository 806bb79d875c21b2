// Tests of the process runner with real child processes.
#include "core/AMShellWrapper.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kTimeoutMs = 20000;

// Records every callback in order and checks the protocol as it goes.
class Recorder : public AMShellWrapperController {
public:
    void processStarted(AMShellWrapper* runner) override {
        if (!events.isEmpty())
            violations << QStringLiteral("processStarted not first");
        events << QStringLiteral("started");
        startedRunner = runner;
    }
    void stdOutput(const QString& text) override {
        check("stdOutput");
        out += text;
        outChunks << text;
        events << QStringLiteral("out");
    }
    void stdError(const QString& text) override {
        check("stdError");
        err += text;
        errChunks << text;
        events << QStringLiteral("err");
    }
    void processFinished(AMShellWrapper* runner, int s) override {
        check("processFinished");
        ++finishCount;
        status = s;
        finishedRunner = runner;
        controllerClearedAtFinish = runner && runner->controller() == nullptr;
        events << QStringLiteral("finished");
        if (onFinish)
            onFinish(runner);
    }

    bool finished() const { return finishCount > 0; }

    void check(const char* what) {
        if (events.isEmpty())
            violations << QStringLiteral("%1 before processStarted").arg(what);
        if (finishCount > 0)
            violations << QStringLiteral("%1 after processFinished").arg(what);
    }

    QStringList events, violations, outChunks, errChunks;
    QString out, err;
    int finishCount = 0;
    int status = -12345;
    bool controllerClearedAtFinish = false;
    AMShellWrapper* startedRunner = nullptr;
    AMShellWrapper* finishedRunner = nullptr;
    std::function<void(AMShellWrapper*)> onFinish;
};

// A runner that also records the raw chunks (the byte-level stdOutput and
// stdError) so that tests can pace a child chunk by chunk.
class RawRunner : public AMShellWrapper {
public:
    using AMShellWrapper::AMShellWrapper;
    QList<QByteArray> rawOut, rawErr;

protected:
    void stdOutput(const QByteArray& bytes) override {
        rawOut << bytes;
        AMShellWrapper::stdOutput(bytes);
    }
    void stdError(const QByteArray& bytes) override {
        rawErr << bytes;
        AMShellWrapper::stdError(bytes);
    }
};

// A runner whose pipe for one stream cannot be created.
class PipeFailingRunner : public AMShellWrapper {
public:
    PipeFailingRunner(AMShellWrapperController* c, StandardStream failing)
        : AMShellWrapper(c, QString(), {QStringLiteral("/bin/echo"), QStringLiteral("hi")}),
          m_failing(failing) {}
    QList<StandardStream> attempted;

protected:
    int createPipe(int fds[2], StandardStream which) override {
        attempted << which;
        if (which == m_failing)
            return EMFILE;
        return AMShellWrapper::createPipe(fds, which);
    }

private:
    StandardStream m_failing;
};

QStringList sh(const QString& script, const QStringList& extra = {}) {
    return QStringList{QStringLiteral("/bin/sh"), QStringLiteral("-c"), script} + extra;
}

bool waitFinished(const Recorder& r, int timeoutMs = kTimeoutMs) {
    return testsupport::waitUntil([&] { return r.finished(); }, timeoutMs);
}

// Pumps the event loop for a while (for "nothing more happens" checks).
void pump(int ms) {
    testsupport::waitUntil([] { return false; }, ms);
}

// The process state letter from /proc/<pid>/stat ('R', 'S', 'T', 'Z', ...).
char procState(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return '?';
    const QByteArray line = f.readAll();
    const qsizetype close = line.lastIndexOf(')');
    if (close < 0 || close + 2 >= line.size())
        return '?';
    return line.at(close + 2);
}

QString seqText(int from, int to) {
    QString s;
    for (int i = from; i <= to; ++i) {
        s += QString::number(i);
        s += QLatin1Char('\n');
    }
    return s;
}

void expectWellFormed(const Recorder& r) {
    EXPECT_TRUE(r.violations.isEmpty()) << r.violations.join(QStringLiteral("; ")).toStdString();
    ASSERT_FALSE(r.events.isEmpty());
    EXPECT_EQ(r.events.first(), QStringLiteral("started"));
    EXPECT_EQ(r.events.last(), QStringLiteral("finished"));
    EXPECT_EQ(r.finishCount, 1);
    EXPECT_TRUE(r.controllerClearedAtFinish);
}

class AMShellWrapperTest : public ::testing::Test {
protected:
    void TearDown() override { AMShellWrapper::setForcePollingForTesting(false); }
};

// --- the callback sequence ---------------------------------------------------

TEST_F(AMShellWrapperTest, RunsChildAndReportsOutputThenStatus) {
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("printf 'hello\\n'; printf 'oops\\n' >&2; exit 3")));
    EXPECT_EQ(runner.processIdentifier(), -1);
    runner.startProcess();
    EXPECT_EQ(r.startedRunner, &runner);
    EXPECT_GT(runner.processIdentifier(), 0);
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, QStringLiteral("hello\n"));
    EXPECT_EQ(r.err, QStringLiteral("oops\n"));
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.finishedRunner, &runner);
    EXPECT_TRUE(runner.isFinished());
    EXPECT_EQ(runner.controller(), nullptr);
}

TEST_F(AMShellWrapperTest, ChildThatExitsBeforeItsOutputIsReadStillDeliversAllOutput) {
    Recorder r;
    // Less than a pipe's capacity (64 KiB), so the child can write it all and
    // exit without anybody reading.
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("seq 1 10000; echo tail-of-stderr >&2; exit 5")));
    runner.startProcess();
    const pid_t pid = runner.processIdentifier();
    ASSERT_GT(pid, 0);
    // Do not run the event loop until the child has exited (a zombie: it is
    // not reaped before the runner sees its termination notice).
    QElapsedTimer t;
    t.start();
    while (procState(pid) != 'Z' && t.elapsed() < kTimeoutMs)
        QThread::msleep(5);
    ASSERT_EQ(procState(pid), 'Z');
    EXPECT_TRUE(r.out.isEmpty());
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, seqText(1, 10000));
    EXPECT_EQ(r.err, QStringLiteral("tail-of-stderr\n"));
    EXPECT_EQ(r.status, 5);
}

TEST_F(AMShellWrapperTest, ChildThatClosesItsOutputEarlyIsNotFinishedUntilItTerminates) {
    Recorder r;
    // Closes both output streams, then waits for a line on its input.
    AMShellWrapper runner(
        &r, QString(),
        sh(QStringLiteral("echo early; echo early-err >&2; exec >&- 2>&-; read x; exit 4")));
    runner.startProcess();
    ASSERT_TRUE(testsupport::waitUntil(
        [&] {
            return r.out == QStringLiteral("early\n") && r.err == QStringLiteral("early-err\n");
        },
        kTimeoutMs));
    pump(300); // both streams are at their end now; the child still runs
    EXPECT_FALSE(r.finished());
    EXPECT_TRUE(runner.isRunning());
    EXPECT_NE(procState(runner.processIdentifier()), 'Z');
    runner.stdInput(QStringLiteral("go\n"));
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 4);
}

TEST_F(AMShellWrapperTest, StopOnARunningChildFinishesExactlyOnceWithItsStatus) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("echo ready; sleep 30; echo never")));
    runner.stopProcess(); // before start: no effect
    runner.startProcess();
    ASSERT_TRUE(
        testsupport::waitUntil([&] { return r.out == QStringLiteral("ready\n"); }, kTimeoutMs));
    QElapsedTimer t;
    t.start();
    runner.stopProcess();
    runner.stopProcess(); // a second request changes nothing
    ASSERT_TRUE(waitFinished(r));
    EXPECT_LT(t.elapsed(), 10000); // the sleep was ended too (process group)
    runner.stopProcess();          // after the end: no effect
    pump(200);
    expectWellFormed(r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
    EXPECT_EQ(r.out, QStringLiteral("ready\n"));
}

TEST_F(AMShellWrapperTest, DeathBySignalIs128PlusTheSignal) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("kill -KILL $$")));
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 128 + SIGKILL);
}

TEST_F(AMShellWrapperTest, SeveralMegabytesArriveWholeAndInOrder) {
    Recorder r;
    // About 6.9 MB on standard output and 2.9 MB on standard error, written at
    // the same time.
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("seq 1 400000 >&2 & seq 1 1000000; wait")));
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r, 60000));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 0);
    EXPECT_GT(r.outChunks.size(), 1);
    EXPECT_TRUE(r.out == seqText(1, 1000000)) << "stdout differs; size " << r.out.size();
    EXPECT_TRUE(r.err == seqText(1, 400000)) << "stderr differs; size " << r.err.size();
}

// --- encodings -----------------------------------------------------------------

TEST_F(AMShellWrapperTest, Utf8CharacterSplitAcrossChunksIsCarriedOver) {
    Recorder r;
    // "é" is C3 A9; the child writes C3 in one chunk and A9 in the next.
    RawRunner runner(&r, -1, -1, -1, QString(), std::nullopt,
                     sh(QStringLiteral("printf 'caf\\303'; read a; printf '\\251!\\n'; read b; "
                                       "printf '\\377\\n'; read c; printf 'end\\n'")));
    runner.startProcess();
    for (int chunk = 1; chunk <= 3; ++chunk) {
        ASSERT_TRUE(
            testsupport::waitUntil([&] { return runner.rawOut.size() == chunk; }, kTimeoutMs));
        runner.stdInput(QStringLiteral("\n"));
    }
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    ASSERT_EQ(runner.rawOut.size(), 4);
    EXPECT_EQ(r.outChunks, (QStringList{QStringLiteral("caf"), QString::fromUtf8("\xC3\xA9!\n"),
                                        QStringLiteral("end\n")}));
}

TEST_F(AMShellWrapperTest, OutputEncodingAppliesToStandardErrorToo) {
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("printf 'caf\\351\\n' >&2; printf 'caf\\351\\n'")));
    runner.setOutputStringEncoding(AMShellWrapper::ISOLatin1StringEncoding);
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, QString::fromUtf8("caf\xC3\xA9\n"));
    EXPECT_EQ(r.err, QString::fromUtf8("caf\xC3\xA9\n"));
}

// One stream's chunks in turn: `fresh` starts a new stream (no carry, byte
// order unknown); an invalid chunk drops itself and the carry.
TEST_F(AMShellWrapperTest, DecodeChunkCarriesSplitCharactersAndRejectsInvalidOnes) {
    using W = AMShellWrapper;
    using namespace std::string_literals;
    const struct {
        quint64 encoding;
        bool fresh;
        std::string bytes;
        bool ok;
        const char* text; // UTF-8
    } steps[] = {
        {W::UTF8StringEncoding, true, "a\xE2\x82", true, "a"},
        {W::UTF8StringEncoding, false,
         "\xAC"
         "b",
         true,
         "\xE2\x82\xAC"
         "b"},
        {W::UTF8StringEncoding, false, "\xF0", true, ""}, // four bytes cut after the first
        {W::UTF8StringEncoding, false, "\x9F\x98\x80", true, "\xF0\x9F\x98\x80"},
        // A stray continuation byte, an overlong form, a surrogate, out of range.
        {W::UTF8StringEncoding, true, "x\x80y", false, ""},
        {W::UTF8StringEncoding, true, "\xC0\xAF", false, ""},
        {W::UTF8StringEncoding, true, "\xED\xA0\x80", false, ""},
        {W::UTF8StringEncoding, true, "\xF5\x80\x80\x80", false, ""},
        {W::UTF8StringEncoding, true, "\xFF", false, ""},
        {W::UTF8StringEncoding, true, "\xC3", true, ""},
        {W::UTF8StringEncoding, false, "A", false, ""},         // bad continuation of the carry
        {W::UTF8StringEncoding, false, "B", true, "B"},         // the carry went with it
        {W::UTF8StringEncoding, true, "ok\xE0\x80", false, ""}, // can never complete
        {W::ASCIIStringEncoding, true, "plain\x01\x7F", true, "plain\x01\x7F"},
        {W::ASCIIStringEncoding, true, "caf\xE9", false, ""},
        {W::ISOLatin1StringEncoding, true, "caf\xE9\xFF", true, "caf\xC3\xA9\xC3\xBF"},
        {12345, true, "abc", false, ""},
        // UTF-16: big-endian by its BOM, cut inside a unit and a surrogate pair.
        {W::UnicodeStringEncoding, true, "\xFE\xFF\x00h\x00"s, true, "h"},
        {W::UnicodeStringEncoding, false, "i\xD8\x3D", true, "i"},
        {W::UnicodeStringEncoding, false, "\xDE\x00"s, true, "\xF0\x9F\x98\x80"},
        {W::UnicodeStringEncoding, true, "o\x00k\x00"s, true, "ok"}, // no BOM: little-endian
        {W::UTF16BigEndianStringEncoding, true, "\x00\xE9"s, true, "\xC3\xA9"},
        {W::UTF16LittleEndianStringEncoding, true, "\xE9\x00"s, true, "\xC3\xA9"},
        {W::UTF16LittleEndianStringEncoding, true, "\x00\xDC"s, false, ""}, // lone low surrogate
        {W::UTF16LittleEndianStringEncoding, true,
         "\x3D\xD8"
         "a\x00"s,
         false, ""},
    };
    QByteArray carry;
    int order = 0;
    int n = 0;
    for (const auto& step : steps) {
        SCOPED_TRACE(n++);
        if (step.fresh) {
            carry.clear();
            order = 0;
        }
        QString text;
        EXPECT_EQ(W::decodeChunk(step.encoding, carry, QByteArray::fromStdString(step.bytes), text,
                                 order),
                  step.ok);
        EXPECT_EQ(text, QString::fromUtf8(step.text));
    }
}

TEST_F(AMShellWrapperTest, EncodeText) {
    using W = AMShellWrapper;
    EXPECT_EQ(W::encodeText(W::UTF8StringEncoding, QString::fromUtf8("\xC3\xA9"), true),
              QByteArray("\xC3\xA9"));
    EXPECT_EQ(W::encodeText(W::ISOLatin1StringEncoding, QString::fromUtf8("\xC3\xA9"), true),
              QByteArray("\xE9"));
    EXPECT_FALSE(W::encodeText(W::ASCIIStringEncoding, QString::fromUtf8("\xC3\xA9"), true));
    EXPECT_FALSE(
        W::encodeText(W::ISOLatin1StringEncoding, QString::fromUtf8("\xE2\x82\xAC"), true));
    EXPECT_EQ(W::encodeText(W::UnicodeStringEncoding, QStringLiteral("a"), true),
              QByteArray("\xFF\xFE"
                         "a\x00",
                         4));
    EXPECT_EQ(W::encodeText(W::UnicodeStringEncoding, QStringLiteral("a"), false),
              QByteArray("a\x00", 2));
    EXPECT_EQ(W::encodeText(W::UTF16BigEndianStringEncoding, QStringLiteral("a"), true),
              QByteArray("\x00"
                         "a",
                         2));
}

// --- failures to start -------------------------------------------------------

TEST_F(AMShellWrapperTest, FailuresToStartFinishWithAStatusAndAMessage) {
    struct Case {
        QString dir;
        QStringList args;
        int status;
        QString message; // the start of standard error
    } cases[] = {
        {{}, {"/nonexistent/Tarnwick_Tool", "-i"}, 127, "cannot run /nonexistent/Tarnwick_Tool: "},
        {{}, {"/dev/null"}, 126, "cannot run /dev/null: "},
        {"/nonexistent/folder",
         {"/bin/pwd"},
         127,
         "cannot change directory to /nonexistent/folder: "},
        {{}, {}, -1, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.join(u' ').toStdString());
        Recorder r;
        AMShellWrapper runner(&r, c.dir, c.args);
        runner.startProcess();
        ASSERT_TRUE(waitFinished(r));
        expectWellFormed(r);
        EXPECT_EQ(r.status, c.status);
        EXPECT_TRUE(r.err.startsWith(c.message) && !r.err.isEmpty()) << r.err.toStdString();
        EXPECT_TRUE(r.out.isEmpty());
    }
}

class AMShellWrapperPipeFailureTest
    : public ::testing::TestWithParam<AMShellWrapper::StandardStream> {};

TEST_P(AMShellWrapperPipeFailureTest, ProcessStartedThenFinishMinusOne) {
    const auto failing = GetParam();
    Recorder r;
    PipeFailingRunner runner(&r, failing);

    // Catch the process's standard error to see the system error line.
    QTemporaryFile capture;
    ASSERT_TRUE(capture.open());
    std::fflush(stderr);
    const int savedStderr = dup(2);
    ASSERT_GE(savedStderr, 0);
    ASSERT_GE(dup2(capture.handle(), 2), 0);
    runner.startProcess();
    std::fflush(stderr);
    dup2(savedStderr, 2);
    ::close(savedStderr);

    // The end comes through a zero-delay scheduled cleanup, not at once.
    EXPECT_EQ(r.events, QStringList{QStringLiteral("started")});
    EXPECT_FALSE(r.finished());
    EXPECT_EQ(runner.processIdentifier(), -1);
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.events, (QStringList{QStringLiteral("started"), QStringLiteral("finished")}));
    EXPECT_EQ(r.status, -1);

    const char* names[] = {"stdIn", "stdOut", "stdErr"};
    capture.seek(0);
    const QString logged = QString::fromLocal8Bit(capture.readAll());
    EXPECT_TRUE(logged.contains(
        QStringLiteral("AMShellWrapper - failed to create pipe for %1: ").arg(names[failing])))
        << logged.toStdString();
    EXPECT_TRUE(logged.contains(QString::fromLocal8Bit(strerror(EMFILE))));
    // A failure of stdErr returns at once; the others still try every stream.
    EXPECT_EQ(runner.attempted.size(), 3);
}

INSTANTIATE_TEST_SUITE_P(AMShellWrapper, AMShellWrapperPipeFailureTest,
                         ::testing::Values(AMShellWrapper::StdIn, AMShellWrapper::StdOut,
                                           AMShellWrapper::StdErr));

// --- signals -------------------------------------------------------------------

TEST_F(AMShellWrapperTest, SuspendAndResume) {
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          // Only builtins, so the shell never forks: a shell stopped while
                          // waiting in vfork shows 'D', not 'T'.
                          sh(QStringLiteral("i=0; while :; do echo $i; i=$((i+1)); j=0; "
                                            "while [ $j -lt 3000 ]; do j=$((j+1)); done; done")));
    runner.startProcess();
    const pid_t pid = runner.processIdentifier();
    ASSERT_TRUE(testsupport::waitUntil([&] { return r.outChunks.size() >= 3; }, kTimeoutMs));
    runner.suspendProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return procState(pid) == 'T'; }, kTimeoutMs));
    pump(200); // let what was written before the stop arrive
    const qsizetype lengthWhileStopped = r.out.size();
    pump(300);
    EXPECT_EQ(r.out.size(), lengthWhileStopped);
    EXPECT_FALSE(r.finished());
    runner.resumeProcess();
    ASSERT_TRUE(
        testsupport::waitUntil([&] { return r.out.size() > lengthWhileStopped; }, kTimeoutMs));
    EXPECT_NE(procState(pid), 'T');
    runner.stopProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
}

TEST_F(AMShellWrapperTest, StopReachesASuspendedChildAfterResume) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("echo ready; exec sleep 30")));
    runner.startProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return !r.out.isEmpty(); }, kTimeoutMs));
    runner.suspendProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return procState(runner.processIdentifier()) == 'T'; },
                                       kTimeoutMs));
    runner.stopProcess(); // pending while stopped
    pump(100);
    EXPECT_FALSE(r.finished());
    runner.resumeProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
}

TEST_F(AMShellWrapperTest, ChildRunsInItsFolderAsAGroupLeaderWithItsArguments) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    Recorder r;
    AMShellWrapper runner(
        &r, dir.path(),
        sh(QStringLiteral("pwd -P; cut -d' ' -f5 /proc/self/stat; printf '%s|' \"$0\" \"$@\""),
           {QStringLiteral("zero"), QStringLiteral("a b"), QString(),
            QString::fromUtf8("caf\xC3\xA9"), QStringLiteral("*")}));
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, QFileInfo(dir.path()).canonicalFilePath() + u'\n' +
                         QString::number(runner.processIdentifier()) + u'\n' +
                         QString::fromUtf8("zero|a b||caf\xC3\xA9|*|"));
}

// --- input, directory, environment, arguments -----------------------------------

TEST_F(AMShellWrapperTest, LargeInputIsQueuedWithoutBlocking) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("head -c 1000000 | wc -c")));
    runner.startProcess();
    QElapsedTimer t;
    t.start();
    runner.stdInput(QString(1000000, QLatin1Char('x'))); // far more than a pipe holds
    EXPECT_LT(t.elapsed(), 5000);
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out.trimmed(), QStringLiteral("1000000"));
}

TEST_F(AMShellWrapperTest, InputEncoding) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("head -c 2 | od -An -tx1")));
    runner.setInputStringEncoding(AMShellWrapper::ASCIIStringEncoding);
    EXPECT_EQ(runner.inputStringEncoding(), quint64(AMShellWrapper::ASCIIStringEncoding));
    runner.startProcess();
    runner.stdInput(QString::fromUtf8("\xC3\xA9")); // not ASCII: not written
    runner.setInputStringEncoding(AMShellWrapper::ISOLatin1StringEncoding);
    runner.stdInput(QString::fromUtf8("\xC3\xA9!"));
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out.simplified(), QStringLiteral("e9 21"));
}

TEST_F(AMShellWrapperTest, WritingToAChildThatClosedItsInputDoesNotKillUs) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("exec <&-; echo closed; sleep 0.2")));
    runner.startProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return !r.out.isEmpty(); }, kTimeoutMs));
    runner.stdInput(QString(200000, QLatin1Char('y')));
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 0);
}

TEST_F(AMShellWrapperTest, RelativeWorkingDirectoryAndExecutable) {
    // The scan session passes "./"; a relative executable is found from our
    // own current directory, not from the child's.
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString saved = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(QStringLiteral("/bin")));
    Recorder r;
    AMShellWrapper runner(&r, QStringLiteral("./"),
                          {QStringLiteral("./pwd"), QStringLiteral("-P")});
    runner.startProcess();
    QDir::setCurrent(saved);
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.trimmed(), QFileInfo(QStringLiteral("/bin")).canonicalFilePath());
}

TEST_F(AMShellWrapperTest, EnvironmentIsTheChildsCompleteEnvironment) {
    Recorder r;
    AMShellWrapper::Environment env{{QStringLiteral("FOO"), QStringLiteral("bar baz")},
                                    {QStringLiteral("LANG"), QStringLiteral("C")}};
    AMShellWrapper runner(&r, -1, -1, -1, QString(), env, {QStringLiteral("/usr/bin/env")});
    EXPECT_EQ(runner.environment(), env);
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, QStringLiteral("FOO=bar baz\nLANG=C\n"));

    // Without one it inherits ours.
    ::setenv("TARNWICK_RUNNER_PROBE", "inherited", 1);
    Recorder inheriting;
    AMShellWrapper plain(&inheriting, QString(), {QStringLiteral("/usr/bin/env")});
    plain.startProcess();
    ASSERT_TRUE(waitFinished(inheriting));
    ::unsetenv("TARNWICK_RUNNER_PROBE");
    EXPECT_TRUE((QStringLiteral("\n") + inheriting.out)
                    .contains(QStringLiteral("\nTARNWICK_RUNNER_PROBE=inherited\n")));
}

TEST_F(AMShellWrapperTest, OtherDescriptorsAreClosedInTheChild) {
    const int leaked = ::open("/dev/null", O_RDONLY); // deliberately not close-on-exec
    ASSERT_GE(leaked, 3);
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("ls /proc/$$/fd")));
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    ::close(leaked);
    expectWellFormed(r);
    const QStringList fds = r.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_TRUE(fds.contains(QStringLiteral("0")));
    EXPECT_FALSE(fds.contains(QString::number(leaked))) << r.out.toStdString();
}

TEST_F(AMShellWrapperTest, CallerSuppliedDescriptors) {
    // The caller gives the child's input and output; the runner reads only
    // its own pipe for standard error.
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QByteArray inPath = QFile::encodeName(dir.filePath(QStringLiteral("in.txt")));
    const QByteArray outPath = QFile::encodeName(dir.filePath(QStringLiteral("out.txt")));
    {
        QFile f(QString::fromLocal8Bit(inPath));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("from a file\n");
    }
    const int in = ::open(inPath.constData(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(outPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(in, 0);
    ASSERT_GE(out, 0);
    Recorder r;
    AMShellWrapper runner(&r, in, out, -1, QString(), std::nullopt,
                          sh(QStringLiteral("read l; echo \"$l!\"; echo to-stderr >&2")));
    runner.startProcess();
    runner.stdInput(QStringLiteral("not used\n")); // no handle: nothing written
    ASSERT_TRUE(waitFinished(r));
    ::close(in);
    ::close(out);
    expectWellFormed(r);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_EQ(r.err, QStringLiteral("to-stderr\n"));
    QFile f(QString::fromLocal8Bit(outPath));
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll(), QByteArray("from a file!\n"));
}

// --- lifetime and concurrency ------------------------------------------------

TEST_F(AMShellWrapperTest, ControllerMayDeleteTheRunnerInTheFinishCallback) {
    Recorder r;
    auto* runner = new AMShellWrapper(&r, QString(), sh(QStringLiteral("echo bye")));
    r.onFinish = [](AMShellWrapper* w) { delete w; };
    runner->startProcess();
    ASSERT_TRUE(waitFinished(r));
    pump(50);
    expectWellFormed(r);
    EXPECT_EQ(r.out, QStringLiteral("bye\n"));
}

TEST_F(AMShellWrapperTest, DestroyingARunningRunnerEndsTheChildSilently) {
    Recorder r;
    pid_t pid = -1;
    {
        AMShellWrapper runner(&r, QString(), sh(QStringLiteral("sleep 30")));
        runner.startProcess();
        pid = runner.processIdentifier();
        ASSERT_GT(pid, 0);
    }
    EXPECT_EQ(::kill(pid, 0), -1); // killed and reaped
    EXPECT_EQ(errno, ESRCH);
    pump(100);
    EXPECT_EQ(r.events, QStringList{QStringLiteral("started")});
}

void runConcurrently(int count) {
    std::vector<std::unique_ptr<Recorder>> recorders;
    std::vector<std::unique_ptr<AMShellWrapper>> runners;
    for (int i = 0; i < count; ++i) {
        recorders.push_back(std::make_unique<Recorder>());
        const QString script = QStringLiteral("seq 1 %1; echo id-%2 >&2; sleep 0.0%3; exit %2")
                                   .arg(20000 + i * 1000)
                                   .arg(i)
                                   .arg(i % 10);
        runners.push_back(
            std::make_unique<AMShellWrapper>(recorders.back().get(), QString(), sh(script)));
    }
    for (auto& runner : runners)
        runner->startProcess();
    ASSERT_TRUE(testsupport::waitUntil(
        [&] {
            for (auto& rec : recorders)
                if (!rec->finished())
                    return false;
            return true;
        },
        60000));
    pump(50);
    for (int i = 0; i < count; ++i) {
        const Recorder& rec = *recorders[i];
        expectWellFormed(rec);
        EXPECT_EQ(rec.status, i) << "runner " << i;
        EXPECT_EQ(rec.finishedRunner, runners[i].get());
        EXPECT_TRUE(rec.out == seqText(1, 20000 + i * 1000)) << "runner " << i;
        EXPECT_EQ(rec.err, QStringLiteral("id-%1\n").arg(i));
    }
}

TEST_F(AMShellWrapperTest, SeveralRunnersConcurrently) {
    runConcurrently(12);
}

TEST_F(AMShellWrapperTest, SeveralRunnersConcurrentlyWithPollingFallback) {
    AMShellWrapper::setForcePollingForTesting(true);
    runConcurrently(6);
}

TEST_F(AMShellWrapperTest, RunnersOnAnotherThreadCallBackOnThatThread) {
    struct ThreadRecorder : Recorder {
        void stdOutput(const QString& t) override {
            if (QThread::currentThread() != expected)
                wrongThread = true;
            Recorder::stdOutput(t);
        }
        void processFinished(AMShellWrapper* w, int s) override {
            if (QThread::currentThread() != expected)
                wrongThread = true;
            Recorder::processFinished(w, s);
        }
        QThread* expected = nullptr;
        std::atomic<bool> wrongThread{false};
    };
    ThreadRecorder r;
    std::atomic<bool> done{false};
    std::unique_ptr<QThread> worker(QThread::create([&] {
        r.expected = QThread::currentThread();
        AMShellWrapper runner(&r, QString(), sh(QStringLiteral("seq 1 5000; exit 6")));
        runner.startProcess();
        testsupport::waitUntil([&] { return r.finished(); }, kTimeoutMs);
        done = true;
    }));
    worker->start();
    ASSERT_TRUE(testsupport::waitUntil([&] { return done.load(); }, kTimeoutMs + 5000));
    worker->wait();
    expectWellFormed(r);
    EXPECT_FALSE(r.wrongThread);
    EXPECT_EQ(r.status, 6);
    EXPECT_EQ(r.out, seqText(1, 5000));
}

} // namespace
