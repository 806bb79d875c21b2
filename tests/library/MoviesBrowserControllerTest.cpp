// The library browser over real tagged files: finding the files, one cell per
// content id, genres, the genre filter, selection and the background load.

#include "LibraryTestMedia.h"
#include "TestSupport.h"

#include <algorithm>

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "library/MoviesBrowserController.h"
#include "metadata/MDB_Basicdata.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"

#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

using librarytest::makeJunk;
using librarytest::makeMovie;
using librarytest::MovieTags;

namespace {

// Counts a signal's emissions for as long as it lives.
class SignalCount {
public:
    template <typename Sender, typename Signal> SignalCount(Sender* sender, Signal signal) {
        QObject::connect(sender, signal, &m_context, [this] { ++m_count; });
    }
    int count() const { return m_count; }

private:
    QObject m_context;
    int m_count = 0;
};

QStringList fileNames(const QList<QUrl>& urls, const QString& root) {
    QStringList names;
    for (const QUrl& url : urls)
        names.append(QDir(root).relativeFilePath(url.toLocalFile()));
    return names;
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
        m_library = m_dir.filePath("iTunes Media");
        m_movies = m_library + "/Movies";
        QDir().mkpath(m_movies);
        ASSERT_FALSE(librarytest::tinyClip().isEmpty());
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    QString movie(const QString& relative, const MovieTags& tags) {
        return makeMovie(m_movies + '/' + relative, tags);
    }

    void setLibraryBookmark(const QString& folder) {
        UserDefaults::standard().setObject(Bookmark::create(folder),
                                           QLatin1String(SettingsKey::ITunesPathBookmark));
    }

    // Loads the list and waits for it on the event loop.
    static bool load(MoviesBrowserController& browser) {
        SignalCount loaded(&browser, &MoviesBrowserController::movieListLoaded);
        browser.loadMovieList();
        return testsupport::waitUntil([&] { return loaded.count() > 0; }, 60000);
    }

    QTemporaryDir m_dir;
    QString m_library;
    QString m_movies;
};

TEST_F(MoviesBrowser, FindsMovieFilesInEveryFolderWhateverTheExtensionCase) {
    movie("Film.M4V", {});
    movie("Drama/Old/heat.m4v", {});
    movie("Mixed.M4v", {});
    movie("clip.mp4", {});
    movie(".hidden.m4v", {});
    QDir().mkpath(m_movies + "/Folder.m4v");

    const QList<QUrl> files = MoviesBrowserController::scanMoviesURL(m_movies);
    EXPECT_EQ(fileNames(files, m_movies),
              (QStringList{"Drama/Old/heat.m4v", "Film.M4V", "Mixed.M4v"}));
}

TEST_F(MoviesBrowser, MoviesFolderComesFromTheLibraryBookmarkOrShowsNoCells) {
    movie("Heat.m4v", MovieTags().setName("Heat"));
    {
        MoviesBrowserController browser;
        EXPECT_TRUE(browser.moviesFolder().isEmpty());
        ASSERT_TRUE(load(browser));
        EXPECT_EQ(browser.count(), 0);
        EXPECT_EQ(browser.genres(), QStringList{"All Movies"});
    }
    QDir().mkpath(m_library + "/movies-lowercase");
    setLibraryBookmark(m_library);
    MoviesBrowserController browser;
    EXPECT_EQ(browser.moviesFolder(), QFileInfo(m_movies).absoluteFilePath());

    // The search for "Movies" is case-sensitive and wants a folder.
    const QString other = m_dir.filePath("Other Library");
    QDir().mkpath(other + "/movies");
    QFile(other + "/Movies.txt").open(QIODevice::WriteOnly);
    setLibraryBookmark(other);
    EXPECT_TRUE(MoviesBrowserController::iTunesMoviesFolder().isEmpty());
    MoviesBrowserController none;
    ASSERT_TRUE(load(none));
    ASSERT_TRUE(none.movieMap().has_value());
    EXPECT_TRUE(none.movieMap()->isEmpty());

    MoviesBrowserController gone;
    gone.setMoviesFolder(m_dir.filePath("gone"));
    ASSERT_TRUE(load(gone));
    EXPECT_EQ(gone.count(), 0);
    EXPECT_TRUE(gone.skippedFiles().isEmpty());
}

TEST_F(MoviesBrowser, OneCellPerContentIdGroupedByGenreAndSkippingWhatIsNoMovie) {
    // The SD file comes first in the listing: the HD one must still be shown.
    const QString sd =
        movie("a/Heat (SD).m4v", MovieTags().setName("Heat").setGenre("Action").setContentID(42));
    const QString hd =
        movie("b/Heat (HD).m4v",
              MovieTags().setName("Heat").setGenre("Action").setContentID(42).setHDVideo(1));
    // And here the HD file comes first and keeps its place.
    const QString hd2 = movie("a/Rock 1080p.m4v", MovieTags()
                                                      .setName("The Rock")
                                                      .setSortName("Rock")
                                                      .setGenre("Action")
                                                      .setContentID(7)
                                                      .setHDVideo(2));
    movie("b/Rock.m4v", MovieTags().setName("The Rock").setGenre("Action").setContentID(7));
    movie("c/alien.m4v", MovieTags().setName("Alien").setGenre("Action").setContentID(3));
    movie("c/amelie.m4v", MovieTags().setName("Amelie").setGenre("Drama").setContentID(4));
    movie("c/untagged.m4v", MovieTags().setContentID(5));
    const QString junk = makeJunk(m_movies + "/d/Broken.m4v");
    const QString empty = m_movies + "/d/Empty.M4V";
    QFile(empty).open(QIODevice::WriteOnly);

    MoviesBrowserController browser;
    browser.setMoviesFolder(m_movies);
    SignalCount genresChanged(&browser, &MoviesBrowserController::genresChanged);
    ASSERT_TRUE(load(browser));
    EXPECT_GE(genresChanged.count(), 1);
    EXPECT_EQ(browser.skippedFiles(),
              (QList<QUrl>{QUrl::fromLocalFile(junk), QUrl::fromLocalFile(empty)}));
    EXPECT_FALSE(browser.isLoading());
    EXPECT_FALSE(browser.scanProgressVisible());
    ASSERT_TRUE(browser.movieMap().has_value());
    const auto& movies = *browser.movieMap();
    ASSERT_EQ(movies.size(), 5);
    const auto heat = movies.value("42");
    ASSERT_TRUE(heat);
    EXPECT_EQ(heat->urls(), (QList<QUrl>{QUrl::fromLocalFile(sd), QUrl::fromLocalFile(hd)}));
    EXPECT_EQ(heat->url(), QUrl::fromLocalFile(hd));
    EXPECT_TRUE(heat->isHD());
    EXPECT_EQ(heat->hdVideo(), 1);
    const auto rock = movies.value("7");
    ASSERT_TRUE(rock);
    EXPECT_EQ(rock->urls().size(), 2);
    EXPECT_EQ(rock->url(), QUrl::fromLocalFile(hd2));
    EXPECT_EQ(rock->hdVideo(), 2);
    EXPECT_TRUE(movies.value("3")->isSD());

    EXPECT_EQ(browser.genres(), (QStringList{"All Movies", "Action", "Drama", "Unknown"}));
    const auto& genres = browser.genreMap();
    // Within a genre, cells follow their sort names.
    EXPECT_EQ(cellNames(genres.value("Action")), (QStringList{"Alien", "Heat", "The Rock"}));
    // Without a name tag the cell takes the file's name.
    EXPECT_EQ(cellNames(genres.value("Unknown")), QStringList{"untagged"});
    EXPECT_EQ(browser.curGenre(), "All Movies");
    EXPECT_EQ(cellNames(browser.curCells()),
              (QStringList{"Alien", "Amelie", "Heat", "The Rock", "untagged"}));
    EXPECT_EQ(browser.itemAtIndex(4)->name(), "untagged");
    EXPECT_FALSE(browser.itemAtIndex(5));
    EXPECT_FALSE(browser.itemAtIndex(-1));

    SignalCount reloaded(&browser, &MoviesBrowserController::reloaded);
    EXPECT_TRUE(browser.chooseGenre("Drama"));
    EXPECT_EQ(reloaded.count(), 1);
    EXPECT_EQ(cellNames(browser.curCells()), QStringList{"Amelie"});
    // A genre the library does not have changes nothing.
    EXPECT_FALSE(browser.chooseGenre("Western"));
    EXPECT_EQ(reloaded.count(), 1);
    EXPECT_EQ(browser.curGenre(), "Drama");
    EXPECT_TRUE(browser.chooseGenre("All Movies"));
    EXPECT_EQ(browser.count(), 5);
}

TEST_F(MoviesBrowser, LoadingRunsBesideTheEventLoop) {
    constexpr int kFiles = 300;
    const QString first = movie("m0000.m4v", MovieTags().setName("Movie").setGenre("Action"));
    for (int i = 1; i < kFiles; ++i)
        ASSERT_TRUE(QFile::copy(
            first, m_movies + QStringLiteral("/m%1.m4v").arg(i, 4, 10, QLatin1Char('0'))));

    MoviesBrowserController browser;
    browser.setMoviesFolder(m_movies);
    browser.setHidden(false);
    int ticks = 0;
    int ticksAtLoad = -1;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(0);
    QList<int> values;
    int ticksAtFirstStep = -1;
    int ticksAtLastStep = -1;
    bool offMainThread = false;
    QObject::connect(&browser, &MoviesBrowserController::scanProgressChanged, [&] {
        offMainThread |= QThread::currentThread() != browser.thread();
        values.append(browser.scanProgressValue());
        if (ticksAtFirstStep < 0)
            ticksAtFirstStep = ticks;
        if (browser.scanProgressValue() == kFiles)
            ticksAtLastStep = ticks;
    });
    QObject::connect(&browser, &MoviesBrowserController::movieListLoaded,
                     [&] { ticksAtLoad = ticks; });

    // Showing the browser already queued the load; it has not run on this thread.
    EXPECT_TRUE(browser.isLoading());
    EXPECT_FALSE(browser.movieMap().has_value());
    EXPECT_TRUE(browser.scanProgressVisible());
    EXPECT_FALSE(browser.scanTitle().isEmpty());

    ASSERT_TRUE(testsupport::waitUntil([&] { return ticksAtLoad >= 0; }, 60000));
    // The event loop kept turning between the first and the last file.
    EXPECT_GT(ticksAtLastStep, ticksAtFirstStep) << "progress steps: " << values.size();
    EXPECT_GT(ticksAtLoad, 0);
    EXPECT_FALSE(offMainThread);
    // The progress advanced in steps up to the whole count.
    ASSERT_GE(values.size(), 3);
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end() - 1));
    EXPECT_TRUE(values.contains(kFiles));
    // Files without a content id are told apart by their names.
    EXPECT_EQ(browser.count(), kFiles);
    EXPECT_EQ(browser.scanStatus(), QString());
}

TEST_F(MoviesBrowser, DestroyingTheBrowserDuringALoadStopsIt) {
    const QString first = movie("m000.m4v", MovieTags().setName("Movie"));
    for (int i = 1; i < 60; ++i)
        QFile::copy(first, m_movies + QStringLiteral("/m%1.m4v").arg(i, 3, 10, QLatin1Char('0')));
    auto browser = std::make_unique<MoviesBrowserController>();
    browser->setMoviesFolder(m_movies);
    browser->loadMovieList();
    browser.reset();
    // Nothing the dead browser queued may run now (a crash or a hang fails).
    QCoreApplication::processEvents();
}

TEST_F(MoviesBrowser, SelectionBuildsTheMovieFromItsFileTagsAndShowingAgainRereadsIt) {
    const QString heat = movie("heat.m4v", MovieTags().setContentID(1));
    MDB_Metadata record;
    record.setTagsDict({});
    record.setTag("Heat", TagName::Name);
    record.setTag("Crime", TagName::Genre);
    record.setTag("Michael Mann", TagName::Director);
    MP4FileHandle handle = MP4Modify(QFile::encodeName(heat).constData());
    ASSERT_TRUE(handle);
    ASSERT_TRUE(record.writeMetadataToFile(handle, false));
    MP4Close(handle);
    movie("alien.m4v", MovieTags().setName("Alien").setGenre("Science Fiction").setContentID(2));

    MoviesBrowserController browser;
    browser.setMoviesFolder(m_movies);
    SignalCount loaded(&browser, &MoviesBrowserController::movieListLoaded);
    browser.setHidden(false);
    browser.setHidden(true);
    browser.setHidden(false);
    ASSERT_TRUE(testsupport::waitUntil([&] { return loaded.count() > 0; }, 60000));
    SignalCount changed(&browser, &MoviesBrowserController::curMovieChanged);

    ASSERT_EQ(cellNames(browser.curCells()), (QStringList{"Alien", "Heat"}));
    browser.setSelection({7, 1});
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(browser.selection(), QList<int>{1});
    ASSERT_TRUE(browser.curMovie());
    EXPECT_EQ(browser.curMovie()->outPath(), heat);
    EXPECT_EQ(browser.curMovie()->name(), "Heat");
    EXPECT_EQ(browser.curMovie()->getTag(TagName::Director), "Michael Mann");

    // While the browser is away a movie is added and the selected one edited:
    // the list is not read again, the selected movie is.
    browser.setHidden(true);
    movie("zodiac.m4v", MovieTags().setName("Zodiac").setContentID(3));
    ASSERT_TRUE(librarytest::writeTags(heat, MovieTags().setName("Heat (Director's Cut)")));
    browser.setHidden(false);
    browser.loadMovieList();
    QCoreApplication::processEvents();
    EXPECT_FALSE(browser.isLoading());
    EXPECT_EQ(loaded.count(), 1);
    EXPECT_EQ(browser.count(), 2);
    ASSERT_TRUE(browser.curMovie());
    EXPECT_EQ(browser.curMovie()->name(), "Heat (Director's Cut)");

    // The first selected cell is the lowest row.
    browser.selectAll();
    EXPECT_EQ(browser.getSelected().size(), 2);
    ASSERT_TRUE(browser.curMovie());
    EXPECT_EQ(browser.curMovie()->name(), "Alien");
    browser.setSelection({});
    EXPECT_FALSE(browser.curMovie());
    // Another genre's cells drop the selection and its movie.
    browser.setSelection({0});
    ASSERT_TRUE(browser.curMovie());
    browser.chooseGenre("Crime");
    EXPECT_TRUE(browser.selection().isEmpty());
    EXPECT_FALSE(browser.curMovie());
}

TEST(iTunesMovieCell, StartsUnknownAndTheHighestHdFileIsShown) {
    const iTunesMovieCell empty;
    EXPECT_EQ(empty.name(), "Unknown");
    EXPECT_EQ(empty.genre(), "Unknown");
    EXPECT_TRUE(empty.urls().isEmpty());

    MDB_Basicdata data;
    data.name = "The Rock";
    data.contentID = "1234";
    data.url = QUrl::fromLocalFile("/library/Movies/The Rock.m4v");
    iTunesMovieCell cell(data);
    EXPECT_EQ(cell.uid(), "1234");
    EXPECT_EQ(cell.imageTitle(), "The Rock");
    EXPECT_EQ(cell.imageRepresentation(), "/library/Movies/The Rock.m4v");
    // The same file twice stays one entry; a lower HD flag does not take over.
    cell.addURL(data.url, 0);
    EXPECT_EQ(cell.urls().size(), 1);
    cell.addURL(QUrl::fromLocalFile("/library/Movies/The Rock 720p.m4v"), 1);
    cell.addURL(QUrl::fromLocalFile("/library/Movies/The Rock small.m4v"), 0);
    EXPECT_EQ(cell.urls().size(), 3);
    EXPECT_EQ(cell.imageRepresentation(), "/library/Movies/The Rock 720p.m4v");
    EXPECT_TRUE(cell.isHD());
}

} // namespace
