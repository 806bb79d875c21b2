// The movie database client against the loopback server: requests, search,
// query, class operations, failures, threads and cancel.
#include "LookupTestSupport.h"

#include "core/HttpClient.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "metadata/Utility.h"

#include <QElapsedTimer>
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

QString key() {
    return QString::fromLatin1(MDB_TheMovieDb::DefaultAPIKey);
}

// --- requests ------------------------------------------------------------------

TEST_F(LookupTest, RequestAddressesCarryTheirPathsAndQueryKeysInOrder) {
    const QString base = server().baseURL();
    EXPECT_EQ(MDB_TheMovieDb::configurationURL().toString(),
              base + "/3/configuration?api_key=" + key());
    EXPECT_EQ(MDB_TheMovieDb::searchURL("A%20B", "de", true).toString(QUrl::FullyEncoded),
              base + "/3/search/movie?api_key=" + key() +
                  "&query=A%20B&language=de&include_adult=true");
    EXPECT_EQ(MDB_TheMovieDb::movieURL("11", "en").toString(),
              base + "/3/movie/11?api_key=" + key() +
                  "&language=en&append_to_response=casts,releases,trailers,images");
    EXPECT_EQ(MDB_TheMovieDb::movieImagesURL("11").toString(),
              base + "/3/movie/11/images?api_key=" + key());
    EXPECT_EQ(MDB_TheMovieDb::plainMovieURL("11", "").toString(),
              base + "/3/movie/11?api_key=" + key() + "&language=");
    EXPECT_EQ(MDB_TheMovieDb::translationsURL("11").toString(),
              base + "/3/movie/11/translations?api_key=" + key());
    EXPECT_EQ(MDB_TheMovieDb::genresURL("fr").toString(),
              base + "/3/genre/list?api_key=" + key() + "&language=fr");

    qputenv("TARNWICK_TMDB_API_KEY", "abc");
    EXPECT_EQ(MDB_TheMovieDb::genresURL("fr").toString(),
              base + "/3/genre/list?api_key=abc&language=fr");
    qputenv("TARNWICK_TMDB_URL", "http://127.0.0.1:9/");
    EXPECT_EQ(MDB_TheMovieDb::baseURL(), "http://127.0.0.1:9");
    qunsetenv("TARNWICK_TMDB_URL");
    EXPECT_EQ(MDB_TheMovieDb::baseURL(), "https://api.themoviedb.org");
}

TEST_F(LookupTest, SearchEncodesTheTitleAndSendsTheAdultFlag) {
    MDB_TheMovieDb client;
    UserDefaults::standard().setBool(false, SettingsKey::AdultSearch);
    const QString title = "Tom & \"Jerry\": 100% #1 + Ærø?";
    searchFor(client, title, "en-US");
    UserDefaults::standard().setBool(true, SettingsKey::AdultSearch);
    searchFor(client, "x", "de-DE");
    UserDefaults::standard().removeObject(SettingsKey::AdultSearch);

    const QList<QUrlQuery> searches = requestsTo("/3/search/movie");
    ASSERT_EQ(searches.size(), 2);
    // Unescaped, "&", "#", "%" or "+" would cut or garble the query.
    EXPECT_EQ(searches[0].queryItemValue("query", QUrl::FullyDecoded), title);
    EXPECT_EQ(searches[0].queryItemValue("language"), "en");
    EXPECT_EQ(searches[0].queryItemValue("include_adult"), "false");
    EXPECT_EQ(searches[1].queryItemValue("language"), "de");
    EXPECT_EQ(searches[1].queryItemValue("include_adult"), "true");
}

// --- search --------------------------------------------------------------------

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
}

TEST_F(LookupTest, SearchWithOneHitNoHitOrANonAsciiTitle) {
    MDB_TheMovieDb client;
    EXPECT_EQ(names(searchFor(client, "Harbour Lights", "en-US")), QStringList{"Harbour Lights"});
    EXPECT_TRUE(searchFor(client, "No Film Is Called This", "en-US").empty());
    const auto danish = searchFor(client, "Sommer på Ærø", "da-DK");
    ASSERT_EQ(danish.size(), 1u);
    EXPECT_EQ(tagOf(*danish[0], TagName::Name), "Sommer på Ærø");
    EXPECT_EQ(tagOf(*danish[0], TagName::TMDbID), "100005");
}

TEST_F(LookupTest, SearchTitlesFollowTheLanguage) {
    MDB_TheMovieDb client;
    const auto hits = searchFor(client, "Leuchtturmwärter", "de-DE");
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(tagOf(*hits[0], TagName::Name), "Der Leuchtturmwärter");
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
    ASSERT_EQ(record.artworkThumbURLs().size(), 1);
    EXPECT_EQ(record.artworkThumbURLs()[0].toString(),
              images + "w92/lighthouse-keeper-poster-en.jpg");
    EXPECT_EQ(record.artworkFullsizeURLs()[0].toString(),
              images + "original/lighthouse-keeper-poster-en.jpg");
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
    const QList<QUrlQuery> movie = requestsTo("/3/movie/100001");
    EXPECT_EQ(movie[0].queryItemValue("append_to_response"), "casts,releases,trailers,images");
    EXPECT_FALSE(requestsTo("/3/movie/100001/images")[0].hasQueryItem("language"));
}

TEST_F(LookupTest, QueryInTheUsersLanguageTakesItsPostersAndRating) {
    MDB_TheMovieDb client;
    MDB_MovieMetadata record;
    record.setTag("100001", TagName::TMDbID);
    queryInto(client, record, "de-DE");
    EXPECT_EQ(tagOf(record, TagName::Name), "Der Leuchtturmwärter");
    EXPECT_EQ(tagOf(record, TagName::Rating), "de-movie|Ab 12 Jahren|200|");
    ASSERT_EQ(record.artworkFullsizeURLs().size(), 1);
    EXPECT_TRUE(record.artworkFullsizeURLs()[0].path().endsWith("poster-de.jpg"));
    EXPECT_EQ(requestsTo("/3/movie/100001")[0].queryItemValue("language"), "de");
}

TEST_F(LookupTest, PostersComeFromTheImagesOnlyDocumentWhenTheLanguageHasNone) {
    MDB_TheMovieDb client;
    MDB_MovieMetadata record;
    record.setTag("100001", TagName::TMDbID);
    // French exists as a translation but has no posters of its own.
    queryInto(client, record, "fr-FR");
    EXPECT_EQ(record.artworkFullsizeURLs().size(), 3);
    EXPECT_EQ(tagOf(record, TagName::Rating), "fr-movie|Tout public|000|");
}

TEST_F(LookupTest, RatingIsTranslatedToTheUsersCountry) {
    MDB_TheMovieDb client;
    struct Case {
        const char* id;
        const char* region;
        const char* rating;
    } cases[] = {
        {"100001", "en-GB", "uk-movie|12A|325|"},
        // The user's country has no certification: the first country with one, translated.
        {"100002", "en-US", "mpaa|PG|200|"},
        {"100002", "de-DE", "de-movie|Ab 12 Jahren|200|"},
        // The user's country is missing; an empty certification counts as one.
        {"100004", "en-US", "mpaa|NR|000|"},
        // A country the rating table does not know translates to nothing.
        {"100001", "da-DK", ""},
        // "releases" without "countries".
        {"100005", "en-US", ""},
    };
    for (const Case& c : cases) {
        MDB_MovieMetadata record;
        record.setTag(c.id, TagName::TMDbID);
        record.setTag("before", TagName::Rating);
        queryInto(client, record, c.region);
        EXPECT_EQ(tagOf(record, TagName::Rating), c.rating) << c.id << " " << c.region;
    }

    // No country has a certification: the rating stays as it was.
    MDB_MovieMetadata record;
    record.setTag("100003", TagName::TMDbID);
    record.setTag("before", TagName::Rating);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Rating), "before");
    EXPECT_EQ(tagOf(record, TagName::Name), "Keeper of the Light");
}

TEST_F(LookupTest, TranslationChoiceFallsBackToEnglishThenToTheDefault) {
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100001", "de"), "de");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100004", "de"), "en");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100005", "de"), "");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("100003", "en"), "");
    EXPECT_EQ(MDB_TheMovieDb::translationAvailable("999999", "de"), "");

    MDB_TheMovieDb client;
    for (const char* id : {"100004", "100005"}) {
        MDB_MovieMetadata record;
        record.setTag(id, TagName::TMDbID);
        queryInto(client, record, "de-DE");
    }
    EXPECT_EQ(requestsTo("/3/movie/100004")[0].queryItemValue("language"), "en");
    const QList<QUrlQuery> danish = requestsTo("/3/movie/100005");
    ASSERT_EQ(danish.size(), 1);
    EXPECT_TRUE(danish[0].hasQueryItem("language"));
    EXPECT_EQ(danish[0].queryItemValue("language"), "");
}

TEST_F(LookupTest, QueryWithoutDatabaseIdFetchesNothingAndStillCompletes) {
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
}

TEST_F(LookupTest, CallbacksArriveOnTheMainThread) {
    MDB_TheMovieDb client;
    RecordingDelegate delegate;
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

TEST_F(LookupTest, ConfigurationIsFetchedOnceAndKept) {
    EXPECT_TRUE(MDB_TheMovieDb::cachedConfiguration().isEmpty());
    MDB_TheMovieDb first;
    MDB_TheMovieDb second;
    EXPECT_EQ(requestsTo("/3/configuration").size(), 1);
    const QJsonObject images = MDB_TheMovieDb::cachedConfiguration().value("images").toObject();
    EXPECT_EQ(images.value("secure_base_url").toString(), server().baseURL() + "/t/p/");
    EXPECT_EQ(images.value("poster_sizes").toArray().first().toString(), "w92");
}

TEST_F(LookupTest, ArtworkAddressesServeRealImagesOfTheirSize) {
    MDB_TheMovieDb client;
    MDB_MovieMetadata record;
    record.setTag("100005", TagName::TMDbID);
    queryInto(client, record, "da-DK");
    ASSERT_FALSE(record.artworkThumbURLs().isEmpty());

    const HttpClient::Response thumb = HttpClient::get(record.artworkThumbURLs()[0]);
    ASSERT_TRUE(thumb.ok()) << thumb.error.toStdString();
    const QImage small = QImage::fromData(thumb.body, "PNG");
    EXPECT_EQ(small.width(), 92);
    EXPECT_EQ(small.height(), 138);

    const HttpClient::Response full =
        HttpClient::get(QUrl(server().baseURL() + "/t/p/w780/lighthouse-keeper-backdrop-2.jpg"));
    ASSERT_TRUE(full.ok());
    EXPECT_TRUE(full.body.startsWith("\xFF\xD8")); // JPEG
    EXPECT_EQ(QImage::fromData(full.body).width(), 780);

    // A size the configuration does not list, or an unknown file, is not found.
    EXPECT_EQ(
        HttpClient::get(QUrl(server().baseURL() + "/t/p/w781/harbour-lights-poster.jpg")).status,
        404);
    EXPECT_EQ(HttpClient::get(QUrl(server().baseURL() + "/t/p/w92/none.jpg")).status, 404);
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
}

TEST_F(LookupTest, GenreListsInTwoLanguagesFeedTheGenreMapping) {
    const QStringList english = MDB_TheMovieDb::getGenres("en");
    const QStringList german = MDB_TheMovieDb::getGenres("de");
    ASSERT_EQ(english.size(), 19);
    ASSERT_EQ(german.size(), 19);
    EXPECT_EQ(english.indexOf("Adventure"), german.indexOf("Abenteuer"));
    EXPECT_EQ(english.indexOf("War"), german.indexOf("Kriegsfilm"));

    MDB_TheMovieDb::installGenreSource();
    Utility::resetGenreCache();
    EXPECT_EQ(Utility::tmdbEnglishGenres(), english);
    EXPECT_EQ(Utility::tmdbNativeGenres("de"), german);

    UserDefaults& defaults = UserDefaults::standard();
    defaults.setBool(false, SettingsKey::GenreNative);
    defaults.setObject(QString("de-DE"), SettingsKey::LanguageRegion);
    defaults.setObject(QVariantMap{{"War", "War & History"}, {"Comedy", "Comedy"}},
                       SettingsKey::GenreMap);
    defaults.setObject(QVariantList{"War & History", "Comedy"}, SettingsKey::GenreList);
    // German names are turned back into English before the map applies.
    EXPECT_EQ(Utility::assignGenre("Komödie, Kriegsfilm"), "War & History");
    defaults.setBool(true, SettingsKey::GenreNative);
    EXPECT_EQ(Utility::assignGenre("Komödie, Kriegsfilm"), "Unknown");
    for (const char* k : {SettingsKey::GenreNative, SettingsKey::LanguageRegion,
                          SettingsKey::GenreMap, SettingsKey::GenreList})
        defaults.removeObject(k);
    Utility::resetGenreCache();
}

// --- failures ------------------------------------------------------------------

TEST_F(LookupTest, ARefusedKeyGivesEmptyResultsEverywhere) {
    qputenv("TARNWICK_TMDB_API_KEY", "00000000000000000000000000000000");
    MDB_TheMovieDb client;
    EXPECT_TRUE(MDB_TheMovieDb::cachedConfiguration().isEmpty());
    EXPECT_FALSE(MDB_TheMovieDb::configuration().has_value());
    EXPECT_TRUE(searchFor(client, "The Lighthouse Keeper", "en-US").empty());
    EXPECT_TRUE(MDB_TheMovieDb::getGenres("en").isEmpty());
    EXPECT_EQ(MDB_TheMovieDb::movie("100001", "en-US"), nullptr);

    MDB_MovieMetadata record;
    record.setTag("100001", TagName::TMDbID);
    record.setTag("Kept", TagName::Name);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Kept");
    for (const QUrl& url : server().requests())
        EXPECT_EQ(QUrlQuery(url).queryItemValue("api_key"), "00000000000000000000000000000000");
}

TEST_F(LookupTest, AnUnknownMovieLeavesTheRecordUnchanged) {
    MDB_TheMovieDb client;
    MDB_MovieMetadata record;
    record.setTag("999999", TagName::TMDbID);
    record.setTag("Kept", TagName::Name);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Kept");
    EXPECT_EQ(tagOf(record, TagName::TMDbID), "999999");
    // Nothing came back from the full document, so the images were not asked for.
    EXPECT_TRUE(requestsTo("/3/movie/999999/images").isEmpty());
}

TEST_F(LookupTest, ASlowAnswerTimesOutWithAnEmptyResult) {
    MDB_TheMovieDb::setRequestTimeout(300);
    server().setSlowDelay(3000);
    MDB_TheMovieDb client;
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(searchFor(client, "Slow Answer", "en-US").empty());

    MDB_MovieMetadata record;
    record.setTag("900001", TagName::TMDbID);
    record.setTag("Kept", TagName::Name);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Kept");
    EXPECT_LT(timer.elapsed(), 2500);
}

TEST_F(LookupTest, AMalformedBodyIsTreatedAsNoData) {
    MDB_TheMovieDb client;
    EXPECT_TRUE(searchFor(client, "Malformed Answer", "en-US").empty());
    MDB_MovieMetadata record;
    record.setTag("900002", TagName::TMDbID);
    record.setTag("Kept", TagName::Name);
    queryInto(client, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Kept");
    EXPECT_EQ(MDB_TheMovieDb::movie("900002", "en-US"), nullptr);
}

TEST_F(LookupTest, WithoutConfigurationTheRecordIsStillFilled) {
    qputenv("TARNWICK_TMDB_URL", "http://127.0.0.1:1");
    MDB_TheMovieDb unreachable;
    EXPECT_TRUE(MDB_TheMovieDb::cachedConfiguration().isEmpty());
    qputenv("TARNWICK_TMDB_URL", server().baseURL().toUtf8());

    MDB_MovieMetadata record;
    record.setTag("100004", TagName::TMDbID);
    queryInto(unreachable, record, "en-US");
    EXPECT_EQ(tagOf(record, TagName::Name), "Harbour Lights");
    // Addresses without a base and size are not usable, but they are there.
    EXPECT_EQ(record.artworkURL().toString(), "/harbour-lights-poster.jpg");

    // The next client tries the configuration again.
    MDB_TheMovieDb next;
    EXPECT_FALSE(MDB_TheMovieDb::cachedConfiguration().isEmpty());
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

TEST_F(LookupTest, ADestroyedClientDeliversNothing) {
    RecordingDelegate delegate;
    {
        MDB_TheMovieDb client;
        client.search("Harbour Lights", "en-US", &delegate);
    }
    settle(800);
    EXPECT_EQ(delegate.searches, 0);
}

} // namespace
