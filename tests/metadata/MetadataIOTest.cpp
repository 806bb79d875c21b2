// Tag writing and reading on real files made with ffmpeg, checked through the
// MP4 layer and against AtomicParsley and ffmpeg as independent readers.

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

#include <cstdlib>
#include <cstring>
#include <functional>

using namespace mp4test;

namespace {

class MetadataIO : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        UserDefaults::standard().reopen(m_dir.filePath("Tarnwick.plist"));
        UserDefaults::standard().setObject(QStringLiteral("en-US"), SettingsKey::LanguageRegion);
        const QString source = aacSample();
        ASSERT_FALSE(source.isEmpty());
        m_path = copyInto(m_dir, source, "movie.m4v");
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    QByteArray path() const { return QFile::encodeName(m_path); }

    // A record with no tags at all (a new record starts with the initTags() set).
    static MDB_Metadata bare() {
        MDB_Metadata r;
        r.setTagsDict({});
        return r;
    }

    void write(const MDB_Metadata& record, bool isTV = false) {
        MP4FileHandle h = MP4Modify(path().constData());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        EXPECT_TRUE(record.writeMetadataToFile(h, isTV));
        MP4Close(h);
    }

    MDB_Metadata read(bool isTV = false, bool* hadArtwork = nullptr) {
        MDB_Metadata r = bare();
        MP4FileHandle h = MP4Read(path().constData());
        EXPECT_NE(h, MP4_INVALID_FILE_HANDLE);
        const bool art = r.readMetaDataFromFile(h, isTV);
        if (hadArtwork)
            *hadArtwork = art;
        MP4Close(h);
        return r;
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
        if (!h)
            return values;
        if (MP4ItmfItemList* list = MP4ItmfGetItemsByMeaning(h, meaning, name)) {
            for (uint32_t i = 0; i < list->size; ++i) {
                const MP4ItmfData& d = list->elements[i].dataList.elements[0];
                EXPECT_EQ(d.typeCode, MP4_ITMF_BT_UTF8);
                values.append(QByteArray(reinterpret_cast<const char*>(d.value), d.valueSize));
            }
            MP4ItmfItemListFree(list);
        }
        MP4Close(h);
        return values;
    }

    // Adds a freeform UTF-8 item the way another program would.
    void addRawItem(const char* meaning, const char* name, const QByteArray& value) {
        MP4FileHandle h = MP4Modify(path().constData());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
        item->mean = strdup(meaning);
        item->name = strdup(name);
        item->dataList.elements[0].typeCode = MP4_ITMF_BT_UTF8;
        item->dataList.elements[0].value = static_cast<uint8_t*>(malloc(value.size() + 1));
        memcpy(item->dataList.elements[0].value, value.constData(), value.size());
        item->dataList.elements[0].valueSize = uint32_t(value.size());
        EXPECT_TRUE(MP4ItmfAddItem(h, item));
        MP4ItmfItemFree(item);
        MP4Close(h);
    }

    QTemporaryDir m_dir;
    QString m_path;
};

TEST_F(MetadataIO, TextAndNumbersRoundTripAndAnEmptyRecordRemovesThem) {
    MDB_Metadata r = bare();
    // Every text tag the file can hold, by the names the user sees.
    const QStringList texts =
        QStringLiteral("Name,Artist,Album Artist,Album,Grouping,Composer,Comments,Genre,"
                       "Release Date,TV Show,TV Network,TV Episode ID,Description,"
                       "Long Description,Series Description,Lyrics,Copyright,Encoding Tool,"
                       "Encoded By,iTunes Account,Keywords,Category,XID,Sort Name,Sort Artist,"
                       "Sort Album Artist,Sort Album,Sort Composer,Sort TV Show")
            .split(u',');
    for (const QString& key : texts)
        r.setTag(key + " – ünïcødé ✓", key);
    const std::pair<const char*, const char*> numbers[] = {{TagName::TrackNumber, "7/10"},
                                                           {TagName::DiskNumber, "1/2"},
                                                           {TagName::Tempo, "120"},
                                                           {TagName::TVSeason, "4"},
                                                           {TagName::TVEpisodeNumber, "12"},
                                                           {TagName::ContentID, "1234567"},
                                                           {TagName::PlaylistID, "9876543210123"},
                                                           {TagName::ComposerID, "11"},
                                                           {TagName::ArtistID, "22"},
                                                           {TagName::GenreID, "33"}};
    for (const auto& [key, value] : numbers)
        r.setTag(value, key);
    r.setMediaKind(9);
    r.setHdVideo(2);
    r.setGapless(1);
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
    EXPECT_EQ(back.mediaKind(), 9);
    EXPECT_EQ(back.hdVideo(), 2);
    EXPECT_EQ(back.gapless(), 1);
    EXPECT_EQ(back.podcast(), 1);
    EXPECT_EQ(back.contentRating(), 4);
    // Nothing that was not in the file appears in the record.
    EXPECT_TRUE(back.getTag(TagName::PurchaseDate).isNull());
    EXPECT_TRUE(back.getTag(TagName::Cast).isNull());

    write(bare());
    inspect([](const MP4Tags* t) {
        EXPECT_FALSE(t->name);
        EXPECT_FALSE(t->tempo);
        EXPECT_FALSE(t->tvSeason);
        EXPECT_FALSE(t->contentID);
        // "Home Video" and the other zero flags are left out, not written as 0.
        EXPECT_FALSE(t->mediaType);
        EXPECT_FALSE(t->hdVideo);
        EXPECT_FALSE(t->gapless);
        EXPECT_FALSE(t->podcast);
        // A content rating of "None" is still written.
        ASSERT_TRUE(t->contentRating);
        EXPECT_EQ(*t->contentRating, 0);
        // Store identifiers missing from the record survive.
        ASSERT_TRUE(t->playlistID && t->composerID && t->artistID && t->genreID);
        EXPECT_EQ(*t->playlistID, 9876543210123u);
        EXPECT_EQ(*t->composerID, 11u);
        EXPECT_EQ(*t->artistID, 22u);
        EXPECT_EQ(*t->genreID, 33u);
    });

    // Reading leaves fields the file lacks as they were in the record.
    MDB_Metadata keep = bare();
    keep.setTag("Mine", TagName::Name);
    keep.setMediaKind(10);
    MP4FileHandle h = MP4Read(path().constData());
    ASSERT_TRUE(h);
    keep.readMetaDataFromFile(h, false);
    MP4Close(h);
    EXPECT_EQ(keep.getTag(TagName::Name), "Mine");
    EXPECT_EQ(keep.mediaKind(), 10);
    EXPECT_EQ(keep.getTag(TagName::ArtistID), "22");
}

TEST_F(MetadataIO, TrackAndDiskNumbersAcceptSlashHyphenOrBlank) {
    const struct {
        const char* text;
        int index, total;
        const char* readBack;
    } cases[] = {{"3", 3, 0, "3/0"},      {"3/12", 3, 12, "3/12"},   {"3-12", 3, 12, "3/12"},
                 {"3 12", 3, 12, "3/12"}, {"3 / 12", 3, 12, "3/12"}, {"x", 0, 0, "0/0"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        MDB_Metadata r = bare();
        r.setTag(c.text, TagName::TrackNumber);
        r.setTag(c.text, TagName::DiskNumber);
        write(r);
        inspect([&](const MP4Tags* t) {
            ASSERT_TRUE(t->track && t->disk);
            EXPECT_EQ(t->track->index, c.index);
            EXPECT_EQ(t->track->total, c.total);
            EXPECT_EQ(t->disk->index, c.index);
            EXPECT_EQ(t->disk->total, c.total);
        });
        const MDB_Metadata back = read();
        EXPECT_EQ(back.getTag(TagName::TrackNumber), c.readBack);
        EXPECT_EQ(back.getTag(TagName::DiskNumber), c.readBack);
    }
}

TEST_F(MetadataIO, NumericGenreGivesWayToTheTextGenre) {
    {
        MP4FileHandle h = MP4Modify(path().constData());
        ASSERT_TRUE(h);
        const MP4Tags* t = MP4TagsAlloc();
        MP4TagsFetch(t, h);
        const uint16_t rock = 18;
        MP4TagsSetGenreType(t, &rock);
        MP4TagsStore(t, h);
        MP4TagsFree(t);
        MP4Close(h);
    }
    EXPECT_EQ(read().getTag(TagName::Genre), "Rock");
    const auto basic = MDB_Basicdata::readBasicDataFromFile(QUrl::fromLocalFile(m_path));
    ASSERT_TRUE(basic);
    EXPECT_EQ(basic->genre, "Rock");

    MDB_Metadata r = bare();
    r.setTag("Drama", TagName::Genre);
    write(r);
    inspect([](const MP4Tags* t) {
        EXPECT_FALSE(t->genreType);
        ASSERT_TRUE(t->genre);
        EXPECT_STREQ(t->genre, "Drama");
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
        EXPECT_EQ(t->artwork[0].type, MP4_ART_PNG);
        EXPECT_EQ(
            QByteArray(static_cast<const char*>(t->artwork[0].data), qsizetype(t->artwork[0].size)),
            png.data());
    });
    bool had = false;
    EXPECT_EQ(read(false, &had).artwork().size(), QSize(40, 30));
    EXPECT_TRUE(had);

    // Not edited: neither a missing nor a different picture changes the file.
    MDB_Metadata untouched = bare();
    write(untouched);
    const MDB_Image jpeg = imagetest::jpeg(imagetest::gradient(90, 134));
    untouched.setArtwork(jpeg);
    write(untouched);
    EXPECT_EQ(MDB_Metadata::readImageFromFile(QUrl::fromLocalFile(m_path)).size(), QSize(40, 30));

    // Edited: the first picture is replaced, not joined by a second.
    untouched.setIsArtworkEdited(true);
    write(untouched);
    inspect([](const MP4Tags* t) {
        ASSERT_EQ(t->artworkCount, 1u);
        EXPECT_EQ(t->artwork[0].type, MP4_ART_PNG);
    });
    const auto art = MDB_Artwork::readArtworkFromFile(QUrl::fromLocalFile(m_path));
    ASSERT_TRUE(art);
    EXPECT_EQ(art->artwork.format(), MDB_Image::Format::Png);
    EXPECT_EQ(art->artwork.size(), QSize(90, 134));
    EXPECT_TRUE(art->artwork.hasSamePixels(jpeg));

    MDB_Metadata cleared = bare();
    cleared.setIsArtworkEdited(true);
    write(cleared);
    inspect([](const MP4Tags* t) { EXPECT_EQ(t->artworkCount, 0u); });
    read(false, &had);
    EXPECT_FALSE(had);
    EXPECT_TRUE(MDB_Metadata::readImageFromFile(QUrl::fromLocalFile(m_path)).isNull());
    EXPECT_FALSE(MDB_Artwork::readArtworkFromFile(QUrl::fromLocalFile(m_path)));
}

TEST_F(MetadataIO, ACoverThatCannotBecomePngWritesNothing) {
    MDB_Metadata before = bare();
    before.setTag("Before", TagName::Name);
    before.setArtwork(imagetest::png(imagetest::solid(10, 10, Qt::red)));
    before.setIsArtworkEdited(true);
    write(before);

    MDB_Metadata r = bare();
    r.setTag("After", TagName::Name);
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
    MDB_Metadata r = bare();
    r.setTag("mpaa|PG-13|300|", TagName::Rating);
    r.setTag("For violence and sexuality.", TagName::RatingAnnotation);
    write(r);
    EXPECT_EQ(items("com.apple.iTunes", "iTunEXTC"),
              QList<QByteArray>{"mpaa|PG-13|300|For violence and sexuality."});
    MDB_Metadata back = read();
    EXPECT_EQ(back.getTag(TagName::Rating), "mpaa|PG-13|300|");
    EXPECT_EQ(back.getTag(TagName::RatingAnnotation), "For violence and sexuality.");

    UserDefaults::standard().setObject(QStringLiteral("en-GB"), SettingsKey::LanguageRegion);
    EXPECT_EQ(read().getTag(TagName::Rating), "uk-movie|12|300|");
    EXPECT_EQ(read(true).getTag(TagName::Rating), "uk-tv|Caution|500|");
    // A country without a rating table keeps the file's rating.
    UserDefaults::standard().setObject(QStringLiteral("eo-XX"), SettingsKey::LanguageRegion);
    EXPECT_EQ(read().getTag(TagName::Rating), "mpaa|PG-13|300|");

    // An empty rating still writes the item; an empty value reads as no rating.
    r.setTag("", TagName::Rating);
    write(r);
    EXPECT_EQ(items("com.apple.iTunes", "iTunEXTC"), QList<QByteArray>{QByteArray()});
    EXPECT_TRUE(read().getTag(TagName::Rating).isNull());
    write(bare());
    EXPECT_TRUE(items("com.apple.iTunes", "iTunEXTC").isEmpty());

    // The item's length is the value's length modulo 256.
    r.setTag("uk-movie|15|350|", TagName::Rating);
    r.setTag(QString(284, u'a'), TagName::RatingAnnotation);
    write(r);
    EXPECT_EQ(items("com.apple.iTunes", "iTunEXTC"),
              QList<QByteArray>{QByteArray("uk-movie|15|350|").append(284, 'a').left(300 % 256)});
}

TEST_F(MetadataIO, CastAndCrewItem) {
    MDB_Metadata r = bare();
    r.setTag("Keanu Reeves,  Laurence Fishburne ,Carrie-Anne Moss", TagName::Cast);
    r.setTag("Lana Wachowski, Lilly Wachowski", TagName::Director);
    r.setTag("Joel Silver", TagName::Producers);
    r.setTag("Warner Bros.", TagName::Studio);
    write(r);
    QList<QByteArray> values = items("com.apple.iTunes", "iTunMOVI");
    ASSERT_EQ(values.size(), 1);
    QVariantMap plist = PropertyList::fromData(values.first()).toMap();
    EXPECT_EQ(plist.keys(), (QStringList{"cast", "directors", "producers", "studio"}));
    EXPECT_EQ(plist.value("cast").toList().at(1).toMap().value("name"), "Laurence Fishburne");
    EXPECT_EQ(plist.value("studio"), "Warner Bros.");

    const MDB_Metadata back = read();
    EXPECT_EQ(back.getTag(TagName::Cast), "Keanu Reeves, Laurence Fishburne, Carrie-Anne Moss");
    EXPECT_EQ(back.getTag(TagName::Director), "Lana Wachowski, Lilly Wachowski");
    EXPECT_EQ(back.getTag(TagName::Producers), "Joel Silver");
    EXPECT_EQ(back.getTag(TagName::Studio), "Warner Bros.");
    EXPECT_TRUE(back.getTag(TagName::Screenwriters).isNull());

    MDB_Metadata empty = bare();
    empty.setTag("", TagName::Cast);
    write(empty);
    values = items("com.apple.iTunes", "iTunMOVI");
    ASSERT_EQ(values.size(), 1);
    plist = PropertyList::fromData(values.first()).toMap();
    EXPECT_EQ(plist.value("cast").toList(), (QVariantList{QVariantMap{{"name", QString("")}}}));
    EXPECT_TRUE(read().getTag(TagName::Cast).isNull());
    write(bare());
    EXPECT_TRUE(items("com.apple.iTunes", "iTunMOVI").isEmpty());
    // A broken property list yields nothing.
    addRawItem("com.apple.iTunes", "iTunMOVI", "<plist>not really");
    EXPECT_TRUE(read().getTag(TagName::Cast).isNull());
}

TEST_F(MetadataIO, IdentifierItemForMoviesAndTv) {
    MDB_Metadata movie = bare();
    movie.setTag("603", TagName::TMDbID);
    movie.setTag("tt0133093", TagName::IMDbID);
    movie.setTag("999", TagName::TVDbID); // ignored for a movie
    write(movie);
    QList<QByteArray> values = items("com.oswenna.metadata", "MOVI");
    ASSERT_EQ(values.size(), 1);
    EXPECT_EQ(PropertyList::fromData(values.first()).toMap().keys(),
              (QStringList{"IMDb ID", "TMDb ID"}));
    MDB_Metadata back = read();
    EXPECT_EQ(back.getTag(TagName::TMDbID), "603");
    EXPECT_EQ(back.getTag(TagName::IMDbID), "tt0133093");
    EXPECT_TRUE(back.getTag(TagName::TVDbID).isNull());

    MDB_Metadata show = bare();
    show.setTag("121361", TagName::TVDbID);
    show.setTag("3254641", TagName::TVDbEID);
    write(show, true);
    values = items("com.oswenna.metadata", "MOVI");
    ASSERT_EQ(values.size(), 1);
    const QVariantMap plist = PropertyList::fromData(values.first()).toMap();
    EXPECT_EQ(plist.keys(), (QStringList{"TVDb EID", "TVDb ID"}));
    // The episode key holds the series identifier.
    EXPECT_EQ(plist.value("TVDb EID").toList(),
              (QVariantList{QVariantMap{{"name", QString("121361")}}}));
    back = read(true);
    EXPECT_EQ(back.getTag(TagName::TVDbID), "121361");
    EXPECT_EQ(back.getTag(TagName::TVDbEID), "121361");
    EXPECT_TRUE(read(false).getTag(TagName::TVDbID).isNull());
    write(bare());
    EXPECT_TRUE(items("com.oswenna.metadata", "MOVI").isEmpty());
}

TEST_F(MetadataIO, ItemsOfOtherProgramsAreReadAndSurviveAndNoHandleMeansNo) {
    addRawItem("com.apple.iTunes", "iTunNORM", " 00000A2B 00000B3C");
    addRawItem("com.apple.iTunes", "iTunEXTC", "uk-movie\\15\\350\\Strong language");
    addRawItem("com.oswenna.metadata", "MOVI", "<plist/>");
    UserDefaults::standard().setObject(QStringLiteral("en-GB"), SettingsKey::LanguageRegion);
    MDB_Metadata back = read();
    EXPECT_EQ(back.getTag(TagName::Rating), "uk-movie|15|350|");
    EXPECT_EQ(back.getTag(TagName::RatingAnnotation), "Strong language");
    // A later item wins; a value of fewer than three fields changes nothing.
    addRawItem("com.apple.iTunes", "iTunEXTC", "de-movie|Ab 12 Jahren|200|");
    addRawItem("com.apple.iTunes", "iTunEXTC", "garbage");
    back = read();
    EXPECT_EQ(back.getTag(TagName::Rating), "uk-movie|PG|200|");
    EXPECT_EQ(back.getTag(TagName::RatingAnnotation), "Strong language");

    // Duplicates left by other programs all give way to the one new item.
    MDB_Metadata r = bare();
    r.setTag("Name", TagName::Name);
    r.setTag("mpaa|R|400|", TagName::Rating);
    r.setTag("Someone", TagName::Cast);
    r.setTag("1", TagName::TMDbID);
    write(r);
    write(r);
    EXPECT_EQ(items("com.apple.iTunes", "iTunNORM"), QList<QByteArray>{" 00000A2B 00000B3C"});
    EXPECT_EQ(items("com.apple.iTunes", "iTunEXTC"), QList<QByteArray>{"mpaa|R|400|"});
    EXPECT_EQ(items("com.apple.iTunes", "iTunMOVI").size(), 1);
    EXPECT_EQ(items("com.oswenna.metadata", "MOVI").size(), 1);

    EXPECT_FALSE(r.writeMetadataToFile(MP4_INVALID_FILE_HANDLE, false));
    MDB_Metadata none = bare();
    EXPECT_FALSE(none.readMetaDataFromFile(MP4_INVALID_FILE_HANDLE, false));
}

TEST_F(MetadataIO, IndependentReadersSeeOurTagsAndWeSeeTheirs) {
    if (!haveTool("AtomicParsley") || !haveTool("ffprobe"))
        GTEST_SKIP() << "AtomicParsley or ffprobe missing";
    const QByteArray before = packetHash(m_path);
    MDB_Metadata r = bare();
    r.setTag("The Matrix", TagName::Name);
    r.setTag("Sci-Fi & Fantasy", TagName::Genre);
    r.setTag("mpaa|R|400|", TagName::Rating);
    r.setTag("Keanu Reeves", TagName::Cast);
    write(r);
    // Tags alone leave every media packet as it was.
    EXPECT_EQ(packetHash(m_path), before);
    r.setArtwork(imagetest::jpeg(imagetest::gradient(90, 134)));
    r.setIsArtworkEdited(true);
    write(r);

    RunResult ap = run("AtomicParsley", {m_path, "-t"});
    ASSERT_EQ(ap.exitCode, 0) << ap.err.toStdString();
    const QString out = QString::fromUtf8(ap.out);
    for (const char* line :
         {"Atom \"©nam\" contains: The Matrix", "Atom \"©gen\" contains: Sci-Fi & Fantasy",
          "[com.apple.iTunes;iTunEXTC] contains: mpaa|R|400|",
          "[com.apple.iTunes;iTunMOVI] contains: <?xml",
          "Atom \"covr\" contains: 1 piece of artwork"})
        EXPECT_TRUE(out.contains(QString::fromUtf8(line))) << line << "\n" << qPrintable(out);
    const RunResult probe =
        run("ffprobe", {"-v", "error", "-show_entries",
                        "format_tags=title:stream=codec_name,width,height:stream_disposition="
                        "attached_pic",
                        "-of", "default=nw=1", m_path});
    ASSERT_EQ(probe.exitCode, 0) << probe.err.toStdString();
    const QString streams = QString::fromUtf8(probe.out);
    EXPECT_TRUE(streams.contains("TAG:title=The Matrix")) << qPrintable(streams);
    const qsizetype cover = streams.indexOf("codec_name=png");
    ASSERT_GE(cover, 0) << qPrintable(streams);
    EXPECT_TRUE(streams.mid(cover).startsWith("codec_name=png\nwidth=90\nheight=134\n"))
        << qPrintable(streams);
    EXPECT_TRUE(streams.mid(cover).contains("attached_pic=1")) << qPrintable(streams);
    QByteArray errors;
    EXPECT_TRUE(ffmpegPlays(m_path, &errors)) << errors.toStdString();

    const QString cover48 = coverImage("cover-48.png", 48);
    ASSERT_FALSE(cover48.isEmpty());
    ap = run("AtomicParsley", {m_path, "--title", "Blade Runner", "--genre", "Science Fiction",
                               "--artwork", "REMOVE_ALL", "--artwork", cover48, "--overWrite"});
    ASSERT_EQ(ap.exitCode, 0) << ap.err.toStdString() << ap.out.toStdString();
    bool had = false;
    const MDB_Metadata back = read(false, &had);
    EXPECT_TRUE(had);
    EXPECT_EQ(back.getTag(TagName::Name), "Blade Runner");
    EXPECT_EQ(back.getTag(TagName::Genre), "Science Fiction");
    EXPECT_EQ(back.artwork().size(), QSize(48, 48));
}

TEST_F(MetadataIO, BasicDataFallsBackToTheFileName) {
    const auto plain = MDB_Basicdata::readBasicDataFromFile(QUrl::fromLocalFile(m_path));
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->url, QUrl::fromLocalFile(m_path));
    EXPECT_EQ(plain->name, "movie");
    EXPECT_EQ(plain->sortName, "movie");
    EXPECT_EQ(plain->genre, "Unknown");
    EXPECT_EQ(plain->contentID, "movie.m4v");
    EXPECT_EQ(plain->hdVideo, 0);

    MDB_Metadata r = bare();
    r.setTag("Matrix, The", TagName::SortName);
    r.setTag("The Matrix", TagName::Name);
    r.setTag("1234", TagName::ContentID);
    r.setHdVideo(2);
    write(r);
    const auto tagged = MDB_Basicdata::readBasicDataFromFile(QUrl::fromLocalFile(m_path));
    ASSERT_TRUE(tagged);
    EXPECT_EQ(tagged->name, "The Matrix");
    EXPECT_EQ(tagged->sortName, "Matrix, The");
    EXPECT_EQ(tagged->contentID, "1234");
    EXPECT_EQ(tagged->hdVideo, 2);

    EXPECT_FALSE(
        MDB_Basicdata::readBasicDataFromFile(QUrl::fromLocalFile(m_dir.filePath("missing.m4v"))));
    QFile junk(m_dir.filePath("junk.m4v"));
    ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
    junk.write("this is not an mp4 file at all");
    junk.close();
    EXPECT_FALSE(MDB_Basicdata::readBasicDataFromFile(QUrl::fromLocalFile(junk.fileName())));
    EXPECT_TRUE(MDB_Metadata::readImageFromFile(QUrl::fromLocalFile(junk.fileName())).isNull());
}

TEST_F(MetadataIO, MovieRecordFromAFileResetsItsInitialTagsAfterTheRead) {
    MDB_Metadata original;
    original.setTag(QStringLiteral("Read Back"), TagName::Name);
    original.setTag(QStringLiteral("A studio"), TagName::Studio);
    original.setTag(QStringLiteral("Someone"), TagName::Cast);
    original.setMediaType(QStringLiteral("Movie"));
    write(original);

    MP4FileHandle h = MP4Read(path().constData());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MDB_MovieMetadata movie(m_path, h);
    MP4Close(h);
    // Tags outside the initial set keep what the file had...
    EXPECT_EQ(movie.getTag(TagName::Studio), "A studio");
    EXPECT_EQ(movie.mediaKind(), 9);
    // ...while the initial set is emptied again after the read.
    EXPECT_EQ(movie.getTag(TagName::Name), "");
    EXPECT_EQ(movie.getTag(TagName::Cast), "");
    EXPECT_TRUE(movie.sourcePath().isEmpty());
}

} // namespace
