// The muxer job: temporary naming, progress text, the real muxer tool joining
// a converted file with the source's video, the iTunes move, failure and stop.
#include "ProcessingTestSupport.h"
#include "TestSupport.h"

#include "media/MDI_Movie.h"
#include "processing/MuxerController.h"

using jobtest::JobTest;
using jobtest::Recorder;
using testsupport::waitUntil;

namespace {

TEST(MuxerNaming, EveryM4vInThePathBecomesTmpM4v) {
    EXPECT_EQ(MuxerController::temporaryPath(QStringLiteral("/out/Movie(HD).m4v")),
              QStringLiteral("/out/Movie(HD).tmp.m4v"));
    EXPECT_EQ(MuxerController::temporaryPath(QStringLiteral("/out/old.m4v/Movie.m4v")),
              QStringLiteral("/out/old.tmp.m4v/Movie.tmp.m4v"));
    EXPECT_EQ(MuxerController::temporaryPath(QStringLiteral("/out/Movie.mp4")),
              QStringLiteral("/out/Movie.mp4"));
}

TEST(MuxerProgress, PhaseAndRoundedPercentFromLinesWithAColon) {
    MuxerController muxer;
    muxer.stdError(QStringLiteral("Writing: 42.7\n"));
    EXPECT_EQ(muxer.statusField(), QStringLiteral("(Writing)"));
    EXPECT_DOUBLE_EQ(muxer.progressIndicator(), 42.7);
    EXPECT_EQ(muxer.timeField(), QStringLiteral("(43%)"));

    int changes = 0;
    QObject::connect(&muxer, &JobDisplay::statusFieldChanged, [&] { ++changes; });
    QObject::connect(&muxer, &JobDisplay::progressIndicatorChanged, [&] { ++changes; });
    QObject::connect(&muxer, &JobDisplay::timeFieldChanged, [&] { ++changes; });
    muxer.stdError(QStringLiteral("no phase here 99\n"));
    muxer.stdError(QStringLiteral("   \n"));
    muxer.stdOutput(QStringLiteral("Muxing: 80"));
    EXPECT_EQ(changes, 0);

    muxer.stdError(QStringLiteral("  Muxing: 7\n"));
    EXPECT_EQ(muxer.statusField(), QStringLiteral("(Muxing)"));
    EXPECT_EQ(muxer.timeField(), QStringLiteral("(7%)"));
    muxer.stdError(QStringLiteral("Optimizing:"));
    EXPECT_EQ(muxer.statusField(), QStringLiteral("(Optimizing)"));
    EXPECT_DOUBLE_EQ(muxer.progressIndicator(), 0.0);
    EXPECT_EQ(muxer.timeField(), QStringLiteral("(Starting...)"));
}

class MuxerJob : public JobTest {
protected:
    void SetUp() override {
        JobTest::SetUp();
        QString missing;
        if (!jobtest::toolsPresent(&missing))
            GTEST_SKIP() << missing.toStdString() << " is not installed";
        m_source = jobtest::sourceMovie();
        ASSERT_FALSE(m_source.isEmpty());
        const QString standby = jobtest::standbyConversion();
        ASSERT_FALSE(standby.isEmpty());
        m_out = path(QStringLiteral("Movie(HD).m4v"));
        ASSERT_TRUE(QFile::copy(standby, m_out));

        m_movie = std::make_shared<MDI_Movie>();
        m_movie->setName(QStringLiteral("Test Pattern"));
        m_movie->setInPath(m_source);
        m_movie->setOutPath(m_out);
        auto title = std::make_unique<Title>();
        title->setID(1);
        title->setIsStreaming(true);
        title->setStream(m_source);
        title->setSize(QStringLiteral("320x240"));
        title->setCodec(QStringLiteral("h264"));
        m_movie->AddTitle(std::move(title));

        m_muxer.setInformationController(nullptr, &m_recorder);
    }

    bool waitForReport() {
        return waitUntil([&] { return m_recorder.muxCompletes + m_recorder.muxErrors > 0; }, 60000);
    }

    QString m_source;
    QString m_out;
    std::shared_ptr<MDI_Movie> m_movie;
    Recorder m_recorder;
    MuxerController m_muxer;
};

TEST_F(MuxerJob, JoinsSourceVideoAndRemovesTemporaryFile) {
    QStringList statuses;
    QStringList times;
    QObject::connect(&m_muxer, &JobDisplay::statusFieldChanged,
                     [&](const QString& text) { statuses << text; });
    QObject::connect(&m_muxer, &JobDisplay::timeFieldChanged,
                     [&](const QString& text) { times << text; });

    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    EXPECT_EQ(m_movie->status(), 13);
    EXPECT_TRUE(m_muxer.isMuxing());
    EXPECT_TRUE(m_muxer.progressViewVisible());
    EXPECT_EQ(m_muxer.titleField(), QStringLiteral("Test Pattern"));
    // The converted file waits under the temporary name while the tool reads it.
    EXPECT_FALSE(QFileInfo::exists(m_out));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("Movie(HD).tmp.m4v"))));

    ASSERT_TRUE(waitForReport());
    EXPECT_EQ(m_recorder.muxCompletes, 1);
    EXPECT_EQ(m_recorder.muxErrors, 0);
    EXPECT_EQ(m_movie->status(), 14);
    EXPECT_FALSE(m_muxer.isMuxing());
    EXPECT_FALSE(m_muxer.progressViewVisible());
    EXPECT_EQ(m_muxer.curMovie(), nullptr);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("Movie(HD).tmp.m4v"))));

    EXPECT_EQ(statuses.value(0), QStringLiteral("(Muxing)"));
    EXPECT_TRUE(times.contains(QStringLiteral("(Muxer Started...)")));
    EXPECT_EQ(times.last(), QStringLiteral("(Muxing Complete)"));

    // The source's own picture, with the converted audio.
    const QJsonObject video = jobtest::firstStream(m_out, QStringLiteral("video"));
    EXPECT_EQ(video.value(QStringLiteral("codec_name")).toString(), QStringLiteral("h264"));
    EXPECT_EQ(video.value(QStringLiteral("width")).toInt(), 320);
    EXPECT_EQ(video.value(QStringLiteral("nb_read_frames")).toString(), QStringLiteral("75"));
    EXPECT_FALSE(jobtest::firstStream(m_out, QStringLiteral("audio")).isEmpty());
}

TEST_F(MuxerJob, AddITunesMovesResultIntoTheAddFolder) {
    const QString addFolder = makeITunesFolder();
    m_movie->setCreateHDSD(true);

    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    ASSERT_TRUE(waitForReport());
    EXPECT_EQ(m_recorder.muxCompletes, 1);
    EXPECT_EQ(m_movie->status(), 16);
    EXPECT_FALSE(QFileInfo::exists(m_out));
    EXPECT_EQ(
        jobtest::firstStream(addFolder + QStringLiteral("/Movie(HD).m4v"), QStringLiteral("video"))
            .value(QStringLiteral("width"))
            .toInt(),
        320);
    // The HD file of an HD and SD movie is made; the SD one is still to come.
    EXPECT_TRUE(m_movie->createdHD());
    EXPECT_FALSE(m_movie->createdSD());
}

TEST_F(MuxerJob, WithoutITunesFolderTheFileStaysInTheOutputFolder) {
    makeITunesFolder();
    QDir(path(QStringLiteral("iTunes Media/Automatically Add to iTunes"))).removeRecursively();
    m_movie->setCreateHDSD(true);
    m_movie->setCreatedHD(true);

    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    ASSERT_TRUE(waitForReport());
    EXPECT_EQ(m_movie->status(), 14);
    EXPECT_TRUE(QFileInfo::exists(m_out));
    EXPECT_TRUE(m_movie->createdSD());
}

TEST_F(MuxerJob, ToolFailureIsReportedAndTemporaryFileRemoved) {
    // A video source that is no media file.
    const QString junk = path(QStringLiteral("junk.mkv"));
    QFile f(junk);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("not a movie at all");
    f.close();
    m_movie->getMainTitle()->setStream(junk);

    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    ASSERT_TRUE(waitForReport());
    EXPECT_EQ(m_recorder.muxErrors, 1);
    EXPECT_EQ(m_recorder.muxCompletes, 0);
    EXPECT_EQ(m_movie->status(), 13);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("Movie(HD).tmp.m4v"))));
    EXPECT_FALSE(m_muxer.progressViewVisible());
}

TEST_F(MuxerJob, PauseHoldsTheToolUntilResumed) {
    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    m_muxer.suspendProcess();
    EXPECT_EQ(m_muxer.statusField(), QStringLiteral("(Paused)"));
    waitUntil([] { return false; }, 1500);
    EXPECT_EQ(m_recorder.muxCompletes + m_recorder.muxErrors, 0) << "the tool ran while paused";
    m_muxer.resumeProcess();
    EXPECT_EQ(m_muxer.statusField(), QStringLiteral("(Muxing)"));
    ASSERT_TRUE(waitForReport());
    EXPECT_EQ(m_recorder.muxCompletes, 1);
}

TEST_F(MuxerJob, StopWhilePausedEndsTheToolAndSendsNoReport) {
    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    m_muxer.suspendProcess();
    m_muxer.stopMuxing();
    EXPECT_FALSE(m_muxer.isMuxing());
    EXPECT_TRUE(waitUntil(
        [&] { return !QFileInfo::exists(path(QStringLiteral("Movie(HD).tmp.m4v"))); }, 15000))
        << "a paused tool never saw the stop";
    waitUntil([] { return false; }, 300);
    EXPECT_EQ(m_recorder.muxCompletes + m_recorder.muxErrors, 0);
    EXPECT_EQ(m_muxer.curMovie(), m_movie);
    EXPECT_FALSE(m_muxer.progressViewVisible());
}

} // namespace
