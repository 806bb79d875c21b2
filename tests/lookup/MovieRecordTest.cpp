// One JSON movie object into a metadata record: every step and its quirks,
// without the network (the configuration is cached from the loopback server
// where artwork addresses matter).
#include "LookupTestSupport.h"

#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"

#include <QJsonDocument>

namespace {

using lookuptest::LookupTest;
using lookuptest::server;

QJsonObject parse(const char* json) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray(json), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << json;
    return document.object();
}

QString tagOf(const MDB_Metadata& record, const char* name) {
    return record.getTag(QString::fromLatin1(name));
}

TEST(MovieRecord, EachFieldAndItsQuirks) {
    MDB_MovieMetadata record;
    record.setTag("Old", TagName::Name);
    record.setTag("Old", TagName::Description);
    record.setTag("Someone, ", TagName::Producers);
    record.setTag("Cast, ", TagName::Cast);
    // No id is still an id; null is absent; an empty cast list leaves the cast;
    // a crew of other departments empties the people tags.
    MDB_TheMovieDb::metadata(
        record, parse(R"({"title": null, "overview": null, "release_date": "1999-01-02",
                  "imdb_id": "tt0000123", "genres": [], "trailers": {"youtube": []},
                  "casts": {"cast": [], "crew": [{"name": "S", "department": "Sound"}]}})"),
        "US");
    EXPECT_EQ(tagOf(record, TagName::TMDbID), "0");
    EXPECT_EQ(record.tmdb().toUrl().toString(), "http://www.themoviedb.org/movie/0");
    EXPECT_EQ(tagOf(record, TagName::Name), "Old");
    EXPECT_EQ(tagOf(record, TagName::Description), "Old");
    EXPECT_EQ(tagOf(record, TagName::ReleaseDate), "1999-01-02");
    EXPECT_EQ(tagOf(record, TagName::IMDbID), "0000123");
    EXPECT_EQ(record.imdb().toUrl().toString(), "http://www.imdb.com/title/tt0000123/");
    EXPECT_EQ(tagOf(record, TagName::Genre), "");
    EXPECT_FALSE(record.trailer().isValid());
    EXPECT_EQ(tagOf(record, TagName::Producers), "");
    EXPECT_EQ(tagOf(record, TagName::Director), "");
    EXPECT_EQ(tagOf(record, TagName::Cast), "Cast, ");
    EXPECT_EQ(record.mediaKind(), 9);

    // People lists keep their trailing separator; only the first YouTube trailer counts.
    MDB_TheMovieDb::metadata(record,
                             parse(R"({"id": 603, "title": "New", "overview": "", "imdb_id": "",
                  "casts": {"cast": [{"name": "A"}, {"name": "B"}],
                  "crew": [{"name": "D", "department": "Directing"},
                           {"name": "W", "department": "Writing"},
                           {"name": "P", "department": "Production"},
                           {"name": "Q", "department": "Production"}]},
                  "production_companies": [{"name": "One"}, {"name": "Two"}],
                  "trailers": {"youtube": [{"source": "first"}, {"source": "second"}]},
                  "genres": [{"id": 18, "name": "Drama"}, {"id": 36, "name": "History"}]})"),
                             "US");
    EXPECT_EQ(tagOf(record, TagName::TMDbID), "603");
    EXPECT_EQ(tagOf(record, TagName::SortName), "New");
    EXPECT_EQ(tagOf(record, TagName::Description), "");
    EXPECT_EQ(tagOf(record, TagName::LongDescription), "");
    // A short IMDb id clears the page.
    EXPECT_EQ(tagOf(record, TagName::IMDbID), "");
    EXPECT_FALSE(record.imdb().isValid());
    EXPECT_EQ(tagOf(record, TagName::Cast), "A, B, ");
    EXPECT_EQ(tagOf(record, TagName::Director), "D, ");
    EXPECT_EQ(tagOf(record, TagName::Screenwriters), "W, ");
    EXPECT_EQ(tagOf(record, TagName::Producers), "P, Q, ");
    EXPECT_EQ(tagOf(record, TagName::Studio), "One, Two, ");
    EXPECT_EQ(record.trailer().toUrl().toString(), "http://www.youtube.com/watch?v=first");
    EXPECT_EQ(tagOf(record, TagName::Genre), "Drama, History");
}

TEST(MovieRecord, RatingFromTheReleases) {
    struct Case {
        const char* releases;
        const char* country;
        const char* rating;
    } cases[] = {
        {R"({"countries": [{"iso_3166_1": "US", "certification": "R"}]})", "US", "mpaa|R|400|"},
        // A name the country's table does not hold: its first entry.
        {R"({"countries": [{"iso_3166_1": "US", "certification": "Z-99"}]})", "US", "mpaa|NR|000|"},
        // The user's country without certification: the first that has one.
        {R"({"countries": [{"iso_3166_1": "US"}, {"iso_3166_1": "IT", "certification": null},
                           {"iso_3166_1": "GB", "certification": "18"}]})",
         "US", "mpaa|R|400|"},
        {R"({})", "US", ""},
        {R"({"countries": null})", "US", ""},
    };
    for (const Case& c : cases) {
        MDB_MovieMetadata record;
        record.setTag("before", TagName::Rating);
        MDB_TheMovieDb::metadata(
            record, parse((std::string(R"({"releases": )") + c.releases + "}").c_str()), c.country);
        EXPECT_EQ(tagOf(record, TagName::Rating), c.rating) << c.releases;
    }
    MDB_MovieMetadata record;
    record.setTag("before", TagName::Rating);
    MDB_TheMovieDb::metadata(record,
                             parse(R"({"releases": {"countries": [{"iso_3166_1": "US"}]}})"), "US");
    EXPECT_EQ(tagOf(record, TagName::Rating), "before");
}

// Needs the cached configuration for the image addresses.
TEST_F(LookupTest, ArtworkListsUseTheSmallestAndLargestSizes) {
    MDB_TheMovieDb client;
    const QString base = server().baseURL() + "/t/p/";
    MDB_MovieMetadata record;
    MDB_TheMovieDb::metadata(record, parse(R"({"poster_path": "/p.jpg",
                  "images": {"posters": [{"file_path": "/a.jpg"}, {"file_path": "/b.jpg"}],
                             "backdrops": [{"file_path": "/ignored.jpg"}]}})"),
                             "US");
    EXPECT_EQ(record.artworkURL().toString(), base + "w92/p.jpg");
    EXPECT_EQ(record.artworkThumbURLs(),
              QList<QUrl>({QUrl(base + "w92/a.jpg"), QUrl(base + "w92/b.jpg")}));
    EXPECT_EQ(record.artworkFullsizeURLs(),
              QList<QUrl>({QUrl(base + "original/a.jpg"), QUrl(base + "original/b.jpg")}));
    // Backdrops inside "images" are not read.
    EXPECT_TRUE(record.backdropFullsizeURLs().isEmpty());

    // The images-only document: posters only when there are none yet.
    MDB_TheMovieDb::metadata(record, parse(R"({"id": 5, "posters": [{"file_path": "/c.jpg"}],
                                       "backdrops": [{"file_path": "/d.jpg"}]})"),
                             "US");
    EXPECT_EQ(record.artworkFullsizeURLs().size(), 2);
    EXPECT_EQ(record.backdropThumbURLs(), QList<QUrl>({QUrl(base + "w300/d.jpg")}));
    EXPECT_EQ(record.backdropFullsizeURLs(), QList<QUrl>({QUrl(base + "original/d.jpg")}));

    MDB_MovieMetadata bare;
    MDB_TheMovieDb::metadata(bare, parse(R"({"posters": [{"file_path": "/c.jpg"}]})"), "US");
    EXPECT_EQ(bare.artworkFullsizeURLs(), QList<QUrl>({QUrl(base + "original/c.jpg")}));
    // Empty lists leave what the record had.
    MDB_TheMovieDb::metadata(bare, parse(R"({"images": {"posters": []}, "backdrops": []})"), "US");
    EXPECT_EQ(bare.artworkFullsizeURLs().size(), 1);
}

} // namespace
