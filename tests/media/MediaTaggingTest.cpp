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

std::ostream& operator<<(std::ostream& os, const Label& l) {
    return os << l.type.constData() << '/' << l.language.toStdString() << '/'
              << l.name.toStdString();
}

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

std::unique_ptr<AudioTrack> audio(const char* name, const char* iso, bool include, bool duplicate) {
    auto t = std::make_unique<AudioTrack>();
    t->setName(QLatin1String(name));
    t->setIsoType(QStringLiteral("iso639-2"));
    t->setIsoName(QLatin1String(iso));
    t->setInclude(include);
    t->setDuplicate(duplicate);
    return t;
}

std::unique_ptr<SubtitleTrack> subtitle(const char* name, const char* iso, bool include,
                                        bool burn) {
    auto t = std::make_unique<SubtitleTrack>();
    t->setName(QLatin1String(name));
    t->setIsoType(QStringLiteral("iso639-2"));
    t->setIsoName(QLatin1String(iso));
    t->setType(QStringLiteral("(Text)(SSA)"));
    t->setInclude(include);
    t->setBurn(burn);
    return t;
}

class MediaTaggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!mp4test::haveTool("ffmpeg"))
            GTEST_SKIP() << "ffmpeg is needed to make sample files";
        ASSERT_TRUE(dir.isValid());
        ASSERT_TRUE(scratch.isValid());
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
    std::unique_ptr<MDI_Movie> item(std::vector<std::unique_ptr<AudioTrack>> audioTracks,
                                    std::vector<std::unique_ptr<SubtitleTrack>> subtitleTracks) {
        auto title = std::make_unique<Title>();
        title->setID(1);
        // Added straight to the lists' owners: the tests decide inclusion.
        for (auto& t : audioTracks) {
            const bool include = t->include();
            title->addAudioTrack(std::move(t))->setInclude(include);
        }
        for (auto& t : subtitleTracks) {
            const bool include = t->include();
            title->addSubtitleTrack(std::move(t))->setInclude(include);
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

TEST_F(MediaTaggingTest, DuplicatedTrackLabelsTwoFileTracksWithTheirOwnChannels) {
    UserDefaults::standard().setBool(true, QLatin1String(SettingsKey::AppendAudio));
    std::vector<std::unique_ptr<AudioTrack>> tracks;
    tracks.push_back(audio("English", "eng", true, true));
    tracks.push_back(audio("Deutsch", "deu", false, false));
    tracks.push_back(audio("Francais", "fra", true, false));
    auto movie = item(std::move(tracks), {});
    movie->setTag(QStringLiteral("Heat"), QLatin1String(TagName::Name));
    movie->writeMetadataToFile(false);
    EXPECT_EQ(movie->status(), 12);

    const QList<Label> after = labels(file);
    ASSERT_EQ(after.size(), 5);
    EXPECT_EQ(after[0], original[0]);
    EXPECT_EQ(after[1], (Label{"soun", "eng", "English (5.1 ch)"}));
    EXPECT_EQ(after[2], (Label{"soun", "eng", "English (2.0 ch)"}));
    EXPECT_EQ(after[3], (Label{"soun", "fra", "Francais (2.0 ch)"}));
    EXPECT_TRUE(mp4test::ffmpegPlays(file));

    MDI_Movie reader;
    reader.setInPath(file);
    reader.readMetadataFromFile(false);
    EXPECT_EQ(reader.getTag(QLatin1String(TagName::Name)), QStringLiteral("Heat"));
    EXPECT_TRUE(reader.warnings().isEmpty());
}

TEST_F(MediaTaggingTest, ExtraFileTracksKeepTheirLabels) {
    std::vector<std::unique_ptr<AudioTrack>> tracks;
    tracks.push_back(audio("Deutsch", "deu", false, false));
    tracks.push_back(audio("English", "eng", true, false));
    auto movie = item(std::move(tracks), {});
    movie->writeMetadataToFile(false);
    EXPECT_EQ(movie->status(), 12);
    const QList<Label> after = labels(file);
    EXPECT_EQ(after[1], (Label{"soun", "eng", "English"}));
    EXPECT_EQ(after[2], original[2]);
    EXPECT_EQ(after[3], original[3]);
    EXPECT_EQ(after[4], original[4]);
}

TEST_F(MediaTaggingTest, BurnedAndExcludedSubtitlesHaveNoFileTrack) {
    ASSERT_TRUE(original[4].type == "sbtl" || original[4].type == "subp") << original[4];
    std::vector<std::unique_ptr<SubtitleTrack>> subs;
    subs.push_back(subtitle("English", "eng", true, true));
    subs.push_back(subtitle("Francais", "fra", true, false));
    subs.push_back(subtitle("Deutsch", "deu", false, false));
    auto movie = item({}, std::move(subs));
    movie->writeMetadataToFile(false);
    const QList<Label> after = labels(file);
    EXPECT_EQ(after[4], (Label{original[4].type, "fra", "Francais"}));
    // No audio tracks in the title: the file's audio is left alone.
    EXPECT_EQ(after.mid(1, 3), original.mid(1, 3));
}

TEST_F(MediaTaggingTest, MissingFilesLeaveTheMessages) {
    auto movie = item({}, {});
    movie->setOutPath(dir.filePath(QStringLiteral("gone.m4v")));
    movie->writeMetadataToFile(false);
    EXPECT_EQ(movie->status(), 0);
    // The message, then why.
    EXPECT_TRUE(movie->warnings().startsWith(
        QStringLiteral("Unable to write the tags to the movie file! The file was either missing or "
                       "unable to be opened. (")))
        << movie->warnings().toStdString();
    EXPECT_TRUE(movie->warnings().endsWith(QStringLiteral("gone.m4v: No such file or directory)")))
        << movie->warnings().toStdString();
    EXPECT_EQ(movie->tagWriteError(), movie->warnings());

    MDI_Movie reader;
    reader.setInPath(dir.filePath(QStringLiteral("gone.m4v")));
    reader.readMetadataFromFile(false);
    EXPECT_EQ(reader.status(), 2);
    EXPECT_EQ(reader.warnings(), QStringLiteral("Unable to access the movie file! The file was "
                                                "missing, unable to be opened, or an unsupported "
                                                "format."));
}

// A JPEG cover needs the codec module to become PNG; without it the item
// fails with the reason and the file keeps its tags and track names.
TEST_F(MediaTaggingTest, ACoverThatCannotBeWrittenFailsTheItemAndLeavesTheFile) {
    const QByteArray before = mp4test::readAll(file);
    std::vector<std::unique_ptr<AudioTrack>> tracks;
    tracks.push_back(audio("English", "eng", true, false));
    auto movie = item(std::move(tracks), {});
    movie->setTag(QStringLiteral("Heat"), QLatin1String(TagName::Name));
    movie->getMetadata()->setArtwork(imagetest::jpeg(imagetest::gradient(20, 30)));
    movie->getMetadata()->setIsArtworkEdited(true);
    {
        imagetest::CodecMovedTo moved(dir.filePath(QStringLiteral("no-codec")));
        movie->writeMetadataToFile(false);
    }
    EXPECT_EQ(movie->status(), 0);
    EXPECT_TRUE(movie->warnings().contains(QStringLiteral("no tags were written")))
        << movie->warnings().toStdString();
    EXPECT_EQ(mp4test::readAll(file), before);

    // With the module back the same item writes its cover as a PNG.
    movie->writeMetadataToFile(false);
    EXPECT_EQ(movie->status(), 12);
    EXPECT_EQ(labels(file)[1], (Label{"soun", "eng", "English"}));
}

TEST_F(MediaTaggingTest, CoverArtReadFromTheFileBecomesTheFirstPoster) {
    const QString cover = mp4test::coverImage(QStringLiteral("tagging-cover.png"));
    ASSERT_FALSE(cover.isEmpty());
    auto writer = item({}, {});
    ASSERT_TRUE(writer->setArtworkFromPath(cover));
    writer->writeMetadataToFile(false);
    ASSERT_EQ(writer->status(), 12);

    MDI_Movie reader;
    reader.setInPath(file);
    const QUrl remote(QStringLiteral("https://images.example/poster.jpg"));
    reader.getMetadata()->setArtworkFullsizeURLs({remote});
    reader.getMetadata()->setArtworkThumbURLs({remote});
    reader.readMetadataFromFile(false);
    const MDB_Metadata* record = reader.metaData();
    ASSERT_EQ(record->artworkFullsizeURLs().size(), 2);
    const QUrl local = record->artworkFullsizeURLs().first();
    EXPECT_TRUE(local.toLocalFile().startsWith(scratch.path())) << local.toString().toStdString();
    EXPECT_EQ(record->artworkFullsizeURLs().at(1), remote);
    EXPECT_EQ(record->artworkThumbURLs().first(), local);
    EXPECT_EQ(record->artworkIndex(), 0);
    EXPECT_EQ(record->artwork().size(), QSize(64, 64));

    // Reading again does not list the same picture twice.
    reader.readMetadataFromFile(false);
    EXPECT_EQ(reader.metaData()->artworkFullsizeURLs().size(), 2);
}

} // namespace
