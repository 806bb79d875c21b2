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

using librarytest::makeMovie;

namespace {

using Result = testsupport::CliResult;

Result runCli(const QStringList& arguments) {
    return testsupport::runCli(QStringList{"library"} + arguments);
}

class LibraryCommand : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_movies = m_dir.filePath("Movies");
        makeMovie(m_movies + "/Heat SD.m4v", {.name = "Heat", .genre = "Crime", .contentID = 11});
        makeMovie(m_movies + "/HD/Heat.m4v",
                  {.name = "Heat", .genre = "Crime", .contentID = 11, .hdVideo = 1});
        makeMovie(m_movies + "/Alien.M4V",
                  {.name = "Alien", .genre = "Science Fiction", .contentID = 12});
        makeMovie(m_movies + "/Zodiac.m4v", {.name = "Zodiac", .genre = "Crime", .contentID = 13});
    }
    // The program reads the settings file of the private test home.
    void TearDown() override { setLibrary(QString()); }
    static void setLibrary(const QString& folder) {
        UserDefaults& d = UserDefaults::standard();
        d.reopen();
        if (folder.isEmpty())
            d.removeObject(QLatin1String(SettingsKey::ITunesPathBookmark));
        else
            d.setObject(Bookmark::create(folder), QLatin1String(SettingsKey::ITunesPathBookmark));
        ASSERT_TRUE(d.synchronize());
    }

    QTemporaryDir m_dir;
    QString m_movies;
};

TEST_F(LibraryCommand, ListsGenresAsTextOrJsonAndFiltersByGenre) {
    Result r = runCli({"--folder", m_movies});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_EQ(r.out.toStdString(), "Crime (2 movies)\n"
                                   "  Heat [HD] (2 files)\n"
                                   "  Zodiac (1 file)\n"
                                   "\n"
                                   "Science Fiction (1 movie)\n"
                                   "  Alien (1 file)\n");

    r = runCli({"--json", "--folder", m_movies});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject genres =
        QJsonDocument::fromJson(r.out.toUtf8()).object().value("genres").toObject();
    const QJsonObject heat = genres.value("Crime").toArray().at(0).toObject();
    EXPECT_EQ(heat.value("contentID").toString(), "11");
    EXPECT_EQ(heat.value("files").toArray(),
              (QJsonArray{m_movies + "/HD/Heat.m4v", m_movies + "/Heat SD.m4v"}));

    const QString junk = librarytest::makeJunk(m_movies + "/Notes.m4v");
    r = runCli({"--folder", m_movies, "--genre", "Science Fiction"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.toStdString(), "Science Fiction (1 movie)\n  Alien (1 file)\n");
    EXPECT_TRUE(r.err.contains("skipped " + junk + ": not a readable MP4 file"))
        << r.err.toStdString();
    r = runCli({"--folder", m_movies, "--genre", "Western"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("\"Western\"") && r.err.contains("Crime, Science Fiction"))
        << r.err.toStdString();
}

TEST_F(LibraryCommand, FolderDefaultsToTheLibraryBookmarksMoviesFolderOrFailsWithAHint) {
    setLibrary(QString());
    const QString empty = m_dir.filePath("Empty");
    QDir().mkpath(empty);
    const struct {
        QString library;
        QStringList args;
        int status;
        const char* says;
    } cases[] = {
        {QString(), {}, 1, "no iTunes folder is set"},
        {empty, {"--json"}, 1, "has no \"Movies\" folder"},
        {QString(), {"--folder", m_dir.filePath("gone")}, 1, "no such folder"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        if (!c.library.isEmpty())
            setLibrary(c.library);
        const Result r = runCli(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_TRUE(r.err.contains(c.says)) << r.err.toStdString();
    }
    setLibrary(m_dir.path());
    Result r = runCli({"--genre", "Science Fiction"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_EQ(r.out.toStdString(), "Science Fiction (1 movie)\n  Alien (1 file)\n");
    r = runCli({"--folder", empty});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "No movies in " + empty + "\n");
}

} // namespace
