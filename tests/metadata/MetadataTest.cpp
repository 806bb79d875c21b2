#include "ImageTestSupport.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"

#include "core/PropertyList.h"

#include <QHttpServer>
#include <QHttpServerResponse>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QStringList names(const QVariantList& people) {
    QStringList out;
    for (const QVariant& person : people)
        out.append(person.toMap().value("name").toString());
    return out;
}

// --- a new record and setTag -------------------------------------------------

TEST(MetadataRecordTest, FlagTagsTakeTheirValueFromTheText) {
    const struct {
        QString value;
        int expected;
    } cases[] = {{"2", 2}, {"yes", 1}, {"YES", 1}, {"true", 0}, {"", 0}, {"3", 0}};
    MDB_Metadata record;
    for (const auto& c : cases) {
        record.setHdVideo(7);
        record.setIsEdited(false);
        EXPECT_TRUE(record.setTag(c.value, TagName::HDVideo)) << c.value.toStdString();
        EXPECT_EQ(record.hdVideo(), c.expected) << c.value.toStdString();
        EXPECT_TRUE(record.isEdited());
    }
    EXPECT_TRUE(record.setTag("Yes", TagName::Gapless));
    EXPECT_EQ(record.gapless(), 1);

    EXPECT_TRUE(record.setTag("TV Show", TagName::MediaKind));
    EXPECT_EQ(record.mediaKind(), 10);
    EXPECT_TRUE(record.setTag("Clean", TagName::ContentRating));
    EXPECT_EQ(record.contentRating(), 2);
    // None of them is kept as a text tag.
    EXPECT_FALSE(record.tagsDict().contains(TagName::HDVideo));

    // Only a changed value marks the record.
    ASSERT_TRUE(record.setTag("Alien", TagName::Name));
    record.setIsEdited(false);
    EXPECT_FALSE(record.setTag("Alien", TagName::Name));
    EXPECT_FALSE(record.isEdited());
    EXPECT_TRUE(record.setTag("Aliens", TagName::Name));
    EXPECT_EQ(record.getTag(TagName::Name), "Aliens");
    EXPECT_TRUE(record.isEdited());
}

// --- people lists and decoding -----------------------------------------------

TEST(MetadataStringsTest, PeopleListsSplitAndJoinAndFileTextFallsBackFromUtf8ToUtf16) {
    const QVariantList people = MDB_Metadata::dictArrayFromString(" Ann Lee ,Bob\t,\n  Cy");
    EXPECT_EQ(names(people), (QStringList{"Ann Lee", "Bob", "Cy"}));
    EXPECT_EQ(MDB_Metadata::stringFromArray(people), "Ann Lee, Bob, Cy");

    // File text is UTF-8, else UTF-16 with a byte-order mark.
    EXPECT_EQ(MDB_Metadata::stringFromMetadata("Am\xc3\xa9lie"), "Amélie");
    EXPECT_EQ(MDB_Metadata::stringFromMetadata(QByteArray("\xff\xfe\xe5\x65\x2c\x67", 6)), "日本");
    // Neither: an odd number of bytes with an invalid UTF-8 lead.
    const QString none = MDB_Metadata::stringFromMetadata(QByteArray("\xff\xfe\xe5", 3));
    EXPECT_TRUE(none.isEmpty());
    EXPECT_FALSE(none.isNull());
    EXPECT_TRUE(MDB_Metadata::stringFromMetadata(nullptr).isEmpty());
}

// --- merging and copying -----------------------------------------------------

MDB_Metadata* filledRecord(MDB_Metadata* record) {
    record->setPresetName("Evening");
    record->setTag("Heat", TagName::Name);
    record->setTag("Crime", TagName::Genre);
    record->setTag("42", TagName::ArtistID);
    record->setTag("949", TagName::TMDbID);
    QImage art = imagetest::solid(3, 2, QColor(10, 20, 30));
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
    const auto target = [] {
        MDB_Metadata self;
        self.setTag("Old", TagName::Name);
        self.setTag("Kept", TagName::Comments);
        self.setIsEdited(false);
        return self;
    };
    const auto flags = [](const MDB_Metadata& m) {
        return std::vector<int>{m.mediaKind(), m.contentRating(), m.hdVideo(), m.gapless(),
                                m.podcast()};
    };

    MDB_Metadata merged = target();
    EXPECT_TRUE(merged.mergeMetadata(other));
    EXPECT_EQ(merged.getTag(TagName::Name), "Heat");
    EXPECT_EQ(merged.getTag(TagName::Comments), "Kept");
    EXPECT_TRUE(merged.getTag(TagName::ArtistID).isNull());
    EXPECT_EQ(merged.artwork(), other.artwork());
    EXPECT_TRUE(merged.isEdited());
    EXPECT_EQ(flags(merged), (std::vector<int>{9, 0, 0, 0, 0}));
    const MDB_Image own = imagetest::png(imagetest::solid(3, 3, Qt::blue));

    MDB_Metadata copied = target();
    copied.copyMetadata(other);
    EXPECT_EQ(copied.getTag(TagName::ArtistID), "42");
    EXPECT_EQ(copied.getTag(TagName::Comments), "Kept");
    EXPECT_FALSE(copied.isEdited());
    EXPECT_EQ(flags(copied), (std::vector<int>{9, 4, 2, 1, 0}));

    // Replace drops the images and their addresses.
    const QUrl poster("https://images.example/poster.png");
    MDB_Metadata replaced = target();
    replaced.setArtwork(own);
    replaced.setArtworkFullsizeURLs({poster});
    replaced.setBackdropURL(poster);
    replaced.replaceMetadata(other);
    EXPECT_EQ(replaced.getTag(TagName::TMDbID), "949");
    EXPECT_TRUE(replaced.artwork().isNull());
    EXPECT_TRUE(replaced.artworkFullsizeURLs().isEmpty());
    EXPECT_TRUE(replaced.backdropURL().isEmpty());

    // ...but not from itself.
    other.setIsEdited(false);
    other.replaceMetadata(other);
    other.copyMetadata(other);
    EXPECT_FALSE(other.artwork().isNull());
    EXPECT_FALSE(other.isEdited());

    // A copy is a plain record with the writable tags and every flag.
    MDB_MovieMetadata movie;
    filledRecord(&movie);
    const std::unique_ptr<MDB_Metadata> copy = movie.copyWithZone();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->presetName(), "Evening");
    EXPECT_TRUE(copy->getTag(TagName::ArtistID).isNull());
    EXPECT_EQ(flags(*copy), (std::vector<int>{9, 4, 2, 1, 1}));
}

// --- artwork -----------------------------------------------------------------

class MetadataArtworkTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_posterPath = m_dir.filePath("poster.png");
        ASSERT_TRUE(imagetest::solid(4, 3, QColor(200, 10, 10)).save(m_posterPath, "PNG"));
        const QByteArray png = imagetest::encoded(imagetest::solid(5, 5, QColor(0, 90, 0)), "PNG");
        m_server.route("/other.png", [png] { return QHttpServerResponse("image/png", png); });
        m_server.route("/junk.png", [] { return QHttpServerResponse("image/png", "not png"); });
        m_server.route("/gone.png", [png] {
            return QHttpServerResponse("image/png", png, QHttpServerResponse::StatusCode::NotFound);
        });
        m_port = m_server.listen(QHostAddress::LocalHost, 0);
        ASSERT_NE(m_port, 0);
    }
    QUrl url(const char* name) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/%2").arg(m_port).arg(name));
    }
    // A record holding the poster, with both edited flags reset.
    void loadPoster(MDB_Metadata& record) {
        ASSERT_TRUE(record.setArtworkFromPath(m_posterPath));
        record.setIsEdited(false);
        record.setIsArtworkEdited(false);
    }

    QTemporaryDir m_dir;
    QString m_posterPath;
    QHttpServer m_server;
    quint16 m_port = 0;
};

TEST_F(MetadataArtworkTest, LoadsFromAPathBytesOrAnAddressAndKeepsItOnFailure) {
    MDB_Metadata record;
    record.setArtworkIndex(3);
    EXPECT_TRUE(record.setArtworkFromPath(m_posterPath));
    EXPECT_EQ(imagetest::decoded(record.artwork()).pixel(0, 0), qRgb(200, 10, 10));
    EXPECT_EQ(record.getArtworkIndex(), -1);

    loadPoster(record);
    EXPECT_FALSE(record.setArtworkFromPath(m_dir.filePath("absent.png")));
    EXPECT_FALSE(record.setArtworkFromData(QByteArray("garbage")));
    EXPECT_FALSE(record.setArtworkFromURL(url("junk.png")));
    EXPECT_FALSE(record.setArtworkFromURL(url("gone.png")));
    EXPECT_EQ(record.artwork().size(), QSize(4, 3));
    EXPECT_EQ(record.artworkURL(), QUrl::fromLocalFile(m_posterPath));
    EXPECT_FALSE(record.isEdited() || record.isArtworkEdited());

    EXPECT_TRUE(record.setArtworkFromURL(url("other.png")));
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    EXPECT_EQ(record.artworkURL(), url("other.png"));
    EXPECT_TRUE(record.isEdited() && record.isArtworkEdited());
}

TEST_F(MetadataArtworkTest, PicksAPosterByIndexOrFromAnotherRecord) {
    MDB_Metadata record;
    const QList<QUrl> posters{url("other.png"), url("junk.png")};
    record.setArtworkFullsizeURLs(posters);
    EXPECT_TRUE(record.setArtworkFromIndex(0));
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    EXPECT_EQ(record.getArtworkURL(), posters[0]);
    record.setIsEdited(false);
    EXPECT_FALSE(record.setArtworkFromIndex(1));
    EXPECT_EQ(record.getArtworkIndex(), 0);
    EXPECT_FALSE(record.setArtworkFromIndex(2));
    EXPECT_TRUE(record.artwork().isNull());
    EXPECT_FALSE(record.isEdited());
    EXPECT_EQ(record.getArtworkIndexFromURL(posters[0]), 0);
    EXPECT_EQ(record.getArtworkIndexFromURL(url("gone.png")), MDB_Metadata::NotFound);

    // Another record's choice: by index into this one's list, else by address.
    record.setArtworkFullsizeURLs({QUrl::fromLocalFile(m_posterPath), posters[0]});
    MDB_Metadata chosen;
    chosen.setArtworkIndex(1);
    record.copyArtwork(chosen);
    EXPECT_EQ(record.artwork().size(), QSize(5, 5));
    MDB_Metadata byAddress;
    byAddress.setArtworkURL(QUrl::fromLocalFile(m_posterPath));
    record.copyArtwork(byAddress);
    EXPECT_EQ(record.getArtworkIndex(), -1);
    EXPECT_EQ(record.artwork().size(), QSize(4, 3));
}

// --- archiving ---------------------------------------------------------------

TEST(MetadataArchiveTest, EncodesTheKeysInOrderAndRoundTrips) {
    MDB_MovieMetadata record;
    filledRecord(&record);

    QString error;
    const std::unique_ptr<MDB_Metadata> back = MDB_Metadata::unarchive(record.archive(), &error);
    ASSERT_NE(back, nullptr) << error.toStdString();
    EXPECT_TRUE(*back == record);
    EXPECT_EQ(imagetest::decoded(back->artwork()).pixel(1, 1), qRgb(250, 240, 230));
    EXPECT_FALSE(back->isEdited());

    // Any difference in pixels is seen.
    QImage changed = imagetest::decoded(record.artwork());
    changed.setPixel(0, 0, qRgb(11, 20, 30));
    back->setArtwork(imagetest::png(changed));
    EXPECT_FALSE(*back == record);
}

TEST(MetadataArchiveTest, DecodingDoesNotRunInitTagsAndRejectsOtherData) {
    MDB_Metadata::KeyedArchive coder;
    coder.insert("MP42TagsDict", QVariantMap{{"Name", "Solo"}});
    coder.insert("MP42MediaKind", 265); // narrowed to 8 bits
    const MDB_MovieMetadata record(coder);
    EXPECT_EQ(record.tagsDict().keys(), QStringList{"Name"});
    EXPECT_EQ(record.mediaKind(), 9);
    EXPECT_FALSE(record.isEdited());

    QString error;
    EXPECT_EQ(MDB_Metadata::unarchive(QByteArray("not a plist"), &error), nullptr);
    EXPECT_FALSE(error.isEmpty());
    const QByteArray otherDict = PropertyList::toXml(QVariantMap{{"Devices", QVariantList{}}});
    EXPECT_EQ(MDB_Metadata::unarchive(otherDict, &error), nullptr);
    EXPECT_TRUE(error.contains(QLatin1String("MP42TagEncodeVersion")));
}

} // namespace
