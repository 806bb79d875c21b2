#include "ImageTestSupport.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"

#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QHttpServer>
#include <QHttpServerResponse>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString tag(const char* name) {
    return QString::fromUtf8(name);
}

QImage solidImage(int width, int height, QRgb color) {
    QImage image(width, height, QImage::Format_ARGB32);
    image.fill(color);
    return image;
}

QByteArray pngBytes(const QImage& image) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
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
    EXPECT_TRUE(record.sourcePath().isEmpty());
    EXPECT_EQ(record.getTag(tag(TagName::EncodingTool)),
              QStringLiteral("Tarnwick (" TARNWICK_VERSION ")"));
    for (const char* name :
         {TagName::Name, TagName::SortName, TagName::ReleaseDate, TagName::Description,
          TagName::LongDescription, TagName::Rating, TagName::ContentID, TagName::Genre,
          TagName::Cast, TagName::Director, TagName::Producers, TagName::Screenwriters}) {
        const QString value = record.getTag(tag(name));
        EXPECT_FALSE(value.isNull()) << name;
        EXPECT_TRUE(value.isEmpty()) << name;
    }
    EXPECT_TRUE(record.getTag(tag(TagName::Artist)).isNull());
    EXPECT_EQ(record.tagsDict().size(), 13);
    EXPECT_EQ(record.contentRating(), 0);
    EXPECT_EQ(record.artworkIndex(), -1);
    EXPECT_TRUE(record.artwork().isNull());
    // initTags() stores through setTag(), which marks the record.
    EXPECT_TRUE(record.isEdited());
    EXPECT_FALSE(record.isArtworkEdited());
}

TEST(MetadataRecordTest, HDVideoAndGaplessTakeTheirValueFromTheText) {
    const struct {
        QString value;
        int expected;
    } cases[] = {{QStringLiteral("2"), 2},
                 {QStringLiteral("yes"), 1},
                 {QStringLiteral("YES"), 1},
                 {QStringLiteral("Yes"), 1},
                 {QStringLiteral("1"), 1},
                 {QStringLiteral("true"), 0},
                 {QString(), 0},
                 {QStringLiteral(""), 0},
                 {QStringLiteral("3"), 0}};
    MDB_Metadata record;
    for (const auto& c : cases) {
        record.setHdVideo(7);
        record.setIsEdited(false);
        EXPECT_TRUE(record.setTag(c.value, tag(TagName::HDVideo))) << c.value.toStdString();
        EXPECT_EQ(record.hdVideo(), c.expected) << c.value.toStdString();
        EXPECT_TRUE(record.isEdited());
    }
    EXPECT_FALSE(record.tagsDict().contains(tag(TagName::HDVideo)));

    EXPECT_TRUE(record.setTag(QStringLiteral("Yes"), tag(TagName::Gapless)));
    EXPECT_EQ(record.gapless(), 1);
    EXPECT_TRUE(record.setTag(QStringLiteral("2"), tag(TagName::Gapless)));
    EXPECT_EQ(record.gapless(), 0);
    EXPECT_FALSE(record.tagsDict().contains(tag(TagName::Gapless)));
}

TEST(MetadataRecordTest, SettingTheSameValueChangesNothing) {
    MDB_Metadata record;
    ASSERT_TRUE(record.setTag(QStringLiteral("Alien"), tag(TagName::Name)));
    record.setIsEdited(false);
    EXPECT_FALSE(record.setTag(QStringLiteral("Alien"), tag(TagName::Name)));
    EXPECT_FALSE(record.isEdited());

    record.setIsEdited(true);
    EXPECT_FALSE(record.setTag(QStringLiteral("Alien"), tag(TagName::Name)));
    EXPECT_TRUE(record.isEdited());

    record.setIsEdited(false);
    EXPECT_TRUE(record.setTag(QStringLiteral("Aliens"), tag(TagName::Name)));
    EXPECT_EQ(record.getTag(tag(TagName::Name)), QStringLiteral("Aliens"));
    EXPECT_TRUE(record.isEdited());
}

TEST(MetadataRecordTest, MediaKindAndContentRatingGoByName) {
    MDB_Metadata record;
    record.setIsEdited(false);
    record.setMediaType(QStringLiteral("Movie"));
    EXPECT_EQ(record.mediaKind(), 9);
    EXPECT_TRUE(record.isEdited());

    record.setIsEdited(false);
    record.setMediaType(QStringLiteral("Film"));
    EXPECT_EQ(record.mediaKind(), 9);
    EXPECT_FALSE(record.isEdited());

    EXPECT_TRUE(record.setTag(QStringLiteral("TV Show"), tag(TagName::MediaKind)));
    EXPECT_EQ(record.mediaKind(), 10);
    EXPECT_FALSE(record.setTag(QStringLiteral("Feature"), tag(TagName::MediaKind)));
    EXPECT_EQ(record.mediaKind(), 10);

    EXPECT_TRUE(record.setTag(QStringLiteral("Clean"), tag(TagName::ContentRating)));
    EXPECT_EQ(record.contentRating(), 2);
    record.setContentRatingType(QStringLiteral("Explicit"));
    EXPECT_EQ(record.contentRating(), 4);
    EXPECT_FALSE(record.setTag(QStringLiteral("Dirty"), tag(TagName::ContentRating)));
    EXPECT_EQ(record.contentRating(), 4);
    EXPECT_FALSE(record.tagsDict().contains(tag(TagName::MediaKind)));
    EXPECT_FALSE(record.tagsDict().contains(tag(TagName::ContentRating)));
}

TEST(MetadataRecordTest, DeleteAndRatingForCountry) {
    MDB_Metadata record;
    record.setIsEdited(false);
    record.setRatingForCountry(QStringLiteral("de"), QStringLiteral("de-movie|FSK 12|200|"));
    EXPECT_EQ(record.getTag(tag(TagName::Rating)), QStringLiteral("de-movie|FSK 12|200|"));
    EXPECT_FALSE(record.tagsDict().contains(tag(TagName::LanguageRegion)));
    EXPECT_FALSE(record.isEdited());

    record.deleteTag(tag(TagName::Rating));
    EXPECT_TRUE(record.getTag(tag(TagName::Rating)).isNull());
    EXPECT_TRUE(record.isEdited());
}

// --- people lists and decoding -----------------------------------------------

TEST(MetadataStringsTest, PeopleListsSplitAndJoin) {
    const QVariantList people =
        MDB_Metadata::dictArrayFromString(QStringLiteral(" Ann Lee ,Bob\t,\n  Cy"));
    EXPECT_EQ(names(people), (QStringList{QStringLiteral("Ann Lee"), QStringLiteral("Bob"),
                                          QStringLiteral("Cy")}));
    EXPECT_EQ(people.first().toMap().size(), 1);
    EXPECT_EQ(MDB_Metadata::stringFromArray(people), QStringLiteral("Ann Lee, Bob, Cy"));

    const QVariantList empty = MDB_Metadata::dictArrayFromString(QString());
    ASSERT_EQ(empty.size(), 1);
    EXPECT_EQ(names(empty), QStringList{QString()});
    EXPECT_EQ(MDB_Metadata::stringFromArray(empty), QString());

    const QVariantList trailing = MDB_Metadata::dictArrayFromString(QStringLiteral("A, B,"));
    EXPECT_EQ(names(trailing),
              (QStringList{QStringLiteral("A"), QStringLiteral("B"), QStringLiteral("")}));
    EXPECT_EQ(MDB_Metadata::stringFromArray(trailing), QStringLiteral("A, B, "));

    EXPECT_EQ(MDB_Metadata::stringFromArray({}), QString());
}

TEST(MetadataStringsTest, FileTextFallsBackFromUtf8ToUtf16) {
    EXPECT_EQ(MDB_Metadata::stringFromMetadata("Am\xc3\xa9lie"), QStringLiteral("Amélie"));
    EXPECT_EQ(MDB_Metadata::stringFromMetadata("plain"), QStringLiteral("plain"));
    // Not UTF-8 (0xFF never occurs there), but UTF-16 with a byte-order mark.
    const QByteArray utf16("\xff\xfe\xe5\x65\x2c\x67", 6);
    EXPECT_EQ(MDB_Metadata::stringFromMetadata(utf16), QStringLiteral("日本"));
    // Neither: an odd number of bytes with an invalid UTF-8 lead.
    const QString none = MDB_Metadata::stringFromMetadata(QByteArray("\xff\xfe\xe5", 3));
    EXPECT_TRUE(none.isEmpty());
    EXPECT_FALSE(none.isNull());
    // Even length, but a high surrogate without its partner.
    EXPECT_TRUE(MDB_Metadata::stringFromMetadata(QByteArray("\xff\xfe\x00\xd8", 4)).isEmpty());
    EXPECT_TRUE(MDB_Metadata::stringFromMetadata(nullptr).isEmpty());
}

// --- merging and copying -----------------------------------------------------

class MetadataCopyTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_other.setTag(QStringLiteral("Heat"), tag(TagName::Name));
        m_other.setTag(QStringLiteral("Crime"), tag(TagName::Genre));
        m_other.setTag(QStringLiteral("42"), tag(TagName::ArtistID));
        m_other.setTag(QStringLiteral("949"), tag(TagName::TMDbID));
        m_other.setTag(QStringLiteral("2020-01-01"), tag(TagName::PurchaseDate));
        m_other.setArtwork(imagetest::png(solidImage(2, 2, qRgb(255, 0, 0))));
        m_other.setMediaKind(9);
        m_other.setContentRating(4);
        m_other.setHdVideo(2);
        m_other.setGapless(1);
        m_other.setPodcast(1);
        m_other.setPresetName(QStringLiteral("Heat set"));

        m_self.setTag(QStringLiteral("Old"), tag(TagName::Name));
        m_self.setTag(QStringLiteral("Kept"), tag(TagName::Comments));
        m_self.setIsEdited(false);
    }

    MDB_Metadata m_self;
    MDB_Metadata m_other;
};

TEST_F(MetadataCopyTest, MergeTakesWritableTagsArtworkAndMediaKind) {
    EXPECT_TRUE(m_self.mergeMetadata(m_other));
    EXPECT_EQ(m_self.getTag(tag(TagName::Name)), QStringLiteral("Heat"));
    EXPECT_EQ(m_self.getTag(tag(TagName::Genre)), QStringLiteral("Crime"));
    EXPECT_EQ(m_self.getTag(tag(TagName::Comments)), QStringLiteral("Kept"));
    EXPECT_TRUE(m_self.getTag(tag(TagName::ArtistID)).isNull());
    EXPECT_TRUE(m_self.getTag(tag(TagName::TMDbID)).isNull());
    EXPECT_EQ(m_self.artwork(), m_other.artwork());
    EXPECT_TRUE(m_self.isArtworkEdited());
    EXPECT_TRUE(m_self.isEdited());
    EXPECT_EQ(m_self.mediaKind(), 9);
    EXPECT_EQ(m_self.contentRating(), 0);
    EXPECT_EQ(m_self.hdVideo(), 0);
    EXPECT_EQ(m_self.gapless(), 0);
    EXPECT_EQ(m_self.podcast(), 0);
}

TEST_F(MetadataCopyTest, MergeKeepsExistingArtwork) {
    const MDB_Image own = imagetest::png(solidImage(3, 3, qRgb(0, 0, 255)));
    m_self.setArtwork(own);
    m_self.mergeMetadata(m_other);
    EXPECT_EQ(m_self.artwork(), own);
    EXPECT_FALSE(m_self.isArtworkEdited());
}

TEST_F(MetadataCopyTest, CopyTakesEveryKnownTagButLeavesTheEditedFlag) {
    m_self.copyMetadata(m_other);
    EXPECT_EQ(m_self.getTag(tag(TagName::Name)), QStringLiteral("Heat"));
    EXPECT_EQ(m_self.getTag(tag(TagName::ArtistID)), QStringLiteral("42"));
    EXPECT_EQ(m_self.getTag(tag(TagName::TMDbID)), QStringLiteral("949"));
    EXPECT_EQ(m_self.getTag(tag(TagName::Comments)), QStringLiteral("Kept"));
    EXPECT_TRUE(m_self.getTag(tag(TagName::PurchaseDate)).isNull());
    EXPECT_EQ(m_self.artwork(), m_other.artwork());
    EXPECT_TRUE(m_self.isArtworkEdited());
    EXPECT_FALSE(m_self.isEdited());
    EXPECT_EQ(m_self.mediaKind(), 9);
    EXPECT_EQ(m_self.contentRating(), 4);
    EXPECT_EQ(m_self.hdVideo(), 2);
    EXPECT_EQ(m_self.gapless(), 1);
    EXPECT_EQ(m_self.podcast(), 0);
}

TEST_F(MetadataCopyTest, ReplaceDropsImagesAndAddresses) {
    const QUrl poster(QStringLiteral("https://images.example/poster.png"));
    m_self.setArtwork(imagetest::png(solidImage(3, 3, qRgb(0, 0, 255))));
    m_self.setIsArtworkEdited(true);
    m_self.setArtworkURL(poster);
    m_self.setArtworkFullsizeURLs({poster});
    m_self.setArtworkThumbURLs({poster});
    m_self.setBackdrop(imagetest::png(solidImage(1, 1, qRgb(1, 2, 3))));
    m_self.setBackdropURL(poster);
    m_self.setBackdropFullsizeURLs({poster});
    m_self.setBackdropThumbURLs({poster});

    m_self.replaceMetadata(m_other);
    EXPECT_EQ(m_self.getTag(tag(TagName::Name)), QStringLiteral("Heat"));
    EXPECT_EQ(m_self.getTag(tag(TagName::TMDbID)), QStringLiteral("949"));
    EXPECT_TRUE(m_self.artwork().isNull());
    EXPECT_FALSE(m_self.isArtworkEdited());
    EXPECT_TRUE(m_self.artworkURL().isEmpty());
    EXPECT_TRUE(m_self.artworkFullsizeURLs().isEmpty());
    EXPECT_TRUE(m_self.artworkThumbURLs().isEmpty());
    EXPECT_TRUE(m_self.backdrop().isNull());
    EXPECT_TRUE(m_self.backdropURL().isEmpty());
    EXPECT_TRUE(m_self.backdropFullsizeURLs().isEmpty());
    EXPECT_TRUE(m_self.backdropThumbURLs().isEmpty());
    EXPECT_EQ(m_self.mediaKind(), 9);
    EXPECT_EQ(m_self.contentRating(), 4);
    EXPECT_EQ(m_self.hdVideo(), 2);
    EXPECT_EQ(m_self.gapless(), 1);
    EXPECT_EQ(m_self.podcast(), 0);
}

TEST_F(MetadataCopyTest, ReplaceOrCopyWithItselfKeepsEverything) {
    const QUrl poster(QStringLiteral("https://images.example/poster.png"));
    m_other.setArtworkURL(poster);
    m_other.setArtworkFullsizeURLs({poster});
    m_other.setIsArtworkEdited(true);
    m_other.setIsEdited(false);

    m_other.replaceMetadata(m_other);
    EXPECT_EQ(m_other.getTag(tag(TagName::TMDbID)), QStringLiteral("949"));
    EXPECT_FALSE(m_other.artwork().isNull());
    EXPECT_TRUE(m_other.isArtworkEdited());
    EXPECT_EQ(m_other.artworkURL(), poster);
    EXPECT_EQ(m_other.artworkFullsizeURLs().size(), 1);

    m_other.copyMetadata(m_other);
    EXPECT_EQ(m_other.getTag(tag(TagName::Name)), QStringLiteral("Heat"));
    EXPECT_FALSE(m_other.artwork().isNull());
    EXPECT_FALSE(m_other.isEdited());
}

TEST_F(MetadataCopyTest, CopyWithZoneAlwaysGivesAPlainRecord) {
    MDB_MovieMetadata movie;
    movie.setPresetName(QStringLiteral("Movie set"));
    movie.setTag(QStringLiteral("Heat"), tag(TagName::Name));
    movie.setTag(QStringLiteral("42"), tag(TagName::ArtistID));
    movie.setArtwork(imagetest::png(solidImage(2, 2, qRgb(0, 255, 0))));
    movie.setMediaKind(9);
    movie.setContentRating(2);
    movie.setHdVideo(1);
    movie.setGapless(1);
    movie.setPodcast(1);

    const std::unique_ptr<MDB_Metadata> copy = movie.copyWithZone();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(dynamic_cast<MDB_MovieMetadata*>(copy.get()), nullptr);
    EXPECT_EQ(copy->presetName(), QStringLiteral("Movie set"));
    EXPECT_EQ(copy->getTag(tag(TagName::Name)), QStringLiteral("Heat"));
    // Only the writable tags travel with a copy.
    EXPECT_TRUE(copy->getTag(tag(TagName::ArtistID)).isNull());
    EXPECT_EQ(copy->artwork(), movie.artwork());
    EXPECT_EQ(copy->mediaKind(), 9);
    EXPECT_EQ(copy->contentRating(), 2);
    EXPECT_EQ(copy->hdVideo(), 1);
    EXPECT_EQ(copy->gapless(), 1);
    EXPECT_EQ(copy->podcast(), 1);
    EXPECT_TRUE(copy->isEdited());
}

// --- artwork -----------------------------------------------------------------

class MetadataArtworkTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_poster = solidImage(4, 3, qRgb(200, 10, 10));
        m_posterPath = m_dir.filePath(QStringLiteral("poster.png"));
        ASSERT_TRUE(m_poster.save(m_posterPath, "PNG"));
        m_junkPath = m_dir.filePath(QStringLiteral("junk.png"));
        QFile junk(m_junkPath);
        ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
        junk.write("this is not a picture");
        junk.close();

        const QByteArray png = pngBytes(m_poster);
        const QByteArray other = pngBytes(solidImage(5, 5, qRgb(0, 90, 0)));
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
        EXPECT_EQ(record.artwork().size(), m_poster.size());
        EXPECT_EQ(record.artworkURL(), QUrl::fromLocalFile(m_posterPath));
        EXPECT_FALSE(record.isEdited());
        EXPECT_FALSE(record.isArtworkEdited());
    }

    QTemporaryDir m_dir;
    QImage m_poster;
    QString m_posterPath;
    QString m_junkPath;
    QHttpServer m_server;
    quint16 m_port = 0;
};

TEST_F(MetadataArtworkTest, LoadsFromAPathAndRejectsWhatIsNotAnImage) {
    MDB_Metadata record;
    record.setArtworkIndex(3);
    record.setIsEdited(false);
    EXPECT_TRUE(record.setArtworkFromPath(m_posterPath));
    EXPECT_EQ(record.artwork().size(), QSize(4, 3));
    EXPECT_EQ(imagetest::decoded(record.artwork()).pixel(0, 0), qRgb(200, 10, 10));
    EXPECT_EQ(record.artworkURL(), QUrl::fromLocalFile(m_posterPath));
    EXPECT_EQ(record.getArtworkIndex(), -1);
    EXPECT_TRUE(record.isEdited());
    EXPECT_TRUE(record.isArtworkEdited());

    loadPoster(record);
    EXPECT_FALSE(record.setArtworkFromPath(m_junkPath));
    expectPosterUnchanged(record);
    EXPECT_FALSE(record.setArtworkFromPath(m_dir.filePath(QStringLiteral("absent.png"))));
    expectPosterUnchanged(record);

    EXPECT_TRUE(record.setArtworkFromPath(QString()));
    EXPECT_TRUE(record.artwork().isNull());
    EXPECT_TRUE(record.artworkURL().isEmpty());
    EXPECT_TRUE(record.isEdited());
    EXPECT_TRUE(record.isArtworkEdited());
}

TEST_F(MetadataArtworkTest, LoadsFromBytes) {
    MDB_Metadata record;
    loadPoster(record);
    EXPECT_FALSE(record.setArtworkFromData(QByteArray("garbage")));
    expectPosterUnchanged(record);

    EXPECT_TRUE(record.setArtworkFromData(pngBytes(solidImage(6, 6, qRgb(1, 1, 1)))));
    EXPECT_EQ(record.artwork().size(), QSize(6, 6));
    EXPECT_TRUE(record.artworkURL().isEmpty());
    EXPECT_TRUE(record.isArtworkEdited());
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

TEST_F(MetadataArtworkTest, DownloadsFromAnAddress) {
    MDB_Metadata record;
    loadPoster(record);
    EXPECT_FALSE(record.setArtworkFromURL(url(QStringLiteral("junk.png"))));
    expectPosterUnchanged(record);
    EXPECT_FALSE(record.setArtworkFromURL(url(QStringLiteral("gone.png"))));
    expectPosterUnchanged(record);

    EXPECT_TRUE(record.setArtworkFromURL(url(QStringLiteral("other.png"))));
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    EXPECT_EQ(record.artworkURL(), url(QStringLiteral("other.png")));
    EXPECT_EQ(record.getArtworkIndex(), -1);
    EXPECT_TRUE(record.isEdited());
    EXPECT_TRUE(record.isArtworkEdited());

    EXPECT_TRUE(record.setArtworkFromURL(QUrl()));
    EXPECT_TRUE(record.artwork().isNull());
}

TEST_F(MetadataArtworkTest, PicksAPosterByIndex) {
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
    EXPECT_FALSE(record.isEdited());

    EXPECT_FALSE(record.setArtworkFromIndex(2));
    EXPECT_TRUE(record.artwork().isNull());
    EXPECT_FALSE(record.isEdited());
    EXPECT_FALSE(record.isArtworkEdited());
    EXPECT_FALSE(record.setArtworkFromIndex(-1));

    EXPECT_EQ(record.getArtworkIndexFromURL(posters[1]), 1);
    EXPECT_EQ(record.getArtworkIndexFromURL(url(QStringLiteral("poster.png"))),
              MDB_Metadata::NotFound);
    record.setArtworkFullsizeURLs({});
    EXPECT_EQ(record.getArtworkIndexFromURL(posters[0]), MDB_Metadata::NotFound);
    EXPECT_EQ(MDB_Metadata::NotFound, std::numeric_limits<qint64>::max());
}

TEST_F(MetadataArtworkTest, CopiesTheChoiceOfAnotherRecord) {
    const QList<QUrl> posters{url(QStringLiteral("poster.png")), url(QStringLiteral("other.png"))};
    MDB_Metadata chosen;
    chosen.setArtworkIndex(1);

    MDB_Metadata record;
    record.setArtworkFullsizeURLs(posters);
    record.copyArtwork(chosen);
    EXPECT_EQ(record.getArtworkIndex(), 1);
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));

    MDB_Metadata byAddress;
    byAddress.setArtworkURL(posters[0]);
    record.copyArtwork(byAddress);
    EXPECT_EQ(record.getArtworkIndex(), -1);
    EXPECT_EQ(record.artworkURL(), posters[0]);
    EXPECT_EQ(record.artwork().size(), QSize(4, 3));

    MDB_Metadata nothing;
    record.copyArtwork(nothing);
    EXPECT_EQ(record.artworkURL(), posters[0]);
}

TEST_F(MetadataArtworkTest, BackdropsLeaveTheEditedFlagsAlone) {
    MDB_Metadata record;
    record.setIsEdited(false);
    EXPECT_TRUE(record.setBackdropFromURL(url(QStringLiteral("other.png"))));
    EXPECT_EQ(record.backdrop().size(), QSize(5, 5));
    EXPECT_EQ(record.backdropURL(), url(QStringLiteral("other.png")));
    EXPECT_FALSE(record.setBackdropFromURL(url(QStringLiteral("junk.png"))));
    EXPECT_EQ(record.backdrop().size(), QSize(5, 5));

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

class MetadataListTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        UserDefaults::standard().reopen(m_dir.filePath(QStringLiteral("store.plist")));
        QVariantMap defaults;
        defaults.insert(SettingsKey::TVMetadataList,
                        QVariantMap{{"TV Show", true}, {"TV Network", false}, {"Genre", true}});
        defaults.insert(SettingsKey::MusicMetadataList,
                        QVariantMap{{"Artist", true}, {"Album", false}});
        defaults.insert(SettingsKey::ExtraMetadataList,
                        QVariantMap{{"Studio", true}, {"Cast", false}});
        defaults.insert(SettingsKey::MiscMetadataList,
                        QVariantMap{{"XID", false}, {"Genre", false}});
        UserDefaults::standard().registerDefaults(defaults);
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    void setGroups(bool tv, bool music, bool extra, bool misc) {
        UserDefaults::standard().setObject(QVariantMap{{SettingsKey::TVMetadataList, tv},
                                                       {SettingsKey::MusicMetadataList, music},
                                                       {SettingsKey::ExtraMetadataList, extra},
                                                       {SettingsKey::MiscMetadataList, misc}},
                                           SettingsKey::MetadataList);
    }

    QTemporaryDir m_dir;
};

TEST_F(MetadataListTest, NoGroupSwitchedOnListsNothing) {
    setGroups(false, false, false, false);
    EXPECT_TRUE(MDB_Metadata::orderedMetadataList().isEmpty());
    UserDefaults::standard().removeObject(SettingsKey::MetadataList);
    EXPECT_TRUE(MDB_Metadata::orderedMetadataList().isEmpty());
}

TEST_F(MetadataListTest, ListsSwitchedOnGroupsInOrderEachSorted) {
    setGroups(true, false, true, false);
    const OrderedDictionary<QString, bool> list = MDB_Metadata::orderedMetadataList();
    EXPECT_EQ(list.keys(), (QStringList{"Genre", "TV Network", "TV Show", "Cast", "Studio"}));
    EXPECT_EQ(list.values(), (QList<bool>{true, false, true, false, true}));

    setGroups(false, true, false, true);
    EXPECT_EQ(MDB_Metadata::orderedMetadataList().keys(),
              (QStringList{"Album", "Artist", "Genre", "XID"}));
}

TEST_F(MetadataListTest, SetsTheFlagInTheFirstGroupHoldingTheTag) {
    MDB_Metadata::setMetadataListValue(false, QStringLiteral("Genre"));
    MDB_Metadata::setMetadataListValue(true, QStringLiteral("Cast"));
    UserDefaults& defaults = UserDefaults::standard();
    EXPECT_EQ(defaults.dictionaryForKey(SettingsKey::TVMetadataList),
              (QVariantMap{{"TV Show", true}, {"TV Network", false}, {"Genre", false}}));
    EXPECT_EQ(defaults.dictionaryForKey(SettingsKey::ExtraMetadataList),
              (QVariantMap{{"Studio", true}, {"Cast", true}}));
    EXPECT_EQ(defaults.dictionaryForKey(SettingsKey::MiscMetadataList),
              (QVariantMap{{"XID", false}, {"Genre", false}}));

    MDB_Metadata::setMetadataListValue(true, QStringLiteral("Lyrics"));
    EXPECT_FALSE(defaults.hasUserValue(SettingsKey::MusicMetadataList));
    EXPECT_FALSE(defaults.hasUserValue(SettingsKey::MiscMetadataList));

    setGroups(false, false, true, false);
    EXPECT_TRUE(MDB_Metadata::orderedMetadataList().value(QStringLiteral("Cast")));
}

// --- archiving ---------------------------------------------------------------

MDB_Metadata* filledRecord(MDB_Metadata* record) {
    record->setPresetName(QStringLiteral("Evening"));
    record->setTag(QStringLiteral("Heat"), tag(TagName::Name));
    record->setTag(QStringLiteral("Al Pacino, Robert De Niro"), tag(TagName::Cast));
    record->setTag(QStringLiteral("949"), tag(TagName::TMDbID));
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

TEST(MetadataArchiveTest, EncodesTheKeysInOrder) {
    MDB_Metadata record;
    filledRecord(&record);
    MDB_Metadata::KeyedArchive coder;
    record.encodeWithCoder(coder);
    EXPECT_EQ(coder.keys(), (QStringList{"MP42TagEncodeVersion", "MP42SetName", "MP42TagsDict",
                                         "MP42Artwork", "MP42MediaKind", "MP42ContentRating",
                                         "MP42HDVideo", "MP42Gapless", "MP42Podcast"}));
    EXPECT_EQ(coder.value("MP42TagEncodeVersion").toInt(), 1);
    EXPECT_EQ(coder.value("MP42TagsDict").toMap().value("Name").toString(), QStringLiteral("Heat"));
    const QImage png = QImage::fromData(coder.value("MP42Artwork").toByteArray(), "PNG");
    EXPECT_EQ(png.size(), QSize(3, 2));

    MDB_Metadata bare;
    MDB_Metadata::KeyedArchive noArt;
    bare.encodeWithCoder(noArt);
    EXPECT_FALSE(noArt.contains("MP42Artwork"));
    EXPECT_EQ(noArt.size(), 8);
}

TEST(MetadataArchiveTest, RoundTripGivesAnEqualRecord) {
    MDB_MovieMetadata record;
    filledRecord(&record);
    const QByteArray bytes = record.archive();
    ASSERT_FALSE(bytes.isEmpty());

    QString error;
    const std::unique_ptr<MDB_Metadata> back = MDB_Metadata::unarchive(bytes, &error);
    ASSERT_NE(back, nullptr) << error.toStdString();
    EXPECT_TRUE(*back == record);
    EXPECT_EQ(imagetest::decoded(back->artwork()).pixel(1, 1), qRgb(250, 240, 230));
    EXPECT_EQ(back->hdVideo(), 2);
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

TEST(MetadataArchiveTest, DecodingDoesNotRunInitTags) {
    MDB_Metadata::KeyedArchive coder;
    coder.insert("MP42TagsDict", QVariantMap{{"Name", "Solo"}});
    coder.insert("MP42MediaKind", 265); // narrowed to 8 bits
    coder.insert("MP42HDVideo", -1);
    const MDB_MovieMetadata record(coder);
    EXPECT_EQ(record.tagsDict().keys(), QStringList{"Name"});
    EXPECT_EQ(record.mediaKind(), 9);
    EXPECT_EQ(record.hdVideo(), 255);
    EXPECT_EQ(record.contentRating(), 0);
    EXPECT_TRUE(record.artwork().isNull());
    EXPECT_FALSE(record.isEdited());
}

TEST(MetadataArchiveTest, KeepsNonAsciiTags) {
    MDB_Metadata record;
    const QString title = QStringLiteral("Amélie – 東京物語 🎬");
    const QString cast = QStringLiteral("Björk, Čapek, Ōshima");
    record.setTag(title, tag(TagName::Name));
    record.setTag(cast, tag(TagName::Cast));
    record.setPresetName(QStringLiteral("Sätze"));

    const QByteArray bytes = record.archive();
    const QVariantMap plist = PropertyList::fromData(bytes).toMap();
    EXPECT_EQ(plist.value("MP42TagsDict").toMap().value("Name").toString(), title);

    const std::unique_ptr<MDB_Metadata> back = MDB_Metadata::unarchive(bytes);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->getTag(tag(TagName::Name)), title);
    EXPECT_EQ(back->getTag(tag(TagName::Cast)), cast);
    EXPECT_EQ(back->presetName(), QStringLiteral("Sätze"));
    EXPECT_FALSE(back->getTag(tag(TagName::Genre)).isNull());
    EXPECT_TRUE(*back == record);
}

TEST(MetadataArchiveTest, RejectsWhatIsNotAnArchive) {
    QString error;
    EXPECT_EQ(MDB_Metadata::unarchive(QByteArray("not a plist"), &error), nullptr);
    EXPECT_FALSE(error.isEmpty());

    error.clear();
    const QByteArray otherDict = PropertyList::toXml(QVariantMap{{"Devices", QVariantList{}}});
    EXPECT_EQ(MDB_Metadata::unarchive(otherDict, &error), nullptr);
    EXPECT_TRUE(error.contains(QLatin1String("MP42TagEncodeVersion")));
}

} // namespace
