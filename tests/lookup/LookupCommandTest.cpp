// `tarnwick-cli lookup` against the `tarnwick-tmdb-server` program, as the
// offline demo runs them.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "CliJson.h"

namespace {

struct Result {
    int status = -1;
    QString out, err;
};

class LookupCommandTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_server = new QProcess;
        s_server->start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-tmdb-server"), {});
        ASSERT_TRUE(s_server->waitForStarted(10000));
        ASSERT_TRUE(s_server->waitForReadyRead(10000)) << s_server->readAllStandardError().data();
        s_base = QString::fromUtf8(s_server->readLine()).trimmed();
    }
    static void TearDownTestSuite() {
        s_server->kill();
        s_server->waitForFinished(5000);
        delete s_server;
        s_server = nullptr;
    }

    Result cli(const QStringList& args, const QString& base = s_base) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TARNWICK_SETTINGS", m_dir.filePath("store.plist"));
        env.insert("TARNWICK_TMDB_URL", base);
        env.remove("TARNWICK_TMDB_API_KEY");
        p.setProcessEnvironment(env);
        p.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"),
                QStringList{"lookup"} + args);
        EXPECT_TRUE(p.waitForFinished(60000));
        return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()),
                QString::fromUtf8(p.readAllStandardError())};
    }

    static QProcess* s_server;
    static QString s_base;
    QTemporaryDir m_dir;
};

QProcess* LookupCommandTest::s_server = nullptr;
QString LookupCommandTest::s_base;

TEST_F(LookupCommandTest, ServerRefusesBadArgumentsAndMissingFixtures) {
    const QString program = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-tmdb-server");
    QProcess p;
    p.start(program, {"--port", "seventy"});
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_EQ(p.exitCode(), 2);
    EXPECT_TRUE(p.readAllStandardError().contains("not a port number"));

    p.start(program, {"--fixtures", m_dir.filePath("none")});
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_EQ(p.exitCode(), 1);
    EXPECT_TRUE(p.readAllStandardError().contains("does not exist"));
    EXPECT_TRUE(p.readAllStandardOutput().isEmpty());

    p.start(program, {"--mode", "sulk"});
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_EQ(p.exitCode(), 2);
    EXPECT_TRUE(p.readAllStandardError().contains("unknown mode"));
}

TEST_F(LookupCommandTest, JsonHoldsTheMatchedRecordAndAllHits) {
    const Result r = cli({"The Lighthouse Keeper", "--language", "en-US", "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject doc = testsupport::expectCliJson(r.out, "lookup", 0);
    EXPECT_EQ(doc.value("query").toString(), "The Lighthouse Keeper");
    EXPECT_EQ(doc.value("language").toString(), "en-US");
    const QJsonObject match = doc.value("match").toObject();
    const QJsonObject tags = match.value("tags").toObject();

    EXPECT_EQ(match.value("name").toString(), "The Lighthouse Keeper");
    EXPECT_EQ(tags.value("Director").toString(), "Maren Holloway, ");
    EXPECT_EQ(match.value("ratingCode").toString(), "mpaa|PG-13|300|");
    EXPECT_EQ(match.value("rating").toString(), "PG-13");
    EXPECT_EQ(match.value("tmdbID").toString(), "100001");
    EXPECT_EQ(match.value("imdbID").toString(), "9000123");
    const QJsonObject links = match.value("links").toObject();
    EXPECT_EQ(links.value("tmdb").toString(), "http://www.themoviedb.org/movie/100001");
    EXPECT_EQ(links.value("trailer").toString(), "http://www.youtube.com/watch?v=lhK33perT01");
    QStringList hitNames;
    for (const QJsonValue& hit : doc.value("hits").toArray())
        hitNames << hit.toObject().value("name").toString();
    EXPECT_EQ(hitNames, QStringList({"The Lighthouse Keeper", "The Lighthouse Keeper's Daughter",
                                     "Keeper of the Light"}));
    EXPECT_EQ(match.value("posters").toArray(),
              QJsonArray({s_base + "/t/p/original/lighthouse-keeper-poster-en.jpg"}));
    EXPECT_EQ(match.value("poster").toString(),
              s_base + "/t/p/w92/lighthouse-keeper-poster-en.jpg");
    EXPECT_EQ(match.value("backdrops").toArray().size(), 2);
}

TEST_F(LookupCommandTest, TextOutputInAnotherLanguage) {
    const Result r = cli({"Der Leuchtturmwärter", "--language", "de-DE"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("Name: Der Leuchtturmwärter\n")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("Rating: de-movie|Ab 12 Jahren|200|\n"));
    EXPECT_TRUE(
        r.out.contains("Poster: " + s_base + "/t/p/original/lighthouse-keeper-poster-de.jpg"));
}

TEST_F(LookupCommandTest, NoHitOrAFailedDatabaseIsAFailureWithItsOwnMessage) {
    Result r = cli({"A Film Nobody Made"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_TRUE(r.err.contains("no match for \"A Film Nobody Made\" in the movie database"))
        << r.err.toStdString();

    r = cli({"The Lighthouse Keeper"}, "http://127.0.0.1:1");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("lookup of \"The Lighthouse Keeper\" failed: the movie database "
                               "at http://127.0.0.1:1 cannot be reached"))
        << r.err.toStdString();

    // A server started to fail one way says so.
    const QString program = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-tmdb-server");
    QProcess failing;
    failing.start(program, {"--mode", "500"});
    ASSERT_TRUE(failing.waitForReadyRead(10000));
    r = cli({"The Lighthouse Keeper", "--json"}, QString::fromUtf8(failing.readLine()).trimmed());
    failing.kill();
    failing.waitForFinished();
    EXPECT_EQ(r.status, 1);
    const QJsonObject doc = testsupport::expectCliJson(r.out, "lookup", 1);
    EXPECT_EQ(doc.value("error").toString(),
              "lookup of \"The Lighthouse Keeper\" failed: the movie database failed with a "
              "server error (HTTP 500)");
}

TEST_F(LookupCommandTest, BadArgumentsAreUsageErrors) {
    for (const QStringList& args :
         {QStringList{}, QStringList{"--json"}, QStringList{"A", "B"},
          QStringList{"A", "--language"}, QStringList{"A", "--language", "english"},
          QStringList{"A", "--colour"}}) {
        const Result r = cli(args);
        EXPECT_EQ(r.status, 2) << args.join(' ').toStdString();
        EXPECT_FALSE(r.err.isEmpty());
    }
}

} // namespace
