// Tests of the process runner with real child processes.
#include "core/AMShellWrapper.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kTimeoutMs = 20000;

// Records the callbacks in order: s(tarted), o(ut), e(rr), f(inished).
class Recorder : public AMShellWrapperController {
public:
    void processStarted(AMShellWrapper*) override { log += u's'; }
    void stdOutput(const QString& text) override {
        log += u'o';
        out += text;
    }
    void stdError(const QString& text) override {
        log += u'e';
        err += text;
    }
    void processFinished(AMShellWrapper* runner, int s) override {
        log += u'f';
        status = s;
        finishedRunner = runner;
        clearedAtFinish = runner->controller() == nullptr;
        if (onFinish)
            onFinish(runner);
    }
    bool finished() const { return log.contains(u'f'); }

    QString log, out, err;
    int status = -12345;
    bool clearedAtFinish = false;
    AMShellWrapper* finishedRunner = nullptr;
    std::function<void(AMShellWrapper*)> onFinish;
};

QStringList sh(const QString& script, const QStringList& extra = {}) {
    return QStringList{QStringLiteral("/bin/sh"), QStringLiteral("-c"), script} + extra;
}

bool waitFinished(const Recorder& r, int timeoutMs = kTimeoutMs) {
    return testsupport::waitUntil([&] { return r.finished(); }, timeoutMs);
}

// Turns the event loop for a while (for "nothing more happens" checks).
void pump(int ms) {
    testsupport::waitUntil([] { return false; }, ms);
}

// The state letter from /proc/<pid>/stat ('R', 'S', 'T', 'Z', ...).
char procState(pid_t pid) {
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return '?';
    const QByteArray line = f.readAll();
    const qsizetype close = line.lastIndexOf(')');
    return close < 0 || close + 2 >= line.size() ? '?' : line.at(close + 2);
}

QString seqText(int to) {
    QString s;
    for (int i = 1; i <= to; ++i)
        s += QString::number(i) + u'\n';
    return s;
}

void expectWellFormed(const Recorder& r) {
    static const QRegularExpression once(QStringLiteral("^s[oe]*f$"));
    EXPECT_TRUE(once.match(r.log).hasMatch()) << r.log.left(80).toStdString();
    EXPECT_TRUE(r.clearedAtFinish);
}

void runToEnd(Recorder& r, AMShellWrapper& runner) {
    runner.startProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
}

class AMShellWrapperTest : public ::testing::Test {
protected:
    void TearDown() override { AMShellWrapper::setForcePollingForTesting(false); }
};

// --- the callback sequence ---------------------------------------------------

TEST_F(AMShellWrapperTest, ChildThatExitsBeforeItsOutputIsReadStillDeliversAllOutput) {
    Recorder r;
    // Less than a pipe holds, so the child writes it all and exits unread.
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("seq 1 10000; printf 'caf\\351\\n' >&2; exit 5")));
    runner.setOutputStringEncoding(AMShellWrapper::ISOLatin1StringEncoding);
    runner.startProcess();
    const pid_t pid = runner.processIdentifier();
    ASSERT_GT(pid, 0);
    QElapsedTimer t;
    t.start();
    while (procState(pid) != 'Z' && t.elapsed() < kTimeoutMs)
        QThread::msleep(5);
    ASSERT_EQ(procState(pid), 'Z');
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out, seqText(10000));
    EXPECT_EQ(r.err, QString::fromUtf8("caf\xC3\xA9\n"));
    EXPECT_EQ(r.status, 5);
    EXPECT_EQ(r.finishedRunner, &runner);
}

TEST_F(AMShellWrapperTest, ChildWithClosedOutputRunsOnUntilStoppedThenFinishesOnce) {
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("echo ready; exec >&- 2>&-; sleep 30; exit 4")));
    runner.stopProcess(); // before start: no effect
    runner.startProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return !r.out.isEmpty(); }, kTimeoutMs));
    pump(300); // both streams are at their end; the child still runs
    EXPECT_FALSE(r.finished());
    EXPECT_TRUE(runner.isRunning());
    QElapsedTimer t;
    t.start();
    runner.stopProcess();
    runner.stopProcess();
    ASSERT_TRUE(waitFinished(r));
    EXPECT_LT(t.elapsed(), 10000); // the sleep was ended too (process group)
    runner.stopProcess();
    pump(200);
    expectWellFormed(r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
}

// --- encodings -----------------------------------------------------------------

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
        {W::UTF8StringEncoding, false, "\xAC", true, "\xE2\x82\xAC"},
        // A stray continuation byte, an overlong form, a surrogate.
        {W::UTF8StringEncoding, true, "x\x80y", false, ""},
        {W::UTF8StringEncoding, true, "\xC0\xAF", false, ""},
        {W::UTF8StringEncoding, true, "\xED\xA0\x80", false, ""},
        {W::UTF8StringEncoding, true, "\xC3", true, ""},
        {W::UTF8StringEncoding, false, "A", false, ""}, // bad continuation of the carry
        {W::UTF8StringEncoding, false, "B", true, "B"}, // the carry went with it
        {W::ASCIIStringEncoding, true, "caf\xE9", false, ""},
        {12345, true, "abc", false, ""},
        // UTF-16: big-endian by its BOM, cut inside a unit and a surrogate pair.
        {W::UnicodeStringEncoding, true, "\xFE\xFF\x00h\x00"s, true, "h"},
        {W::UnicodeStringEncoding, false, "i\xD8\x3D", true, "i"},
        {W::UnicodeStringEncoding, false, "\xDE\x00"s, true, "\xF0\x9F\x98\x80"},
        {W::UnicodeStringEncoding, true, "o\x00k\x00"s, true, "ok"},        // no BOM: little-endian
        {W::UTF16LittleEndianStringEncoding, true, "\x00\xDC"s, false, ""}, // lone low surrogate
        {W::UTF16LittleEndianStringEncoding, true, "\x3D\xD8\x61\x00"s, false, ""},
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

// --- failures to start -------------------------------------------------------

TEST_F(AMShellWrapperTest, FailuresToStartFinishWithAStatusAndAMessage) {
    const struct {
        QString dir;
        QStringList args;
        int status;
        QString message; // the start of standard error
    } cases[] = {
        {{}, {"/nonexistent/Tarnwick_Tool", "-i"}, 127, "cannot run /nonexistent/Tarnwick_Tool: "},
        {{}, {"/dev/null"}, 126, "cannot run /dev/null: "},
        {"/nonexistent/dir", {"/bin/pwd"}, 127, "cannot change directory to /nonexistent/dir: "},
        {{}, {}, -1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.join(u' ').toStdString());
        Recorder r;
        AMShellWrapper runner(&r, c.dir, c.args);
        runToEnd(r, runner);
        EXPECT_EQ(r.status, c.status);
        EXPECT_TRUE(r.err.startsWith(c.message) && !r.err.isEmpty()) << r.err.toStdString();
        EXPECT_TRUE(r.out.isEmpty());
    }
}

// --- signals -------------------------------------------------------------------

TEST_F(AMShellWrapperTest, SuspendHoldsTheChildUntilResumed) {
    Recorder r;
    // Only builtins, so the shell never forks (a shell stopped in vfork shows 'D').
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("i=0; while :; do echo $i; i=$((i+1)); j=0; "
                                            "while [ $j -lt 3000 ]; do j=$((j+1)); done; done")));
    runner.startProcess();
    const pid_t pid = runner.processIdentifier();
    ASSERT_TRUE(testsupport::waitUntil([&] { return r.log.size() >= 4; }, kTimeoutMs));
    runner.suspendProcess();
    ASSERT_TRUE(testsupport::waitUntil([&] { return procState(pid) == 'T'; }, kTimeoutMs));
    pump(200); // what was written before the stop arrives
    const qsizetype lengthWhileStopped = r.out.size();
    pump(300);
    EXPECT_EQ(r.out.size(), lengthWhileStopped);
    runner.resumeProcess();
    ASSERT_TRUE(
        testsupport::waitUntil([&] { return r.out.size() > lengthWhileStopped; }, kTimeoutMs));
    runner.stopProcess();
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
}

// --- input, directory, environment, arguments -----------------------------------

TEST_F(AMShellWrapperTest, ChildGetsItsFolderArgumentsEnvironmentAndNoOtherDescriptors) {
    QTemporaryDir dir;
    const int leaked = ::open("/dev/null", O_RDONLY); // deliberately not close-on-exec
    ASSERT_GE(leaked, 3);
    Recorder r;
    // The environment given is the child's whole environment.
    const AMShellWrapper::Environment env{
        {QStringLiteral("FOO"), QStringLiteral("bar baz")},
        {QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin")}};
    AMShellWrapper runner(
        &r, -1, -1, -1, dir.path(), env,
        sh(QStringLiteral("pwd -P; cut -d' ' -f5 /proc/self/stat; "
                          "echo \"$FOO|$HOME\"; ls /proc/$$/fd | tr '\\n' ' '; echo; "
                          "printf '%s|' \"$0\" \"$@\""),
           {QStringLiteral("zero"), QStringLiteral("a b"), QString(),
            QString::fromUtf8("caf\xC3\xA9"), QStringLiteral("*")}));
    runToEnd(r, runner);
    ::close(leaked);
    const QStringList lines = r.out.split(u'\n');
    ASSERT_EQ(lines.size(), 5) << r.out.toStdString();
    EXPECT_EQ(lines[0], QFileInfo(dir.path()).canonicalFilePath());
    EXPECT_EQ(lines[1], QString::number(runner.processIdentifier())); // a group of its own
    EXPECT_EQ(lines[2], QStringLiteral("bar baz|"));
    const QStringList fds = lines[3].split(u' ', Qt::SkipEmptyParts);
    EXPECT_TRUE(fds.contains(QStringLiteral("0")));
    EXPECT_FALSE(fds.contains(QString::number(leaked))) << r.out.toStdString();
    EXPECT_EQ(lines[4], QString::fromUtf8("zero|a b||caf\xC3\xA9|*|"));

    // Without an environment the child has ours; a relative folder and
    // program are found from our own folder.
    const QString saved = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(QStringLiteral("/bin")));
    ::setenv("TARNWICK_RUNNER_PROBE", "inherited", 1);
    Recorder relative;
    AMShellWrapper plain(&relative, QStringLiteral("./"),
                         {QStringLiteral("./sh"), QStringLiteral("-c"),
                          QStringLiteral("echo $TARNWICK_RUNNER_PROBE; pwd -P")});
    plain.startProcess();
    QDir::setCurrent(saved);
    ::unsetenv("TARNWICK_RUNNER_PROBE");
    ASSERT_TRUE(waitFinished(relative));
    EXPECT_EQ(relative.out, QStringLiteral("inherited\n") +
                                QFileInfo(QStringLiteral("/bin")).canonicalFilePath() + u'\n');
}

TEST_F(AMShellWrapperTest, LargeInputIsQueuedInOrderAndUnencodableInputIsDropped) {
    Recorder r;
    AMShellWrapper runner(&r, QString(),
                          sh(QStringLiteral("head -c 1000002 | tail -c 3 | od -An -tx1")));
    runner.setInputStringEncoding(AMShellWrapper::ASCIIStringEncoding);
    runner.startProcess();
    runner.stdInput(QString::fromUtf8("\xC3\xA9")); // not ASCII: not written
    QElapsedTimer t;
    t.start();
    runner.stdInput(QString(1000000, QLatin1Char('x'))); // far more than a pipe holds
    EXPECT_LT(t.elapsed(), 5000);
    runner.setInputStringEncoding(AMShellWrapper::ISOLatin1StringEncoding);
    runner.stdInput(QString::fromUtf8("\xC3\xA9!"));
    ASSERT_TRUE(waitFinished(r));
    expectWellFormed(r);
    EXPECT_EQ(r.out.simplified(), QStringLiteral("78 e9 21"));
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

TEST_F(AMShellWrapperTest, CallerSuppliedDescriptorsAreNotReadByTheRunner) {
    int in[2], out[2];
    ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    ASSERT_EQ(::write(in[1], "given\n", 6), 6);
    ::close(in[1]);
    Recorder r;
    AMShellWrapper runner(&r, in[0], out[1], -1, QString(), std::nullopt,
                          sh(QStringLiteral("read l; echo \"$l!\"; echo to-stderr >&2")));
    runner.startProcess();
    runner.stdInput(QStringLiteral("not used\n")); // no handle: nothing written
    ASSERT_TRUE(waitFinished(r));
    ::close(in[0]);
    ::close(out[1]);
    expectWellFormed(r);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_EQ(r.err, QStringLiteral("to-stderr\n"));
    char buffer[32] = {};
    EXPECT_EQ(::read(out[0], buffer, sizeof buffer - 1), 7);
    ::close(out[0]);
    EXPECT_STREQ(buffer, "given!\n");
}

// --- lifetime and concurrency ------------------------------------------------

TEST_F(AMShellWrapperTest, TheRunnerMayBeDeletedWhenFinishedOrWhileRunning) {
    Recorder r;
    auto* runner = new AMShellWrapper(&r, QString(), sh(QStringLiteral("echo bye")));
    r.onFinish = [](AMShellWrapper* w) { delete w; };
    runner->startProcess();
    ASSERT_TRUE(waitFinished(r));
    pump(50);
    expectWellFormed(r);
    EXPECT_EQ(r.out, QStringLiteral("bye\n"));

    // Destroyed while running: the child is ended and reaped, nothing reported.
    Recorder silent;
    pid_t pid = -1;
    {
        AMShellWrapper running(&silent, QString(), sh(QStringLiteral("sleep 30")));
        running.startProcess();
        pid = running.processIdentifier();
        ASSERT_GT(pid, 0);
    }
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
    pump(100);
    EXPECT_EQ(silent.log, QStringLiteral("s"));
}

// Output larger than a pipe holds from each of `count` children at once.
void runConcurrently(int count) {
    std::vector<std::unique_ptr<Recorder>> recorders;
    std::vector<std::unique_ptr<AMShellWrapper>> runners;
    for (int i = 0; i < count; ++i) {
        recorders.push_back(std::make_unique<Recorder>());
        runners.push_back(std::make_unique<AMShellWrapper>(
            recorders.back().get(), QString(),
            sh(QStringLiteral("seq 1 %1; echo id-%2 >&2; exit %2").arg(20000 + i * 1000).arg(i))));
    }
    for (auto& runner : runners)
        runner->startProcess();
    ASSERT_TRUE(testsupport::waitUntil(
        [&] {
            return std::all_of(recorders.begin(), recorders.end(),
                               [](const auto& rec) { return rec->finished(); });
        },
        60000));
    pump(50);
    for (int i = 0; i < count; ++i) {
        SCOPED_TRACE(i);
        const Recorder& rec = *recorders[i];
        expectWellFormed(rec);
        EXPECT_EQ(rec.status, i);
        EXPECT_EQ(rec.finishedRunner, runners[i].get());
        EXPECT_TRUE(rec.out == seqText(20000 + i * 1000));
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

} // namespace
