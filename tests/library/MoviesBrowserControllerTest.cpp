// The library browser over real tagged files: finding the files, one cell per
// content id, genres, the genre filter, selection and the background load.

#include "LibraryTestMedia.h"
#include "TestSupport.h"

#include <algorithm>

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "library/MoviesBrowserController.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"

#include <QTimer>

using librarytest::MovieTags;

namespace {

// Counts a signal's emissions.
template <typename Signal> std::shared_ptr<int> counter(MoviesBrowserController& b, Signal signal) {
    auto count = std::make_shared<int>(0);
    QObject::connect(&b, signal, [count] { ++*count; });
    return count;
}

QStringList cellNames(const QList<MoviesBrowserController::CellPtr>& cells) {
    QStringList names;
    for (const auto& cell : cells)
        names.append(cell->name());
    return names;
}

class MoviesBrowser : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        UserDefaults::standard().reopen(m_dir.filePath("Tarnwick.plist"));
        m_movies = m_dir.filePath("iTunes Media/Movies");
        QDir().mkpath(m_movies);
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    QString movie(const QString& relative, const MovieTags& tags) {
        return librarytest::makeMovie(m_movies + '/' + relative, tags);
    }

    // Loads the list and waits for it on the event loop.
    static bool load(MoviesBrowserController& browser) {
        const auto loaded = counter(browser, &MoviesBrowserController::movieListLoaded);
        browser.loadMovieList();
        return testsupport::waitUntil([&] { return *loaded > 0; }, 60000);
    }

    QTemporaryDir m_dir;
    QString m_movies;
};

TEST_F(MoviesBrowser, FindsMovieFilesInEveryFolderAndAFolderThatIsGoneShowsNoCells) {
    movie("Film.M4V", {});
    movie("Drama/Old/heat.m4v", {});
    movie("clip.mp4", {});
    QDir().mkpath(m_movies + "/Folder.m4v");
    EXPECT_EQ(MoviesBrowserController::scanMoviesURL(m_movies),
              (QList<QUrl>{QUrl::fromLocalFile(m_movies + "/Drama/Old/heat.m4v"),
                           QUrl::fromLocalFile(m_movies + "/Film.M4V")}));
    MoviesBrowserController gone;
    gone.setMoviesFolder(m_dir.filePath("gone"));
    ASSERT_TRUE(load(gone));
    EXPECT_EQ(gone.genres(), QStringList{"All Movies"});
}

TEST_F(MoviesBrowser, OneCellPerContentIdGroupedByGenreAndSkippingWhatIsNoMovie) {
    // The SD file comes first in the listing: the HD one must still be shown.
    const QString sd =
        movie("a/Heat (SD).m4v", {.name = "Heat", .genre = "Action", .contentID = 42});
    const QString hd = movie("b/Heat (HD).m4v",
                             {.name = "Heat", .genre = "Action", .contentID = 42, .hdVideo = 1});
    // And here the HD file comes first and keeps its place.
    const QString hd2 = movie(
        "a/Rock 1080p.m4v",
        {.name = "The Rock", .sortName = "Rock", .genre = "Action", .contentID = 7, .hdVideo = 2});
    movie("b/Rock.m4v", {.name = "The Rock", .genre = "Action", .contentID = 7});
    movie("c/alien.m4v", {.name = "Alien", .genre = "Action", .contentID = 3});
    movie("c/amelie.m4v", {.name = "Amelie", .genre = "Drama", .contentID = 4});
    movie("c/untagged.m4v", {.contentID = 5});
    const QString junk = librarytest::makeJunk(m_movies + "/d/Broken.m4v");
    const QString empty = m_movies + "/d/Empty.M4V";
    QFile(empty).open(QIODevice::WriteOnly);

    MoviesBrowserController browser;
    browser.setMoviesFolder(m_movies);
    ASSERT_TRUE(load(browser));
    EXPECT_EQ(browser.skippedFiles(),
              (QList<QUrl>{QUrl::fromLocalFile(junk), QUrl::fromLocalFile(empty)}));
    ASSERT_TRUE(browser.movieMap().has_value());
    const auto& movies = *browser.movieMap();
    ASSERT_EQ(movies.size(), 5);
    const auto heat = movies.value("42");
    ASSERT_TRUE(heat);
    EXPECT_EQ(heat->urls(), (QList<QUrl>{QUrl::fromLocalFile(sd), QUrl::fromLocalFile(hd)}));
    EXPECT_EQ(heat->url(), QUrl::fromLocalFile(hd));
    ASSERT_TRUE(movies.value("7"));
    EXPECT_EQ(movies.value("7")->url(), QUrl::fromLocalFile(hd2));
    EXPECT_EQ(movies.value("7")->hdVideo(), 2);

    // Within a genre, cells follow their sort names; without a name tag a cell
    // takes the file's name.
    EXPECT_EQ(cellNames(browser.genreMap().value("Action")),
              (QStringList{"Alien", "Heat", "The Rock"}));
    EXPECT_EQ(cellNames(browser.curCells()),
              (QStringList{"Alien", "Amelie", "Heat", "The Rock", "untagged"}));

    const auto reloaded = counter(browser, &MoviesBrowserController::reloaded);
    EXPECT_TRUE(browser.chooseGenre("Drama"));
    EXPECT_EQ(*reloaded, 1);
    EXPECT_EQ(cellNames(browser.curCells()), QStringList{"Amelie"});
    // A genre the library does not have changes nothing.
    EXPECT_FALSE(browser.chooseGenre("Western"));
    EXPECT_EQ(*reloaded, 1);
}

TEST_F(MoviesBrowser, LoadingRunsBesideTheEventLoopAndStopsWithTheBrowser) {
    constexpr int kFiles = 300;
    const QString first = movie("m0000.m4v", {.name = "Movie", .genre = "Action"});
    for (int i = 1; i < kFiles; ++i)
        ASSERT_TRUE(QFile::copy(
            first, m_movies + QStringLiteral("/m%1.m4v").arg(i, 4, 10, QLatin1Char('0'))));

    MoviesBrowserController browser;
    browser.setMoviesFolder(m_movies);
    browser.setHidden(false);
    // The event loop keeps turning between the first and the last file.
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(0);
    QList<QPair<int, int>> steps; // (files read, ticks)
    QObject::connect(&browser, &MoviesBrowserController::scanProgressChanged, [&] {
        steps.append({browser.scanProgressValue(), ticks});
    });
    // Showing the browser queued the load; it has not run on this thread.
    EXPECT_FALSE(browser.movieMap().has_value());
    ASSERT_TRUE(testsupport::waitUntil([&] { return browser.movieMap().has_value(); }, 60000));
    ASSERT_GT(steps.size(), 10) << "the count did not advance file by file";
    EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end() - 1));
    const auto all =
        std::find_if(steps.begin(), steps.end(), [](auto p) { return p.first == kFiles; });
    ASSERT_NE(all, steps.end());
    EXPECT_GT(all->second, steps.first().second);
    // Files without a content id are told apart by their names.
    EXPECT_EQ(browser.count(), kFiles);

    auto doomed = std::make_unique<MoviesBrowserController>();
    doomed->setMoviesFolder(m_movies);
    doomed->loadMovieList();
    doomed.reset();
    // Nothing the dead browser queued may run now (a crash or a hang fails).
    QCoreApplication::processEvents();
}

TEST_F(MoviesBrowser, SelectionBuildsTheMovieFromItsFileTagsAndShowingAgainRereadsIt) {
    const QString heat = movie("heat.m4v", {.contentID = 1});
    MDB_Metadata record;
    record.setTagsDict({});
    record.setTag("Heat", TagName::Name);
    record.setTag("Michael Mann", TagName::Director);
    record.setTag("mpaa|PG-13|300|", TagName::Rating);
    MP4FileHandle handle = MP4Modify(QFile::encodeName(heat).constData());
    ASSERT_TRUE(handle);
    ASSERT_TRUE(record.writeMetadataToFile(handle, false));
    MP4Close(handle);
    movie("alien.m4v", {.name = "Alien", .genre = "Science Fiction", .contentID = 2});
    UserDefaults::standard().setObject("en-GB", SettingsKey::LanguageRegion);

    MoviesBrowserController browser;
    browser.setMoviesFolder(m_movies);
    const auto loaded = counter(browser, &MoviesBrowserController::movieListLoaded);
    browser.setHidden(false);
    ASSERT_TRUE(testsupport::waitUntil([&] { return *loaded > 0; }, 60000));
    const auto changed = counter(browser, &MoviesBrowserController::curMovieChanged);
    browser.setSelection({7, 1});
    EXPECT_EQ(*changed, 1);
    EXPECT_EQ(browser.selection(), QList<int>{1});
    ASSERT_TRUE(browser.curMovie());
    EXPECT_EQ(browser.curMovie()->outPath(), heat);
    EXPECT_EQ(browser.curMovie()->getTag(TagName::Director), "Michael Mann");
    // Read as a movie: the rating in the movie scale of the region.
    EXPECT_EQ(browser.curMovie()->getTag(TagName::Rating), "uk-movie|12|300|");

    // While the browser is away a movie is added and the selected one edited:
    // the list is not read again, the selected movie is.
    browser.setHidden(true);
    movie("zodiac.m4v", {.name = "Zodiac", .contentID = 3});
    ASSERT_TRUE(librarytest::writeTags(heat, {.name = "Heat (Director's Cut)"}));
    browser.setHidden(false);
    browser.loadMovieList();
    QCoreApplication::processEvents();
    EXPECT_EQ(browser.count(), 2);
    ASSERT_TRUE(browser.curMovie());
    EXPECT_EQ(browser.curMovie()->name(), "Heat (Director's Cut)");

    // The first selected cell is the lowest row.
    browser.selectAll();
    ASSERT_TRUE(browser.curMovie());
    EXPECT_EQ(browser.curMovie()->name(), "Alien");
    // Another genre's cells drop the selection and its movie.
    browser.chooseGenre("Science Fiction");
    EXPECT_TRUE(browser.selection().isEmpty());
    EXPECT_FALSE(browser.curMovie());
}

} // namespace
