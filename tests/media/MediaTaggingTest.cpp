#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/MDI_Movie.h"
#include "metadata/TagNames.h"
#include "mp4/Mp4TestMedia.h"
#include "mp4/mp4.h"
#include "support/ImageTestSupport.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

struct Label {
    QByteArray type;
    QString language;
    QString name;
    bool operator==(const Label&) const = default;
};

QList<Label> labels(const QString& path) {
    QList<Label> list;
    MP4FileHandle h = MP4Read(path.toLocal8Bit().constData());
    if (!h)
        return list;
    for (uint32_t i = 0; i < MP4GetNumberOfTracks(h); ++i) {
        const MP4TrackId id = MP4FindTrackId(h, uint16_t(i));
        char code[4] = {};
        MP4GetTrackLanguage(h, id, code);
        char* name = nullptr;
        QString trackName;
        if (MP4GetTrackName(h, id, &name) && name) {
            trackName = QString::fromUtf8(name);
            free(name);
        }
        list.append({QByteArray(MP4GetTrackType(h, id)), QString::fromLatin1(code), trackName});
    }
    MP4Close(h);
    return list;
}

// A track of the item's title: 'a'udio or 's'ubtitle, duplicated (audio) or
// burned (subtitle) when `flag` is set.
struct Track {
    char kind;
    const char* name;
    const char* iso;
    bool include;
    bool flag = false;
};

template <typename T> std::unique_ptr<T> made(const Track& row) {
    auto t = std::make_unique<T>();
    t->setName(QLatin1String(row.name));
    t->setIsoType(QStringLiteral("iso639-2"));
    t->setIsoName(QLatin1String(row.iso));
    return t;
}

class MediaTaggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!mp4test::haveTool("ffmpeg"))
            GTEST_SKIP() << "ffmpeg is needed to make sample files";
        ASSERT_TRUE(dir.isValid() && scratch.isValid());
        UserDefaults::standard().reopen(dir.filePath(QStringLiteral("Tarnwick.plist")));
        UserDefaults::standard().setObject(scratch.path(),
                                           QLatin1String(SettingsKey::TempDirectory));
        UserDefaults::standard().setBool(false, QLatin1String(SettingsKey::AppendAudio));
        const QString sample = mp4test::multiTrackSample();
        ASSERT_FALSE(sample.isEmpty());
        file = mp4test::copyInto(dir, sample, QStringLiteral("Movie.m4v"));
        original = labels(file);
        // video, AC-3 5.1, AAC stereo, ALAC stereo, text subtitles
        ASSERT_EQ(original.size(), 5);
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    // An item whose main title has the given tracks, writing to the sample.
    std::unique_ptr<MDI_Movie> item(std::initializer_list<Track> tracks) {
        auto title = std::make_unique<Title>();
        title->setID(1);
        // Added straight to the lists' owners: the tests decide inclusion.
        for (const Track& row : tracks) {
            if (row.kind == 'a') {
                auto t = made<AudioTrack>(row);
                t->setDuplicate(row.flag);
                title->addAudioTrack(std::move(t))->setInclude(row.include);
            } else {
                auto t = made<SubtitleTrack>(row);
                t->setType(QStringLiteral("(Text)(SSA)"));
                t->setBurn(row.flag);
                title->addSubtitleTrack(std::move(t))->setInclude(row.include);
            }
        }
        auto movie = std::make_unique<MDI_Movie>();
        movie->AddTitle(std::move(title));
        movie->setOutPath(file);
        return movie;
    }

    QTemporaryDir dir;
    QTemporaryDir scratch;
    QString file;
    QList<Label> original;
};

TEST_F(MediaTaggingTest, TrackLabelsAndExtraTagsAreWrittenToTheFile) {
    UserDefaults::standard().setBool(true, QLatin1String(SettingsKey::AppendAudio));
    // Burned and excluded subtitles have no file track.
    auto movie = item({{'a', "English", "eng", true, true},
                       {'a', "Deutsch", "deu", false},
                       {'a', "Francais", "fra", true},
                       {'s', "English", "eng", true, true},
                       {'s', "Francais", "fra", true},
                       {'s', "Deutsch", "deu", false}});
    movie->setTag(QStringLiteral("Heat"), QLatin1String(TagName::Name));
    OrderedDictionary<QString, bool> states;
    states.insert(QLatin1String(TagName::Copyright), true);
    movie->setTagStates(states);
    OrderedDictionary<QString, QString> extra;
    extra.insert(QLatin1String(TagName::Copyright), QStringLiteral("2024 Oswenna"));
    movie->setExtraTags(extra);
    movie->writeMetadataToFile(false);
    EXPECT_EQ(movie->status(), 12);

    // A duplicated track labels two file tracks, each with its own channels.
    EXPECT_EQ(labels(file), (QList<Label>{original[0],
                                          {"soun", "eng", "English (5.1 ch)"},
                                          {"soun", "eng", "English (2.0 ch)"},
                                          {"soun", "fra", "Francais (2.0 ch)"},
                                          {original[4].type, "fra", "Francais"}}));
    EXPECT_TRUE(mp4test::ffmpegPlays(file));

    MDI_Movie reader;
    reader.setInPath(file);
    reader.readMetadataFromFile(false);
    EXPECT_EQ(reader.getTag(QLatin1String(TagName::Name)), QStringLiteral("Heat"));
    EXPECT_EQ(reader.getTag(QLatin1String(TagName::Copyright)), QStringLiteral("2024 Oswenna"));
}

TEST_F(MediaTaggingTest, FileTracksBeyondTheTitlesKeepTheirLabels) {
    auto movie = item({{'a', "Deutsch", "deu", false}, {'a', "English", "eng", true}});
    movie->writeMetadataToFile(false);
    EXPECT_EQ(movie->status(), 12);
    const QList<Label> after = labels(file);
    EXPECT_EQ(after[1], (Label{"soun", "eng", "English"}));
    EXPECT_EQ(after.mid(2), original.mid(2));
}

TEST_F(MediaTaggingTest, MissingFilesLeaveTheMessages) {
    auto movie = item({});
    movie->setOutPath(dir.filePath(QStringLiteral("gone.m4v")));
    movie->writeMetadataToFile(false);
    EXPECT_EQ(movie->status(), 0);
    // The message, then why.
    EXPECT_TRUE(movie->warnings().startsWith(QString::fromLatin1(MDI_Media::kWriteFailed)));
    EXPECT_TRUE(movie->warnings().endsWith(QStringLiteral("gone.m4v: No such file or directory)")));

    MDI_Movie reader;
    reader.setInPath(dir.filePath(QStringLiteral("gone.m4v")));
    reader.readMetadataFromFile(false);
    EXPECT_EQ(reader.status(), 2);
    EXPECT_EQ(reader.warnings(), QString::fromLatin1(MDI_Media::kReadFailed));
}

// A JPEG cover needs the codec module to become PNG; without it the item
// fails with the reason and the file is left as it was.
TEST_F(MediaTaggingTest, ACoverIsWrittenOnlyAsPngAndReadBackAsTheFirstPoster) {
    const QByteArray before = mp4test::readAll(file);
    auto movie = item({});
    movie->setTag(QStringLiteral("Heat"), QLatin1String(TagName::Name));
    movie->getMetadata()->setArtwork(imagetest::jpeg(imagetest::gradient(20, 30)));
    movie->getMetadata()->setIsArtworkEdited(true);
    {
        imagetest::CodecMovedTo moved(dir.filePath(QStringLiteral("no-codec")));
        movie->writeMetadataToFile(false);
    }
    EXPECT_EQ(movie->status(), 0);
    EXPECT_TRUE(movie->warnings().contains(QStringLiteral("no tags were written")));
    EXPECT_EQ(mp4test::readAll(file), before);
    movie->writeMetadataToFile(false);
    ASSERT_EQ(movie->status(), 12);

    MDI_Movie reader;
    reader.setInPath(file);
    const QUrl remote(QStringLiteral("https://images.example/poster.jpg"));
    reader.getMetadata()->setArtworkFullsizeURLs({remote});
    for (int pass = 0; pass < 2; ++pass) { // a second read does not list the picture twice
        reader.readMetadataFromFile(false);
        const MDB_Metadata* record = reader.metaData();
        ASSERT_EQ(record->artworkFullsizeURLs().size(), 2);
        const QUrl local = record->artworkFullsizeURLs().first();
        EXPECT_TRUE(local.toLocalFile().startsWith(scratch.path()));
        EXPECT_EQ(record->artworkFullsizeURLs().at(1), remote);
        EXPECT_EQ(record->artwork().size(), QSize(20, 30));
    }
}

} // namespace
