// The application controller: the queue's controls through start, pause and
// stop, the preset notice, removal while converting, the function switch,
// launch and exit — and whole runs of real sources through scan, match,
// encode and tagging.

#include "ProcessingTestSupport.h"
#include "scan/ScanTestSupport.h"

#include "core/Startup.h"
#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "media/MDI_Movie.h"
#include "processing/AppDelegate.h"
#include "processing/EncoderController.h"

#include <QScopeGuard>

using testsupport::waitUntil;

namespace {

// Answers the application's questions from a script and records them.
struct ScriptedPanels : AppPanelDelegate {
    bool runUpdateNotice(const QString& title, const QString& text) override {
        notices << title + u'|' + text;
        return acceptNotice;
    }
    bool runRemoveQuestion(const QString& message) override {
        removeQuestions << message;
        return removeAnswers.isEmpty() ? false : removeAnswers.takeFirst();
    }
    void showInstructions() override { ++instructions; }

    bool acceptNotice = true;
    QList<bool> removeAnswers; // true = "Yes"
    QStringList notices, removeQuestions;
    int instructions = 0;
};

class AppControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        scantest::server();
        scantest::resetSettings();
        UserDefaults& defaults = UserDefaults::standard();
        // The shipped presets are current: no notice unless a test wants one.
        defaults.setObject(defaults.objectForKey(SettingsKey::Presets),
                           SettingsKey::PresetsCurrent);
        defaults.setBool(true, SettingsKey::UpdatePresets);
        defaults.setObject("SD 480p", SettingsKey::PrimaryDevice);
        defaults.setObject("SD 480p", SettingsKey::SecondaryDevice);
        ASSERT_TRUE(m_out.isValid());
        defaults.setObject(Bookmark::create(m_out.path()), SettingsKey::DestinationPathBookmark);
        EncodeList::releaseInstance();
        TagList::releaseInstance();
        app = std::make_unique<AppDelegate>();
        app->setPanelDelegate(&panels);
    }
    void TearDown() override {
        app.reset();
        // Let a stopped tool end before its files go.
        waitUntil([] { return false; }, 200);
        EncodeList::releaseInstance();
        TagList::releaseInstance();
    }

    const MediaItemList& list() const { return app->encodeBrowseController()->movieList(); }
    QList<int> statuses() const {
        QList<int> s;
        for (const auto& item : list())
            s << item->status();
        return s;
    }
    // Every item has left the scan session.
    bool waitScanned() {
        return waitUntil(
            [this] {
                const QList<int> s = statuses();
                return s.count(0) + s.count(8) == s.size() &&
                       !app->encodeBrowseController()->isScanning();
            },
            90000);
    }

    // A copy of the lighthouse sample cut in half: its container still
    // promises the whole length, so the encoder delivers half the frames.
    static QString truncatedSource() {
        return jobtest::cached("Half Reel.mkv", [](const QString& out) {
            QFile in(scantest::sample("The Lighthouse Keeper (2019).mkv"));
            QFile half(out);
            if (!in.open(QIODevice::ReadOnly) || !half.open(QIODevice::WriteOnly))
                return false;
            return half.write(in.read(in.size() / 2)) > 0;
        });
    }

    QTemporaryDir m_out;
    ScriptedPanels panels;
    std::unique_ptr<AppDelegate> app;
};

void expectStopped(const AppControls& c) {
    EXPECT_TRUE(c.startEnabled && c.startMenuEnabled);
    EXPECT_FALSE(c.pauseEnabled || c.pauseMenuEnabled || c.pauseMenuChecked || c.stopEnabled ||
                 c.stopMenuEnabled);
    EXPECT_EQ(c.pauseLabel, "Pause");
}

void expectStarted(const AppControls& c) {
    EXPECT_FALSE(c.startEnabled || c.startMenuEnabled);
    EXPECT_TRUE(c.pauseEnabled && c.pauseMenuEnabled && c.stopEnabled && c.stopMenuEnabled);
}

} // namespace

TEST_F(AppControllerTest, StartPauseResumeStopMoveTheControlsThroughTheirStates) {
    expectStopped(app->controls());

    // Nothing is ready: the queue counts as started but nothing runs.
    EXPECT_TRUE(app->startProcessing());
    EXPECT_TRUE(app->processing());
    expectStarted(app->controls());
    app->pauseProcessing();
    EXPECT_TRUE(app->paused());
    EXPECT_EQ(app->controls().pauseLabel, "Resume");
    EXPECT_FALSE(app->startProcessing()) << "start is refused while paused";
    app->pauseProcessing();
    EXPECT_FALSE(app->paused());
    EXPECT_EQ(app->controls().pauseLabel, "Pause");
    app->stopProcessing();
    EXPECT_FALSE(app->processing());
    expectStopped(app->controls());

    // Out-of-date presets ask first; a cancel refuses the start, an accept
    // is remembered.
    UserDefaults& defaults = UserDefaults::standard();
    const qint64 shipped = defaults.integerForKey(SettingsKey::Presets);
    defaults.setObject(shipped - 1, SettingsKey::PresetsCurrent);
    panels.acceptNotice = false;
    EXPECT_FALSE(app->startProcessing());
    ASSERT_EQ(panels.notices.size(), 1);
    expectStopped(app->controls());
    EXPECT_EQ(defaults.integerForKey(SettingsKey::PresetsCurrent), shipped - 1);
    panels.acceptNotice = true;
    EXPECT_TRUE(app->startProcessing());
    EXPECT_EQ(defaults.integerForKey(SettingsKey::PresetsCurrent), shipped);
    app->stopProcessing();

    // A movie the encoder cannot start for fails and the queue ends.
    const QByteArray libexec = qgetenv("TARNWICK_LIBEXEC");
    QTemporaryDir empty;
    qputenv("TARNWICK_LIBEXEC", empty.path().toLocal8Bit());
    auto movie = std::make_shared<MDI_Movie>();
    movie->setOutPath(m_out.filePath("Stranded.m4v"));
    movie->setStatus(8);
    EncodeList::instance()->append(movie);
    EXPECT_TRUE(app->startProcessing());
    qputenv("TARNWICK_LIBEXEC", libexec);
    EXPECT_EQ(movie->status(), 0);
    EXPECT_EQ(movie->warnings(), QString::fromLatin1(AppDelegate::kEncoderMissing));
    EXPECT_FALSE(app->processing());
    expectStopped(app->controls());
}

TEST_F(AppControllerTest, FunctionSwitchPicksTheBrowserAndFillsTheGenrePopupForTheLibrary) {
    UserDefaults::standard().setObject(QVariantList{"Drama", "Western"}, SettingsKey::GenreList);
    UserDefaults::standard().setBool(true, SettingsKey::SkipTagging);
    const QString file = scantest::sample("Harbour Lights.mp4");
    app->toggleFuncSegment(AppDelegate::LibraryFunction);
    EXPECT_TRUE(app->controls().genreItemEnabled);
    EXPECT_EQ(app->controls().genrePopup, (QStringList{"All Movies", "Drama", "Western"}));
    EXPECT_FALSE(app->moviesBrowserController()->isHidden());
    // Loading does nothing in the library.
    app->openFiles({file});
    EXPECT_EQ(app->encodeBrowseController()->count(), 0);

    app->toggleFuncSegment(AppDelegate::RetagFunction);
    EXPECT_FALSE(app->controls().genreItemEnabled);
    EXPECT_TRUE(app->moviesBrowserController()->isHidden());
    app->openFiles({file});
    app->loadMovie(file, 1);
    RetagBrowserController* retag = app->retagBrowseController();
    ASSERT_EQ(retag->count(), 2);
    EXPECT_EQ(app->encodeBrowseController()->count(), 0);
    EXPECT_EQ(retag->movieList().at(0)->outPath(), file) << "retagged in place";
}

TEST_F(AppControllerTest, LaunchRepairsTheWorkingStateAndExitRemovesTheTemporaryFolder) {
    const QByteArray tmpdir = qgetenv("TMPDIR");
    auto restore = qScopeGuard(
        [&] { tmpdir.isNull() ? void(qunsetenv("TMPDIR")) : void(qputenv("TMPDIR", tmpdir)); });
    UserDefaults& defaults = UserDefaults::standard();
    defaults.setObject(m_out.filePath("gone"), SettingsKey::TempDirectory);
    defaults.setObject(QString(), SettingsKey::LanguageRegion);
    defaults.setBool(false, SettingsKey::HideInstructions);

    app->applicationWillFinishLaunching();
    const QString temp = defaults.stringForKey(SettingsKey::TempDirectory);
    EXPECT_TRUE(QFileInfo(temp).isDir());
    EXPECT_EQ(qEnvironmentVariable("TMPDIR"), temp) << "the tools' scratch files go there too";
    EXPECT_FALSE(defaults.stringForKey(SettingsKey::LanguageRegion).isEmpty());
    EXPECT_EQ(panels.instructions, 1);
    QFile(temp + "/left-over.tmp.m4v").open(QIODevice::WriteOnly);
    app->applicationWillTerminate();
    EXPECT_FALSE(QFileInfo::exists(temp));
}

// --- whole runs with the real tools -------------------------------------------------

TEST_F(AppControllerTest, QueueOfThreeEndsFailedPartialAndDone) {
    if (const std::string missing = jobtest::missingTool(); !missing.empty())
        GTEST_SKIP() << missing << " is not installed";
    app->openFiles({scantest::sample("junk.mkv"), truncatedSource(),
                    scantest::sample("The Lighthouse Keeper (2019).mkv")});
    ASSERT_TRUE(waitScanned());
    ASSERT_EQ(statuses(), (QList<int>{0, 8, 8}));

    EXPECT_TRUE(app->startProcessing());
    ASSERT_TRUE(waitUntil([this] { return !app->processing(); }, 180000));
    EXPECT_EQ(statuses(), (QList<int>{0, 0, 19}));
    expectStopped(app->controls());

    EXPECT_TRUE(list().at(0)->warnings().contains("No valid title was found!"));
    EXPECT_TRUE(list().at(1)->warnings().startsWith("It appears that only "));
    EXPECT_TRUE(list().at(2)->warnings().isEmpty());

    const QString done = list().at(2)->outPath();
    EXPECT_EQ(QFileInfo(done).dir().absolutePath(), QDir(m_out.path()).absolutePath());
    // Matched against the sample record and tagged.
    const jobtest::Run tags =
        jobtest::run("ffprobe", {"-v", "error", "-show_format", "-of", "json", done});
    EXPECT_TRUE(tags.out.contains("The Lighthouse Keeper")) << tags.out.toStdString();
}

TEST_F(AppControllerTest, RemovingTheConvertingMovieAsksAndNoKeepsIt) {
    if (const std::string missing = jobtest::missingTool(); !missing.empty())
        GTEST_SKIP() << missing << " is not installed";
    UserDefaults::standard().setBool(true, SettingsKey::SkipTagging);
    app->openFiles({scantest::sample("The Lighthouse Keeper (2019).mkv"),
                    scantest::sample("Harbour Lights.mp4")});
    ASSERT_TRUE(waitScanned());
    ASSERT_EQ(statuses(), (QList<int>{8, 8}));
    // Held paused so the movie is still converting when asked about.
    ASSERT_TRUE(app->startProcessing());
    const std::shared_ptr<MDI_Media> converting = list().at(0);
    ASSERT_TRUE(waitUntil([&] { return converting->status() == 9; }, 60000));
    app->pauseProcessing();

    panels.removeAnswers = {false};
    app->encodeBrowseController()->selectAll();
    app->clearSelected();
    ASSERT_EQ(panels.removeQuestions.size(), 1);
    EXPECT_TRUE(panels.removeQuestions.first().contains(converting->name()));
    ASSERT_EQ(list().size(), 1) << "the other selected movie is removed";
    EXPECT_EQ(list().at(0), converting);
    EXPECT_EQ(converting->status(), 9);
    EXPECT_TRUE(app->paused());

    panels.removeAnswers = {true};
    app->clearAll();
    EXPECT_EQ(panels.removeQuestions.size(), 2);
    EXPECT_TRUE(list().isEmpty());
    EXPECT_FALSE(app->paused());
    expectStopped(app->controls());
    EXPECT_FALSE(app->encodeController()->isEncoding());
    // The half-written output goes once the tool has let go of it.
    EXPECT_TRUE(waitUntil([&] { return !QFileInfo::exists(converting->outPath()); }, 10000));
}
