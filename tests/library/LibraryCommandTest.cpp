// Runs the built tarnwick-cli and checks what `library` prints.

#include "LibraryTestMedia.h"
#include "Processes.h"

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

using librarytest::makeJunk;
using librarytest::makeMovie;
using librarytest::MovieTags;

namespace {

using Result = testsupport::CliResult;

Result runCli(const QStringList& arguments) {
    return testsupport::runCli(QStringList{QStringLiteral("library")} + arguments);
}

class LibraryCommand : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_movies = m_dir.filePath("Movies");
        ASSERT_FALSE(makeMovie(m_movies + "/Heat SD.m4v",
                               MovieTags().setName("Heat").setGenre("Crime").setContentID(11))
                         .isEmpty());
        makeMovie(m_movies + "/HD/Heat.m4v",
                  MovieTags().setName("Heat").setGenre("Crime").setContentID(11).setHDVideo(1));
        makeMovie(m_movies + "/Alien.M4V",
                  MovieTags().setName("Alien").setGenre("Science Fiction").setContentID(12));
        makeMovie(m_movies + "/Zodiac.m4v",
                  MovieTags().setName("Zodiac").setGenre("Crime").setContentID(13));
    }
    // The program reads the settings file of the private test home.
    void TearDown() override {
        UserDefaults::standard().reopen();
        UserDefaults::standard().removeObject(QLatin1String(SettingsKey::ITunesPathBookmark));
        UserDefaults::standard().synchronize();
    }

    QTemporaryDir m_dir;
    QString m_movies;
};

TEST_F(LibraryCommand, ListsGenresWithTheirMoviesAndFileCounts) {
    const Result r = runCli({"--folder", m_movies});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_EQ(r.out.toStdString(), "Crime (2 movies)\n"
                                   "  Heat [HD] (2 files)\n"
                                   "  Zodiac (1 file)\n"
                                   "\n"
                                   "Science Fiction (1 movie)\n"
                                   "  Alien (1 file)\n");
}

TEST_F(LibraryCommand, JsonHoldsEveryFileOfAMovie) {
    const Result r = runCli({"--json", "--folder", m_movies});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(r.out.toUtf8(), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << r.out.toStdString();
    const QJsonObject genres = doc.object().value("genres").toObject();
    EXPECT_EQ(genres.keys(), (QStringList{"Crime", "Science Fiction"}));

    const QJsonArray crime = genres.value("Crime").toArray();
    ASSERT_EQ(crime.size(), 2);
    const QJsonObject heat = crime.at(0).toObject();
    EXPECT_EQ(heat.value("name").toString(), "Heat");
    EXPECT_EQ(heat.value("sortName").toString(), "Heat");
    EXPECT_EQ(heat.value("contentID").toString(), "11");
    EXPECT_EQ(heat.value("hdVideo").toInt(), 1);
    EXPECT_EQ(heat.value("files").toArray(),
              (QJsonArray{m_movies + "/HD/Heat.m4v", m_movies + "/Heat SD.m4v"}));
    EXPECT_EQ(genres.value("Science Fiction").toArray().at(0).toObject().value("files").toArray(),
              QJsonArray{m_movies + "/Alien.M4V"});
}

TEST_F(LibraryCommand, GenreOptionShowsThatGenreOnlyAndUnreadableFilesAreReported) {
    const QString junk = makeJunk(m_movies + "/Notes.m4v");
    Result r = runCli({"--folder", m_movies, "--genre", "Science Fiction"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.toStdString(), "Science Fiction (1 movie)\n  Alien (1 file)\n");
    EXPECT_TRUE(r.err.contains("skipped " + junk + ": not a readable MP4 file"))
        << r.err.toStdString();

    r = runCli({"--folder", m_movies, "--genre", "All Movies", "--json"});
    EXPECT_EQ(r.status, 0);
    const QJsonObject genres =
        QJsonDocument::fromJson(r.out.toUtf8()).object().value("genres").toObject();
    EXPECT_EQ(genres.keys(), QStringList{"All Movies"});
    EXPECT_EQ(genres.value("All Movies").toArray().size(), 3);

    r = runCli({"--folder", m_movies, "--genre", "Western"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_TRUE(r.err.contains("\"Western\"")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("Crime, Science Fiction")) << r.err.toStdString();
}

TEST_F(LibraryCommand, FolderDefaultsToTheLibraryBookmarksMoviesFolderOrFailsWithAHint) {
    UserDefaults& defaults = UserDefaults::standard();
    defaults.reopen();
    defaults.removeObject(QLatin1String(SettingsKey::ITunesPathBookmark));
    ASSERT_TRUE(defaults.synchronize());
    Result r = runCli({});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_TRUE(r.err.contains("no iTunes folder is set")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("--folder")) << r.err.toStdString();

    defaults.setObject(Bookmark::create(m_dir.path()),
                       QLatin1String(SettingsKey::ITunesPathBookmark));
    ASSERT_TRUE(defaults.synchronize());
    r = runCli({"--genre", "Science Fiction"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_EQ(r.out.toStdString(), "Science Fiction (1 movie)\n  Alien (1 file)\n");

    // A library folder without a "Movies" folder.
    const QString empty = m_dir.filePath("Empty Library");
    QDir().mkpath(empty);
    defaults.setObject(Bookmark::create(empty), QLatin1String(SettingsKey::ITunesPathBookmark));
    ASSERT_TRUE(defaults.synchronize());
    r = runCli({"--json"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("has no \"Movies\" folder")) << r.err.toStdString();

    r = runCli({"--folder", m_dir.filePath("gone")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("no such folder")) << r.err.toStdString();
}

TEST_F(LibraryCommand, EmptyFolderAndBadArguments) {
    const QString empty = m_dir.filePath("Nothing");
    QDir().mkpath(empty);
    Result r = runCli({"--folder", empty});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "No movies in " + empty + "\n");
    r = runCli({"--folder", empty, "--json"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(QJsonDocument::fromJson(r.out.toUtf8()).object().value("genres").toObject(),
              QJsonObject());

    EXPECT_EQ(runCli({"--genre"}).status, 2);
    EXPECT_EQ(runCli({"--sort"}).status, 2);
    EXPECT_EQ(runCli({m_movies}).status, 2);
}

TEST_F(LibraryCommand, ManyFilesShowProgressOnStandardError) {
    const QString first = m_movies + "/Zodiac.m4v";
    ASSERT_TRUE(QDir().mkpath(m_movies + "/copies"));
    for (int i = 0; i < 150; ++i)
        ASSERT_TRUE(QFile::copy(first, m_movies + QStringLiteral("/copies/z%1.m4v").arg(i)));
    const Result r = runCli({"--folder", m_movies, "--genre", "Crime"});
    EXPECT_EQ(r.status, 0);
    // The copies share Zodiac's content id.
    EXPECT_TRUE(r.out.contains("  Zodiac (151 files)\n")) << r.out.toStdString();
    EXPECT_TRUE(r.err.contains("Reading movies [154 of 154]")) << r.err.toStdString();
}

} // namespace
