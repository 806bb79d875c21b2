#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/MDI_Movie.h"
#include "metadata/TagNames.h"
#include "presets/MDB_Devices.h"

#include "MediaTestSupport.h"
#include "Processes.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

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
        {QStringLiteral("resolution"), QStringLiteral("%1 x %2").arg(width).arg(height)},
        {QStringLiteral("picture"),
         QStringLiteral("--maxWidth %1 --maxHeight %2").arg(width).arg(height)},
        {QStringLiteral("video encoder"), QStringLiteral("--encoder x264 --vb 2000")},
        {QStringLiteral("video framerate"), QStringLiteral("--rate 30 --pfr")},
        {QStringLiteral("destination"), QStringLiteral("--format av_mp4 --markers")},
        {QStringLiteral("misc"), QStringLiteral("--crop-mode conservative")},
        {QStringLiteral("audio encoder"), QStringLiteral("--audio-fallback ac3")},
        {QStringLiteral("audio track"), audioTrack},
    };
}

std::unique_ptr<Title> makeTitle(qint64 id, const QString& duration,
                                 const QString& size = QStringLiteral("720x480"),
                                 const QString& codec = QStringLiteral("mpeg2")) {
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
            {QStringLiteral("Sections"),
             QStringList{QStringLiteral("usage"), QStringLiteral("width")}},
            {QStringLiteral("Devices"), QStringList{kDevice, kSmallDevice}},
            {kDevice,
             preset(1280, 720,
                    QStringLiteral("--audio % --aencoder av_aac --mixdown dpl2 --ab 160"))},
            {kSmallDevice, preset(720, 480,
                                  QStringLiteral("--audio %,% --aencoder av_aac,copy:ac3 --mixdown "
                                                 "dpl2,5point1 --ab 160,640"))},
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
            auto audio = std::make_unique<AudioTrack>();
            audio->setOrigIndex(index);
            audio->setName(QLatin1String(iso));
            audio->setCodec(QStringLiteral("AC3"));
            audio->setIsoType(QStringLiteral("iso639-2"));
            audio->setIsoName(QLatin1String(iso));
            title->addAudioTrack(std::move(audio));
        }
        for (const auto& [index, iso] : {std::pair{1, "fra"}, std::pair{2, "eng"}}) {
            auto subtitle = std::make_unique<SubtitleTrack>();
            subtitle->setOrigIndex(index);
            subtitle->setName(QLatin1String(iso));
            subtitle->setIsoType(QStringLiteral("iso639-2"));
            subtitle->setIsoName(QLatin1String(iso));
            subtitle->setType(QStringLiteral("(Text)(SSA)"));
            title->addSubtitleTrack(std::move(subtitle));
        }
        title->arrangeAudioTracks();
        title->arrangeSubtitleTracks();
        movie.AddTitle(std::move(title));
        movie.setInPath(QStringLiteral("/movies/Movie.mkv"));
        movie.setPrimaryDevice(kDevice);
        movie.setSecondaryDevice(kSmallDevice);
    }
};

TEST_F(MediaItemTest, NewItemWaitsForItsScanWithTheDefaultExtraTags) {
    UserDefaults::standard().registerDefaults(
        QVariantMap{{QLatin1String(SettingsKey::DefaultMetadataList),
                     QVariantMap{{QStringLiteral("Cast"), true},
                                 {QStringLiteral("Album"), false},
                                 {QStringLiteral("Copyright"), true}}}});
    MDI_Movie movie;
    EXPECT_EQ(movie.status(), 2);
    EXPECT_TRUE(movie.isValid());
    EXPECT_EQ(movie.sourceType(), 0);

    EXPECT_EQ(movie.tagStates().keys(),
              (QList<QString>{QStringLiteral("Album"), QStringLiteral("Cast"),
                              QStringLiteral("Copyright")}));
    EXPECT_FALSE(movie.tagStates().value(QStringLiteral("Album")));
    EXPECT_EQ(movie.extraTags().keys(),
              (QList<QString>{QStringLiteral("Cast"), QStringLiteral("Copyright")}));

    movie.setStatus(0);
    EXPECT_FALSE(movie.isValid());
}

TEST_F(MediaItemTest, ExtraTagsGoIntoTheRecordAndComeBack) {
    MDI_Movie movie;
    movie.setTagStates([] {
        OrderedDictionary<QString, bool> states;
        states.insert(QStringLiteral("Copyright"), true);
        states.insert(QStringLiteral("Keywords"), false);
        states.insert(QStringLiteral("Name"), true);
        return states;
    }());
    OrderedDictionary<QString, QString> tags;
    tags.insert(QStringLiteral("Copyright"), QStringLiteral("2024 Oswenna"));
    tags.insert(QStringLiteral("Keywords"), QStringLiteral("off"));
    tags.insert(QStringLiteral("Name"), QString(QLatin1String("")));
    movie.setExtraTags(tags);
    movie.setTag(QStringLiteral("Heat"), QLatin1String(TagName::Name));

    movie.assignExtraMetadata();
    EXPECT_EQ(movie.getTag(QStringLiteral("Copyright")), QStringLiteral("2024 Oswenna"));
    EXPECT_TRUE(movie.getTag(QStringLiteral("Keywords")).isNull());
    // An empty extra tag does not wipe the record's value.
    EXPECT_EQ(movie.getTag(QStringLiteral("Name")), QStringLiteral("Heat"));

    movie.setTag(QStringLiteral("2025 Oswenna"), QStringLiteral("Copyright"));
    movie.extractExtraMetadata();
    EXPECT_EQ(movie.extraTags().value(QStringLiteral("Copyright")), QStringLiteral("2025 Oswenna"));
    EXPECT_EQ(movie.extraTags().value(QStringLiteral("Name")), QStringLiteral("Heat"));
    EXPECT_EQ(movie.extraTags().value(QStringLiteral("Keywords")), QString());
}

TEST_F(MediaItemTest, TitlesAreFoundByNumberAndPosition) {
    MDI_Movie movie;
    EXPECT_EQ(movie.getMainTitle(), nullptr);
    EXPECT_EQ(movie.getMainTitleID(), 0);
    movie.AddTitle(makeTitle(3, QStringLiteral("00:10:00")));
    movie.AddTitle(makeTitle(7, QStringLiteral("01:00:00")));
    movie.AddTitle(nullptr);
    ASSERT_EQ(movie.getTitles().size(), 2u);
    EXPECT_EQ(movie.getTitleIndexFromID(7), 1);
    EXPECT_EQ(movie.getTitleIndexFromID(3), 0);
    EXPECT_EQ(movie.getTitleIndexFromID(5), -1);

    movie.setMainTitle(1);
    EXPECT_EQ(movie.getMainTitleID(), 7);
    movie.setMainTitle(2);
    EXPECT_EQ(movie.getMainTitle(), nullptr);
    movie.RemoveTitles();
    EXPECT_TRUE(movie.getTitles().empty());
    EXPECT_EQ(movie.getTitleIndexFromID(7), -1);
}

TEST_F(MediaItemTest, MainTitleTieBreaksDifferBetweenTheTwoChoices) {
    MDI_Movie movie;
    movie.AddTitle(makeTitle(1, QStringLiteral("00:10:00")));
    movie.AddTitle(makeTitle(2, QStringLiteral("01:30:00")));
    movie.AddTitle(makeTitle(3, QStringLiteral("01:30:00")));
    movie.autoFindMainTitle();
    EXPECT_EQ(movie.mainTitle(), 1);
    movie.determineMainTitle();
    EXPECT_EQ(movie.mainTitle(), 2);

    MDI_Movie unreadable;
    unreadable.AddTitle(makeTitle(1, QStringLiteral("garbage")));
    unreadable.AddTitle(makeTitle(2, QString()));
    unreadable.setMainTitle(1);
    unreadable.autoFindMainTitle();
    EXPECT_EQ(unreadable.mainTitle(), 0);
    unreadable.determineMainTitle();
    EXPECT_EQ(unreadable.mainTitle(), 1);
}

TEST_F(MediaItemTest, HDDecisionFollowsTheMainTitleAndTheHDSDSetting) {
    MDI_Movie none;
    none.setCreateHDSD(true);
    none.assignIfHD();
    EXPECT_TRUE(none.createHDSD()); // nothing to decide without titles
    EXPECT_EQ(none.metaData(), nullptr);

    MDI_Movie sd;
    sd.AddTitle(makeTitle(1, QStringLiteral("01:00:00"), QStringLiteral("720x576")));
    sd.setCreateHDSD(true);
    sd.assignIfHD();
    EXPECT_FALSE(sd.createHDSD());
    EXPECT_EQ(sd.metaData()->hdVideo(), 0);

    set(SettingsKey::HDSD, true);
    MDI_Movie hd;
    hd.AddTitle(makeTitle(1, QStringLiteral("01:00:00"), QStringLiteral("1920x1080")));
    hd.setCreatedHD(true);
    hd.setCreatedSD(true);
    hd.assignIfHD();
    EXPECT_TRUE(hd.createHDSD());
    EXPECT_FALSE(hd.createdHD());
    EXPECT_FALSE(hd.createdSD());
    EXPECT_EQ(hd.metaData()->hdVideo(), 1);

    set(SettingsKey::HDSD, false);
    hd.assignIfHD();
    EXPECT_FALSE(hd.createHDSD());
}

TEST_F(MediaItemTest, PassthruNeedsAnUnfilteredH264FileThatFitsThePreset) {
    MDI_Movie file;
    fillFileItem(file);
    EXPECT_TRUE(file.canPassthru());

    MDI_Movie wide;
    fillFileItem(wide, QStringLiteral("1281x720"));
    EXPECT_FALSE(wide.canPassthru());

    // The same title from a disc is never passed through.
    MDI_Movie disc;
    fillFileItem(disc);
    disc.getMainTitle()->setIsStreaming(false);
    EXPECT_FALSE(disc.canPassthru());

    MDI_Movie mpeg;
    fillFileItem(mpeg);
    mpeg.getMainTitle()->setCodec(QStringLiteral("H264"));
    EXPECT_FALSE(mpeg.canPassthru());

    for (auto filter : {&MDI_Movie::setDecomb, &MDI_Movie::setDeblock, &MDI_Movie::setDenoise,
                        &MDI_Movie::setDetelecine, &MDI_Movie::setSearchForeign}) {
        MDI_Movie filtered;
        fillFileItem(filtered);
        (filtered.*filter)(true);
        EXPECT_FALSE(filtered.canPassthru());
    }

    MDI_Movie burned;
    fillFileItem(burned);
    burned.getMainTitle()->setSubtitleBurnState(1, true);
    EXPECT_FALSE(burned.canPassthru());

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

TEST_F(MediaItemTest, FilterPartKeepsItsOrder) {
    MDI_Movie movie;
    EXPECT_TRUE(movie.getFilterCmdArgs().isEmpty());
    movie.setDeblock(true);
    movie.setDecomb(true);
    EXPECT_EQ(movie.getFilterCmdArgs(), (QStringList{"-5", "-7"}));
    movie.setDenoise(true);
    movie.setDetelecine(true);
    EXPECT_EQ(movie.getFilterCmdArgs(), (QStringList{"-5", "-8", "-9", "-7"}));
}

TEST_F(MediaItemTest, WholeCommandLineOfAFileItem) {
    MDI_Movie movie;
    fillFileItem(movie);
    movie.setDecomb(true);
    // English tracks come first for an English user.
    ASSERT_EQ(movie.getMainTitle()->audioTrack(0)->origIndex(), 2);

    const QStringList expected =
        QStringList{kTool} +
        testsupport::words("--input /movies/Movie.mkv --output /out/Movie.m4v --title 1 --encoder "
                           "x264 --vb 2000 --rate 30 --pfr --format av_mp4 --markers --maxWidth "
                           "1280 --maxHeight 720 --crop-mode conservative --audio-fallback ac3 "
                           "--audio 2,1 --aencoder av_aac,av_aac --mixdown dpl2,dpl2 --ab "
                           "160,160 --subtitle 2,1 --subtitle-default 1 -5");
    EXPECT_EQ(movie.getCmdArgs(kDevice, false, kTool, QStringLiteral("/out/Movie.m4v")), expected);
    EXPECT_EQ(movie.cmdArgs(), QStringLiteral("--encoder x264 --vb 2000 --rate 30 --pfr --format "
                                              "av_mp4 --markers --maxWidth 1280 --maxHeight 720 "
                                              "--crop-mode conservative"));

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

    const QStringList args = movie.getAudioCmdArgs(kSmallDevice);
    EXPECT_EQ(args,
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
    const QStringList line = movie.getCmdArgs(kDevice, false, kTool, QStringLiteral("/o.m4v"));
    EXPECT_FALSE(line.contains(QStringLiteral("--subtitle")));

    movie.setSearchForeign(true);
    EXPECT_EQ(movie.getSubtitleCmdArgs(kDevice), (QStringList{"--subtitle", "scan"}));

    movie.setSearchForeign(false);
    title->includeSubtitleTrack(true, 1);
    title->setSubtitleBurnState(1, true);
    EXPECT_EQ(movie.getSubtitleCmdArgs(kDevice),
              (QStringList{"--subtitle", "1", "--subtitle-burn", "1"}));
}

class ContentIDTest : public MediaItemTest, public ::testing::WithParamInterface<int> {};

TEST_P(ContentIDTest, TheHitGetsTheChosenIdentifierAfterTheMerge) {
    set(SettingsKey::ContentIDSource, GetParam());
    for (bool replace : {false, true}) {
        MDI_Movie movie;
        MDB_Metadata hit;
        hit.setTag(QStringLiteral("603"), QLatin1String(TagName::TMDbID));
        hit.setTag(QStringLiteral("tt0133093"), QLatin1String(TagName::IMDbID));
        hit.setTag(QStringLiteral("The Matrix"), QLatin1String(TagName::Name));
        if (replace)
            movie.replaceMetadata(hit);
        else
            movie.copyMetadata(hit);

        EXPECT_EQ(movie.getTag(QLatin1String(TagName::Name)), QStringLiteral("The Matrix"));
        // The merge ran first, so the item's record keeps its empty contentID.
        EXPECT_EQ(movie.getTag(QLatin1String(TagName::ContentID)), QString(QLatin1String("")));
        const QString expected = GetParam() == 0   ? QStringLiteral("603")
                                 : GetParam() == 1 ? QStringLiteral("tt0133093")
                                                   : QString(QLatin1String(""));
        EXPECT_EQ(hit.getTag(QLatin1String(TagName::ContentID)), expected) << "replace " << replace;
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, ContentIDTest, ::testing::Values(0, 1, 2));

TEST_F(MediaItemTest, MergingCopiesThePosterThumbnailsIntoTheScratchFolder) {
    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    set(SettingsKey::TempDirectory, scratch.path());
    QList<QUrl> thumbs;
    for (const char* name : {"poster-a.jpg", "poster-b.jpg"}) {
        QFile f(dir.filePath(QLatin1String(name)));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(name);
        thumbs << QUrl::fromLocalFile(f.fileName());
    }

    MDI_Movie movie;
    movie.setLocalThumbnails({QUrl(QStringLiteral("file:///stale.jpg"))});
    movie.getMetadata()->setArtworkThumbURLs(thumbs);
    MDB_Metadata hit;
    movie.copyMetadata(hit);
    ASSERT_EQ(movie.localThumbnails().size(), 2);
    EXPECT_EQ(movie.localThumbnails()[0].toLocalFile(),
              QDir(scratch.path()).filePath("poster-a.jpg"));
    EXPECT_EQ(movie.localThumbnails()[1].toLocalFile(),
              QDir(scratch.path()).filePath("poster-b.jpg"));
    QFile copy(movie.localThumbnails()[1].toLocalFile());
    ASSERT_TRUE(copy.open(QIODevice::ReadOnly));
    EXPECT_EQ(copy.readAll(), QByteArray("poster-b.jpg"));

    // Replacing keeps the thumbnails as they are.
    movie.replaceMetadata(hit);
    EXPECT_EQ(movie.localThumbnails().size(), 2);
}

TEST_F(MediaItemTest, SearchResultsAndOutputName) {
    MDI_Movie movie;
    EXPECT_EQ(movie.assignSearchResults(0), nullptr);
    auto first = std::make_shared<MDB_Metadata>();
    auto second = std::make_shared<MDB_Metadata>();
    movie.setSearchList({first, second});
    EXPECT_EQ(movie.assignSearchResults(1), second);
    EXPECT_EQ(movie.getSearchIndex(), 1u);
    EXPECT_EQ(movie.assignSearchResults(2), nullptr);
    EXPECT_EQ(movie.getSearchIndex(), 1u);
    movie.resetSearchIndex();
    EXPECT_EQ(movie.getSearchIndex(), 0u);

    movie.setOutPath(QStringLiteral("/out/Old Name.m4v"));
    movie.replaceNameInOutPath(QStringLiteral("AC/DC Live"));
    EXPECT_EQ(movie.outPath(), QStringLiteral("/out/AC-DC Live.m4v"));

    movie.copyToQueryMetadata(*movie.getMetadata());
    ASSERT_NE(movie.queryMetadata(), nullptr);
    EXPECT_NE(movie.queryMetadata(), movie.metaData());
}

TEST(MediaListsTest, EachBrowserHasItsOwnSharedList) {
    EXPECT_EQ(EncodeList::instance(), nullptr);
    EncodeList::setInstance();
    TagList::setInstance();
    auto encode = EncodeList::instance();
    ASSERT_NE(encode, nullptr);
    ASSERT_NE(TagList::instance(), nullptr);
    EXPECT_NE(encode, TagList::instance());
    EXPECT_EQ(MoviesList::instance(), nullptr);

    auto item = std::make_shared<MDI_Movie>();
    encode->append(item);
    EncodeList::setInstance(); // a second call keeps the list
    EXPECT_EQ(EncodeList::instance()->size(), 1);
    EXPECT_EQ(EncodeList::instance()->first(), item);

    EncodeList::releaseInstance();
    TagList::releaseInstance();
    EXPECT_EQ(EncodeList::instance(), nullptr);
    EXPECT_EQ(encode->size(), 1); // holders keep their items
}

} // namespace
