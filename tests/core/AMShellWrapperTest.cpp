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

TEST_F(AMShellWrapperTest, ProcessStartedComesBeforeTheChildExists) {
    struct Probe : Recorder {
        void processStarted(AMShellWrapper* runner) override {
            pidAtStart = runner->processIdentifier();
            Recorder::processStarted(runner);
        }
        pid_t pidAtStart = 0;
    } r;
    AMShellWrapper runner(&r, QString(), {QStringLiteral("/bin/true")});
    runner.startProcess();
    EXPECT_EQ(r.pidAtStart, -1);
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 0);
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

TEST_F(AMShellWrapperTest, StopBeforeStartHasNoEffect) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), {QStringLiteral("/bin/true")});
    runner.stopProcess();
    runner.suspendProcess();
    runner.resumeProcess();
    runner.stdInput(QStringLiteral("ignored"));
    pump(50);
    EXPECT_TRUE(r.events.isEmpty());
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 0);
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

TEST_F(AMShellWrapperTest, RandomBinaryAsLatin1ArrivesByteForByte) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("random.bin"));
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("head -c 3000000 /dev/urandom | tee \"$1\""),
                             {QStringLiteral("sh"), file}));
    runner.setOutputStringEncoding(AMShellWrapper::ISOLatin1StringEncoding);
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r, 60000));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 0);
    QFile f(file);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray expected = f.readAll();
    ASSERT_EQ(expected.size(), 3000000);
    EXPECT_TRUE(r.out.toLatin1() == expected);
}

// --- encodings -----------------------------------------------------------------

TEST_F(AMShellWrapperTest, AsciiChunkWithHighBytesIsDroppedAndValidChunksKept) {
    Recorder r;
    // The child writes one chunk, then waits for a line on its input before
    // the next, so every chunk is read on its own.
    RawRunner runner(&r, -1, -1, -1, QString(), std::nullopt,
                     sh(QStringLiteral("printf 'good1\\n'; read a; printf '\\377bad\\n'; read b; "
                                       "printf 'good2\\n'")));
    runner.setOutputStringEncoding(AMShellWrapper::ASCIIStringEncoding);
    runner.startProcess();
    for (int chunk = 1; chunk <= 2; ++chunk) {
        ASSERT_TRUE(
            testsupport::waitUntil([&] { return runner.rawOut.size() == chunk; }, kTimeoutMs));
        runner.stdInput(QStringLiteral("\n"));
    }
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    ASSERT_EQ(runner.rawOut.size(), 3);
    EXPECT_EQ(runner.rawOut.at(1), QByteArray("\377bad\n"));
    EXPECT_EQ(r.outChunks, (QStringList{QStringLiteral("good1\n"), QStringLiteral("good2\n")}));
    EXPECT_EQ(r.status, 0);
}

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

TEST_F(AMShellWrapperTest, DecodeChunkUtf8) {
    using W = AMShellWrapper;
    QByteArray carry;
    QString text;
    int order = 0;
    EXPECT_TRUE(W::decodeChunk(W::UTF8StringEncoding, carry, "a\xE2\x82", text, order));
    EXPECT_EQ(text, QStringLiteral("a"));
    EXPECT_EQ(carry, QByteArray("\xE2\x82"));
    EXPECT_TRUE(W::decodeChunk(W::UTF8StringEncoding, carry,
                               "\xAC"
                               "b",
                               text, order));
    EXPECT_EQ(text, QString::fromUtf8("\xE2\x82\xAC"
                                      "b"));
    EXPECT_TRUE(carry.isEmpty());
    // A four-byte character cut after its first byte.
    EXPECT_TRUE(W::decodeChunk(W::UTF8StringEncoding, carry, "\xF0", text, order));
    EXPECT_TRUE(text.isEmpty());
    EXPECT_TRUE(W::decodeChunk(W::UTF8StringEncoding, carry, "\x9F\x98\x80", text, order));
    EXPECT_EQ(text, QString::fromUtf8("\xF0\x9F\x98\x80"));
    // Invalid: a stray continuation byte, an overlong form, a surrogate, a
    // bad continuation after a carried lead byte. The carry goes with them.
    for (const QByteArray& bad :
         {QByteArray("x\x80y"), QByteArray("\xC0\xAF"), QByteArray("\xED\xA0\x80"),
          QByteArray("\xF5\x80\x80\x80"), QByteArray("\xFF")}) {
        carry.clear();
        EXPECT_FALSE(W::decodeChunk(W::UTF8StringEncoding, carry, bad, text, order))
            << bad.toHex().toStdString();
        EXPECT_TRUE(text.isEmpty());
    }
    carry = "\xC3";
    EXPECT_FALSE(W::decodeChunk(W::UTF8StringEncoding, carry, "A", text, order));
    EXPECT_TRUE(carry.isEmpty());
    // A prefix that can never complete is invalid at once.
    carry.clear();
    EXPECT_FALSE(W::decodeChunk(W::UTF8StringEncoding, carry, "ok\xE0\x80", text, order));
}

TEST_F(AMShellWrapperTest, DecodeChunkAsciiLatin1AndUnknown) {
    using W = AMShellWrapper;
    QByteArray carry;
    QString text;
    int order = 0;
    EXPECT_TRUE(W::decodeChunk(W::ASCIIStringEncoding, carry, "plain\x01\x7F", text, order));
    EXPECT_EQ(text, QString::fromLatin1("plain\x01\x7F"));
    EXPECT_FALSE(W::decodeChunk(W::ASCIIStringEncoding, carry, "caf\xE9", text, order));
    EXPECT_TRUE(text.isEmpty());
    EXPECT_TRUE(W::decodeChunk(W::ISOLatin1StringEncoding, carry, "caf\xE9\xFF", text, order));
    EXPECT_EQ(text, QString::fromUtf8("caf\xC3\xA9\xC3\xBF"));
    EXPECT_FALSE(W::decodeChunk(12345, carry, "abc", text, order));
}

TEST_F(AMShellWrapperTest, DecodeChunkUtf16) {
    using W = AMShellWrapper;
    QByteArray carry;
    QString text;
    int order = 0;
    // Big-endian with a BOM, cut in the middle of a unit and of a surrogate pair.
    EXPECT_TRUE(W::decodeChunk(W::UnicodeStringEncoding, carry, QByteArray("\xFE\xFF\x00h\x00", 5),
                               text, order));
    EXPECT_EQ(text, QStringLiteral("h"));
    EXPECT_EQ(order, 2);
    EXPECT_TRUE(
        W::decodeChunk(W::UnicodeStringEncoding, carry, QByteArray("i\xD8\x3D", 3), text, order));
    EXPECT_EQ(text, QStringLiteral("i"));
    EXPECT_TRUE(
        W::decodeChunk(W::UnicodeStringEncoding, carry, QByteArray("\xDE\x00", 2), text, order));
    EXPECT_EQ(text, QString::fromUtf8("\xF0\x9F\x98\x80"));
    // Without a BOM: little-endian.
    carry.clear();
    order = 0;
    EXPECT_TRUE(
        W::decodeChunk(W::UnicodeStringEncoding, carry, QByteArray("o\x00k\x00", 4), text, order));
    EXPECT_EQ(text, QStringLiteral("ok"));
    // Explicit byte orders; a lone low surrogate is invalid.
    carry.clear();
    EXPECT_TRUE(W::decodeChunk(W::UTF16BigEndianStringEncoding, carry, QByteArray("\x00\xE9", 2),
                               text, order));
    EXPECT_EQ(text, QString::fromUtf8("\xC3\xA9"));
    EXPECT_TRUE(W::decodeChunk(W::UTF16LittleEndianStringEncoding, carry, QByteArray("\xE9\x00", 2),
                               text, order));
    EXPECT_EQ(text, QString::fromUtf8("\xC3\xA9"));
    EXPECT_FALSE(W::decodeChunk(W::UTF16LittleEndianStringEncoding, carry,
                                QByteArray("\x00\xDC", 2), text, order));
    EXPECT_FALSE(W::decodeChunk(W::UTF16LittleEndianStringEncoding, carry,
                                QByteArray("\x3D\xD8"
                                           "a\x00",
                                           4),
                                text, order));
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

TEST_F(AMShellWrapperTest, MissingExecutableFinishesNonZeroWithAMessage) {
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          {QStringLiteral("/nonexistent/Tarnwick_Tool"), QStringLiteral("-i")});
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 127);
    EXPECT_TRUE(r.err.startsWith(QStringLiteral("cannot run /nonexistent/Tarnwick_Tool: ")))
        << r.err.toStdString();
    EXPECT_EQ(r.events, (QStringList{QStringLiteral("started"), QStringLiteral("err"),
                                     QStringLiteral("finished")}));
}

TEST_F(AMShellWrapperTest, NonExecutableFileFinishesWith126AndAMessage) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("not-executable"));
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("#!/bin/sh\necho hi\n");
    f.close();
    f.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    Recorder r;
    AMShellWrapper runner(&r, QString(), {path});
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_NE(r.status, 0);
    if (geteuid() != 0 || r.status != 0) { // root may still execute nothing without x bits
        EXPECT_EQ(r.status, 126);
        EXPECT_TRUE(r.err.startsWith(QStringLiteral("cannot run %1: ").arg(path)))
            << r.err.toStdString();
    }
}

TEST_F(AMShellWrapperTest, MissingWorkingDirectoryFinishesNonZeroWithAMessage) {
    Recorder r;
    AMShellWrapper runner(&r, QStringLiteral("/nonexistent/folder"), {QStringLiteral("/bin/pwd")});
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 127);
    EXPECT_TRUE(
        r.err.startsWith(QStringLiteral("cannot change directory to /nonexistent/folder: ")))
        << r.err.toStdString();
    EXPECT_TRUE(r.out.isEmpty());
}

TEST_F(AMShellWrapperTest, EmptyArgumentListFinishesWithMinusOne) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), QStringList());
    runner.startProcess();
    EXPECT_FALSE(r.finished());
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, -1);
    EXPECT_FALSE(r.err.isEmpty());
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

TEST_F(AMShellWrapperTest, SignalsReachTheChildsOwnChildrenToo) {
    Recorder r;
    // The shell starts a helper and waits for it, as a tool wrapper would.
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("sleep 30 & echo $!; wait")));
    runner.startProcess();
    ASSERT_TRUE(
        testsupport::waitUntil([&] { return r.out.endsWith(QLatin1Char('\n')); }, kTimeoutMs));
    const pid_t helper = r.out.trimmed().toInt();
    ASSERT_GT(helper, 0);
    runner.suspendProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return procState(helper) == 'T'; }, kTimeoutMs));
    runner.resumeProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return procState(helper) != 'T'; }, kTimeoutMs));
    runner.stopProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
    // The helper was ended by the same signal (it is not our child: it is
    // reaped by init once gone).
    EXPECT_TRUE(testsupport::waitUntil(
        [&] { return procState(helper) == '?' || procState(helper) == 'Z'; }, kTimeoutMs));
}

TEST_F(AMShellWrapperTest, ChildLeadsItsOwnProcessGroup) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("cut -d' ' -f5 /proc/self/stat")));
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out.trimmed(), QString::number(runner.processIdentifier()));
}

// --- input, directory, environment, arguments -----------------------------------

TEST_F(AMShellWrapperTest, StdInputReachesTheChild) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), sh(QStringLiteral("read line; echo \"got:$line\"")));
    runner.startProcess();
    runner.stdInput(QStringLiteral("hello world\n"));
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, QStringLiteral("got:hello world\n"));
    EXPECT_EQ(r.status, 0);
}

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

TEST_F(AMShellWrapperTest, WorkingDirectory) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    Recorder r;
    AMShellWrapper runner(&r, dir.path(), {QStringLiteral("/bin/pwd"), QStringLiteral("-P")});
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out.trimmed(), QFileInfo(dir.path()).canonicalFilePath());
    EXPECT_EQ(r.status, 0);
}

TEST_F(AMShellWrapperTest, NoWorkingDirectoryInheritsOurs) {
    Recorder r;
    AMShellWrapper runner(&r, QString(), {QStringLiteral("/bin/pwd"), QStringLiteral("-P")});
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out.trimmed(), QFileInfo(QDir::currentPath()).canonicalFilePath());
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
}

TEST_F(AMShellWrapperTest, NoEnvironmentInheritsOurs) {
    ::setenv("TARNWICK_RUNNER_PROBE", "inherited", 1);
    Recorder r;
    AMShellWrapper runner(&r, QString(), {QStringLiteral("/usr/bin/env")});
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    ::unsetenv("TARNWICK_RUNNER_PROBE");
    expectWellFormed(r);
    EXPECT_TRUE(r.out.contains(QStringLiteral("\nTARNWICK_RUNNER_PROBE=inherited\n")) ||
                r.out.startsWith(QStringLiteral("TARNWICK_RUNNER_PROBE=inherited\n")));
}

TEST_F(AMShellWrapperTest, ArgumentsArePassedAsTheyAre) {
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("printf '%s|' \"$0\" \"$@\""),
                             {QStringLiteral("zero"), QStringLiteral("a b"), QString(),
                              QString::fromUtf8("caf\xC3\xA9"), QStringLiteral("*")}));
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, QString::fromUtf8("zero|a b||caf\xC3\xA9|*|"));
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

TEST_F(AMShellWrapperTest, ControllerMayStartTheNextRunnerInTheFinishCallback) {
    Recorder first, second;
    std::unique_ptr<AMShellWrapper> next;
    auto runner = std::make_unique<AMShellWrapper>(&first, QString(), sh(QStringLiteral("exit 1")));
    first.onFinish = [&](AMShellWrapper*) {
        next = std::make_unique<AMShellWrapper>(&second, QString(), sh(QStringLiteral("exit 2")));
        next->startProcess();
    };
    runner->startProcess();
    ASSERT_TRUE(waitFinished(second));
    expectWellFormed(first);
    expectWellFormed(second);
    EXPECT_EQ(first.status, 1);
    EXPECT_EQ(second.status, 2);
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

TEST_F(AMShellWrapperTest, PollingFallbackKeepsTheOrder) {
    AMShellWrapper::setForcePollingForTesting(true);
    Recorder r;
    AMShellWrapper runner(
        &r, QString(),
        sh(QStringLiteral("seq 1 10000; echo e >&2; exec >&- 2>&-; sleep 0.1; exit 9")));
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, seqText(1, 10000));
    EXPECT_EQ(r.status, 9);
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
