// A movie database that fails is told apart from one that finds nothing in
// the commands that look up a source (the lookup command's own lines are the
// lookup tests'): a refused key, a server error, no answer and no connection
// each give their own line, the item's warning says it, retag writes nothing,
// and encode leaves the tags the encoder wrote.

#include "retag/RetagTestSupport.h"

#include "CliJson.h"

#include <gtest/gtest.h>

namespace {

using testsupport::CliResult;

using Mode = LoopbackMovieDb::Mode;

// One way the database fails, as the user meets it: how the loopback server
// answers, what the user set, and the words every command prints.
struct Failure {
    const char* name;
    Mode mode;
    QMap<QString, QString> env;
    const char* says;
};

const Failure kFailures[] = {
    {"refused key",
     Mode::Normal,
     {{"TARNWICK_TMDB_API_KEY", QString(32, u'0')}},
     "the movie database refused the API key (HTTP 401)"},
    {"server error",
     Mode::ServerError,
     {},
     "the movie database failed with a server error (HTTP 500)"},
    {"no answer",
     Mode::Hang,
     {{"TARNWICK_TMDB_TIMEOUT_MS", "1500"}},
     "did not answer within 1.5 s"},
    {"no connection",
     Mode::Normal,
     {{"TARNWICK_TMDB_URL", "http://127.0.0.1:1"}},
     "the movie database at http://127.0.0.1:1 cannot be reached"},
};

class DatabaseFailureTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffprobe", "HandBrakeCLI"}) {
            if (!testsupport::haveTool(tool))
                GTEST_SKIP() << tool << " is not installed";
        }
        scantest::server();
        ASSERT_TRUE(m_dir.isValid());
    }
    void TearDown() override { scantest::server().setMode(Mode::Normal); }

    CliResult cli(const Failure& f, const QStringList& args, int timeoutMs = 120000) {
        scantest::server().setMode(f.mode);
        const CliResult r = testsupport::runCli(args, {}, timeoutMs, f.env);
        scantest::server().setMode(Mode::Normal);
        return r;
    }

    QTemporaryDir m_dir;
};

TEST_F(DatabaseFailureTest, EachFailureHasItsOwnLineInScanAndRetag) {
    const QString movie = scantest::sample("Harbour Lights.mp4");
    ASSERT_FALSE(movie.isEmpty());
    for (const Failure& f : kFailures) {
        SCOPED_TRACE(f.name);
        const QString says = QString::fromUtf8(f.says);

        CliResult r = cli(f, {"scan", movie, "--yes", "--json"});
        EXPECT_EQ(r.status, 1) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains("Harbour Lights: lookup failed: the movie database "))
            << r.err.toStdString();
        EXPECT_TRUE(r.err.contains(says)) << r.err.toStdString();
        const QJsonObject item =
            testsupport::expectCliJson(r.out, "scan", 1).value("items").toArray().at(0).toObject();
        EXPECT_EQ(item.value("lookup").toString(), "failed");
        EXPECT_TRUE(item.value("match").isNull());
        EXPECT_TRUE(item.value("warnings").toArray().at(0).toString().contains(says))
            << QJsonDocument(item).toJson().toStdString();

        // retag writes nothing and says why.
        const QString file = m_dir.filePath(QStringLiteral("%1.m4v").arg(f.name));
        ASSERT_TRUE(QFile::copy(movie, file));
        const QByteArray before = retagtest::fileHash(file);
        r = cli(f, {"retag", file, "--yes"});
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(r.out.contains(file + ": failed (lookup failed: the movie database "))
            << r.out.toStdString();
        EXPECT_TRUE(r.out.contains(says)) << r.out.toStdString();
        EXPECT_EQ(retagtest::fileHash(file), before);
    }
}

TEST_F(DatabaseFailureTest, ARefusedKeyInEncodeLeavesTheEncodersTagsAndFails) {
    const QString movie = scantest::sample("Harbour Lights.mp4");
    ASSERT_FALSE(movie.isEmpty());
    const Failure& refused = kFailures[0];
    const QString dest = m_dir.filePath("out");
    const CliResult r =
        cli(refused, {"encode", movie, "--dest", dest, "--preset", "SD 480p", "--yes", "--json"});
    EXPECT_EQ(r.status, 1) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("Harbour Lights: lookup failed: " + QString(refused.says)))
        << r.err.toStdString();
    const QJsonObject item =
        testsupport::expectCliJson(r.out, "encode", 1).value("items").toArray().at(0).toObject();
    EXPECT_EQ(item.value("state").toString(), "untagged") << r.out.toStdString();
    EXPECT_EQ(item.value("lookup").toString(), "failed");
    const QString warnings = item.value("warnings").toVariant().toStringList().join('\n');
    EXPECT_TRUE(warnings.contains(refused.says)) << warnings.toStdString();
    EXPECT_TRUE(warnings.contains("the file keeps the tags the encoder wrote"));

    // The movie is there, as the encoder left it: no cover, no match written
    // over it, the encoder's own name as the encoding tool.
    const QString out = dest + "/Harbour Lights.m4v";
    ASSERT_TRUE(QFileInfo::exists(out));
    const QJsonObject tags = retagtest::probeTags(out);
    EXPECT_TRUE(tags.value("encoder").toString().startsWith("HandBrake"))
        << QJsonDocument(tags).toJson().toStdString();
    EXPECT_FALSE(tags.contains("genre"));
    EXPECT_FALSE(retagtest::probeHasCover(out));
}

} // namespace
