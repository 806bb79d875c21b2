// A movie database that fails: every way it can fail is told apart (the
// client's lastError), each request gives up within its budget as a whole
// (a hang, a drip of one byte a second, an answer larger than the cap), and
// Ctrl-C ends a pending request at once.

#include "LookupTestSupport.h"

#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"

#include "Processes.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>

#include <gtest/gtest.h>

#include <signal.h>

namespace {

using lookuptest::LookupTest;
using lookuptest::server;
using Failure = MDB_TheMovieDb::Failure;

class NetworkBudgetTest : public LookupTest {
protected:
    void TearDown() override {
        server().setMode(LoopbackMovieDb::Mode::Normal);
        LookupTest::TearDown();
    }
};

TEST_F(NetworkBudgetTest, EachFailureOfTheDatabaseIsToldApartFromNoMatch) {
    qunsetenv("TARNWICK_TMDB_TIMEOUT_MS");
    MDB_TheMovieDb::setRequestTimeout(0);
    EXPECT_EQ(MDB_TheMovieDb::requestTimeout(), 15000);
    qputenv("TARNWICK_TMDB_TIMEOUT_MS", "1200");
    EXPECT_EQ(MDB_TheMovieDb::requestTimeout(), 1200);
    qunsetenv("TARNWICK_TMDB_TIMEOUT_MS");

    constexpr int budget = 1500;
    MDB_TheMovieDb::setRequestTimeout(budget);
    struct Case {
        const char* name;
        LoopbackMovieDb::Mode mode;
        const char* title;
        Failure failure;
        const char* says;
    };
    const QList<Case> cases = {
        {"found", LoopbackMovieDb::Mode::Normal, "Harbour Lights", Failure::None, ""},
        {"nothing found", LoopbackMovieDb::Mode::Normal, "A Film Nobody Made", Failure::None, ""},
        {"401", LoopbackMovieDb::Mode::Unauthorized, "Harbour Lights", Failure::RefusedKey,
         "refused the API key (HTTP 401)"},
        {"500", LoopbackMovieDb::Mode::ServerError, "Harbour Lights", Failure::ServerError,
         "server error (HTTP 500)"},
        {"hang", LoopbackMovieDb::Mode::Hang, "Harbour Lights", Failure::TimedOut,
         "did not answer within 1.5 s"},
        {"drip", LoopbackMovieDb::Mode::Drip, "Harbour Lights", Failure::TimedOut,
         "did not answer within 1.5 s"},
        {"oversize", LoopbackMovieDb::Mode::Oversize, "Harbour Lights", Failure::TooLarge,
         "larger than 20 MB"},
        {"close", LoopbackMovieDb::Mode::Close, "Harbour Lights", Failure::Unreachable,
         "cannot be reached"},
        {"broken body", LoopbackMovieDb::Mode::Normal, "Malformed Answer", Failure::BadAnswer,
         "not valid JSON"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MDB_TheMovieDb::clearCachedConfiguration();
        server().setMode(c.mode);
        QElapsedTimer timer;
        timer.start();
        // The configuration (made with the client) and the search share one
        // budget: a database that timed out is not waited for again.
        MDB_TheMovieDb client;
        const auto hits = searchFor(client, QString::fromLatin1(c.title), "en-US");
        EXPECT_LT(timer.elapsed(), budget + 1500);
        EXPECT_EQ(hits.empty(), c.failure != Failure::None || QByteArray(c.name) != "found");
        const MDB_TheMovieDb::Error error = client.lastError();
        EXPECT_EQ(error.failure, c.failure) << error.detail.toStdString();
        EXPECT_TRUE(error.message().contains(QString::fromLatin1(c.says)))
            << error.message().toStdString();

        // A query fails the same way and leaves the record as it was.
        MDB_MovieMetadata record;
        record.setTag("100004", TagName::TMDbID);
        record.setTag("Kept", TagName::Name);
        timer.restart();
        queryInto(client, record, "en-US");
        EXPECT_LT(timer.elapsed(), budget + 1500);
        if (c.failure != Failure::None && c.failure != Failure::BadAnswer) {
            EXPECT_EQ(client.lastError().failure, c.failure);
            EXPECT_EQ(record.getTag(TagName::Name), "Kept");
        }
        server().setMode(LoopbackMovieDb::Mode::Normal);
    }
}

QProcessEnvironment cliEnvironment(const QString& budgetMs) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TARNWICK_TMDB_URL", server().baseURL());
    env.remove("TARNWICK_TMDB_API_KEY");
    if (budgetMs.isEmpty())
        env.remove("TARNWICK_TMDB_TIMEOUT_MS");
    else
        env.insert("TARNWICK_TMDB_TIMEOUT_MS", budgetMs);
    return env;
}

// The command as a user runs it: an answer that drips in ends the whole
// lookup within one budget, not one budget per request or per read.
TEST(NetworkBudget, TheLookupCommandGivesUpWithinItsBudget) {
    ASSERT_NE(server().port(), 0);
    server().setMode(LoopbackMovieDb::Mode::Drip);
    QElapsedTimer timer;
    timer.start();
    const testsupport::CliResult r = testsupport::runCli({"lookup", "Harbour Lights"}, {}, 30000,
                                                         {{"TARNWICK_TMDB_URL", server().baseURL()},
                                                          {"TARNWICK_TMDB_API_KEY", QString()},
                                                          {"TARNWICK_TMDB_TIMEOUT_MS", "2000"}});
    const qint64 elapsed = timer.elapsed();
    server().setMode(LoopbackMovieDb::Mode::Normal);
    EXPECT_EQ(r.status, 1) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("did not answer within 2 s")) << r.err.toStdString();
    // One budget and the program's start.
    EXPECT_LT(elapsed, 2000 + 2500) << r.err.toStdString();
}

TEST(NetworkBudget, CtrlCEndsAPendingRequestAtOnce) {
    ASSERT_NE(server().port(), 0);
    server().setMode(LoopbackMovieDb::Mode::Hang);
    server().clearRequests();
    QProcess p;
    // The default budget of 15 s: only the interrupt can end it early.
    p.setProcessEnvironment(cliEnvironment(QString()));
    p.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"),
            {"lookup", "Harbour Lights", "--json"});
    ASSERT_TRUE(p.waitForStarted());
    ASSERT_TRUE(testsupport::waitUntil([] { return server().requestCount() > 0; }, 10000));
    QThread::msleep(300);
    QElapsedTimer timer;
    timer.start();
    ::kill(pid_t(p.processId()), SIGINT);
    ASSERT_TRUE(p.waitForFinished(10000));
    const qint64 elapsed = timer.elapsed();
    server().setMode(LoopbackMovieDb::Mode::Normal);
    EXPECT_EQ(p.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(p.exitCode(), 130);
    EXPECT_LT(elapsed, 1500);
    const QJsonObject doc = QJsonDocument::fromJson(p.readAllStandardOutput()).object();
    EXPECT_EQ(doc.value("error").toString(), "interrupted");
    EXPECT_EQ(doc.value("exitStatus").toInt(), 130);
}

} // namespace
