// The encode browser's scan session and search-and-match flow, end to end:
// real sources made with ffmpeg, scanned by the real encoder tool one after
// another, matched against the loopback movie database.

#include "ScanTestSupport.h"

#include "core/Bookmark.h"
#include "lookup/SearchPanelController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "metadata/TagNames.h"

#include <QElapsedTimer>

#include <QTemporaryDir>
#include <algorithm>

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
    void showAlert(const QString& message) override { alerts << message; }
    void runSearchPanel(SearchPanelController& panel) override {
        askedFor << panel.startName();
        const QString answer = answers.isEmpty() ? QString() : answers.takeFirst();
        if (answer.isEmpty())
            return panel.skipBtn();
        panel.setNewName(answer);
        panel.searchBtn();
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
    QStringList alerts;
    QString chosenFolder; // what the user picks when asked for a destination
    int preferenceAsks = 0;
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
    bool waitSettled(int timeoutMs = 60000) {
        return waitUntil(
            [this] {
                return !browser->isScanning() &&
                       std::all_of(list->begin(), list->end(), [](const auto& i) {
                           return i->status() == 0 || i->status() == 8;
                       });
            },
            timeoutMs);
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

TEST_F(ScanSessionTest, ThreeSourcesAreScannedInTurnAndTwoAreMatched) {
    // Scans never overlap: at most one item is at status 3 at any moment.
    int maxScanning = 0;
    QObject::connect(browser.get(), &EncodeBrowserController::reloaded, [&] {
        int scanning = 0;
        for (const auto& i : *list)
            scanning += i->status() == 3;
        maxScanning = std::max(maxScanning, scanning);
    });

    EXPECT_EQ(
        browser->loadFiles({sample("The Lighthouse Keeper (2019).mkv"), sample("junk.mkv"),
                            sample("Harbour Lights.mp4"), QStringLiteral("/nonexistent/film.mkv")}),
        3);
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(maxScanning, 1);

    // The junk file fails with the no-valid-title message and is never searched.
    EXPECT_EQ(item(1)->status(), 0);
    EXPECT_EQ(item(1)->warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));
    EXPECT_EQ(delegate.failed, QStringList{"Junk"});
    EXPECT_EQ(delegate.ready, (QStringList{"The Lighthouse Keeper", "Harbour Lights"}));

    // English (the user's language) moves ahead of the German track that
    // comes first in the file; without "Only Native" every track stays in.
    const auto& keeper = *item(0);
    EXPECT_EQ(trackNames(keeper.getMainTitle()->audioTracks()), (QStringList{"2:eng+", "1:deu+"}));
    EXPECT_EQ(trackNames(keeper.getMainTitle()->subtitleTracks()).first(), "2:eng+");
    // The first hit, its rating on the US scale, the genre mapped, the poster loaded.
    EXPECT_EQ(keeper.status(), 8);
    EXPECT_EQ(keeper.getTag(tag(TagName::TMDbID)), "100001");
    EXPECT_EQ(keeper.getTag(tag(TagName::Genre)), "Thriller");
    EXPECT_EQ(keeper.getTag(tag(TagName::Rating)), "mpaa|PG-13|300|");
    EXPECT_EQ(keeper.metaData()->hdVideo(), 1);
    EXPECT_FALSE(keeper.metaData()->artwork().isNull());
    // "Backdrop Art" is off by default: no backdrop is downloaded.
    EXPECT_FALSE(
        keeper.metaData()->backdropFullsizeURLs().contains(keeper.metaData()->backdropURL()));

    const auto& lights = *item(2);
    EXPECT_EQ(lights.getTag(tag(TagName::TMDbID)), "100004");
    EXPECT_EQ(lights.metaData()->hdVideo(), 0);

    // Picking another hit replaces the match; a row past the hits does nothing.
    auto picked = item(0);
    browser->metadataSearchUpdate(picked, 7);
    EXPECT_EQ(picked->status(), 8);
    browser->metadataSearchUpdate(picked, 2);
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(picked->getTag(tag(TagName::TMDbID)), "100003");
    EXPECT_EQ(picked->getTag(tag(TagName::Genre)), "Western");
    EXPECT_EQ(browser->images().at(0).title, "Keeper of the Light");
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
    EXPECT_EQ(keeper.getTag(tag(TagName::Rating)), "de-movie|Ab 12 Jahren|200|");
    // German genre names are mapped back to English before the genre map.
    EXPECT_EQ(keeper.getTag(tag(TagName::Genre)), "Thriller");
    EXPECT_FALSE(keeper.metaData()->backdrop().isNull());
}

TEST_F(ScanSessionTest, SkipTaggingMatchesNothingAndFiltersFollowTheScansCombing) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    UserDefaults::standard().setBool(true, tag(SettingsKey::Decomb));
    UserDefaults::standard().setBool(false, tag(SettingsKey::Detelecine));
    scantest::server().clearRequests();
    browser->loadFiles(
        {sample("Harbour Lights.mp4"), sample("junk.mkv"), sample("Interlaced.mkv")});
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(scantest::server().requestCount(), 0);
    const auto& lights = *item(0);
    EXPECT_EQ(lights.status(), 8);
    EXPECT_EQ(item(1)->status(), 0);
    // Decomb is an exclusive-or of the scan's combing and the setting.
    EXPECT_TRUE(lights.decomb());
    EXPECT_FALSE(lights.detelecine());
    const auto& interlaced = *item(2);
    ASSERT_TRUE(interlaced.getMainTitle()->combing());
    EXPECT_FALSE(interlaced.decomb());
    EXPECT_TRUE(interlaced.detelecine());
}

TEST_F(ScanSessionTest, StoppedScanWaitsAgainAndScansFromTheStart) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    browser->loadFiles({sample("Harbour Lights.mp4")});
    ASSERT_EQ(item(0)->status(), 3);
    browser->stopScanning();
    EXPECT_FALSE(browser->isScanning());
    // The tool's end after the stop changes nothing.
    QElapsedTimer clock;
    clock.start();
    waitUntil([&] { return clock.elapsed() > 1500; });
    EXPECT_EQ(item(0)->status(), 2);
    EXPECT_TRUE(item(0)->titles().empty());

    browser->initiateScan();
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 8);
}

TEST_F(ScanSessionTest, NoHitsQuestionRenamesAndSearchesAgainOrSkips) {
    delegate.answers = {QStringLiteral("Harbour Lights"), QString()};
    browser->loadFiles(
        {scantest::sampleAs("Harbour Lights.mp4", QStringLiteral("Quayside Tugboat Story.mp4")),
         scantest::sampleAs("Harbour Lights.mp4", QStringLiteral("Nothing Like It.mp4"))});
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(delegate.askedFor, (QStringList{"Quayside Tugboat Story", "Nothing Like It"}));
    // Search again under the new name: the item and its output file are renamed.
    EXPECT_EQ(item(0)->status(), 8);
    EXPECT_EQ(QFileInfo(item(0)->outPath()).fileName(), "Harbour Lights.m4v");
    EXPECT_EQ(item(0)->getTag(tag(TagName::TMDbID)), "100004");
    // Skip: the item keeps its own metadata and is ready all the same.
    EXPECT_EQ(item(1)->status(), 8);
    EXPECT_TRUE(item(1)->getTag(tag(TagName::TMDbID)).isEmpty());
}

TEST_F(ScanSessionTest, RefusedHangingAndToollessScansFailWithTheirMessages) {
    // Whatever marks the item while it is scanned decides the message at the end.
    browser->loadFiles({sample("Harbour Lights.mp4")});
    item(0)->setStatus(1);
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 0);
    EXPECT_EQ(item(0)->warnings(), QString::fromLatin1(EncodeBrowserController::kDrmWarning));

    // A scan past its time limit is stopped.
    QTemporaryDir fake;
    const QString hanging = fake.filePath(QStringLiteral("HandBrakeCLI"));
    ASSERT_TRUE(scantest::writeFile(hanging, "#!/bin/sh\nexec sleep 60\n"));
    QFile::setPermissions(hanging, QFile::ReadOwner | QFile::ExeOwner);
    qputenv("TARNWICK_HANDBRAKE", hanging.toUtf8());
    UserDefaults::standard().setObject(1, tag(SettingsKey::ScanTimeLimit));
    browser->loadFiles({sample("Harbour Lights.mp4")});
    EXPECT_TRUE(waitSettled(15000));
    qunsetenv("TARNWICK_HANDBRAKE");
    EXPECT_EQ(item(1)->status(), 0);
    EXPECT_TRUE(item(1)->warnings().contains("1 second")) << item(1)->warnings().toStdString();

    // Without the encoder tool the item waits and the user is told.
    QTemporaryDir empty;
    const QByteArray saved = qgetenv("TARNWICK_LIBEXEC");
    qputenv("TARNWICK_LIBEXEC", empty.path().toUtf8());
    browser->loadFiles({sample("Harbour Lights.mp4")});
    qputenv("TARNWICK_LIBEXEC", saved);
    EXPECT_EQ(item(2)->status(), 2);
    EXPECT_TRUE(delegate.alerts.value(0).contains("Tarnwick_Pro_Encoder"));
}

TEST_F(ScanSessionTest, DiscInstructionsFollowTheSourceTypeAndTheHideSettings) {
    auto decode = [&](const char* name) {
        QFile f(testsupport::dataPath(QStringLiteral("scan-reports/") + name));
        EXPECT_TRUE(f.open(QIODevice::ReadOnly));
        MDI_Movie movie;
        browser->decodeScanString(QString::fromLatin1(f.readAll()), movie);
        return movie.getMainTitle() ? movie.getMainTitle()->duration() : movie.warnings();
    };
    // The longest title is the main title.
    EXPECT_EQ(decode("dvd.txt"), "00:00:05");
    EXPECT_EQ(decode("bluray.txt"), "02:01:33");
    decode("file-mkv.txt");
    // Without the DVD library the DVD instructions are shown.
    const int dvd = EncodeBrowserController::hasDvdLibrary() ? 0 : 1;
    EXPECT_EQ(delegate.dvd, dvd);
    UserDefaults::standard().setBool(true, tag(SettingsKey::HideBlurayInstructions));
    decode("bluray.txt");
    EXPECT_EQ(delegate.bluray, 1);
    EXPECT_EQ(decode("no-title.txt"), QString::fromLatin1(MDI_Utility::kNoValidTitle));
}

TEST_F(ScanSessionTest, AnUnresolvedDestinationIsAskedForOncePerBatch) {
    // Declined: the output names stay bare.
    browser->loadFiles({sample("Harbour Lights.mp4"), sample("junk.mkv")});
    browser->stopScanning();
    EXPECT_EQ(delegate.preferenceAsks, 1);
    EXPECT_EQ(item(1)->outPath(), "Junk.m4v");

    // Chosen: the items of the batch go to the chosen folder, and it is kept.
    delegate.chosenFolder = QDir::homePath();
    browser->loadFiles({sample("Harbour Lights.mp4")});
    browser->loadFiles({sample("junk.mkv")});
    EXPECT_EQ(delegate.preferenceAsks, 2);
    EXPECT_EQ(item(2)->outPath(), QDir::homePath() + "/Harbour Lights.m4v");
    EXPECT_EQ(item(3)->outPath(), QDir::homePath() + "/Junk.m4v");
    browser->stopScanning();
}

TEST_F(ScanSessionTest, ToolProgressIsShownAndAnInvalidTitleFailsTheItem) {
    browser->loadFiles({sample("Harbour Lights.mp4")});
    ASSERT_EQ(item(0)->status(), 3);
    // Chunks as the tool writes them (a fast scan may end before any progress).
    browser->stdError(QStringLiteral("[10:00:01] Scanning title 3 of 12, preview 2, 20.00 %\n"));
    EXPECT_EQ(browser->scanStatus(), "Scanning title 3 of 12");
    EXPECT_EQ(browser->scanProgressMaximum(), 12);
    // "invalid title" counts only with text before it.
    browser->stdError(QStringLiteral("invalid title"));
    EXPECT_EQ(item(0)->status(), 3);
    browser->stdError(QStringLiteral("[10:00:02] libhb: invalid title 7\n"));
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(item(0)->status(), 0);
    EXPECT_EQ(item(0)->warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));
    EXPECT_EQ(delegate.failed, QStringList{"Harbour Lights"});
}

TEST_F(ScanSessionTest, RemovingTheItemBeingScannedGoesOnWithTheNextOne) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    browser->loadFiles(
        {sample("Harbour Lights.mp4"), sample("Harbour Lights.mp4"), sample("Harbour Lights.mp4")});
    const auto second = item(1), third = item(2);
    ASSERT_EQ(item(0)->status(), 3);
    // Out of order and with a row that does not exist: only rows 0 and 2 go.
    browser->clearIndexes({2, 7, 0, 2});
    ASSERT_EQ(browser->count(), 1);
    EXPECT_EQ(item(0), second);
    EXPECT_EQ(third.use_count(), 1) << "a removed item is still held";
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(second->status(), 8);
}
