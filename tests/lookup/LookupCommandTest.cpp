// `tarnwick-cli lookup` against the loopback movie database, as a user runs
// it: the matched record, each failure with its own message, and Ctrl-C
// ending a pending request.
#include "LookupTestSupport.h"

#include "CliJson.h"
#include "Processes.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QProcess>

#include <signal.h>

namespace {

using lookuptest::server;

class LookupCommandTest : public ::testing::Test {
protected:
    void TearDown() override { server().setMode(LoopbackMovieDb::Mode::Normal); }

    static testsupport::CliResult lookup(const QStringList& args,
                                         const QString& base = server().baseURL()) {
        return testsupport::runCli(QStringList{"lookup"} + args, {}, 60000,
                                   {{"TARNWICK_TMDB_URL", base},
                                    {"TARNWICK_TMDB_API_KEY", QString()},
                                    {"TARNWICK_TMDB_TIMEOUT_MS", QString()}});
    }
};

TEST_F(LookupCommandTest, JsonHoldsTheMatchedRecordAndAllHits) {
    const auto r = lookup({"The Lighthouse Keeper", "--language", "en-US", "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject doc = testsupport::expectCliJson(r.out, "lookup", 0);
    EXPECT_EQ(doc.value("query").toString(), "The Lighthouse Keeper");
    const QJsonObject match = doc.value("match").toObject();
    EXPECT_EQ(match.value("tags").toObject().value("Director").toString(), "Maren Holloway, ");
    EXPECT_EQ(match.value("ratingCode").toString(), "mpaa|PG-13|300|");
    EXPECT_EQ(doc.value("hits").toArray().size(), 3);
    EXPECT_EQ(match.value("posters").toArray(),
              QJsonArray({server().baseURL() + "/t/p/original/lighthouse-keeper-poster-en.jpg"}));
    EXPECT_EQ(match.value("backdrops").toArray().size(), 2);
}

TEST_F(LookupCommandTest, NoHitOrAFailedDatabaseIsAFailureWithItsOwnMessage) {
    auto r = lookup({"A Film Nobody Made"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_TRUE(r.err.contains("no match for \"A Film Nobody Made\" in the movie database"))
        << r.err.toStdString();

    r = lookup({"The Lighthouse Keeper"}, "http://127.0.0.1:1");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("lookup of \"The Lighthouse Keeper\" failed: the movie database "
                               "at http://127.0.0.1:1 cannot be reached"))
        << r.err.toStdString();

    server().setMode(LoopbackMovieDb::Mode::ServerError);
    r = lookup({"The Lighthouse Keeper", "--json"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(testsupport::expectCliJson(r.out, "lookup", 1).value("error").toString(),
              "lookup of \"The Lighthouse Keeper\" failed: the movie database failed with a "
              "server error (HTTP 500)");

    for (const QStringList& args :
         {QStringList{}, QStringList{"A", "B"}, QStringList{"A", "--language", "english"},
          QStringList{"A", "--colour"}})
        EXPECT_EQ(lookup(args).status, 2) << args.join(' ').toStdString();
}

TEST_F(LookupCommandTest, CtrlCEndsAPendingRequestAtOnce) {
    server().setMode(LoopbackMovieDb::Mode::Hang);
    server().clearRequests();
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TARNWICK_TMDB_URL", server().baseURL());
    env.remove("TARNWICK_TMDB_API_KEY");
    env.remove("TARNWICK_TMDB_TIMEOUT_MS"); // the default 15 s: only the interrupt ends it early
    p.setProcessEnvironment(env);
    p.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"),
            {"lookup", "Harbour Lights", "--json"});
    ASSERT_TRUE(p.waitForStarted());
    ASSERT_TRUE(testsupport::waitUntil([] { return server().requestCount() > 0; }, 10000));
    QThread::msleep(300);
    QElapsedTimer timer;
    timer.start();
    ::kill(pid_t(p.processId()), SIGINT);
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_LT(timer.elapsed(), 1500);
    EXPECT_EQ(p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, 130);
    const QJsonObject doc = QJsonDocument::fromJson(p.readAllStandardOutput()).object();
    EXPECT_EQ(doc.value("error").toString(), "interrupted");
}

} // namespace
