// The encode browser's scan session and search-and-match flow, end to end:
// real sources made with ffmpeg, scanned by the real encoder tool one after
// another, matched against the loopback movie database.

#include "ScanTestSupport.h"

#include "core/Bookmark.h"

#include "core/Notifications.h"
#include "lookup/SearchPanelController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "metadata/TagNames.h"

#include "core/Resources.h"

#include <QElapsedTimer>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using scantest::sample;
using testsupport::waitUntil;

namespace {

QString tag(const char* name) {
    return QString::fromLatin1(name);
}

// Answers the browser's questions from a script and records what it was asked.
class ScriptedDelegate : public EncodeBrowserDelegate {
public:
    void scanStateChange() override { ++stateChanges; }
    void runSearchPanel(SearchPanelController& panel) override {
        askedFor << panel.startName();
        if (answers.isEmpty()) {
            panel.skipBtn();
            return;
        }
        const QString answer = answers.takeFirst();
        if (answer.isEmpty()) {
            panel.skipBtn();
        } else {
            panel.setNewName(answer);
            panel.searchBtn();
        }
    }
    void scanFailed(const std::shared_ptr<MDI_Media>& item) override { failed << item->name(); }
    void itemReady(const std::shared_ptr<MDI_Media>& item) override { ready << item->name(); }
    void showBlurayInstructions() override { ++bluray; }
    void showDvdInstructions() override { ++dvd; }
    bool setPreferences() override {
        ++preferenceAsks;
        if (chosenFolder.isEmpty())
            return false;
        UserDefaults::standard().setObject(
            Bookmark::create(chosenFolder),
            QString::fromLatin1(SettingsKey::DestinationPathBookmark));
        return true;
    }

    QStringList answers; // "" = Skip, else the new name to search for
    QStringList askedFor;
    QStringList failed;
    QStringList ready;
    QString chosenFolder; // what the user picks when asked for a destination
    int preferenceAsks = 0;
    int stateChanges = 0;
    int bluray = 0;
    int dvd = 0;
};

class ScanSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        scantest::server();
        scantest::resetSettings();
        list = std::make_shared<MediaItemList>();
        browser = std::make_unique<EncodeBrowserController>(list);
        browser->setBrowserDelegate(&delegate);
    }

    // Every item has left the scan session (failed, ready, or stopped).
    bool settled() const {
        if (browser->isScanning())
            return false;
        for (const auto& item : *list) {
            if (item->status() != 0 && item->status() != 8)
                return false;
        }
        return true;
    }
    ::testing::AssertionResult waitSettled(int timeoutMs = 60000) {
        if (waitUntil([this] { return settled(); }, timeoutMs))
            return ::testing::AssertionSuccess();
        QString states;
        for (const auto& item : *list)
            states += QStringLiteral("%1=%2 ").arg(item->name()).arg(item->status());
        return ::testing::AssertionFailure() << "still busy: " << states.toStdString();
    }

    std::shared_ptr<MDI_Media> item(int row) const { return list->at(row); }

    ScriptedDelegate delegate;
    std::shared_ptr<MediaItemList> list;
    std::unique_ptr<EncodeBrowserController> browser;
};

// "index:language" with "+" for an included track, "-" for a left-out one.
template <typename Tracks> QStringList trackNames(const Tracks& tracks) {
    QStringList names;
    for (const auto& track : tracks)
        names << QStringLiteral("%1:%2%3")
                     .arg(track->origIndex())
                     .arg(track->isoName())
                     .arg(track->include() ? "+" : "-");
    return names;
}

} // namespace

TEST(ScanArguments, TitleZeroScansAllTitlesAndANumberedTitleNeedsScan) {
    MDI_Movie item;
    item.setInPath(QStringLiteral("/media/Some Disc"));
    item.setScanTitle(5);
    EXPECT_EQ(
        EncodeBrowserController::scanArguments(QStringLiteral("/x/enc"), item),
        (QStringList{"/x/enc", "-i", "/media/Some Disc", "-t", "5", "--scan", "--use-opencl"}));
    item.setScanTitle(0);
    EXPECT_EQ(EncodeBrowserController::scanArguments(QStringLiteral("/x/enc"), item),
              (QStringList{"/x/enc", "-i", "/media/Some Disc", "-t", "0", "--use-opencl"}));
}

TEST_F(ScanSessionTest, ThreeSourcesAreScannedInTurnAndTwoAreMatched) {
    const QString lighthouse = sample("The Lighthouse Keeper (2019).mkv");
    const QString harbour = sample("Harbour Lights.mp4");
    const QString junk = sample("junk.mkv");
    ASSERT_FALSE(lighthouse.isEmpty());
    ASSERT_FALSE(harbour.isEmpty());
    const QString destination = QDir::homePath() + QStringLiteral("/Movies Out");
    QDir().mkpath(destination);
    UserDefaults::standard().setObject(Bookmark::create(destination),
                                       tag(SettingsKey::DestinationPathBookmark));

    // Scans never overlap: at most one item is at status 3 at any moment.
    int maxScanning = 0;
    QObject::connect(browser.get(), &EncodeBrowserController::reloaded, [&] {
        int scanning = 0;
        for (const auto& i : *list)
            scanning += i->status() == 3;
        maxScanning = std::max(maxScanning, scanning);
    });
    QStringList statusTexts;
    QObject::connect(browser.get(), &EncodeBrowserController::scanStatusChanged,
                     [&] { statusTexts << browser->scanStatus(); });

    EXPECT_EQ(
        browser->loadFiles({lighthouse, junk, harbour, QStringLiteral("/nonexistent/film.mkv")}),
        3);
    ASSERT_EQ(list->size(), 3);
    EXPECT_TRUE(browser->isScanning());
    EXPECT_EQ(item(0)->status(), 3);
    EXPECT_EQ(item(1)->status(), 2);
    EXPECT_EQ(item(2)->status(), 2);
    EXPECT_EQ(browser->images().at(1).icon, EncodeBrowserCell::Icon::Added);
    EXPECT_EQ(browser->images().at(0).icon, EncodeBrowserCell::Icon::Scanning);
    EXPECT_EQ(item(0)->name(), "The Lighthouse Keeper");
    EXPECT_EQ(item(0)->outPath(), destination + "/The Lighthouse Keeper.m4v");
    EXPECT_EQ(item(0)->languageRegion(), "en-US");
    EXPECT_EQ(item(0)->primaryDevice(), "HD 1080p");

    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(maxScanning, 1);
    EXPECT_TRUE(statusTexts.contains("Searching..."));
    EXPECT_TRUE(statusTexts.contains("Querying..."));
    EXPECT_FALSE(browser->scanStatusVisible());
    EXPECT_FALSE(browser->scanProgress());
    EXPECT_FALSE(browser->vidImageVisible());
    EXPECT_EQ(browser->workMovie(), nullptr);

    // The junk file fails with the no-valid-title message and is never searched.
    EXPECT_EQ(item(1)->status(), 0);
    EXPECT_EQ(item(1)->warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));
    EXPECT_EQ(browser->images().at(1).icon, EncodeBrowserCell::Icon::Error);
    EXPECT_EQ(delegate.failed, QStringList{"Junk"});
    EXPECT_EQ(delegate.ready, (QStringList{"The Lighthouse Keeper", "Harbour Lights"}));

    // Scan results: a file source with one title, the main title.
    const auto& keeper = *item(0);
    EXPECT_EQ(keeper.sourceType(), 1);
    ASSERT_EQ(keeper.titles().size(), 1u);
    ASSERT_NE(keeper.getMainTitle(), nullptr);
    EXPECT_EQ(keeper.getMainTitle()->size(), "1280x720");
    EXPECT_EQ(keeper.getMainTitle()->codec(), "h264");
    // English (the user's language) moves ahead of the German track that
    // comes first in the file; without "Only Native" every track stays in.
    EXPECT_EQ(trackNames(keeper.getMainTitle()->audioTracks()), (QStringList{"2:eng+", "1:deu+"}));
    EXPECT_EQ(trackNames(keeper.getMainTitle()->subtitleTracks()).first(), "2:eng+");

    // Merged match: the first hit, its rating translated to the US scale,
    // the genres mapped to the user's genre list, poster from the database.
    EXPECT_EQ(keeper.status(), 8);
    EXPECT_EQ(browser->images().at(0).icon, EncodeBrowserCell::Icon::None);
    EXPECT_EQ(keeper.getTag(tag(TagName::Name)), "The Lighthouse Keeper");
    EXPECT_EQ(keeper.getTag(tag(TagName::TMDbID)), "100001");
    EXPECT_EQ(keeper.getTag(tag(TagName::IMDbID)), "9000123");
    EXPECT_TRUE(keeper.getTag(tag(TagName::ReleaseDate)).startsWith("2019"));
    EXPECT_EQ(keeper.getTag(tag(TagName::Genre)), "Thriller");
    EXPECT_EQ(keeper.getTag(tag(TagName::Rating)), "mpaa|PG-13|300|");
    EXPECT_EQ(keeper.metaData()->hdVideo(), 1);
    EXPECT_EQ(keeper.searchList().size(), 3);
    EXPECT_EQ(keeper.getSearchIndex(), 0u);
    const MDB_Metadata* record = keeper.metaData();
    ASSERT_NE(record, nullptr);
    ASSERT_FALSE(record->artworkFullsizeURLs().isEmpty());
    EXPECT_EQ(record->getArtworkIndex(), 0);
    EXPECT_EQ(record->getArtworkURL(), record->artworkFullsizeURLs().first());
    EXPECT_TRUE(record->getArtworkURL().toString().startsWith(scantest::server().baseURL()));
    EXPECT_FALSE(record->artwork().isNull());
    // "Backdrop Art" is off by default: no backdrop is downloaded.
    EXPECT_FALSE(record->backdropFullsizeURLs().isEmpty());
    EXPECT_FALSE(record->backdropFullsizeURLs().contains(record->backdropURL()));
    // The cell shows the matched name and the first local thumbnail, or the
    // ticket image without one.
    EXPECT_EQ(browser->images().at(0).title, "The Lighthouse Keeper");
    EXPECT_EQ(browser->images().at(0).image, keeper.getThumbnails().isEmpty()
                                                 ? Resources::path("MovieTicket.png")
                                                 : keeper.getThumbnails().first().toLocalFile());

    const auto& lights = *item(2);
    EXPECT_EQ(lights.status(), 8);
    EXPECT_EQ(lights.getTag(tag(TagName::TMDbID)), "100004");
    EXPECT_EQ(lights.getTag(tag(TagName::IMDbID)), "7712004");
    EXPECT_EQ(lights.getTag(tag(TagName::Genre)), "Comedy");
    EXPECT_EQ(lights.metaData()->hdVideo(), 0);
    EXPECT_EQ(lights.getMainTitle()->size(), "640x360");
}

TEST_F(ScanSessionTest, GermanSettingsPickGermanTracksAndGermanRating) {
    scantest::resetSettings(QStringLiteral("de-DE"));
    UserDefaults::standard().setBool(true, tag(SettingsKey::OnlyNative));
    UserDefaults::standard().setBool(true, tag(SettingsKey::BackdropArt));
    browser->loadFiles({sample("The Lighthouse Keeper (2019).mkv")});
    ASSERT_TRUE(waitSettled());

    const auto& keeper = *item(0);
    ASSERT_EQ(keeper.status(), 8);
    // German first, and only German with "Only Native".
    EXPECT_EQ(trackNames(keeper.getMainTitle()->audioTracks()), (QStringList{"1:deu+", "2:eng-"}));
    EXPECT_EQ(trackNames(keeper.getMainTitle()->subtitleTracks()).first(), "1:deu+");
    EXPECT_EQ(keeper.getTag(tag(TagName::TMDbID)), "100001");
    EXPECT_EQ(keeper.getTag(tag(TagName::Rating)), "de-movie|Ab 12 Jahren|200|");
    // German genre names are mapped back to English before the genre map.
    EXPECT_EQ(keeper.getTag(tag(TagName::Genre)), "Thriller");
    // With "Backdrop Art" one of the database's backdrops is loaded.
    const MDB_Metadata* record = keeper.metaData();
    ASSERT_FALSE(record->backdropFullsizeURLs().isEmpty());
    EXPECT_TRUE(record->backdropFullsizeURLs().contains(record->backdropURL()));
    EXPECT_FALSE(record->backdrop().isNull());
}

TEST_F(ScanSessionTest, SkipTaggingMatchesNothingAndFiltersFollowTheScansCombing) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    UserDefaults::standard().setBool(true, tag(SettingsKey::Decomb));
    UserDefaults::standard().setBool(false, tag(SettingsKey::Detelecine));
    UserDefaults::standard().setBool(true, tag(SettingsKey::Deblock));
    UserDefaults::standard().setBool(true, tag(SettingsKey::PassthruVideo));
    scantest::server().clearRequests();

    browser->loadFiles(
        {sample("Harbour Lights.mp4"), sample("junk.mkv"), sample("Interlaced.mkv")});
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(scantest::server().requestCount(), 0) << [] {
        QString urls;
        for (const QUrl& url : scantest::server().requests())
            urls += url.toString() + u' ';
        return urls.toStdString();
    }();
    const auto& lights = *item(0);
    EXPECT_EQ(lights.status(), 8);
    EXPECT_EQ(item(1)->status(), 0);
    EXPECT_TRUE(lights.searchList().isEmpty());
    EXPECT_TRUE(lights.getTag(tag(TagName::TMDbID)).isEmpty());
    EXPECT_EQ(lights.getTag(tag(TagName::Genre)), "Unknown");
    EXPECT_EQ(lights.metaData()->hdVideo(), 0);
    // Decomb is an exclusive-or of the scan's combing and the setting; the
    // test pattern has no combing, so the setting wins.
    EXPECT_TRUE(lights.decomb());
    EXPECT_FALSE(lights.detelecine());
    EXPECT_TRUE(lights.deblock());
    EXPECT_FALSE(lights.denoise());
    // A combed title with "Decomb" on is encoded without the decomb filter;
    // with "Detelecine" off it gets the detelecine filter.
    const auto& interlaced = *item(2);
    ASSERT_EQ(interlaced.status(), 8);
    ASSERT_TRUE(interlaced.getMainTitle()->combing());
    EXPECT_FALSE(interlaced.decomb());
    EXPECT_TRUE(interlaced.detelecine());
    EXPECT_TRUE(interlaced.deblock());
    EXPECT_TRUE(interlaced.passthruVideo());
}

TEST_F(ScanSessionTest, StoppedScanWaitsAgainAndScansFromTheStart) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    int scanningChanges = 0;
    QObject::connect(browser.get(), &EncodeBrowserController::isScanningChanged,
                     [&] { ++scanningChanges; });
    browser->loadFiles({sample("Harbour Lights.mp4")});
    ASSERT_EQ(item(0)->status(), 3);
    ASSERT_TRUE(browser->isScanning());
    ASSERT_TRUE(browser->scanProgress());
    const int changesBefore = delegate.stateChanges;

    browser->stopScanning();
    EXPECT_EQ(item(0)->status(), 2);
    EXPECT_FALSE(browser->isScanning());
    EXPECT_FALSE(browser->scanProgress());
    EXPECT_EQ(delegate.stateChanges, changesBefore + 1);
    // The tool's end after the stop changes nothing.
    QElapsedTimer clock;
    clock.start();
    waitUntil([&] { return clock.elapsed() > 1500; });
    EXPECT_EQ(item(0)->status(), 2);
    EXPECT_TRUE(item(0)->warnings().isEmpty());
    EXPECT_TRUE(item(0)->titles().empty());

    browser->initiateScan();
    EXPECT_EQ(item(0)->status(), 3);
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 8);
    EXPECT_EQ(item(0)->titles().size(), 1u);
    EXPECT_GE(scanningChanges, 4);
}

TEST_F(ScanSessionTest, NoHitsQuestionRenamesAndSearchesAgainOrSkips) {
    const QString unknown =
        scantest::sampleAs("Harbour Lights.mp4", QStringLiteral("Quayside Tugboat Story.mp4"));
    const QString other =
        scantest::sampleAs("Harbour Lights.mp4", QStringLiteral("Nothing Like It.mp4"));
    delegate.answers = {QStringLiteral("Harbour Lights"), QString()};

    browser->loadFiles({unknown, other});
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(delegate.askedFor, (QStringList{"Quayside Tugboat Story", "Nothing Like It"}));
    // Search again under the new name: the item and its output file are renamed.
    const auto& renamed = *item(0);
    EXPECT_EQ(renamed.status(), 8);
    EXPECT_EQ(renamed.name(), "Harbour Lights");
    EXPECT_EQ(QFileInfo(renamed.outPath()).fileName(), "Harbour Lights.m4v");
    EXPECT_EQ(renamed.getTag(tag(TagName::TMDbID)), "100004");
    // Skip: the item keeps its own metadata and is ready all the same.
    const auto& skipped = *item(1);
    EXPECT_EQ(skipped.status(), 8);
    EXPECT_EQ(skipped.name(), "Nothing Like It");
    EXPECT_TRUE(skipped.getTag(tag(TagName::TMDbID)).isEmpty());
    EXPECT_EQ(skipped.titles().size(), 1u);
}

TEST_F(ScanSessionTest, PickingAnotherHitReplacesTheMatch) {
    browser->loadFiles({sample("The Lighthouse Keeper (2019).mkv")});
    ASSERT_TRUE(waitSettled());
    auto keeper = item(0);
    ASSERT_EQ(keeper->getTag(tag(TagName::TMDbID)), "100001");

    browser->metadataSearchUpdate(keeper, 7); // out of range: nothing happens
    EXPECT_EQ(keeper->status(), 8);
    EXPECT_FALSE(browser->isScanning());

    browser->metadataSearchUpdate(keeper, 2);
    EXPECT_EQ(keeper->status(), 7);
    EXPECT_EQ(keeper->getSearchIndex(), 2u);
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(keeper->status(), 8);
    EXPECT_EQ(keeper->getTag(tag(TagName::TMDbID)), "100003");
    EXPECT_EQ(keeper->getTag(tag(TagName::Name)), "Keeper of the Light");
    EXPECT_EQ(keeper->getTag(tag(TagName::Genre)), "Western");
    EXPECT_EQ(browser->images().at(0).title, "Keeper of the Light");
}

TEST_F(ScanSessionTest, SelectionIsPostedWithItemTabAndCount) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    browser->loadFiles({sample("Harbour Lights.mp4"), sample("junk.mkv")});
    ASSERT_TRUE(waitSettled());

    QList<QVariantMap> posts;
    auto connection =
        QObject::connect(&NotificationCenter::defaultCenter(), &NotificationCenter::posted,
                         [&](const QString& name, const QVariantMap& info) {
                             if (name == QLatin1String(NotificationName::SelectionChanged))
                                 posts << info;
                         });
    browser->setSelection({1, 0});
    browser->setSelection({});
    QObject::disconnect(connection);

    ASSERT_EQ(posts.size(), 2);
    EXPECT_EQ(posts[0].value("movie").value<std::shared_ptr<MDI_Media>>(), item(1));
    EXPECT_EQ(posts[0].value("tab").toInt(), 0);
    EXPECT_EQ(posts[0].value("count").toInt(), 2);
    EXPECT_TRUE(posts[1].isEmpty());
}

TEST_F(ScanSessionTest, ARefusedSourceFailsWithTheRefusalMessage) {
    // Nothing in the session refuses a source by itself; whatever marks the
    // item while it is scanned decides the message at the end.
    browser->loadFiles({sample("Harbour Lights.mp4"), sample("junk.mkv")});
    ASSERT_EQ(item(0)->status(), 3);
    item(0)->setStatus(1);
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 0);
    EXPECT_EQ(item(0)->warnings(), QString::fromLatin1(EncodeBrowserController::kDrmWarning));
    EXPECT_TRUE(item(0)->titles().empty());
    EXPECT_EQ(delegate.failed, (QStringList{"Harbour Lights", "Junk"}));
}

TEST_F(ScanSessionTest, AMissingEncoderToolLeavesTheItemWaitingAndSaysSo) {
    struct Alerting : ScriptedDelegate {
        void showAlert(const QString& message) override { alerts << message; }
        QStringList alerts;
    } alerting;
    browser->setBrowserDelegate(&alerting);
    QTemporaryDir empty;
    const QByteArray saved = qgetenv("TARNWICK_LIBEXEC");
    qputenv("TARNWICK_LIBEXEC", empty.path().toUtf8());
    browser->loadFiles({sample("Harbour Lights.mp4")});
    qputenv("TARNWICK_LIBEXEC", saved);

    EXPECT_EQ(item(0)->status(), 2);
    EXPECT_FALSE(browser->isScanning());
    EXPECT_FALSE(browser->scanProgress());
    ASSERT_EQ(alerting.alerts.size(), 1);
    EXPECT_TRUE(alerting.alerts.first().contains("Tarnwick_Pro_Encoder"));
    EXPECT_GE(alerting.stateChanges, 1);

    // With the tool back, the waiting item is scanned on the next request.
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    browser->initiateScan();
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 8);
}

TEST_F(ScanSessionTest, DiscInstructionsFollowTheSourceTypeAndTheHideSettings) {
    auto report = [](const char* name) {
        QFile f(testsupport::dataPath(QStringLiteral("scan-reports/") + name));
        EXPECT_TRUE(f.open(QIODevice::ReadOnly));
        return QString::fromLatin1(f.readAll());
    };
    MDI_Movie dvd, bluray, file;
    browser->decodeScanString(report("dvd.txt"), dvd);
    browser->decodeScanString(report("bluray.txt"), bluray);
    browser->decodeScanString(report("file-mkv.txt"), file);
    EXPECT_EQ(dvd.sourceType(), 2);
    EXPECT_EQ(bluray.sourceType(), 3);
    EXPECT_EQ(file.sourceType(), 1);
    // Without the DVD library the DVD instructions are shown.
    EXPECT_EQ(delegate.dvd, EncodeBrowserController::hasDvdLibrary() ? 0 : 1);
    EXPECT_EQ(delegate.bluray, 1);
    // The longest title is the main title.
    EXPECT_EQ(dvd.mainTitle(), 0);
    EXPECT_EQ(dvd.getMainTitle()->duration(), "00:00:05");
    EXPECT_EQ(bluray.getMainTitle()->duration(), "02:01:33");

    UserDefaults::standard().setBool(true, tag(SettingsKey::HideDVDInstructions));
    UserDefaults::standard().setBool(true, tag(SettingsKey::HideBlurayInstructions));
    MDI_Movie dvd2, bluray2;
    browser->decodeScanString(report("dvd.txt"), dvd2);
    browser->decodeScanString(report("bluray.txt"), bluray2);
    EXPECT_EQ(delegate.dvd, EncodeBrowserController::hasDvdLibrary() ? 0 : 1);
    EXPECT_EQ(delegate.bluray, 1);

    // A report without titles fails the item with the no-valid-title message.
    MDI_Movie missing;
    browser->decodeScanString(report("no-title.txt"), missing);
    EXPECT_EQ(missing.status(), 0);
    EXPECT_EQ(missing.warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));
}

TEST_F(ScanSessionTest, AnUnresolvedDestinationIsAskedForOncePerBatch) {
    // Declined: the output names stay bare.
    browser->loadFiles({sample("Harbour Lights.mp4"), sample("junk.mkv")});
    browser->stopScanning();
    EXPECT_EQ(delegate.preferenceAsks, 1);
    EXPECT_EQ(item(0)->outPath(), "Harbour Lights.m4v");
    EXPECT_EQ(item(1)->outPath(), "Junk.m4v");

    // Chosen: the items of the batch go to the chosen folder.
    delegate.chosenFolder = QDir::homePath();
    browser->loadFiles({sample("Harbour Lights.mp4")});
    EXPECT_EQ(delegate.preferenceAsks, 2);
    EXPECT_EQ(item(2)->outPath(), QDir::homePath() + "/Harbour Lights.m4v");
    // Stored, so the next batch needs no question.
    browser->loadFiles({sample("junk.mkv")});
    EXPECT_EQ(delegate.preferenceAsks, 2);
    EXPECT_EQ(item(3)->outPath(), QDir::homePath() + "/Junk.m4v");
    browser->stopScanning();
}

TEST_F(ScanSessionTest, ToolProgressIsShownAndAnInvalidTitleFailsTheItem) {
    browser->loadFiles({sample("Harbour Lights.mp4")});
    ASSERT_EQ(item(0)->status(), 3);
    // Chunks as the tool writes them on standard error (a fast scan may
    // finish before it reports any progress, so they are given here).
    browser->stdError(QStringLiteral("[10:00:01] Scanning title 3 of 12, preview 2, 20.00 %\n"));
    EXPECT_EQ(browser->scanStatus(), "Scanning title 3 of 12");
    EXPECT_EQ(browser->scanProgressValue(), 3);
    EXPECT_EQ(browser->scanProgressMaximum(), 12);
    // "invalid title" counts only with text before it.
    browser->stdError(QStringLiteral("invalid title"));
    EXPECT_EQ(item(0)->status(), 3);
    browser->stdError(QStringLiteral("[10:00:02] libhb: invalid title 7\n"));
    EXPECT_EQ(item(0)->status(), 0);

    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 0);
    EXPECT_EQ(item(0)->warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));
    EXPECT_TRUE(item(0)->titles().empty());
    EXPECT_EQ(delegate.failed, QStringList{"Harbour Lights"});
    EXPECT_FALSE(browser->scanStatusVisible());
}

TEST_F(ScanSessionTest, ASuspendedScanWaitsUntilResumed) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    browser->loadFiles({sample("Harbour Lights.mp4")});
    ASSERT_EQ(item(0)->status(), 3);
    browser->suspendProcess();
    QElapsedTimer clock;
    clock.start();
    waitUntil([&] { return clock.elapsed() > 2500; }, 5000);
    // A scan of this sample takes well under a second when it runs.
    EXPECT_EQ(item(0)->status(), 3);
    EXPECT_TRUE(browser->isScanning());

    browser->resumeProcess();
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 8);
}

TEST_F(ScanSessionTest, RemovingTheItemBeingScannedGoesOnWithTheNextOne) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    browser->loadFiles(
        {sample("Harbour Lights.mp4"), sample("Harbour Lights.mp4"), sample("Harbour Lights.mp4")});
    ASSERT_EQ(browser->count(), 3);
    const std::shared_ptr<MDI_Media> second = item(1);
    const std::shared_ptr<MDI_Media> third = item(2);
    ASSERT_EQ(item(0)->status(), 3);

    // Out of order and with a row that does not exist: only rows 0 and 2 go.
    browser->setSelection({2, 0});
    EXPECT_EQ(browser->getSelected(), (QList<int>{0, 2}));
    browser->clearIndexes({2, 7, 0, 2});
    ASSERT_EQ(browser->count(), 1);
    EXPECT_EQ(item(0), second);
    EXPECT_EQ(browser->images().size(), 1);
    EXPECT_TRUE(browser->selection().isEmpty());
    EXPECT_EQ(third.use_count(), 1) << "a removed item is still held somewhere";

    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(second->status(), 8);

    browser->selectAll();
    EXPECT_EQ(browser->getSelected(), (QList<int>{0}));
    browser->clearAll();
    EXPECT_EQ(browser->count(), 0);
    EXPECT_TRUE(browser->images().isEmpty());
    EXPECT_FALSE(browser->isScanning());
}
