#include "ImageTestSupport.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"

#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QHttpServer>
#include <QHttpServerResponse>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QImage solidImage(int width, int height, QRgb color) {
    return imagetest::solid(width, height, QColor(color));
}

QStringList names(const QVariantList& people) {
    QStringList out;
    for (const QVariant& person : people)
        out.append(person.toMap().value(QStringLiteral("name")).toString());
    return out;
}

// --- a new record and setTag -------------------------------------------------

TEST(MetadataRecordTest, ANewRecordCarriesTheInitialTags) {
    MDB_Metadata record;
    EXPECT_EQ(record.presetName(), QStringLiteral("Unnamed Set"));
    EXPECT_EQ(record.getTag(TagName::EncodingTool),
              QStringLiteral("Tarnwick (" TARNWICK_VERSION ")"));
    for (const char* name :
         {TagName::Name, TagName::SortName, TagName::ReleaseDate, TagName::Rating, TagName::Genre,
          TagName::Cast, TagName::Screenwriters}) {
        EXPECT_FALSE(record.getTag(name).isNull()) << name;
        EXPECT_TRUE(record.getTag(name).isEmpty()) << name;
    }
    EXPECT_TRUE(record.getTag(TagName::Artist).isNull());
    EXPECT_EQ(record.tagsDict().size(), 13);
    EXPECT_EQ(record.artworkIndex(), -1);
    // initTags() stores through setTag(), which marks the record.
    EXPECT_TRUE(record.isEdited());
    EXPECT_FALSE(record.isArtworkEdited());
}

TEST(MetadataRecordTest, FlagTagsTakeTheirValueFromTheText) {
    const struct {
        QString value;
        int expected;
    } cases[] = {{"2", 2},    {"yes", 1},     {"YES", 1}, {"1", 1},
                 {"true", 0}, {QString(), 0}, {"", 0},    {"3", 0}};
    MDB_Metadata record;
    for (const auto& c : cases) {
        record.setHdVideo(7);
        record.setIsEdited(false);
        EXPECT_TRUE(record.setTag(c.value, TagName::HDVideo)) << c.value.toStdString();
        EXPECT_EQ(record.hdVideo(), c.expected) << c.value.toStdString();
        EXPECT_TRUE(record.isEdited());
    }
    EXPECT_TRUE(record.setTag(QStringLiteral("Yes"), TagName::Gapless));
    EXPECT_EQ(record.gapless(), 1);
    EXPECT_TRUE(record.setTag(QStringLiteral("2"), TagName::Gapless));
    EXPECT_EQ(record.gapless(), 0);

    record.setIsEdited(false);
    record.setMediaType(QStringLiteral("Movie"));
    EXPECT_EQ(record.mediaKind(), 9);
    EXPECT_TRUE(record.isEdited());
    record.setIsEdited(false);
    record.setMediaType(QStringLiteral("Film"));
    EXPECT_EQ(record.mediaKind(), 9);
    EXPECT_FALSE(record.isEdited());
    EXPECT_TRUE(record.setTag(QStringLiteral("TV Show"), TagName::MediaKind));
    EXPECT_EQ(record.mediaKind(), 10);
    EXPECT_FALSE(record.setTag(QStringLiteral("Feature"), TagName::MediaKind));
    EXPECT_EQ(record.mediaKind(), 10);
    EXPECT_TRUE(record.setTag(QStringLiteral("Clean"), TagName::ContentRating));
    EXPECT_EQ(record.contentRating(), 2);
    record.setContentRatingType(QStringLiteral("Explicit"));
    EXPECT_EQ(record.contentRating(), 4);
    EXPECT_FALSE(record.setTag(QStringLiteral("Dirty"), TagName::ContentRating));
    EXPECT_EQ(record.contentRating(), 4);
    // None of them is kept as a text tag.
    for (const char* name :
         {TagName::HDVideo, TagName::Gapless, TagName::MediaKind, TagName::ContentRating})
        EXPECT_FALSE(record.tagsDict().contains(name)) << name;
}

TEST(MetadataRecordTest, OnlyAChangedValueMarksTheRecord) {
    MDB_Metadata record;
    ASSERT_TRUE(record.setTag(QStringLiteral("Alien"), TagName::Name));
    record.setIsEdited(false);
    EXPECT_FALSE(record.setTag(QStringLiteral("Alien"), TagName::Name));
    EXPECT_FALSE(record.isEdited());
    EXPECT_TRUE(record.setTag(QStringLiteral("Aliens"), TagName::Name));
    EXPECT_EQ(record.getTag(TagName::Name), QStringLiteral("Aliens"));
    EXPECT_TRUE(record.isEdited());

    record.setIsEdited(false);
    record.setRatingForCountry(QStringLiteral("de"), QStringLiteral("de-movie|FSK 12|200|"));
    EXPECT_EQ(record.getTag(TagName::Rating), QStringLiteral("de-movie|FSK 12|200|"));
    EXPECT_FALSE(record.isEdited());
    record.deleteTag(TagName::Rating);
    EXPECT_TRUE(record.getTag(TagName::Rating).isNull());
    EXPECT_TRUE(record.isEdited());
}

// --- people lists and decoding -----------------------------------------------

TEST(MetadataStringsTest, PeopleListsSplitAndJoin) {
    const QVariantList people =
        MDB_Metadata::dictArrayFromString(QStringLiteral(" Ann Lee ,Bob\t,\n  Cy"));
    EXPECT_EQ(names(people), (QStringList{"Ann Lee", "Bob", "Cy"}));
    EXPECT_EQ(people.first().toMap().size(), 1);
    EXPECT_EQ(MDB_Metadata::stringFromArray(people), QStringLiteral("Ann Lee, Bob, Cy"));

    const QVariantList empty = MDB_Metadata::dictArrayFromString(QString());
    EXPECT_EQ(names(empty), QStringList{QString()});
    EXPECT_EQ(MDB_Metadata::stringFromArray(empty), QString());
    const QVariantList trailing = MDB_Metadata::dictArrayFromString(QStringLiteral("A, B,"));
    EXPECT_EQ(names(trailing), (QStringList{"A", "B", ""}));
    EXPECT_EQ(MDB_Metadata::stringFromArray(trailing), QStringLiteral("A, B, "));
}

TEST(MetadataStringsTest, FileTextFallsBackFromUtf8ToUtf16) {
    EXPECT_EQ(MDB_Metadata::stringFromMetadata("Am\xc3\xa9lie"), QStringLiteral("Amélie"));
    // Not UTF-8 (0xFF never occurs there), but UTF-16 with a byte-order mark.
    EXPECT_EQ(MDB_Metadata::stringFromMetadata(QByteArray("\xff\xfe\xe5\x65\x2c\x67", 6)),
              QStringLiteral("日本"));
    // Neither: an odd number of bytes with an invalid UTF-8 lead.
    const QString none = MDB_Metadata::stringFromMetadata(QByteArray("\xff\xfe\xe5", 3));
    EXPECT_TRUE(none.isEmpty());
    EXPECT_FALSE(none.isNull());
    // Even length, but a high surrogate without its partner.
    EXPECT_TRUE(MDB_Metadata::stringFromMetadata(QByteArray("\xff\xfe\x00\xd8", 4)).isEmpty());
    EXPECT_TRUE(MDB_Metadata::stringFromMetadata(nullptr).isEmpty());
}

// --- merging and copying -----------------------------------------------------

MDB_Metadata* filledRecord(MDB_Metadata* record) {
    record->setPresetName(QStringLiteral("Evening"));
    record->setTag(QStringLiteral("Heat"), TagName::Name);
    record->setTag(QStringLiteral("Crime"), TagName::Genre);
    record->setTag(QStringLiteral("42"), TagName::ArtistID);
    record->setTag(QStringLiteral("949"), TagName::TMDbID);
    QImage art = solidImage(3, 2, qRgb(10, 20, 30));
    art.setPixel(1, 1, qRgb(250, 240, 230));
    record->setArtwork(imagetest::png(art));
    record->setMediaKind(9);
    record->setContentRating(4);
    record->setHdVideo(2);
    record->setGapless(1);
    record->setPodcast(1);
    return record;
}

// Merge takes the writable tags only, copy every known tag; neither takes the
// podcast flag, and merge none of the flags but the media kind.
TEST(MetadataCopyTest, MergeCopyAndReplaceTakeTheirOwnParts) {
    MDB_Metadata other;
    filledRecord(&other);
    other.setTag(QStringLiteral("2020-01-01"), TagName::PurchaseDate);
    const auto target = [] {
        MDB_Metadata self;
        self.setTag(QStringLiteral("Old"), TagName::Name);
        self.setTag(QStringLiteral("Kept"), TagName::Comments);
        self.setIsEdited(false);
        return self;
    };
    const auto flags = [](const MDB_Metadata& m) {
        return std::vector<int>{m.mediaKind(), m.contentRating(), m.hdVideo(), m.gapless(),
                                m.podcast()};
    };

    MDB_Metadata merged = target();
    EXPECT_TRUE(merged.mergeMetadata(other));
    EXPECT_EQ(merged.getTag(TagName::Name), QStringLiteral("Heat"));
    EXPECT_EQ(merged.getTag(TagName::Comments), QStringLiteral("Kept"));
    EXPECT_TRUE(merged.getTag(TagName::ArtistID).isNull());
    EXPECT_TRUE(merged.getTag(TagName::TMDbID).isNull());
    EXPECT_EQ(merged.artwork(), other.artwork());
    EXPECT_TRUE(merged.isArtworkEdited());
    EXPECT_TRUE(merged.isEdited());
    EXPECT_EQ(flags(merged), (std::vector<int>{9, 0, 0, 0, 0}));
    // Merging keeps artwork the record already has.
    const MDB_Image own = imagetest::png(solidImage(3, 3, qRgb(0, 0, 255)));
    MDB_Metadata withArt = target();
    withArt.setArtwork(own);
    withArt.mergeMetadata(other);
    EXPECT_EQ(withArt.artwork(), own);
    EXPECT_FALSE(withArt.isArtworkEdited());

    MDB_Metadata copied = target();
    copied.copyMetadata(other);
    EXPECT_EQ(copied.getTag(TagName::ArtistID), QStringLiteral("42"));
    EXPECT_EQ(copied.getTag(TagName::Comments), QStringLiteral("Kept"));
    EXPECT_TRUE(copied.getTag(TagName::PurchaseDate).isNull());
    EXPECT_EQ(copied.artwork(), other.artwork());
    EXPECT_TRUE(copied.isArtworkEdited());
    EXPECT_FALSE(copied.isEdited());
    EXPECT_EQ(flags(copied), (std::vector<int>{9, 4, 2, 1, 0}));

    // Replace drops the images and their addresses.
    const QUrl poster(QStringLiteral("https://images.example/poster.png"));
    MDB_Metadata replaced = target();
    replaced.setArtwork(own);
    replaced.setArtworkURL(poster);
    replaced.setArtworkFullsizeURLs({poster});
    replaced.setBackdrop(own);
    replaced.setBackdropURL(poster);
    replaced.setBackdropThumbURLs({poster});
    replaced.replaceMetadata(other);
    EXPECT_EQ(replaced.getTag(TagName::TMDbID), QStringLiteral("949"));
    EXPECT_TRUE(replaced.artwork().isNull());
    EXPECT_FALSE(replaced.isArtworkEdited());
    EXPECT_TRUE(replaced.artworkURL().isEmpty());
    EXPECT_TRUE(replaced.artworkFullsizeURLs().isEmpty());
    EXPECT_TRUE(replaced.backdrop().isNull());
    EXPECT_TRUE(replaced.backdropURL().isEmpty());
    EXPECT_TRUE(replaced.backdropThumbURLs().isEmpty());
    EXPECT_EQ(flags(replaced), (std::vector<int>{9, 4, 2, 1, 0}));

    // ...but not from itself.
    other.setArtworkURL(poster);
    other.setIsArtworkEdited(true);
    other.setIsEdited(false);
    other.replaceMetadata(other);
    other.copyMetadata(other);
    EXPECT_EQ(other.getTag(TagName::TMDbID), QStringLiteral("949"));
    EXPECT_FALSE(other.artwork().isNull());
    EXPECT_EQ(other.artworkURL(), poster);
    EXPECT_FALSE(other.isEdited());

    // A copy is a plain record with the writable tags and every flag.
    MDB_MovieMetadata movie;
    filledRecord(&movie);
    const std::unique_ptr<MDB_Metadata> copy = movie.copyWithZone();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(dynamic_cast<MDB_MovieMetadata*>(copy.get()), nullptr);
    EXPECT_EQ(copy->presetName(), QStringLiteral("Evening"));
    EXPECT_EQ(copy->getTag(TagName::Name), QStringLiteral("Heat"));
    EXPECT_TRUE(copy->getTag(TagName::ArtistID).isNull());
    EXPECT_EQ(copy->artwork(), movie.artwork());
    EXPECT_EQ(flags(*copy), (std::vector<int>{9, 4, 2, 1, 1}));
    EXPECT_TRUE(copy->isEdited());
}

// --- artwork -----------------------------------------------------------------

class MetadataArtworkTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_posterPath = m_dir.filePath(QStringLiteral("poster.png"));
        ASSERT_TRUE(solidImage(4, 3, qRgb(200, 10, 10)).save(m_posterPath, "PNG"));
        m_junkPath = m_dir.filePath(QStringLiteral("junk.png"));
        QFile junk(m_junkPath);
        ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
        junk.write("this is not a picture");
        junk.close();

        const QByteArray png = imagetest::encoded(solidImage(4, 3, qRgb(200, 10, 10)), "PNG");
        const QByteArray other = imagetest::encoded(solidImage(5, 5, qRgb(0, 90, 0)), "PNG");
        m_server.route("/poster.png", [png] { return QHttpServerResponse("image/png", png); });
        m_server.route("/other.png", [other] { return QHttpServerResponse("image/png", other); });
        m_server.route("/junk.png",
                       [] { return QHttpServerResponse("image/png", "definitely not png"); });
        m_server.route("/gone.png", [png] {
            return QHttpServerResponse("image/png", png, QHttpServerResponse::StatusCode::NotFound);
        });
        m_port = m_server.listen(QHostAddress::LocalHost, 0);
        ASSERT_NE(m_port, 0);
    }

    QUrl url(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/%2").arg(m_port).arg(path));
    }

    // A record holding the poster, with both edited flags reset.
    void loadPoster(MDB_Metadata& record) {
        ASSERT_TRUE(record.setArtworkFromPath(m_posterPath));
        record.setIsEdited(false);
        record.setIsArtworkEdited(false);
    }

    void expectPosterUnchanged(const MDB_Metadata& record) {
        EXPECT_EQ(record.artwork().size(), QSize(4, 3));
        EXPECT_EQ(record.artworkURL(), QUrl::fromLocalFile(m_posterPath));
        EXPECT_FALSE(record.isEdited());
        EXPECT_FALSE(record.isArtworkEdited());
    }

    QTemporaryDir m_dir;
    QString m_posterPath;
    QString m_junkPath;
    QHttpServer m_server;
    quint16 m_port = 0;
};

TEST_F(MetadataArtworkTest, LoadsFromAPathBytesOrAnAddressAndKeepsItOnFailure) {
    MDB_Metadata record;
    record.setArtworkIndex(3);
    record.setIsEdited(false);
    EXPECT_TRUE(record.setArtworkFromPath(m_posterPath));
    EXPECT_EQ(imagetest::decoded(record.artwork()).pixel(0, 0), qRgb(200, 10, 10));
    EXPECT_EQ(record.getArtworkIndex(), -1);
    EXPECT_TRUE(record.isEdited());
    EXPECT_TRUE(record.isArtworkEdited());

    loadPoster(record);
    EXPECT_FALSE(record.setArtworkFromPath(m_junkPath));
    EXPECT_FALSE(record.setArtworkFromPath(m_dir.filePath(QStringLiteral("absent.png"))));
    EXPECT_FALSE(record.setArtworkFromData(QByteArray("garbage")));
    EXPECT_FALSE(record.setArtworkFromURL(url(QStringLiteral("junk.png"))));
    EXPECT_FALSE(record.setArtworkFromURL(url(QStringLiteral("gone.png"))));
    expectPosterUnchanged(record);

    EXPECT_TRUE(record.setArtworkFromURL(url(QStringLiteral("other.png"))));
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    EXPECT_EQ(record.artworkURL(), url(QStringLiteral("other.png")));
    EXPECT_TRUE(record.isEdited());
    EXPECT_TRUE(record.isArtworkEdited());

    EXPECT_TRUE(record.setArtworkFromData(imagetest::encoded(solidImage(6, 6, 0), "PNG")));
    EXPECT_EQ(record.artwork().size(), QSize(6, 6));
    EXPECT_TRUE(record.artworkURL().isEmpty());

    loadPoster(record);
    EXPECT_TRUE(record.setArtworkFromPath(QString()));
    EXPECT_TRUE(record.artwork().isNull());
    EXPECT_TRUE(record.artworkURL().isEmpty());
    EXPECT_TRUE(record.isArtworkEdited());
    loadPoster(record);
    EXPECT_TRUE(record.setArtworkFromURL(QUrl()));
    EXPECT_TRUE(record.artwork().isNull());
}

TEST_F(MetadataArtworkTest, LoadsFromTheResources) {
    const QByteArray saved = qgetenv("TARNWICK_RESOURCES");
    qputenv("TARNWICK_RESOURCES", m_dir.path().toUtf8());
    MDB_Metadata record;
    const bool loaded =
        record.setArtworkFromBundle(QStringLiteral("poster"), QStringLiteral("png"));
    const bool junk = record.setArtworkFromBundle(QStringLiteral("junk"), QStringLiteral("png"));
    MDB_Metadata backdrop;
    const bool backdropLoaded =
        backdrop.setBackdropFromBundle(QStringLiteral("poster"), QStringLiteral("png"));
    qputenv("TARNWICK_RESOURCES", saved);

    EXPECT_TRUE(loaded);
    EXPECT_FALSE(junk);
    EXPECT_EQ(record.artwork().size(), QSize(4, 3));
    EXPECT_EQ(record.artworkURL(), QUrl::fromLocalFile(m_posterPath));
    EXPECT_TRUE(backdropLoaded);
    EXPECT_EQ(backdrop.backdrop().size(), QSize(4, 3));
    EXPECT_TRUE(backdrop.artwork().isNull());
}

TEST_F(MetadataArtworkTest, PicksAPosterByIndexOrFromAnotherRecord) {
    MDB_Metadata record;
    const QList<QUrl> posters{url(QStringLiteral("other.png")), url(QStringLiteral("junk.png"))};
    record.setArtworkFullsizeURLs(posters);
    record.setIsEdited(false);
    EXPECT_TRUE(record.setArtworkFromIndex(0));
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    EXPECT_TRUE(record.artworkURL().isEmpty());
    EXPECT_EQ(record.getArtworkIndex(), 0);
    EXPECT_EQ(record.getArtworkURL(), posters[0]);
    EXPECT_TRUE(record.isEdited());
    EXPECT_TRUE(record.isArtworkEdited());

    record.setIsEdited(false);
    record.setIsArtworkEdited(false);
    EXPECT_FALSE(record.setArtworkFromIndex(1));
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    EXPECT_EQ(record.getArtworkIndex(), 0);
    EXPECT_FALSE(record.setArtworkFromIndex(2));
    EXPECT_TRUE(record.artwork().isNull());
    EXPECT_FALSE(record.isEdited());
    EXPECT_FALSE(record.isArtworkEdited());
    EXPECT_FALSE(record.setArtworkFromIndex(-1));
    EXPECT_EQ(record.getArtworkIndexFromURL(posters[1]), 1);
    EXPECT_EQ(record.getArtworkIndexFromURL(url(QStringLiteral("poster.png"))),
              MDB_Metadata::NotFound);

    // Another record's choice: by index into this one's list, else by address.
    record.setArtworkFullsizeURLs({url(QStringLiteral("poster.png")), posters[0]});
    MDB_Metadata chosen;
    chosen.setArtworkIndex(1);
    record.copyArtwork(chosen);
    EXPECT_EQ(record.getArtworkIndex(), 1);
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    MDB_Metadata byAddress;
    byAddress.setArtworkURL(url(QStringLiteral("poster.png")));
    record.copyArtwork(byAddress);
    EXPECT_EQ(record.getArtworkIndex(), -1);
    EXPECT_EQ(record.artwork().size(), QSize(4, 3));
    MDB_Metadata nothing;
    record.copyArtwork(nothing);
    EXPECT_EQ(record.artworkURL(), url(QStringLiteral("poster.png")));
}

TEST_F(MetadataArtworkTest, BackdropsLeaveTheEditedFlagsAlone) {
    MDB_Metadata record;
    record.setIsEdited(false);
    EXPECT_TRUE(record.setBackdropFromURL(url(QStringLiteral("other.png"))));
    EXPECT_EQ(record.backdrop().size(), QSize(5, 5));
    EXPECT_EQ(record.backdropURL(), url(QStringLiteral("other.png")));
    EXPECT_FALSE(record.setBackdropFromURL(url(QStringLiteral("junk.png"))));
    EXPECT_TRUE(record.setBackdropFromPath(m_posterPath));
    EXPECT_EQ(record.backdrop().size(), QSize(4, 3));
    EXPECT_EQ(record.backdropURL(), url(QStringLiteral("other.png")));
    EXPECT_FALSE(record.setBackdropFromPath(m_junkPath));
    EXPECT_EQ(record.backdrop().size(), QSize(4, 3));
    EXPECT_FALSE(record.isEdited());
    EXPECT_FALSE(record.isArtworkEdited());
    EXPECT_TRUE(record.artwork().isNull());
}

// --- field lists in the settings ---------------------------------------------

TEST(MetadataListTest, ListsSwitchedOnGroupsAndSetsTheFirstGroupHoldingTheTag) {
    QTemporaryDir dir;
    UserDefaults& defaults = UserDefaults::standard();
    defaults.reopen(dir.filePath(QStringLiteral("store.plist")));
    defaults.registerDefaults(QVariantMap{
        {SettingsKey::TVMetadataList,
         QVariantMap{{"TV Show", true}, {"TV Network", false}, {"Genre", true}}},
        {SettingsKey::MusicMetadataList, QVariantMap{{"Artist", true}, {"Album", false}}},
        {SettingsKey::ExtraMetadataList, QVariantMap{{"Studio", true}, {"Cast", false}}},
        {SettingsKey::MiscMetadataList, QVariantMap{{"XID", false}, {"Genre", false}}}});
    const auto setGroups = [&](bool tv, bool music, bool extra, bool misc) {
        defaults.setObject(QVariantMap{{SettingsKey::TVMetadataList, tv},
                                       {SettingsKey::MusicMetadataList, music},
                                       {SettingsKey::ExtraMetadataList, extra},
                                       {SettingsKey::MiscMetadataList, misc}},
                           SettingsKey::MetadataList);
    };
    EXPECT_TRUE(MDB_Metadata::orderedMetadataList().isEmpty());
    setGroups(false, false, false, false);
    EXPECT_TRUE(MDB_Metadata::orderedMetadataList().isEmpty());
    setGroups(true, false, true, false);
    const OrderedDictionary<QString, bool> list = MDB_Metadata::orderedMetadataList();
    EXPECT_EQ(list.keys(), (QStringList{"Genre", "TV Network", "TV Show", "Cast", "Studio"}));
    EXPECT_EQ(list.values(), (QList<bool>{true, false, true, false, true}));
    setGroups(false, true, false, true);
    EXPECT_EQ(MDB_Metadata::orderedMetadataList().keys(),
              (QStringList{"Album", "Artist", "Genre", "XID"}));

    MDB_Metadata::setMetadataListValue(false, QStringLiteral("Genre"));
    MDB_Metadata::setMetadataListValue(true, QStringLiteral("Cast"));
    EXPECT_EQ(defaults.dictionaryForKey(SettingsKey::TVMetadataList),
              (QVariantMap{{"TV Show", true}, {"TV Network", false}, {"Genre", false}}));
    EXPECT_EQ(defaults.dictionaryForKey(SettingsKey::ExtraMetadataList),
              (QVariantMap{{"Studio", true}, {"Cast", true}}));
    EXPECT_FALSE(defaults.hasUserValue(SettingsKey::MiscMetadataList));
    MDB_Metadata::setMetadataListValue(true, QStringLiteral("Lyrics"));
    EXPECT_FALSE(defaults.hasUserValue(SettingsKey::MusicMetadataList));
    defaults.reopen();
}

// --- archiving ---------------------------------------------------------------

TEST(MetadataArchiveTest, EncodesTheKeysInOrderAndRoundTrips) {
    MDB_MovieMetadata record;
    filledRecord(&record);
    record.setTag(QStringLiteral("Amélie – 東京物語 🎬"), TagName::Cast);
    MDB_Metadata::KeyedArchive coder;
    record.encodeWithCoder(coder);
    EXPECT_EQ(coder.keys(), (QStringList{"MP42TagEncodeVersion", "MP42SetName", "MP42TagsDict",
                                         "MP42Artwork", "MP42MediaKind", "MP42ContentRating",
                                         "MP42HDVideo", "MP42Gapless", "MP42Podcast"}));
    EXPECT_EQ(coder.value("MP42TagEncodeVersion").toInt(), 1);
    EXPECT_EQ(QImage::fromData(coder.value("MP42Artwork").toByteArray(), "PNG").size(),
              QSize(3, 2));
    MDB_Metadata::KeyedArchive noArt;
    MDB_Metadata().encodeWithCoder(noArt);
    EXPECT_FALSE(noArt.contains("MP42Artwork"));
    EXPECT_EQ(noArt.size(), 8);

    QString error;
    const std::unique_ptr<MDB_Metadata> back = MDB_Metadata::unarchive(record.archive(), &error);
    ASSERT_NE(back, nullptr) << error.toStdString();
    EXPECT_TRUE(*back == record);
    EXPECT_EQ(back->getTag(TagName::Cast), QStringLiteral("Amélie – 東京物語 🎬"));
    EXPECT_EQ(imagetest::decoded(back->artwork()).pixel(1, 1), qRgb(250, 240, 230));
    EXPECT_EQ(back->podcast(), 1);
    EXPECT_FALSE(back->isEdited());
    EXPECT_FALSE(back->isArtworkEdited());

    // The same pixels in other bytes are the same artwork; any difference in
    // pixels or fields is seen.
    const QImage pixels = imagetest::decoded(record.artwork());
    back->setArtwork(imagetest::png(pixels, 0));
    ASSERT_NE(back->artwork().data(), record.artwork().data());
    EXPECT_TRUE(*back == record);
    QImage changed = pixels;
    changed.setPixel(0, 0, qRgb(11, 20, 30));
    back->setArtwork(imagetest::png(changed));
    EXPECT_FALSE(*back == record);
    back->setArtwork(record.artwork());
    back->setGapless(0);
    EXPECT_FALSE(*back == record);
}

TEST(MetadataArchiveTest, DecodingDoesNotRunInitTagsAndRejectsOtherData) {
    MDB_Metadata::KeyedArchive coder;
    coder.insert("MP42TagsDict", QVariantMap{{"Name", "Solo"}});
    coder.insert("MP42MediaKind", 265); // narrowed to 8 bits
    coder.insert("MP42HDVideo", -1);
    const MDB_MovieMetadata record(coder);
    EXPECT_EQ(record.tagsDict().keys(), QStringList{"Name"});
    EXPECT_EQ(record.mediaKind(), 9);
    EXPECT_EQ(record.hdVideo(), 255);
    EXPECT_FALSE(record.isEdited());

    QString error;
    EXPECT_EQ(MDB_Metadata::unarchive(QByteArray("not a plist"), &error), nullptr);
    EXPECT_FALSE(error.isEmpty());
    error.clear();
    const QByteArray otherDict = PropertyList::toXml(QVariantMap{{"Devices", QVariantList{}}});
    EXPECT_EQ(MDB_Metadata::unarchive(otherDict, &error), nullptr);
    EXPECT_TRUE(error.contains(QLatin1String("MP42TagEncodeVersion")));
}

} // namespace
