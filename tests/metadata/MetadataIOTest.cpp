// Tag writing and reading on real files made with ffmpeg, checked through the
// MP4 layer and with ffprobe as an independent reader.

#include "ImageTestSupport.h"
#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/MDB_Artwork.h"
#include "metadata/MDB_Basicdata.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "mp4/Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QTemporaryDir>
#include <QUrl>

#include <cstring>
#include <functional>

using namespace mp4test;

namespace {

const char* const kITunes = "com.apple.iTunes";

class MetadataIO : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        UserDefaults::standard().reopen(m_dir.filePath("Tarnwick.plist"));
        setRegion("en-US");
        m_path = copyInto(m_dir, aacSample(), "movie.m4v");
        ASSERT_FALSE(m_path.isEmpty());
        m_packets = packetHash(m_path);
    }
    void TearDown() override {
        EXPECT_EQ(packetHash(m_path), m_packets) << "tagging changed the media";
        UserDefaults::standard().reopen();
    }

    static void setRegion(const char* region) {
        UserDefaults::standard().setObject(QString(region), SettingsKey::LanguageRegion);
    }
    QByteArray path() const { return QFile::encodeName(m_path); }
    QUrl url() const { return QUrl::fromLocalFile(m_path); }

    // A record with no tags at all (a new record starts with the initTags() set).
    static MDB_Metadata bare(const QMap<QString, QString>& tags = {}) {
        MDB_Metadata r;
        r.setTagsDict(tags);
        return r;
    }

    void write(const MDB_Metadata& record, bool isTV = false) {
        MP4FileHandle h = MP4Modify(path().constData());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        EXPECT_TRUE(record.writeMetadataToFile(h, isTV));
        MP4Close(h);
    }

    MDB_Metadata read(bool isTV = false, bool* hadArtwork = nullptr, MDB_Metadata&& r = bare()) {
        MP4FileHandle h = MP4Read(path().constData());
        EXPECT_NE(h, MP4_INVALID_FILE_HANDLE);
        const bool art = r.readMetaDataFromFile(h, isTV);
        if (hadArtwork)
            *hadArtwork = art;
        MP4Close(h);
        return std::move(r);
    }

    void inspect(const std::function<void(const MP4Tags*)>& check) {
        MP4FileHandle h = MP4Read(path().constData());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        const MP4Tags* tags = MP4TagsAlloc();
        ASSERT_TRUE(MP4TagsFetch(tags, h));
        check(tags);
        MP4TagsFree(tags);
        MP4Close(h);
    }

    // The values of every freeform item of that meaning and name.
    QList<QByteArray> items(const char* meaning, const char* name) {
        QList<QByteArray> values;
        MP4FileHandle h = MP4Read(path().constData());
        if (MP4ItmfItemList* list = MP4ItmfGetItemsByMeaning(h, meaning, name)) {
            for (uint32_t i = 0; i < list->size; ++i) {
                const MP4ItmfData& d = list->elements[i].dataList.elements[0];
                values.append(QByteArray(reinterpret_cast<const char*>(d.value), d.valueSize));
            }
            MP4ItmfItemListFree(list);
        }
        MP4Close(h);
        return values;
    }
    QVariantMap plistItem(const char* meaning, const char* name) {
        const QList<QByteArray> values = items(meaning, name);
        EXPECT_EQ(values.size(), 1);
        return PropertyList::fromData(values.value(0)).toMap();
    }

    // Adds a freeform UTF-8 item the way another program would.
    void addRawItem(const char* meaning, const char* name, const QByteArray& value) {
        MP4FileHandle h = MP4Modify(path().constData());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
        item->mean = strdup(meaning);
        item->name = strdup(name);
        MP4ItmfData& data = item->dataList.elements[0];
        data.typeCode = MP4_ITMF_BT_UTF8;
        data.value = reinterpret_cast<uint8_t*>(strndup(value.constData(), value.size()));
        data.valueSize = uint32_t(value.size());
        EXPECT_TRUE(MP4ItmfAddItem(h, item));
        MP4ItmfItemFree(item);
        MP4Close(h);
    }

    QTemporaryDir m_dir;
    QString m_path;
    QByteArray m_packets;
};

TEST_F(MetadataIO, TextAndNumbersRoundTripAndAnEmptyRecordRemovesThem) {
    MDB_Metadata r = bare();
    // Every text tag the file can hold, by the names the user sees.
    const QStringList texts =
        QString("Name,Artist,Album Artist,Album,Grouping,Composer,Comments,Genre,"
                "Release Date,TV Show,TV Network,TV Episode ID,Description,"
                "Long Description,Series Description,Lyrics,Copyright,Encoding Tool,"
                "Encoded By,iTunes Account,Keywords,Category,XID,Sort Name,Sort Artist,"
                "Sort Album Artist,Sort Album,Sort Composer,Sort TV Show")
            .split(u',');
    for (const QString& key : texts)
        r.setTag(key + " – ünïcødé ✓", key);
    const std::pair<const char*, const char*> numbers[] = {
        {TagName::TrackNumber, "7/10"}, {TagName::Tempo, "120"},
        {TagName::TVSeason, "4"},       {TagName::ContentID, "1234567"},
        {TagName::ArtistID, "22"},      {TagName::PlaylistID, "9876543210123"}};
    for (const auto& [key, value] : numbers)
        r.setTag(value, key);
    // Track and disk numbers take a slash, a hyphen or blanks.
    r.setTag("3 - 12", TagName::DiskNumber);
    r.setMediaKind(9);
    r.setHdVideo(2);
    r.setPodcast(1);
    r.setContentRating(4);
    write(r);

    bool hadArtwork = true;
    const MDB_Metadata back = read(false, &hadArtwork);
    EXPECT_FALSE(hadArtwork);
    for (const QString& key : texts)
        EXPECT_EQ(back.getTag(key), key + " – ünïcødé ✓") << qPrintable(key);
    for (const auto& [key, value] : numbers)
        EXPECT_EQ(back.getTag(key), value) << key;
    EXPECT_EQ(back.getTag(TagName::DiskNumber), "3/12");
    EXPECT_EQ(
        (std::vector<int>{back.mediaKind(), back.hdVideo(), back.podcast(), back.contentRating()}),
        (std::vector<int>{9, 2, 1, 4}));
    // Nothing that was not in the file appears in the record.
    EXPECT_TRUE(back.getTag(TagName::Cast).isNull());

    write(bare());
    inspect([](const MP4Tags* t) {
        EXPECT_FALSE(t->name || t->tempo || t->contentID);
        // "Home Video" and the other zero flags are left out, not written as 0.
        EXPECT_FALSE(t->mediaType || t->hdVideo || t->podcast);
        // A content rating of "None" is still written.
        ASSERT_TRUE(t->contentRating);
        EXPECT_EQ(*t->contentRating, 0);
        // Store identifiers missing from the record survive.
        ASSERT_TRUE(t->playlistID && t->artistID);
        EXPECT_EQ(*t->playlistID, 9876543210123u);
    });
    // Reading leaves fields the file lacks as they were in the record.
    MDB_Metadata keep = bare({{TagName::Name, "Mine"}});
    EXPECT_EQ(read(false, nullptr, std::move(keep)).getTag(TagName::Name), "Mine");
}

TEST_F(MetadataIO, NumericGenreGivesWayToTheTextGenre) {
    MP4FileHandle h = MP4Modify(path().constData());
    const MP4Tags* t = MP4TagsAlloc();
    const uint16_t rock = 18;
    ASSERT_TRUE(MP4TagsFetch(t, h) && MP4TagsSetGenreType(t, &rock) && MP4TagsStore(t, h));
    MP4TagsFree(t);
    MP4Close(h);
    EXPECT_EQ(read().getTag(TagName::Genre), "Rock");
    write(bare({{TagName::Genre, "Drama"}}));
    inspect([](const MP4Tags* t) {
        EXPECT_TRUE(!t->genreType && t->genre && QByteArray(t->genre) == "Drama");
    });
}

// The cover is one PNG image, touched only when edited: a PNG artwork's own
// bytes, anything else (a JPEG poster as the database serves it) converted.
TEST_F(MetadataIO, CoverArtIsOnePngTouchedOnlyWhenEdited) {
    const MDB_Image png = imagetest::png(imagetest::gradient(40, 30));
    MDB_Metadata r = bare();
    r.setArtwork(png);
    r.setIsArtworkEdited(true);
    write(r);
    inspect([&](const MP4Tags* t) {
        ASSERT_EQ(t->artworkCount, 1u);
        EXPECT_EQ(
            QByteArray(static_cast<const char*>(t->artwork[0].data), qsizetype(t->artwork[0].size)),
            png.data());
    });
    bool had = false;
    EXPECT_EQ(read(false, &had).artwork().size(), QSize(40, 30));
    EXPECT_TRUE(had);

    // Not edited: a different picture does not change the file.
    MDB_Metadata untouched = bare();
    const MDB_Image jpeg = imagetest::jpeg(imagetest::gradient(90, 134));
    untouched.setArtwork(jpeg);
    write(untouched);
    EXPECT_EQ(MDB_Metadata::readImageFromFile(url()).size(), QSize(40, 30));

    // Edited: the first picture is replaced, not joined by a second.
    untouched.setIsArtworkEdited(true);
    write(untouched);
    inspect([](const MP4Tags* t) { ASSERT_EQ(t->artworkCount, 1u); });
    const auto art = MDB_Artwork::readArtworkFromFile(url());
    ASSERT_TRUE(art);
    EXPECT_EQ(art->artwork.format(), MDB_Image::Format::Png);
    EXPECT_TRUE(art->artwork.hasSamePixels(jpeg));

    MDB_Metadata cleared = bare();
    cleared.setIsArtworkEdited(true);
    write(cleared);
    EXPECT_FALSE(MDB_Artwork::readArtworkFromFile(url()));
}

TEST_F(MetadataIO, ACoverThatCannotBecomePngWritesNothing) {
    MDB_Metadata before = bare({{TagName::Name, "Before"}});
    before.setArtwork(imagetest::png(imagetest::solid(10, 10, Qt::red)));
    before.setIsArtworkEdited(true);
    write(before);

    MDB_Metadata r = bare({{TagName::Name, "After"}});
    r.setArtwork(imagetest::jpeg(imagetest::gradient(16, 16)));
    r.setIsArtworkEdited(true);
    QString error;
    {
        imagetest::CodecMovedTo moved(m_dir.filePath("no-codec"));
        MP4FileHandle h = MP4Modify(path().constData());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        EXPECT_FALSE(r.writeMetadataToFile(h, false, &error));
        MP4Close(h);
        EXPECT_TRUE(error.contains(MDB_Image::codecPath())) << error.toStdString();
    }
    EXPECT_TRUE(error.contains("no tags were written")) << error.toStdString();
    const MDB_Metadata back = read();
    EXPECT_EQ(back.getTag(TagName::Name), "Before");
    EXPECT_EQ(back.artwork().size(), QSize(10, 10));
}

TEST_F(MetadataIO, RatingItemCarriesTheAnnotationAndIsTranslatedOnReading) {
    MDB_Metadata r = bare({{TagName::Rating, "mpaa|PG-13|300|"},
                           {TagName::RatingAnnotation, "For violence and sexuality."}});
    write(r);
    EXPECT_EQ(items(kITunes, "iTunEXTC"),
              QList<QByteArray>{"mpaa|PG-13|300|For violence and sexuality."});
    EXPECT_EQ(read().getTag(TagName::RatingAnnotation), "For violence and sexuality.");
    setRegion("en-GB");
    EXPECT_EQ(read().getTag(TagName::Rating), "uk-movie|12|300|");
    EXPECT_EQ(read(true).getTag(TagName::Rating), "uk-tv|Caution|500|");
    // A country without a rating table keeps the file's rating.
    setRegion("eo-XX");
    EXPECT_EQ(read().getTag(TagName::Rating), "mpaa|PG-13|300|");

    // An empty rating still writes the item; an empty value reads as no rating.
    r.setTag("", TagName::Rating);
    write(r);
    EXPECT_EQ(items(kITunes, "iTunEXTC"), QList<QByteArray>{QByteArray()});
    EXPECT_TRUE(read().getTag(TagName::Rating).isNull());
}

TEST_F(MetadataIO, CastAndIdentifierItemsForMoviesAndTv) {
    write(bare({{TagName::Cast, "Keanu Reeves,  Laurence Fishburne ,Carrie-Anne Moss"},
                {TagName::Director, "Lana Wachowski, Lilly Wachowski"},
                {TagName::Studio, "Warner Bros."},
                {TagName::TMDbID, "603"},
                {TagName::IMDbID, "tt0133093"},
                {TagName::TVDbID, "999"}}));
    const QVariantMap movi = plistItem(kITunes, "iTunMOVI");
    EXPECT_EQ(movi.keys(), (QStringList{"cast", "directors", "studio"}));
    // The database identifiers; the TV one is left out for a movie.
    EXPECT_EQ(plistItem("com.oswenna.metadata", "MOVI").keys(),
              (QStringList{"IMDb ID", "TMDb ID"}));
    MDB_Metadata back = read();
    EXPECT_EQ(back.getTag(TagName::Cast), "Keanu Reeves, Laurence Fishburne, Carrie-Anne Moss");
    EXPECT_TRUE(back.getTag(TagName::Screenwriters).isNull());
    EXPECT_EQ(back.getTag(TagName::TMDbID), "603");
    EXPECT_EQ(back.getTag(TagName::IMDbID), "tt0133093");
    EXPECT_TRUE(back.getTag(TagName::TVDbID).isNull());

    // An empty cast writes one empty name and reads as none.
    write(bare({{TagName::Cast, ""}, {TagName::TVDbID, "121361"}, {TagName::TVDbEID, "3254641"}}),
          true);
    const QVariantMap ids = plistItem("com.oswenna.metadata", "MOVI");
    EXPECT_EQ(ids.keys(), (QStringList{"TVDb EID", "TVDb ID"}));
    // The episode key holds the series identifier.
    EXPECT_EQ(ids.value("TVDb EID").toList(),
              (QVariantList{QVariantMap{{"name", QString("121361")}}}));
    EXPECT_TRUE(read(true).getTag(TagName::Cast).isNull());
    write(bare());
    EXPECT_TRUE(items(kITunes, "iTunMOVI").isEmpty());
    EXPECT_TRUE(items("com.oswenna.metadata", "MOVI").isEmpty());
    // A broken property list yields nothing.
    addRawItem(kITunes, "iTunMOVI", "<plist>not really");
    EXPECT_TRUE(read().getTag(TagName::Cast).isNull());
}

TEST_F(MetadataIO, ItemsOfOtherProgramsAreReadAndSurviveAndNoHandleMeansNo) {
    addRawItem(kITunes, "iTunNORM", " 00000A2B 00000B3C");
    addRawItem(kITunes, "iTunEXTC", "uk-movie\\15\\350\\Strong language");
    addRawItem("com.oswenna.metadata", "MOVI", "<plist/>");
    setRegion("en-GB");
    MDB_Metadata back = read();
    EXPECT_EQ(back.getTag(TagName::Rating), "uk-movie|15|350|");
    EXPECT_EQ(back.getTag(TagName::RatingAnnotation), "Strong language");
    // A value of fewer than three fields changes nothing.
    addRawItem(kITunes, "iTunEXTC", "garbage");
    EXPECT_EQ(read().getTag(TagName::Rating), "uk-movie|15|350|");

    // Duplicates left by other programs all give way to the one new item.
    const MDB_Metadata r = bare({{TagName::Rating, "mpaa|R|400|"}, {TagName::TMDbID, "1"}});
    write(r);
    write(r);
    EXPECT_EQ(items(kITunes, "iTunNORM"), QList<QByteArray>{" 00000A2B 00000B3C"});
    EXPECT_EQ(items(kITunes, "iTunEXTC"), QList<QByteArray>{"mpaa|R|400|"});
    EXPECT_EQ(items("com.oswenna.metadata", "MOVI").size(), 1);

    EXPECT_FALSE(r.writeMetadataToFile(MP4_INVALID_FILE_HANDLE, false));
}

TEST_F(MetadataIO, BasicDataAndMovieRecordsFromFiles) {
    EXPECT_EQ(MDB_Basicdata::readBasicDataFromFile(url())->contentID, "movie.m4v");
    MDB_Metadata original;
    original.setTag("A studio", TagName::Studio);
    original.setTag("1234", TagName::ContentID);
    original.setMediaType("Movie");
    original.setHdVideo(2);
    write(original);
    const auto tagged = MDB_Basicdata::readBasicDataFromFile(url());
    ASSERT_TRUE(tagged);
    EXPECT_EQ(tagged->contentID, "1234");
    EXPECT_EQ(tagged->hdVideo, 2);

    MP4FileHandle h = MP4Read(path().constData());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MDB_MovieMetadata movie(m_path, h);
    MP4Close(h);
    // Tags outside the initial set keep what the file had, while the initial
    // set is emptied again after the read.
    EXPECT_EQ(movie.getTag(TagName::Studio), "A studio");
    EXPECT_EQ(movie.getTag(TagName::Name), "");

    QFile junk(m_dir.filePath("junk.m4v"));
    ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
    junk.write("this is not an mp4 file at all");
    junk.close();
    EXPECT_FALSE(MDB_Basicdata::readBasicDataFromFile(QUrl::fromLocalFile(junk.fileName())));
    EXPECT_TRUE(MDB_Metadata::readImageFromFile(QUrl::fromLocalFile(junk.fileName())).isNull());
}

} // namespace
