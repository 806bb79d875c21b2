// `tarnwick-cli lookup` against the `tarnwick-tmdb-server` program, as the
// offline demo runs them.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

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

TEST_F(LookupCommandTest, ServerPrintsItsLoopbackAddress) {
    EXPECT_TRUE(s_base.startsWith("http://127.0.0.1:")) << s_base.toStdString();
    EXPECT_GT(s_base.section(':', 2).toInt(), 0);
}

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
}

TEST_F(LookupCommandTest, JsonHoldsTheMatchedRecordAndAllHits) {
    const Result r = cli({"The Lighthouse Keeper", "--language", "en-US", "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    QJsonParseError error;
    const QJsonObject record = QJsonDocument::fromJson(r.out.toUtf8(), &error).object();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << r.out.toStdString();

    EXPECT_EQ(record.value("Name").toString(), "The Lighthouse Keeper");
    EXPECT_EQ(record.value("Director").toString(), "Maren Holloway, ");
    EXPECT_EQ(record.value("Rating").toString(), "mpaa|PG-13|300|");
    EXPECT_EQ(record.value("TMDb ID").toString(), "100001");
    EXPECT_EQ(record.value("IMDb ID").toString(), "9000123");
    EXPECT_EQ(record.value("tmdb").toString(), "http://www.themoviedb.org/movie/100001");
    EXPECT_EQ(record.value("imdb").toString(), "http://www.imdb.com/title/tt9000123/");
    EXPECT_EQ(record.value("trailer").toString(), "http://www.youtube.com/watch?v=lhK33perT01");
    EXPECT_EQ(record.value("homepage").toString(), "http://lighthouse-keeper.example.org/");
    EXPECT_EQ(record.value("tagLine").toString(), "Every light is a message.");
    EXPECT_EQ(record.value("searchHits").toArray(),
              QJsonArray({"The Lighthouse Keeper", "The Lighthouse Keeper's Daughter",
                          "Keeper of the Light"}));
    EXPECT_EQ(record.value("artworkFullsizeURLs").toArray(),
              QJsonArray({s_base + "/t/p/original/lighthouse-keeper-poster-en.jpg"}));
    EXPECT_EQ(record.value("artworkThumbURLs").toArray(),
              QJsonArray({s_base + "/t/p/w92/lighthouse-keeper-poster-en.jpg"}));
    EXPECT_EQ(record.value("backdropFullsizeURLs").toArray().size(), 2);
}

TEST_F(LookupCommandTest, TextOutputInAnotherLanguage) {
    const Result r = cli({"Der Leuchtturmwärter", "--language", "de-DE"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("Name: Der Leuchtturmwärter\n")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("Rating: de-movie|Ab 12 Jahren|200|\n"));
    EXPECT_TRUE(
        r.out.contains("Poster: " + s_base + "/t/p/original/lighthouse-keeper-poster-de.jpg"));
}

TEST_F(LookupCommandTest, NoHitOrNoDatabaseIsAFailureWithAMessage) {
    Result r = cli({"A Film Nobody Made"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_TRUE(r.err.contains("no match for \"A Film Nobody Made\"")) << r.err.toStdString();

    r = cli({"The Lighthouse Keeper"}, "http://127.0.0.1:1");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("did not answer")) << r.err.toStdString();
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
