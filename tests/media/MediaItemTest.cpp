#include "media/MDI_Movie.h"
#include "metadata/TagNames.h"
#include "presets/MDB_Devices.h"

#include "MediaTestSupport.h"
#include "Processes.h"

#include <QFile>

#include <functional>

#include <gtest/gtest.h>

namespace {

const QString kDevice = QStringLiteral("Test 720p");
const QString kSmallDevice = QStringLiteral("Test 480p");
const QString kTool = QStringLiteral("/opt/tarnwick/Tarnwick_Pro_Encoder");

QVariantMap preset(int width, int height, const QString& audioTrack) {
    return QVariantMap{
        {QStringLiteral("HD"), width >= 1280},
        {QStringLiteral("width"), width},
        {QStringLiteral("usage"), QStringLiteral("tests")},
        {"resolution", QStringLiteral("%1 x %2").arg(width).arg(height)},
        {"picture", QStringLiteral("--maxWidth %1 --maxHeight %2").arg(width).arg(height)},
        {QStringLiteral("video encoder"), QStringLiteral("--encoder x264 --vb 2000")},
        {QStringLiteral("video framerate"), QStringLiteral("--rate 30 --pfr")},
        {QStringLiteral("destination"), QStringLiteral("--format av_mp4 --markers")},
        {QStringLiteral("misc"), QStringLiteral("--crop-mode conservative")},
        {QStringLiteral("audio encoder"), QStringLiteral("--audio-fallback ac3")},
        {QStringLiteral("audio track"), audioTrack},
    };
}

std::unique_ptr<Title> makeTitle(qint64 id, const QString& duration,
                                 const QString& size = "720x480", const QString& codec = "mpeg2") {
    auto title = std::make_unique<Title>();
    title->setID(id);
    title->setDuration(duration);
    title->setSize(size);
    title->setCodec(codec);
    return title;
}

class MediaItemTest : public mediatest::SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        set(SettingsKey::NativeFramerate, false);
        set(SettingsKey::HDSD, false);
        QVariantMap devices{
            {"Sections", QStringList{"usage", "width"}},
            {"Devices", QStringList{kDevice, kSmallDevice}},
            {kDevice, preset(1280, 720, "--audio % --aencoder av_aac --mixdown dpl2 --ab 160")},
            {kSmallDevice, preset(720, 480,
                                  "--audio %,% --aencoder av_aac,copy:ac3 --mixdown "
                                  "dpl2,5point1 --ab 160,640")},
        };
        MDB_Devices::createUserFile(devices);
        ASSERT_TRUE(MDB_Devices::writeToUserFile(devices));
    }
    void TearDown() override {
        QFile::remove(MDB_Devices::userFilePath());
        SettingsTest::TearDown();
    }

    // A file source with an h264 main title, two audio and two subtitle tracks.
    static void fillFileItem(MDI_Movie& movie, const QString& size = QStringLiteral("1280x720")) {
        auto title = makeTitle(1, QStringLiteral("01:30:00"), size, QStringLiteral("h264"));
        title->setIsStreaming(true);
        title->setStream(QStringLiteral("/movies/Movie.mkv"));
        for (const auto& [index, iso] : {std::pair{1, "fra"}, std::pair{2, "eng"}}) {
            title->addAudioTrack(audio(QLatin1String(iso), index));
            title->addSubtitleTrack(
                subtitle(QLatin1String(iso), index, QStringLiteral("(Text)(SSA)")));
        }
        title->arrangeAudioTracks();
        title->arrangeSubtitleTracks();
        movie.AddTitle(std::move(title));
        movie.setInPath(QStringLiteral("/movies/Movie.mkv"));
        movie.setPrimaryDevice(kDevice);
        movie.setSecondaryDevice(kSmallDevice);
    }
};

TEST_F(MediaItemTest, MainTitleTieBreaksDifferBetweenTheTwoChoices) {
    MDI_Movie movie;
    movie.AddTitle(makeTitle(1, QStringLiteral("00:10:00")));
    movie.AddTitle(makeTitle(2, QStringLiteral("01:30:00")));
    movie.AddTitle(makeTitle(3, QStringLiteral("01:30:00")));
    movie.AddTitle(nullptr);
    movie.autoFindMainTitle();
    EXPECT_EQ(movie.mainTitle(), 1);
    movie.determineMainTitle();
    EXPECT_EQ(movie.mainTitle(), 2);
    EXPECT_EQ(movie.getTitleIndexFromID(5), -1);
}

TEST_F(MediaItemTest, HDDecisionFollowsTheMainTitleAndTheHDSDSetting) {
    set(SettingsKey::HDSD, true);
    MDI_Movie sd;
    sd.AddTitle(makeTitle(1, QStringLiteral("01:00:00"), QStringLiteral("720x576")));
    sd.assignIfHD();
    EXPECT_FALSE(sd.createHDSD());
    EXPECT_EQ(sd.metaData()->hdVideo(), 0);

    MDI_Movie hd;
    hd.AddTitle(makeTitle(1, QStringLiteral("01:00:00"), QStringLiteral("1920x1080")));
    hd.setCreatedHD(true);
    hd.assignIfHD();
    EXPECT_TRUE(hd.createHDSD());
    EXPECT_EQ(hd.metaData()->hdVideo(), 1);
    set(SettingsKey::HDSD, false);
    hd.assignIfHD();
    EXPECT_FALSE(hd.createHDSD());
}

TEST_F(MediaItemTest, PassthruNeedsAnUnfilteredH264FileThatFitsThePreset) {
    const std::function<void(MDI_Movie&)> blockers[] = {
        [](MDI_Movie& m) { m.getMainTitle()->setIsStreaming(false); }, // a disc
        [](MDI_Movie& m) { m.getMainTitle()->setSize(QStringLiteral("1281x720")); },
        [](MDI_Movie& m) { m.setDecomb(true); },
        [](MDI_Movie& m) { m.setSearchForeign(true); },
        [](MDI_Movie& m) { m.getMainTitle()->setSubtitleBurnState(1, true); },
    };
    for (const auto& block : blockers) {
        MDI_Movie movie;
        fillFileItem(movie);
        EXPECT_TRUE(movie.canPassthru());
        block(movie);
        EXPECT_FALSE(movie.canPassthru());
    }
    // The SD pass checks the narrower secondary preset; with both made, no preset.
    MDI_Movie sdPass;
    fillFileItem(sdPass);
    sdPass.setCreateHDSD(true);
    sdPass.setCreatedHD(true);
    EXPECT_FALSE(sdPass.canPassthru());
    sdPass.setCreatedSD(true);
    EXPECT_FALSE(sdPass.canPassthru());
    sdPass.setCreatedHD(false);
    EXPECT_TRUE(sdPass.canPassthru());
}

TEST_F(MediaItemTest, WholeCommandLineOfAFileItem) {
    MDI_Movie movie;
    fillFileItem(movie);
    // The filters keep their order whatever order they were set in.
    for (auto filter : {&MDI_Movie::setDetelecine, &MDI_Movie::setDecomb, &MDI_Movie::setDenoise})
        (movie.*filter)(true);
    // English tracks come first for an English user.
    ASSERT_EQ(movie.getMainTitle()->audioTrack(0)->origIndex(), 2);

    const QStringList expected =
        QStringList{kTool} +
        testsupport::words("--input /movies/Movie.mkv --output /out/Movie.m4v --title 1 --encoder "
                           "x264 --vb 2000 --rate 30 --pfr --format av_mp4 --markers --maxWidth "
                           "1280 --maxHeight 720 --crop-mode conservative --audio-fallback ac3 "
                           "--audio 2,1 --aencoder av_aac,av_aac --mixdown dpl2,dpl2 --ab "
                           "160,160 --subtitle 2,1 --subtitle-default 1 -5 -8 -9");
    EXPECT_EQ(movie.getCmdArgs(kDevice, false, kTool, QStringLiteral("/out/Movie.m4v")), expected);

    // Passing the video through swaps in the tiny stand-in video.
    const QStringList passThru =
        movie.getCmdArgs(kDevice, true, kTool, QStringLiteral("/out/Movie.m4v"));
    EXPECT_EQ(movie.cmdArgs(), QStringLiteral("--encoder x264 --encoder-preset ultrafast "
                                              "--encoder-profile high --vb 50 --format mp4 "
                                              "--width 80 --maxWidth 80"));
    EXPECT_EQ(passThru.mid(7, 14), movie.cmdArgs().split(QLatin1Char(' ')));
    EXPECT_EQ(passThru.mid(21), expected.mid(23));
}

TEST_F(MediaItemTest, AudioDuplicatesAreMarkedOnTheIncludedTracks) {
    MDI_Movie movie;
    fillFileItem(movie);
    Title* title = movie.getMainTitle();
    title->includeAudioTrack(false, 1);
    title->audioTrack(1)->setDuplicate(true);

    EXPECT_EQ(movie.getAudioCmdArgs(kSmallDevice),
              (QStringList{"--audio-fallback", "ac3", "--audio", "2,2", "--aencoder",
                           "av_aac,copy:ac3", "--mixdown", "dpl2,5point1", "--ab", "160,640"}));
    EXPECT_TRUE(title->isAudioTrackDuplicated(0));
    EXPECT_FALSE(title->isAudioTrackDuplicated(1));

    movie.getAudioCmdArgs(kDevice);
    EXPECT_FALSE(title->isAudioTrackDuplicated(0));
}

TEST_F(MediaItemTest, SubtitlePartDependsOnInclusionBurnAndForeignSearch) {
    MDI_Movie movie;
    fillFileItem(movie);
    Title* title = movie.getMainTitle();
    title->includeSubtitleTrack(false, 0);
    title->includeSubtitleTrack(false, 1);
    EXPECT_FALSE(movie.getSubtitleCmdArgs(kDevice).has_value());

    movie.setSearchForeign(true);
    EXPECT_EQ(movie.getSubtitleCmdArgs(kDevice), (QStringList{"--subtitle", "scan"}));

    movie.setSearchForeign(false);
    title->includeSubtitleTrack(true, 1);
    title->setSubtitleBurnState(1, true);
    EXPECT_EQ(movie.getSubtitleCmdArgs(kDevice),
              (QStringList{"--subtitle", "1", "--subtitle-burn", "1"}));
}

TEST_F(MediaItemTest, TheHitGetsTheChosenIdentifierAfterTheMerge) {
    for (const auto& [source, expected] : {std::pair{0, "603"}, {1, "tt0133093"}, {2, ""}}) {
        set(SettingsKey::ContentIDSource, source);
        for (bool replace : {false, true}) {
            MDI_Movie movie;
            MDB_Metadata hit;
            hit.setTag(QStringLiteral("603"), QLatin1String(TagName::TMDbID));
            hit.setTag(QStringLiteral("tt0133093"), QLatin1String(TagName::IMDbID));
            replace ? movie.replaceMetadata(hit) : movie.copyMetadata(hit);
            EXPECT_EQ(hit.getTag(QLatin1String(TagName::ContentID)), expected) << replace;
        }
    }
}

TEST_F(MediaItemTest, ANameWithASlashStaysInTheOutputFolder) {
    MDI_Movie movie;
    movie.setOutPath(QStringLiteral("/out/Old Name.m4v"));
    movie.replaceNameInOutPath(QStringLiteral("AC/DC Live"));
    EXPECT_EQ(movie.outPath(), QStringLiteral("/out/AC-DC Live.m4v"));
}

} // namespace
