// The movie database client against the loopback server: requests, search,
// query, class operations, failures, threads and cancel.
#include "LookupTestSupport.h"

#include "core/HttpClient.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "metadata/Utility.h"

#include <QImage>
#include <QJsonArray>

namespace {

using lookuptest::LookupTest;
using lookuptest::RecordingDelegate;
using lookuptest::server;

QString tagOf(const MDB_Metadata& record, const char* name) {
    return record.getTag(QString::fromLatin1(name));
}

QStringList names(const std::vector<std::unique_ptr<MDB_Metadata>>& hits) {
    QStringList list;
    for (const auto& hit : hits)
        list.append(tagOf(*hit, TagName::Name));
    return list;
}

// --- search --------------------------------------------------------------------

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
    EXPECT_EQ(searches[0].queryItemValue("api_key"), MDB_TheMovieDb::DefaultAPIKey);
    EXPECT_EQ(searches[0].queryItemValue("language"), "en");
    EXPECT_EQ(searches[0].queryItemValue("include_adult"), "false");
    EXPECT_EQ(searches[1].queryItemValue("api_key"), "abc");
    EXPECT_EQ(searches[1].queryItemValue("language"), "de");
    EXPECT_EQ(searches[1].queryItemValue("include_adult"), "true");

    qunsetenv("TARNWICK_TMDB_URL");
    EXPECT_EQ(MDB_TheMovieDb::baseURL(), "https://api.themoviedb.org");
    qputenv("TARNWICK_TMDB_URL", "http://127.0.0.1:9/");
    EXPECT_EQ(MDB_TheMovieDb::baseURL(), "http://127.0.0.1:9");
}

TEST_F(LookupTest, SearchDeliversOneRecordPerHitInTheDatabasesOrder) {
    MDB_TheMovieDb client;
    const auto hits = searchFor(client, "The Lighthouse Keeper", "en-US");
    ASSERT_EQ(hits.size(), 3u);
    EXPECT_EQ(names(hits), QStringList({"The Lighthouse Keeper", "The Lighthouse Keeper's Daughter",
                                        "Keeper of the Light"}));
    const MDB_Metadata& first = *hits[0];
    EXPECT_EQ(tagOf(first, TagName::TMDbID), "100001");
    EXPECT_EQ(tagOf(first, TagName::ReleaseDate), "2019-10-11");
    EXPECT_EQ(tagOf(first, TagName::SortName), "The Lighthouse Keeper");
    EXPECT_TRUE(tagOf(first, TagName::Description).startsWith("On a storm-bound island"));
    EXPECT_EQ(first.mediaKind(), 9); // Movie
    // A hit has no people, genres or IMDb id; those tags stay as a new record has them.
    EXPECT_EQ(tagOf(first, TagName::Cast), "");
    EXPECT_TRUE(tagOf(first, TagName::IMDbID).isNull());
    EXPECT_EQ(first.artworkURL().toString(),
              server().baseURL() + "/t/p/w92/lighthouse-keeper-poster-en.jpg");
    // No poster path: no artwork address.
    EXPECT_TRUE(hits[1]->artworkURL().isEmpty());

    EXPECT_TRUE(searchFor(client, "No Film Is Called This", "en-US").empty());
    const auto danish = searchFor(client, "Sommer på Ærø", "da-DK");
    ASSERT_EQ(danish.size(), 1u);
    EXPECT_EQ(tagOf(*danish[0], TagName::TMDbID), "100005");
    EXPECT_EQ(names(searchFor(client, "Leuchtturmwärter", "de-DE")),
              QStringList{"Der Leuchtturmwärter"});
}

// --- query ---------------------------------------------------------------------

TEST_F(LookupTest, QueryFillsTheRecordInPlaceWithEverythingTheDatabaseKnows) {
    MDB_TheMovieDb client;
    auto hits = searchFor(client, "The Lighthouse Keeper", "en-US");
    ASSERT_FALSE(hits.empty());
    MDB_Metadata& record = *hits[0];
    server().clearRequests();
    queryInto(client, record, "en-US");

    EXPECT_EQ(tagOf(record, TagName::Name), "The Lighthouse Keeper");
    EXPECT_EQ(tagOf(record, TagName::Genre), "Drama, Mystery, Thriller");
    EXPECT_EQ(tagOf(record, TagName::Cast),
              "Edith Carrow, Jonah Pellow, Ines Marchetti, Oskar Lindqvist, Tamsin Rule, ");
    EXPECT_EQ(tagOf(record, TagName::Director), "Maren Holloway, ");
    EXPECT_EQ(tagOf(record, TagName::Screenwriters), "Maren Holloway, Tobias Penhale, ");
    EXPECT_EQ(tagOf(record, TagName::Producers), "Isolde Varga, Kit Abernathy, ");
    EXPECT_EQ(tagOf(record, TagName::Studio), "Saltmarsh Pictures, Northlight Film Fund, ");
    EXPECT_EQ(tagOf(record, TagName::Rating), "mpaa|PG-13|300|");
    EXPECT_EQ(tagOf(record, TagName::IMDbID), "9000123");
    EXPECT_EQ(record.imdb().toUrl().toString(), "http://www.imdb.com/title/tt9000123/");
    EXPECT_EQ(record.tmdb().toUrl().toString(), "http://www.themoviedb.org/movie/100001");
    EXPECT_EQ(record.trailer().toUrl().toString(), "http://www.youtube.com/watch?v=lhK33perT01");
    EXPECT_EQ(record.homepage().toUrl().toString(), "http://lighthouse-keeper.example.org/");
    EXPECT_EQ(record.tagLine().toString(), "Every light is a message.");
    EXPECT_EQ(record.budget().toLongLong(), 4200000);
    EXPECT_EQ(record.revenue().toLongLong(), 9800000);
    EXPECT_DOUBLE_EQ(record.rating().toDouble(), 7.1);
    EXPECT_EQ(record.votes().toInt(), 842);

    // Posters from the appended images (English only), backdrops from the
    // images-only document.
    const QString images = server().baseURL() + "/t/p/";
    EXPECT_EQ(record.artworkThumbURLs(),
              QList<QUrl>{QUrl(images + "w92/lighthouse-keeper-poster-en.jpg")});
    EXPECT_EQ(record.artworkFullsizeURLs(),
              QList<QUrl>{QUrl(images + "original/lighthouse-keeper-poster-en.jpg")});
    ASSERT_EQ(record.backdropFullsizeURLs().size(), 2);
    EXPECT_EQ(record.backdropThumbURLs()[1].toString(),
              images + "w300/lighthouse-keeper-backdrop-2.jpg");
    EXPECT_EQ(record.backdropFullsizeURLs()[0].toString(),
              images + "original/lighthouse-keeper-backdrop-1.jpg");

    // Translations, the full movie, then the images of every language.
    QStringList paths;
    for (const QUrl& url : server().requests())
        paths.append(url.path());
    EXPECT_EQ(paths, QStringList({"/3/movie/100001/translations", "/3/movie/100001",
                                  "/3/movie/100001/images"}));
    EXPECT_EQ(requestsTo("/3/movie/100001")[0].queryItemValue("append_to_response"),
              "casts,releases,trailers,images");
    EXPECT_FALSE(requestsTo("/3/movie/100001/images")[0].hasQueryItem("language"));

    // The served addresses are real images of their size.
    const HttpClient::Response thumb =
        HttpClient::get(QUrl(images + "w92/harbour-lights-poster.jpg"));
    ASSERT_TRUE(thumb.ok()) << thumb.error.toStdString();
    EXPECT_EQ(QImage::fromData(thumb.body).size(), QSize(92, 138));
    EXPECT_EQ(HttpClient::get(QUrl(images + "w781/harbour-lights-poster.jpg")).status, 404);
}

TEST_F(LookupTest, RatingAndPostersFollowTheUsersCountryAndLanguage) {
    MDB_TheMovieDb client;
    struct Case {
        const char* id;
        const char* region;
        const char* rating;
        int posters;
    } cases[] = {
        {"100001", "en-GB", "uk-movie|12A|325|", 1},
        {"100001", "de-DE", "de-movie|Ab 12 Jahren|200|", 1},
        // French has no posters of its own: those of the images-only document.
        {"100001", "fr-FR", "fr-movie|Tout public|000|", 3},
        // The user's country has no certification: the first country with one, translated.
        {"100002", "en-US", "mpaa|PG|200|", -1},
        {"100002", "de-DE", "de-movie|Ab 12 Jahren|200|", -1},
        // The user's country is missing; an empty certification counts as one.
        {"100004", "en-US", "mpaa|NR|000|", -1},
        // A country the rating table does not know translates to nothing.
        {"100001", "da-DK", "", -1},
        // "releases" without "countries".
        {"100005", "en-US", "", -1},
        // No country has a certification: the rating stays as it was.
        {"100003", "en-US", "before", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.id) + " " + c.region);
        MDB_MovieMetadata record;
        record.setTag(c.id, TagName::TMDbID);
        record.setTag("before", TagName::Rating);
        queryInto(client, record, c.region);
        EXPECT_EQ(tagOf(record, TagName::Rating), c.rating);
        if (c.posters >= 0) {
            EXPECT_EQ(record.artworkFullsizeURLs().size(), c.posters);
        }
    }
}

TEST_F(LookupTest, TranslationChoiceFallsBackToEnglishThenToTheDefault) {
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100001", "de"), "de");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100004", "de"), "en");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100005", "de"), "");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100003", "en"), "");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("999999", "de"), "");

    MDB_TheMovieDb client;
    for (const char* id : {"100001", "100004", "100005"}) {
        MDB_MovieMetadata record;
        record.setTag(id, TagName::TMDbID);
        queryInto(client, record, "de-DE");
    }
    EXPECT_EQ(requestsTo("/3/movie/100001")[0].queryItemValue("language"), "de");
    EXPECT_EQ(requestsTo("/3/movie/100004")[0].queryItemValue("language"), "en");
    const QList<QUrlQuery> danish = requestsTo("/3/movie/100005");
    ASSERT_EQ(danish.size(), 1);
    EXPECT_TRUE(danish[0].hasQueryItem("language"));
    EXPECT_EQ(danish[0].queryItemValue("language"), "");
}

TEST_F(LookupTest, QueryWithoutIdFetchesNothingAndCallbacksArriveOnTheMainThread) {
    MDB_TheMovieDb client;
    server().clearRequests();
    MDB_MovieMetadata record;
    record.deleteTag(TagName::TMDbID);
    record.setTag("Mine", TagName::Name);
    RecordingDelegate delegate;
    client.query(&record, "en-US", &delegate);
    ASSERT_TRUE(testsupport::waitUntil([&] { return delegate.queries > 0; }));
    EXPECT_EQ(delegate.queried, &record);
    EXPECT_EQ(client.movieMetadata(), &record);
    EXPECT_EQ(tagOf(record, TagName::Name), "Mine");
    EXPECT_EQ(server().requestCount(), 0);

    delegate.queries = 0;
    client.search("Harbour Lights", "en-US", &delegate);
    ASSERT_TRUE(testsupport::waitUntil([&] { return delegate.searches == 1; }));
    EXPECT_TRUE(delegate.onMainThread);
    delegate.onMainThread = false;
    client.query(delegate.hits[0].get(), "en-US", &delegate);
    ASSERT_TRUE(testsupport::waitUntil([&] { return delegate.queries == 1; }));
    EXPECT_TRUE(delegate.onMainThread);
    EXPECT_EQ(tagOf(*delegate.hits[0], TagName::Director), "Leonard Ashby, ");
    settle(100);
    EXPECT_EQ(delegate.searches, 1);
    EXPECT_EQ(delegate.queries, 1);
}

// --- class operations ----------------------------------------------------------

TEST_F(LookupTest, ConfigurationIsFetchedOnceAndKeptOrTriedAgainAfterAFailure) {
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

    MDB_TheMovieDb first;
    MDB_TheMovieDb second;
    EXPECT_EQ(requestsTo("/3/configuration").size(), 1);
    const QJsonObject images = MDB_TheMovieDb::cachedConfiguration().value("images").toObject();
    EXPECT_EQ(images.value("secure_base_url").toString(), server().baseURL() + "/t/p/");
    EXPECT_EQ(images.value("poster_sizes").toArray().first().toString(), "w92");
}

TEST_F(LookupTest, SingleMovieIsAPlainDocumentInTheChosenLanguage) {
    const std::unique_ptr<MDB_Metadata> movie = MDB_TheMovieDb::movie("100001", "de-DE");
    ASSERT_TRUE(movie);
    EXPECT_EQ(tagOf(*movie, TagName::Name), "Der Leuchtturmwärter");
    EXPECT_TRUE(tagOf(*movie, TagName::Description).startsWith("Auf einer sturmumtosten Insel"));
    // The plain document has no people and no releases.
    EXPECT_EQ(tagOf(*movie, TagName::Cast), "");
    EXPECT_EQ(tagOf(*movie, TagName::Rating), "");
    const QList<QUrlQuery> plain = requestsTo("/3/movie/100001");
    ASSERT_EQ(plain.size(), 1);
    EXPECT_FALSE(plain[0].hasQueryItem("append_to_response"));
    EXPECT_EQ(MDB_TheMovieDb::movie("999999", "en-US"), nullptr);
    EXPECT_EQ(MDB_TheMovieDb::movie("900002", "en-US"), nullptr); // malformed body
}

TEST_F(LookupTest, GenreListsInTwoLanguagesFeedTheGenreMapping) {
    const QStringList english = MDB_TheMovieDb::getGenres("en");
    const QStringList german = MDB_TheMovieDb::getGenres("de");
    ASSERT_EQ(english.size(), 19);
    ASSERT_EQ(german.size(), 19);
    EXPECT_EQ(english.indexOf("War"), german.indexOf("Kriegsfilm"));

    MDB_TheMovieDb::installGenreSource();
    Utility::resetGenreCache();
    UserDefaults& defaults = UserDefaults::standard();
    defaults.setObject(QString("de-DE"), SettingsKey::LanguageRegion);
    defaults.setObject(QVariantMap{{"War", "War & History"}, {"Comedy", "Comedy"}},
                       SettingsKey::GenreMap);
    defaults.setObject(QVariantList{"War & History", "Comedy"}, SettingsKey::GenreList);
    // German names are turned back into English before the map applies.
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
    EXPECT_EQ(MDB_TheMovieDb::movie("100001", "en-US"), nullptr);
    qunsetenv("TARNWICK_TMDB_API_KEY");

    MDB_MovieMetadata record;
    record.setTag("999999", TagName::TMDbID);
    record.setTag("Kept", TagName::Name);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Kept");
    EXPECT_EQ(tagOf(record, TagName::TMDbID), "999999");
    // The unknown id is reported, so a pick by id can say what went wrong.
    EXPECT_TRUE(client.lastError().failed());
    EXPECT_EQ(client.lastError().httpStatus, 404);
    // Nothing came back from the full document, so the images were not asked for.
    EXPECT_TRUE(requestsTo("/3/movie/999999/images").isEmpty());
}

// --- cancel --------------------------------------------------------------------

TEST_F(LookupTest, CancelWhileRequestsRunDeliversNothing) {
    server().setSlowDelay(400);
    MDB_TheMovieDb client;
    RecordingDelegate delegate;
    client.search("Slow Answer", "en-US", &delegate);
    ASSERT_TRUE(testsupport::waitUntil([] { return !requestsTo("/3/search/movie").isEmpty(); }));
    client.cancel();
    EXPECT_TRUE(client.isCancelled());

    // The owner drops the record as soon as it has cancelled.
    auto record = std::make_unique<MDB_MovieMetadata>();
    record->setTag("900001", TagName::TMDbID);
    MDB_TheMovieDb other;
    other.query(record.get(), "en-US", &delegate);
    ASSERT_TRUE(testsupport::waitUntil(
        [] { return !requestsTo("/3/movie/900001/translations").isEmpty(); }));
    other.cancel();
    record.reset();
    {
        MDB_TheMovieDb destroyed;
        destroyed.search("Harbour Lights", "en-US", &delegate);
    }
    settle(1000);
    EXPECT_EQ(delegate.searches, 0);
    EXPECT_EQ(delegate.queries, 0);
}

TEST_F(LookupTest, CancelAfterTheAnswerButBeforeDeliveryDeliversNothing) {
    MDB_TheMovieDb client;
    RecordingDelegate delegate;
    client.search("Harbour Lights", "en-US", &delegate);
    MDB_MovieMetadata record;
    record.setTag("100004", TagName::TMDbID);
    MDB_TheMovieDb other;
    other.query(&record, "en-US", &delegate);
    // Without an event loop the callbacks can only be queued meanwhile.
    QThread::msleep(1500);
    EXPECT_EQ(requestsTo("/3/movie/100004/images").size(), 1);
    client.cancel();
    other.cancel();
    settle(300);
    EXPECT_EQ(delegate.searches, 0);
    EXPECT_EQ(delegate.queries, 0);
    // The query finished before the cancel.
    EXPECT_EQ(tagOf(record, TagName::Name), "Harbour Lights");
}

} // namespace
