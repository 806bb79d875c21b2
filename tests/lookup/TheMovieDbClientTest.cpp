// The movie database client against the loopback server: one movie object
// into a record, search and query, each failure told apart within its budget,
// cancel, and the choice the search results panel leaves.
#include "LookupTestSupport.h"

#include "lookup/MDB_TheMovieDb.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "lookup/SearchResultsPanelController.h"
#include "media/MDI_Movie.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "metadata/Utility.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QThread>
#include <QUrlQuery>

namespace {

using lookuptest::server;
using Failure = MDB_TheMovieDb::Failure;
using Mode = LoopbackMovieDb::Mode;

bool onMainThread() {
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

// Records every callback and whether it came on the main thread.
class RecordingDelegate : public MDB_TheMovieDbDelegate {
public:
    void searchComplete(std::vector<std::unique_ptr<MDB_Metadata>> results) override {
        hits = std::move(results);
        ++searches;
        mainThread = onMainThread();
    }
    void queryComplete(MDB_Metadata* metadata) override {
        queried = metadata;
        ++queries;
        mainThread = onMainThread();
    }
    std::vector<std::unique_ptr<MDB_Metadata>> hits;
    MDB_Metadata* queried = nullptr;
    int searches = 0, queries = 0;
    bool mainThread = false;
};

// Points the client at the loopback server with a clean configuration cache,
// the built-in key and a short time-out.
class LookupTest : public ::testing::Test {
protected:
    void SetUp() override {
        qputenv("TARNWICK_TMDB_URL", server().baseURL().toUtf8());
        qunsetenv("TARNWICK_TMDB_API_KEY");
        server().setSlowDelay(20000);
        MDB_TheMovieDb::clearCachedConfiguration();
        MDB_TheMovieDb::setRequestTimeout(5000);
        server().clearRequests();
    }
    void TearDown() override {
        server().setMode(LoopbackMovieDb::Mode::Normal);
        qunsetenv("TARNWICK_TMDB_API_KEY");
        MDB_TheMovieDb::setRequestTimeout(0);
    }

    // The requests since SetUp (or the last clear) whose path is `path`.
    static QList<QUrlQuery> requestsTo(const QString& path) {
        QList<QUrlQuery> found;
        for (const QUrl& url : server().requests())
            if (url.path() == path)
                found.append(QUrlQuery(url));
        return found;
    }

    static std::vector<std::unique_ptr<MDB_Metadata>>
    searchFor(MDB_TheMovieDb& client, const QString& title, const QString& region) {
        RecordingDelegate delegate;
        client.search(title, region, &delegate);
        EXPECT_TRUE(testsupport::waitUntil([&] { return delegate.searches > 0; }, 15000));
        EXPECT_TRUE(delegate.mainThread);
        return std::move(delegate.hits);
    }

    static void queryInto(MDB_TheMovieDb& client, MDB_Metadata& record, const QString& region) {
        RecordingDelegate delegate;
        client.query(&record, region, &delegate);
        EXPECT_TRUE(testsupport::waitUntil([&] { return delegate.queries > 0; }, 15000));
        EXPECT_EQ(delegate.queried, &record);
        EXPECT_TRUE(delegate.mainThread);
    }

    // Keeps the event loop turning for a while, so that anything queued arrives.
    static void settle(int milliseconds) {
        testsupport::waitUntil([] { return false; }, milliseconds);
    }
};

QString tagOf(const MDB_Metadata& record, const char* name) {
    return record.getTag(QString::fromLatin1(name));
}

void fill(MDB_Metadata& record, const char* json) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray(json), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << json;
    MDB_TheMovieDb::metadata(record, document.object(), "US");
}

TEST(MovieRecord, EachFieldAndItsQuirks) {
    MDB_MovieMetadata record;
    record.setTag("Old", TagName::Name);
    record.setTag("Someone, ", TagName::Producers);
    record.setTag("Cast, ", TagName::Cast);
    // No id is still an id; null is absent; an empty cast list leaves the cast;
    // a crew of other departments empties the people tags.
    fill(record, R"({"title": null, "release_date": "1999-01-02", "imdb_id": "tt0000123",
                     "genres": [], "trailers": {"youtube": []},
                     "casts": {"cast": [], "crew": [{"name": "S", "department": "Sound"}]}})");
    const auto tags = [&](std::initializer_list<const char*> names) {
        QStringList values;
        for (const char* name : names)
            values << tagOf(record, name);
        return values;
    };
    EXPECT_EQ(tags({TagName::TMDbID, TagName::Name, TagName::ReleaseDate, TagName::IMDbID,
                    TagName::Genre, TagName::Producers, TagName::Cast}),
              (QStringList{"0", "Old", "1999-01-02", "0000123", "", "", "Cast, "}));
    EXPECT_FALSE(record.trailer().isValid());

    // People lists keep their trailing separator; only the first trailer counts.
    fill(record, R"({"id": 603, "title": "New", "overview": "", "imdb_id": "",
                     "casts": {"cast": [{"name": "A"}, {"name": "B"}],
                               "crew": [{"name": "D", "department": "Directing"},
                                        {"name": "W", "department": "Writing"},
                                        {"name": "P", "department": "Production"},
                                        {"name": "Q", "department": "Production"}]},
                     "production_companies": [{"name": "One"}, {"name": "Two"}],
                     "trailers": {"youtube": [{"source": "first"}, {"source": "second"}]},
                     "genres": [{"name": "Drama"}, {"name": "History"}]})");
    // A short IMDb id clears the page.
    EXPECT_EQ(tags({TagName::SortName, TagName::LongDescription, TagName::IMDbID, TagName::Cast,
                    TagName::Director, TagName::Screenwriters, TagName::Producers, TagName::Studio,
                    TagName::Genre}),
              (QStringList{"New", "", "", "A, B, ", "D, ", "W, ", "P, Q, ", "One, Two, ",
                           "Drama, History"}));
    EXPECT_FALSE(record.imdb().isValid());
    EXPECT_EQ(record.trailer().toUrl().toString(), "http://www.youtube.com/watch?v=first");
}

// --- search and query ----------------------------------------------------------

TEST_F(LookupTest, SearchEncodesTheTitleAndSendsTheKeyLanguageAndAdultFlag) {
    MDB_TheMovieDb client;
    UserDefaults::standard().setBool(false, SettingsKey::AdultSearch);
    const QString title = "Tom & \"Jerry\": 100% #1 + Ærø?";
    searchFor(client, title, "en-US");
    UserDefaults::standard().setBool(true, SettingsKey::AdultSearch);
    qputenv("TARNWICK_TMDB_API_KEY", "abc");
    searchFor(client, "x", "de-DE");
    UserDefaults::standard().removeObject(SettingsKey::AdultSearch);

    const QList<QUrlQuery> searches = requestsTo("/3/search/movie");
    ASSERT_EQ(searches.size(), 2);
    // Unescaped, "&", "#", "%" or "+" would cut or garble the query.
    EXPECT_EQ(searches[0].queryItemValue("query", QUrl::FullyDecoded), title);
    const auto items = [](const QUrlQuery& q) {
        return QStringList{q.queryItemValue("api_key"), q.queryItemValue("language"),
                           q.queryItemValue("include_adult")};
    };
    EXPECT_EQ(items(searches[0]), (QStringList{MDB_TheMovieDb::DefaultAPIKey, "en", "false"}));
    EXPECT_EQ(items(searches[1]), (QStringList{"abc", "de", "true"}));

    qputenv("TARNWICK_TMDB_URL", "http://127.0.0.1:9//");
    EXPECT_EQ(MDB_TheMovieDb::baseURL(), "http://127.0.0.1:9");
}

TEST_F(LookupTest, AHitIsFilledInPlaceWithEverythingTheDatabaseKnows) {
    MDB_TheMovieDb client;
    auto hits = searchFor(client, "The Lighthouse Keeper", "en-US");
    ASSERT_EQ(hits.size(), 3u);
    EXPECT_EQ(tagOf(*hits[2], TagName::Name), "Keeper of the Light");
    EXPECT_TRUE(hits[1]->artworkURL().isEmpty()); // no poster path, no address
    MDB_Metadata& record = *hits[0];
    EXPECT_EQ(tagOf(record, TagName::ReleaseDate), "2019-10-11");
    const QString images = server().baseURL() + "/t/p/";
    EXPECT_EQ(record.artworkURL().toString(), images + "w92/lighthouse-keeper-poster-en.jpg");
    EXPECT_TRUE(searchFor(client, "No Film Is Called This", "en-US").empty());

    server().clearRequests();
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Genre), "Drama, Mystery, Thriller");
    EXPECT_EQ(tagOf(record, TagName::Rating), "mpaa|PG-13|300|");
    EXPECT_EQ(record.imdb().toUrl().toString(), "http://www.imdb.com/title/tt9000123/");
    EXPECT_EQ(record.tmdb().toUrl().toString(), "http://www.themoviedb.org/movie/100001");
    EXPECT_EQ(record.homepage().toUrl().toString(), "http://lighthouse-keeper.example.org/");
    EXPECT_EQ(record.tagLine().toString(), "Every light is a message.");
    EXPECT_EQ(record.budget().toLongLong(), 4200000);
    EXPECT_EQ(record.revenue().toLongLong(), 9800000);
    EXPECT_DOUBLE_EQ(record.rating().toDouble(), 7.1);
    EXPECT_EQ(record.votes().toInt(), 842);
    // Posters from the appended images (English only), backdrops from the
    // images-only document.
    EXPECT_EQ(record.artworkThumbURLs(),
              QList<QUrl>{QUrl(images + "w92/lighthouse-keeper-poster-en.jpg")});
    EXPECT_EQ(record.artworkFullsizeURLs(),
              QList<QUrl>{QUrl(images + "original/lighthouse-keeper-poster-en.jpg")});
    ASSERT_EQ(record.backdropThumbURLs().size(), 2);
    EXPECT_EQ(record.backdropThumbURLs()[1].toString(),
              images + "w300/lighthouse-keeper-backdrop-2.jpg");

    // Translations, the full movie, then the images of every language.
    QStringList paths;
    for (const QUrl& url : server().requests())
        paths.append(url.path());
    EXPECT_EQ(paths, QStringList({"/3/movie/100001/translations", "/3/movie/100001",
                                  "/3/movie/100001/images"}));
    EXPECT_EQ(requestsTo("/3/movie/100001")[0].queryItemValue("append_to_response"),
              "casts,releases,trailers,images");
    EXPECT_FALSE(requestsTo("/3/movie/100001/images")[0].hasQueryItem("language"));
}

TEST_F(LookupTest, RatingPostersAndLanguageFollowTheUsersRegion) {
    MDB_TheMovieDb client;
    const struct {
        const char* id;
        const char* region;
        const char* rating;
        int posters;
        const char* language; // asked of the full movie
    } cases[] = {
        {"100001", "en-GB", "uk-movie|12A|325|", 1, "en"},
        {"100001", "de-DE", "de-movie|Ab 12 Jahren|200|", 1, "de"},
        // French has no posters of its own: those of the images-only document.
        {"100001", "fr-FR", "fr-movie|Tout public|000|", 3, "fr"},
        // No certification in the user's country: the first country's, translated.
        // No German translation: English.
        {"100002", "de-DE", "de-movie|Ab 12 Jahren|200|", -1, "en"},
        // The user's country is missing; an empty certification counts as one.
        {"100004", "en-US", "mpaa|NR|000|", -1, "en"},
        // A country the rating table does not know translates to nothing.
        {"100001", "da-DK", "", -1, "en"},
        // "releases" without "countries"; neither English nor the user's
        // language: the database's default.
        {"100005", "en-US", "", -1, ""},
        // No country has a certification: the rating stays as it was.
        {"100003", "en-US", "before", -1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.id) + " " + c.region);
        MDB_MovieMetadata record;
        record.setTag(c.id, TagName::TMDbID);
        record.setTag("before", TagName::Rating);
        server().clearRequests();
        queryInto(client, record, c.region);
        EXPECT_EQ(tagOf(record, TagName::Rating), c.rating);
        EXPECT_TRUE(c.posters < 0 || record.artworkFullsizeURLs().size() == c.posters)
            << record.artworkFullsizeURLs().size();
        const QList<QUrlQuery> full = requestsTo(QStringLiteral("/3/movie/") + c.id);
        ASSERT_EQ(full.size(), 1);
        EXPECT_EQ(full[0].hasQueryItem("language") ? full[0].queryItemValue("language") : "none",
                  c.language);
    }
}

TEST_F(LookupTest, QueryWithoutIdFetchesNothing) {
    MDB_TheMovieDb client;
    server().clearRequests();
    MDB_MovieMetadata record;
    record.deleteTag(TagName::TMDbID);
    record.setTag("Mine", TagName::Name);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Mine");
    EXPECT_EQ(server().requestCount(), 0);
}

// --- class operations ----------------------------------------------------------

TEST_F(LookupTest, ConfigurationIsFetchedOnceAndTriedAgainAfterAFailure) {
    qputenv("TARNWICK_TMDB_URL", "http://127.0.0.1:1");
    MDB_TheMovieDb unreachable;
    EXPECT_TRUE(MDB_TheMovieDb::cachedConfiguration().isEmpty());
    qputenv("TARNWICK_TMDB_URL", server().baseURL().toUtf8());
    // Without a configuration the record is still filled, with addresses
    // that lack a base and size.
    MDB_MovieMetadata record;
    record.setTag("100004", TagName::TMDbID);
    queryInto(unreachable, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Harbour Lights");
    EXPECT_EQ(record.artworkURL().toString(), "/harbour-lights-poster.jpg");

    MDB_TheMovieDb first, second;
    EXPECT_EQ(requestsTo("/3/configuration").size(), 1);
    EXPECT_FALSE(MDB_TheMovieDb::cachedConfiguration().isEmpty());
}

TEST_F(LookupTest, SingleMovieAndGenresInTheChosenLanguage) {
    const std::unique_ptr<MDB_Metadata> movie = MDB_TheMovieDb::movie("100001", "de-DE");
    ASSERT_TRUE(movie);
    EXPECT_EQ(tagOf(*movie, TagName::Name), "Der Leuchtturmwärter");
    EXPECT_FALSE(requestsTo("/3/movie/100001")[0].hasQueryItem("append_to_response"));
    EXPECT_EQ(MDB_TheMovieDb::movie("999999", "en-US"), nullptr);
    EXPECT_EQ(MDB_TheMovieDb::movie("900002", "en-US"), nullptr); // malformed body

    // German genre names are turned back into English before the map applies.
    MDB_TheMovieDb::installGenreSource();
    Utility::resetGenreCache();
    UserDefaults& defaults = UserDefaults::standard();
    defaults.setObject(QString("de-DE"), SettingsKey::LanguageRegion);
    defaults.setObject(QVariantMap{{"War", "War & History"}, {"Comedy", "Comedy"}},
                       SettingsKey::GenreMap);
    defaults.setObject(QVariantList{"War & History", "Comedy"}, SettingsKey::GenreList);
    EXPECT_EQ(Utility::assignGenre("Komödie, Kriegsfilm"), "War & History");
    for (const char* k :
         {SettingsKey::LanguageRegion, SettingsKey::GenreMap, SettingsKey::GenreList})
        defaults.removeObject(k);
    Utility::resetGenreCache();
}

// --- failures ------------------------------------------------------------------

TEST_F(LookupTest, ARefusedKeyOrAnUnknownMovieLeavesEverythingEmpty) {
    qputenv("TARNWICK_TMDB_API_KEY", "00000000000000000000000000000000");
    MDB_TheMovieDb client;
    EXPECT_FALSE(MDB_TheMovieDb::configuration().has_value());
    EXPECT_TRUE(MDB_TheMovieDb::getGenres("en").isEmpty());
    qunsetenv("TARNWICK_TMDB_API_KEY");

    MDB_MovieMetadata record;
    record.setTag("999999", TagName::TMDbID);
    record.setTag("Kept", TagName::Name);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Kept");
    // The unknown id is reported, so a pick by id can say what went wrong.
    EXPECT_EQ(client.lastError().httpStatus, 404);
    // Nothing came back from the full document, so the images were not asked for.
    EXPECT_TRUE(requestsTo("/3/movie/999999/images").isEmpty());
}

TEST_F(LookupTest, EachFailureOfTheDatabaseIsToldApartWithinOneBudget) {
    // The budget from the environment; nothing usable means the default.
    MDB_TheMovieDb::setRequestTimeout(0);
    const std::pair<const char*, int> fromEnvironment[] = {
        {"1200", 1200}, {"0", 15000}, {"", 15000}};
    for (const auto& [set, expected] : fromEnvironment) {
        qputenv("TARNWICK_TMDB_TIMEOUT_MS", set);
        EXPECT_EQ(MDB_TheMovieDb::requestTimeout(), expected) << set;
    }
    qunsetenv("TARNWICK_TMDB_TIMEOUT_MS");

    constexpr int budget = 1500;
    MDB_TheMovieDb::setRequestTimeout(budget);
    const struct {
        Mode mode;
        const char* title;
        Failure failure;
        const char* says;
    } cases[] = {
        {Mode::Normal, "A Film Nobody Made", Failure::None, ""},
        {Mode::Unauthorized, "Harbour Lights", Failure::RefusedKey,
         "refused the API key (HTTP 401)"},
        {Mode::ServerError, "Harbour Lights", Failure::ServerError, "server error (HTTP 500)"},
        {Mode::Hang, "Harbour Lights", Failure::TimedOut, "did not answer within 1.5 s"},
        {Mode::Drip, "Harbour Lights", Failure::TimedOut, "did not answer within 1.5 s"},
        {Mode::Oversize, "Harbour Lights", Failure::TooLarge, "larger than 20 MB"},
        {Mode::Close, "Harbour Lights", Failure::Unreachable, "cannot be reached"},
        {Mode::Normal, "Malformed Answer", Failure::BadAnswer, "not valid JSON"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.says);
        MDB_TheMovieDb::clearCachedConfiguration();
        server().setMode(c.mode);
        QElapsedTimer timer;
        timer.start();
        // The configuration (made with the client) and the search share one
        // budget: a database that timed out is not waited for again.
        MDB_TheMovieDb client;
        EXPECT_TRUE(searchFor(client, QString::fromLatin1(c.title), "en-US").empty());
        EXPECT_LT(timer.elapsed(), budget + 1500);
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
            EXPECT_EQ(tagOf(record, TagName::Name), "Kept");
        }
        server().setMode(Mode::Normal);
    }
}

// --- cancel --------------------------------------------------------------------

TEST_F(LookupTest, CancelBeforeOrAfterTheAnswerDeliversNothing) {
    server().setSlowDelay(400);
    MDB_TheMovieDb client;
    RecordingDelegate delegate;
    client.search("Slow Answer", "en-US", &delegate);
    ASSERT_TRUE(testsupport::waitUntil([] { return !requestsTo("/3/search/movie").isEmpty(); }));
    client.cancel();
    // The owner drops the record as soon as it has cancelled.
    auto dropped = std::make_unique<MDB_MovieMetadata>();
    dropped->setTag("900001", TagName::TMDbID);
    MDB_TheMovieDb other;
    other.query(dropped.get(), "en-US", &delegate);
    ASSERT_TRUE(testsupport::waitUntil(
        [] { return !requestsTo("/3/movie/900001/translations").isEmpty(); }));
    other.cancel();
    dropped.reset();
    {
        MDB_TheMovieDb destroyed;
        destroyed.search("Harbour Lights", "en-US", &delegate);
    }

    // Answered, but without an event loop the callbacks can only be queued.
    MDB_TheMovieDb answered;
    answered.search("Harbour Lights", "en-US", &delegate);
    MDB_MovieMetadata record;
    record.setTag("100004", TagName::TMDbID);
    MDB_TheMovieDb querying;
    querying.query(&record, "en-US", &delegate);
    QThread::msleep(1500);
    ASSERT_EQ(requestsTo("/3/movie/100004/images").size(), 1);
    answered.cancel();
    querying.cancel();
    settle(1000);
    EXPECT_EQ(delegate.searches, 0);
    EXPECT_EQ(delegate.queries, 0);
    EXPECT_EQ(tagOf(record, TagName::Name), "Harbour Lights"); // filled before the cancel
}

// --- the search results panel ----------------------------------------------------

// What the panel leaves for the editor: a change only for another shown row.
TEST_F(LookupTest, TheResultsPanelReportsAChangeOnlyForAnotherRow) {
    SearchResultsPanelController panel;
    panel.withParentWindow(nullptr, false);
    EXPECT_FALSE(panel.selectionChanged());

    auto movie = std::make_shared<MDI_Movie>();
    movie->setLanguageRegion(QStringLiteral("de-DE"));
    QList<std::shared_ptr<MDB_Metadata>> hits;
    for (const char* id : {"100004", "100001"}) {
        hits.append(std::make_shared<MDB_MovieMetadata>());
        hits.back()->setTag(id, TagName::TMDbID);
    }
    movie->setSearchList(hits);
    movie->setSearchIndex(1);
    panel.withParentWindow(movie, false);
    EXPECT_EQ(panel.selectedSearchResult(), 1);
    EXPECT_TRUE(panel.summary().startsWith("Auf einer sturmumtosten Insel")); // the item's language
    EXPECT_FALSE(panel.selectionChanged());
    panel.selectRow(0);
    EXPECT_TRUE(panel.selectionChanged());
    panel.onCancelBtn();
    EXPECT_FALSE(panel.selectionChanged());
}

} // namespace
