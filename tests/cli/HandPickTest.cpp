// A wrong match corrected by hand from the command line: the N-th hit of a
// search or a movie database id, against the loopback database, with
// AtomicParsley as the reader of what was written.

#include "retag/RetagTestSupport.h"

#include "CliJson.h"
#include "core/HttpClient.h"

#include <gtest/gtest.h>

namespace {

using retagtest::tag;
using testsupport::CliResult;
using testsupport::runCli;

class HandPickTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"AtomicParsley", "HandBrakeCLI", "ffmpeg"}) {
            if (!testsupport::haveTool(tool))
                GTEST_SKIP() << tool << " is not installed";
        }
        scantest::server();
        ASSERT_TRUE(dir.isValid());
    }

    // A file named after the search "light keepers" (Harbour Lights, then
    // Keeper of the Light), tagged as another movie with a cover of its own.
    QString wronglyTagged() {
        return retagtest::taggedCopy(dir.path(), "Light Keepers.m4v",
                                     {{tag(TagName::Name), "Quayside Nights"},
                                      {tag(TagName::Genre), "Drama"},
                                      {tag(TagName::Comments), "tagged by hand"}},
                                     QColor(Qt::red));
    }

    QTemporaryDir dir;
};

// The cover AtomicParsley extracts.
QImage extractedCover(const QString& file) {
    QTemporaryDir out;
    testsupport::run("AtomicParsley", {file, "--extractPixToPath", out.filePath("cover")});
    const QFileInfoList made = QDir(out.path()).entryInfoList({"cover_artwork_*"});
    return made.size() == 1 ? QImage(made.first().filePath()).convertToFormat(QImage::Format_RGB32)
                            : QImage();
}

// The poster as the database serves it (the file holds it re-encoded).
QImage poster(const char* name) {
    const QByteArray body =
        HttpClient::get(QUrl(scantest::server().baseURL() + "/t/p/original/" + name)).body;
    const QImage image = QImage::fromData(body).convertToFormat(QImage::Format_RGB32);
    EXPECT_FALSE(image.isNull()) << name;
    return image;
}

} // namespace

TEST_F(HandPickTest, APickedHitOrIdReplacesTheFilesTagsAndCover) {
    const QString file = wronglyTagged();
    CliResult r = runCli({"retag", file, "--pick", "2", "--yes"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    QMap<QString, QString> tags = retagtest::atomicParsleyTags(file);
    EXPECT_EQ(tags.value("©nam"), "Keeper of the Light");
    EXPECT_EQ(tags.value("©gen"), "Western");
    EXPECT_FALSE(tags.contains("©cmt")) << tags.value("©cmt").toStdString();
    EXPECT_EQ(extractedCover(file), poster("keeper-of-the-light-poster.jpg"));

    // By id, which the file's name would never find first.
    r = runCli({"retag", file, "--id", "100001", "--yes", "--json"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject item =
        testsupport::expectCliJson(r.out, "retag", 0).value("items").toArray().at(0).toObject();
    EXPECT_EQ(item.value("state").toString(), "written");
    EXPECT_EQ(item.value("match").toObject().value("tmdbID").toString(), "100001");
    tags = retagtest::atomicParsleyTags(file);
    EXPECT_EQ(tags.value("©nam"), "The Lighthouse Keeper");
    EXPECT_EQ(extractedCover(file), poster("lighthouse-keeper-poster-en.jpg"));
}

TEST_F(HandPickTest, APickThatCannotBeMadeIsOneLineAndWritesNothing) {
    const QString file = wronglyTagged();
    const QByteArray before = retagtest::fileHash(file);
    struct Case {
        QStringList args;
        QString says;
    };
    const QList<Case> cases = {
        {{"--pick", "3"}, "--pick 3: the search for \"Light Keepers\" found 2 hit(s)"},
        {{"--search", "Harbour Lights", "--pick", "2"},
         "--pick 2: the search for \"Harbour Lights\" found 1 hit(s)"},
        {{"--id", "424242"},
         "TMDb id 424242: the movie database has no movie with the id 424242 (HTTP 404)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const CliResult r = runCli(QStringList{"retag", file, "--yes"} + c.args);
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(r.out.isEmpty()) << r.out.toStdString();
        EXPECT_EQ(r.err.count("tarnwick-cli: "), 1) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains("tarnwick-cli: " + file + ": " + c.says + "; nothing written\n"))
            << r.err.toStdString();
        EXPECT_EQ(retagtest::fileHash(file), before);
    }
}

TEST_F(HandPickTest, ScanAndEncodeMatchTheSourceToTheGivenId) {
    const QString movie = scantest::sample("Harbour Lights.mp4");
    ASSERT_FALSE(movie.isEmpty());
    const CliResult r = runCli({"scan", movie, "--id", "100003", "--yes", "--json"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject item =
        testsupport::expectCliJson(r.out, "scan", 0).value("items").toArray().at(0).toObject();
    EXPECT_EQ(item.value("lookup").toString(), "matched");
    const QJsonObject match = item.value("match").toObject();
    EXPECT_EQ(match.value("tmdbID").toString(), "100003");
    EXPECT_EQ(match.value("name").toString(), "Keeper of the Light");

    // An id the database does not give: nothing is encoded.
    const QString dest = dir.filePath("out");
    const CliResult e =
        runCli({"encode", movie, "--id", "424242", "--dest", dest, "--preset", "SD 480p", "--yes"});
    EXPECT_EQ(e.status, 1);
    EXPECT_TRUE(e.err.contains("TMDb id 424242: the movie database has no movie with the id "
                               "424242 (HTTP 404); nothing was encoded"))
        << e.err.toStdString();
    EXPECT_TRUE(QDir(dest).entryList(QDir::Files).isEmpty());
}
