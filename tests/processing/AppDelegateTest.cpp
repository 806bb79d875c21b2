// The application controller: the queue's controls through start, pause and
// stop, the preset notice, removal while converting, the function switch,
// launch and exit — and whole runs of real sources through scan, match,
// encode and tagging.

#include "ProcessingTestSupport.h"
#include "scan/ScanTestSupport.h"

#include "core/Startup.h"
#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "media/MDI_Media.h"
#include "media/MDI_Movie.h"
#include "processing/AppDelegate.h"
#include "processing/EncoderController.h"

#include <QScopeGuard>

using testsupport::waitUntil;

namespace {

QString key(const char* name) {
    return QString::fromLatin1(name);
}

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
    QStringList notices;
    QStringList removeQuestions;
    int instructions = 0;
};

class AppControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        scantest::server();
        scantest::resetSettings();
        UserDefaults& defaults = UserDefaults::standard();
        // The shipped presets are current: no notice unless a test wants one.
        defaults.setObject(defaults.objectForKey(key(SettingsKey::Presets)),
                           key(SettingsKey::PresetsCurrent));
        defaults.setBool(true, key(SettingsKey::UpdatePresets));
        defaults.setObject(QStringLiteral("SD 480p"), key(SettingsKey::PrimaryDevice));
        defaults.setObject(QStringLiteral("SD 480p"), key(SettingsKey::SecondaryDevice));
        ASSERT_TRUE(m_out.isValid());
        defaults.setObject(Bookmark::create(m_out.path()),
                           key(SettingsKey::DestinationPathBookmark));
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
    ::testing::AssertionResult waitScanned(int timeoutMs = 90000) {
        const bool done = waitUntil(
            [this] {
                if (app->encodeBrowseController()->isScanning())
                    return false;
                for (const auto& item : list()) {
                    if (item->status() != 0 && item->status() != 8)
                        return false;
                }
                return true;
            },
            timeoutMs);
        if (done)
            return ::testing::AssertionSuccess();
        QString states;
        for (const auto& item : list())
            states += QStringLiteral("%1=%2 ").arg(item->name()).arg(item->status());
        return ::testing::AssertionFailure() << "still scanning: " << states.toStdString();
    }
    bool waitQueueEnd(int timeoutMs = 180000) {
        return waitUntil([this] { return !app->processing(); }, timeoutMs);
    }
    std::shared_ptr<MDI_Media> waitConverting(int timeoutMs = 60000) {
        std::shared_ptr<MDI_Media> converting;
        waitUntil(
            [&] {
                for (const auto& item : list()) {
                    if (item->status() == 9)
                        converting = item;
                }
                return converting != nullptr;
            },
            timeoutMs);
        return converting;
    }

    // A copy of the lighthouse sample cut in half: its container still
    // promises the whole length, so the encoder delivers half the frames.
    static QString truncatedSource() {
        return jobtest::cached(QStringLiteral("Half Reel.mkv"), [](const QString& out) {
            QFile in(scantest::sample(QStringLiteral("The Lighthouse Keeper (2019).mkv")));
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
    EXPECT_TRUE(c.startEnabled);
    EXPECT_TRUE(c.startMenuEnabled);
    EXPECT_FALSE(c.pauseEnabled);
    EXPECT_FALSE(c.pauseMenuEnabled);
    EXPECT_FALSE(c.pauseMenuChecked);
    EXPECT_FALSE(c.stopEnabled);
    EXPECT_FALSE(c.stopMenuEnabled);
    EXPECT_EQ(c.pauseIcon, "Aqua-Pause-icon");
    EXPECT_EQ(c.pauseLabel, "Pause");
}

void expectStarted(const AppControls& c) {
    EXPECT_FALSE(c.startEnabled);
    EXPECT_FALSE(c.startMenuEnabled);
    EXPECT_TRUE(c.pauseEnabled);
    EXPECT_TRUE(c.pauseMenuEnabled);
    EXPECT_TRUE(c.stopEnabled);
    EXPECT_TRUE(c.stopMenuEnabled);
}

} // namespace

// --- controls --------------------------------------------------------------------

TEST_F(AppControllerTest, StartPauseResumeStopMoveTheControlsThroughTheirStates) {
    expectStopped(app->controls());
    app->pauseProcessing(); // not started: nothing happens
    expectStopped(app->controls());
    EXPECT_FALSE(app->paused());

    // Nothing is ready: the queue counts as started but nothing runs.
    EXPECT_TRUE(app->startProcessing());
    EXPECT_TRUE(app->processing());
    expectStarted(app->controls());
    EXPECT_FALSE(app->encodeController()->isEncoding());

    app->pauseProcessing();
    EXPECT_TRUE(app->paused());
    EXPECT_EQ(app->controls().pauseIcon, "Aqua-Play-icon");
    EXPECT_EQ(app->controls().pauseLabel, "Resume");
    EXPECT_TRUE(app->controls().pauseMenuChecked);

    const AppControls whilePaused = app->controls();
    EXPECT_FALSE(app->startProcessing()) << "start is refused while paused";
    EXPECT_EQ(app->controls(), whilePaused);
    EXPECT_TRUE(app->paused());

    app->pauseProcessing();
    EXPECT_FALSE(app->paused());
    EXPECT_EQ(app->controls().pauseLabel, "Pause");
    EXPECT_FALSE(app->controls().pauseMenuChecked);

    app->stopProcessing();
    EXPECT_FALSE(app->processing());
    EXPECT_FALSE(app->paused());
    expectStopped(app->controls());
    EXPECT_TRUE(panels.notices.isEmpty());
}

TEST_F(AppControllerTest, OutOfDatePresetsAskBeforeStartingAndCancelRefusesTheStart) {
    UserDefaults& defaults = UserDefaults::standard();
    const qint64 shipped = defaults.integerForKey(key(SettingsKey::Presets));
    defaults.setObject(shipped - 1, key(SettingsKey::PresetsCurrent));

    panels.acceptNotice = false;
    EXPECT_FALSE(app->startProcessing());
    ASSERT_EQ(panels.notices.size(), 1);
    EXPECT_EQ(panels.notices.first(),
              QStringLiteral("Update Notice|The device presets are out of date and must be "
                             "updated. Any modifications you have made to your current device "
                             "presets will be lost and must be added again."));
    EXPECT_FALSE(app->processing());
    expectStopped(app->controls());
    EXPECT_EQ(defaults.integerForKey(key(SettingsKey::PresetsCurrent)), shipped - 1);

    panels.acceptNotice = true;
    EXPECT_TRUE(app->startProcessing());
    EXPECT_EQ(panels.notices.size(), 2);
    EXPECT_TRUE(app->processing());
    EXPECT_EQ(defaults.integerForKey(key(SettingsKey::PresetsCurrent)), shipped);
    EXPECT_TRUE(defaults.boolForKey(key(SettingsKey::UpdatePresets)));

    // Accepted once: the next start does not ask again.
    app->stopProcessing();
    EXPECT_TRUE(app->startProcessing());
    EXPECT_EQ(panels.notices.size(), 2);
}

TEST_F(AppControllerTest, FunctionSwitchFillsTheGenrePopupOnlyForTheLibrary) {
    UserDefaults::standard().setObject(
        QVariantList{QStringLiteral("Drama"), QStringLiteral("Western")},
        key(SettingsKey::GenreList));
    EXPECT_EQ(app->selectedFunction(), AppDelegate::EncodeFunction);
    EXPECT_FALSE(app->controls().genreItemEnabled);

    app->toggleFuncSegment(AppDelegate::LibraryFunction);
    EXPECT_EQ(app->selectedFunction(), AppDelegate::LibraryFunction);
    EXPECT_TRUE(app->controls().genreItemEnabled);
    EXPECT_EQ(app->controls().genrePopup, (QStringList{"All Movies", "Drama", "Western"}));
    EXPECT_FALSE(app->moviesBrowserController()->isHidden());

    // Loading and removing do nothing in the library.
    app->openFiles({scantest::sample(QStringLiteral("Harbour Lights.mp4"))});
    EXPECT_EQ(app->encodeBrowseController()->count(), 0);

    app->toggleFuncSegment(AppDelegate::EncodeFunction);
    EXPECT_FALSE(app->controls().genreItemEnabled);
    EXPECT_TRUE(app->controls().genrePopup.isEmpty());
    EXPECT_TRUE(app->moviesBrowserController()->isHidden());

    app->toggleFuncSegment(7); // no such function
    EXPECT_EQ(app->selectedFunction(), AppDelegate::EncodeFunction);
}

TEST_F(AppControllerTest, LaunchRepairsTheWorkingStateAndExitRemovesTheTemporaryFolder) {
    const QByteArray tmpdir = qgetenv("TMPDIR");
    auto restore = qScopeGuard([&] {
        if (tmpdir.isNull())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", tmpdir);
    });
    UserDefaults& defaults = UserDefaults::standard();
    QString gone;
    {
        QTemporaryDir deleted;
        gone = deleted.path();
    }
    defaults.setObject(gone, key(SettingsKey::TempDirectory));
    defaults.setObject(QString(), key(SettingsKey::LanguageRegion));
    defaults.setBool(false, key(SettingsKey::HideInstructions));
    defaults.setObject(Bookmark::create(m_out.path() + QStringLiteral("/nowhere")),
                       key(SettingsKey::ITunesPathBookmark));

    app->applicationWillFinishLaunching();
    const QString temp = defaults.stringForKey(key(SettingsKey::TempDirectory));
    EXPECT_NE(temp, gone);
    EXPECT_TRUE(QFileInfo(temp).isDir());
    EXPECT_TRUE(QFileInfo(temp).fileName().startsWith(QStringLiteral("Tarnwick.")));
    EXPECT_EQ(qEnvironmentVariable("TMPDIR"), temp) << "the tools' scratch files go there too";
    EXPECT_FALSE(defaults.stringForKey(key(SettingsKey::LanguageRegion)).isEmpty());
    EXPECT_EQ(panels.instructions, 1);
    EXPECT_TRUE(panels.notices.isEmpty());
    EXPECT_EQ(app->selectedFunction(), AppDelegate::EncodeFunction);

    QFile scratch(temp + QStringLiteral("/left-over.tmp.m4v"));
    ASSERT_TRUE(scratch.open(QIODevice::WriteOnly));
    scratch.close();
    app->applicationWillTerminate();
    EXPECT_FALSE(QFileInfo::exists(temp));
    EXPECT_EQ(qgetenv("TMPDIR"), tmpdir) << "temporary files after exit go where they went before";

    // Hidden instructions stay hidden; an out-of-date preset set is noticed at launch.
    defaults.setBool(true, key(SettingsKey::HideInstructions));
    defaults.setObject(defaults.integerForKey(key(SettingsKey::Presets)) - 1,
                       key(SettingsKey::PresetsCurrent));
    app->applicationWillFinishLaunching();
    EXPECT_EQ(panels.instructions, 1);
    EXPECT_EQ(panels.notices.size(), 1);
    app->applicationWillTerminate();
}

TEST_F(AppControllerTest, RetagFunctionLoadsIntoTheRetagBrowserAndRemovesWithoutAsking) {
    UserDefaults::standard().setBool(true, key(SettingsKey::SkipTagging));
    app->toggleFuncSegment(AppDelegate::RetagFunction);
    const QString file = scantest::sample(QStringLiteral("Harbour Lights.mp4"));
    app->openFiles({file});
    app->loadMovie(file, 1);
    RetagBrowserController* retag = app->retagBrowseController();
    ASSERT_EQ(retag->count(), 2);
    EXPECT_EQ(app->encodeBrowseController()->count(), 0);
    EXPECT_EQ(retag->movieList().at(0)->outPath(), file) << "retagged in place";
    EXPECT_EQ(retag->movieList().at(1)->scanTitle(), 1);

    app->selectAll();
    EXPECT_EQ(retag->getSelected(), (QList<int>{0, 1}));
    app->clearSelected();
    EXPECT_EQ(retag->count(), 0);
    EXPECT_TRUE(panels.removeQuestions.isEmpty());
}

TEST_F(AppControllerTest, AMovieTheEncoderCannotStartForFailsAndTheQueueEnds) {
    const QByteArray libexec = qgetenv("TARNWICK_LIBEXEC");
    QTemporaryDir empty;
    qputenv("TARNWICK_LIBEXEC", empty.path().toLocal8Bit());
    auto movie = std::make_shared<MDI_Movie>();
    movie->setName(QStringLiteral("Stranded"));
    movie->setOutPath(m_out.filePath(QStringLiteral("Stranded.m4v")));
    movie->setStatus(8);
    EncodeList::instance()->append(movie);

    EXPECT_TRUE(app->startProcessing());
    qputenv("TARNWICK_LIBEXEC", libexec);
    EXPECT_EQ(movie->status(), 0);
    EXPECT_EQ(movie->warnings(), QString::fromLatin1(AppDelegate::kEncoderMissing));
    EXPECT_FALSE(app->processing());
    expectStopped(app->controls());
}

// --- whole runs with the real tools -------------------------------------------------

TEST_F(AppControllerTest, StartedBeforeTheMatchTheQueueTakesTheMovieOnceItIsReady) {
    QString missing;
    if (!jobtest::toolsPresent(&missing))
        GTEST_SKIP() << missing.toStdString() << " is not installed";
    app->openFiles({scantest::sample(QStringLiteral("The Lighthouse Keeper (2019).mkv"))});
    ASSERT_NE(statuses(), QList<int>{8});
    EXPECT_TRUE(app->startProcessing());
    ASSERT_TRUE(waitQueueEnd());
    EXPECT_EQ(statuses(), QList<int>{19});
    expectStopped(app->controls());
}

TEST_F(AppControllerTest, QueueOfThreeEndsFailedPartialAndDone) {
    QString missing;
    if (!jobtest::toolsPresent(&missing))
        GTEST_SKIP() << missing.toStdString() << " is not installed";
    const QString partial = truncatedSource();
    ASSERT_FALSE(partial.isEmpty());
    int completes = 0;
    QObject::connect(app.get(), &AppDelegate::processingChanged,
                     [&](bool on) { completes += on ? 0 : 1; });

    app->openFiles({scantest::sample(QStringLiteral("junk.mkv")), partial,
                    scantest::sample(QStringLiteral("The Lighthouse Keeper (2019).mkv"))});
    ASSERT_EQ(list().size(), 3);
    ASSERT_TRUE(waitScanned());
    ASSERT_EQ(statuses(), (QList<int>{0, 8, 8}));

    EXPECT_TRUE(app->startProcessing());
    expectStarted(app->controls());
    ASSERT_TRUE(waitQueueEnd());
    EXPECT_EQ(statuses(), (QList<int>{0, 0, 19}));
    EXPECT_EQ(completes, 1);
    expectStopped(app->controls());

    EXPECT_TRUE(list().at(0)->warnings().contains(QStringLiteral("No valid title was found!")))
        << list().at(0)->warnings().toStdString();
    EXPECT_TRUE(list().at(1)->warnings().startsWith(QStringLiteral("It appears that only ")))
        << list().at(1)->warnings().toStdString();
    EXPECT_TRUE(list().at(2)->warnings().isEmpty()) << list().at(2)->warnings().toStdString();

    const QString done = list().at(2)->outPath();
    EXPECT_EQ(QFileInfo(done).dir().absolutePath(), QDir(m_out.path()).absolutePath());
    const QJsonObject video = jobtest::firstStream(done, QStringLiteral("video"));
    EXPECT_EQ(video.value(QStringLiteral("codec_name")).toString(), "h264");
    // Matched against the sample record and tagged.
    const jobtest::Run tags = jobtest::run(QStringLiteral("ffprobe"),
                                           {"-v", "error", "-show_format", "-of", "json", done});
    EXPECT_TRUE(tags.out.contains("The Lighthouse Keeper")) << tags.out.toStdString();
}

TEST_F(AppControllerTest, RemovingTheConvertingMovieAsksAndNoKeepsIt) {
    QString missing;
    if (!jobtest::toolsPresent(&missing))
        GTEST_SKIP() << missing.toStdString() << " is not installed";
    UserDefaults::standard().setBool(true, key(SettingsKey::SkipTagging));
    app->openFiles({scantest::sample(QStringLiteral("The Lighthouse Keeper (2019).mkv")),
                    scantest::sample(QStringLiteral("Harbour Lights.mp4"))});
    ASSERT_TRUE(waitScanned());
    ASSERT_EQ(statuses(), (QList<int>{8, 8}));
    // Held paused so the movie is still converting when asked about.
    ASSERT_TRUE(app->startProcessing());
    const std::shared_ptr<MDI_Media> converting = waitConverting();
    ASSERT_TRUE(converting);
    ASSERT_EQ(converting, list().at(0));
    app->pauseProcessing();

    panels.removeAnswers = {false};
    app->encodeBrowseController()->selectAll();
    app->clearSelected();
    ASSERT_EQ(panels.removeQuestions.size(), 1);
    EXPECT_EQ(panels.removeQuestions.first(),
              QStringLiteral("\"%1\" is currently being converted, do you wish to stop encoding "
                             "and remove movie?")
                  .arg(converting->name()));
    EXPECT_TRUE(app->alertResult());
    ASSERT_EQ(list().size(), 1) << "the other selected movie is removed";
    EXPECT_EQ(list().at(0), converting);
    EXPECT_EQ(converting->status(), 9);
    EXPECT_TRUE(app->paused());

    panels.removeAnswers = {true};
    app->clearAll();
    EXPECT_EQ(panels.removeQuestions.size(), 2);
    EXPECT_FALSE(app->alertResult());
    EXPECT_TRUE(list().isEmpty());
    EXPECT_FALSE(app->paused());
    expectStopped(app->controls());
    EXPECT_FALSE(app->encodeController()->isEncoding());
    // The half-written output goes once the tool has let go of it.
    EXPECT_TRUE(waitUntil([&] { return !QFileInfo::exists(converting->outPath()); }, 10000));
}
