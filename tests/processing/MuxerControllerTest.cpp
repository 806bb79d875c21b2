// The muxer job: temporary naming, progress text, the real muxer tool joining
// a converted file with the source's video, the iTunes move, failure and stop.
#include "ProcessingTestSupport.h"
#include "TestSupport.h"

#include "media/MDI_Movie.h"
#include "processing/MuxerController.h"

using jobtest::Recorder;
using testsupport::waitUntil;

namespace {

TEST(MuxerText, TemporaryNamesAndPhaseAndRoundedPercentFromLinesWithAColon) {
    EXPECT_EQ(MuxerController::temporaryPath("/out/old.m4v/Movie.m4v"),
              "/out/old.tmp.m4v/Movie.tmp.m4v");
    EXPECT_EQ(MuxerController::temporaryPath("/out/Movie.mp4"), "/out/Movie.mp4");

    MuxerController muxer;
    muxer.stdError("Writing: 42.7\n");
    EXPECT_EQ(muxer.statusField(), "(Writing)");
    EXPECT_DOUBLE_EQ(muxer.progressIndicator(), 42.7);
    EXPECT_EQ(muxer.timeField(), "(43%)");
    muxer.stdError("no phase here 99\n");
    muxer.stdOutput("Muxing: 80");
    EXPECT_EQ(muxer.statusField(), "(Writing)");
    muxer.stdError("Optimizing:");
    EXPECT_EQ(muxer.statusField(), "(Optimizing)");
}

class MuxerJob : public jobtest::JobTest {
protected:
    void SetUp() override {
        JobTest::SetUp();
        if (const std::string missing = jobtest::missingTool(); !missing.empty())
            GTEST_SKIP() << missing << " is not installed";
        m_source = jobtest::sourceMovie();
        m_out = path("Movie(HD).m4v");
        ASSERT_TRUE(QFile::copy(jobtest::standbyConversion(), m_out));
        m_movie = std::make_shared<MDI_Movie>();
        m_movie->setInPath(m_source);
        m_movie->setOutPath(m_out);
        auto title = std::make_unique<Title>();
        title->setID(1);
        title->setIsStreaming(true);
        title->setStream(m_source);
        title->setSize("320x240");
        title->setCodec("h264");
        m_movie->AddTitle(std::move(title));
        m_muxer.setInformationController(nullptr, &m_recorder);
    }

    bool waitForReport() {
        return waitUntil([&] { return m_recorder.muxCompletes + m_recorder.muxErrors > 0; }, 60000);
    }
    QString temporary() const { return path("Movie(HD).tmp.m4v"); }

    QString m_source;
    QString m_out;
    std::shared_ptr<MDI_Movie> m_movie;
    Recorder m_recorder;
    MuxerController m_muxer;
};

TEST_F(MuxerJob, JoinsSourceVideoAndMovesTheResultIntoITunes) {
    const QString addFolder = makeITunesFolder();
    m_movie->setCreateHDSD(true);
    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    EXPECT_EQ(m_movie->status(), 13);
    EXPECT_EQ(m_muxer.statusField(), "(Muxing)");
    // The converted file waits under the temporary name while the tool reads it.
    EXPECT_FALSE(QFileInfo::exists(m_out));
    EXPECT_TRUE(QFileInfo::exists(temporary()));

    ASSERT_TRUE(waitForReport());
    EXPECT_EQ(m_recorder.muxCompletes, 1);
    EXPECT_EQ(m_movie->status(), 16);
    EXPECT_FALSE(QFileInfo::exists(temporary()));
    EXPECT_FALSE(QFileInfo::exists(m_out));
    // The HD file of an HD and SD movie is made; the SD one is still to come.
    EXPECT_TRUE(m_movie->createdHD());
    EXPECT_FALSE(m_movie->createdSD());

    // The source's own picture, with the converted audio.
    const QString moved = addFolder + "/Movie(HD).m4v";
    EXPECT_EQ(jobtest::probe(moved, "v", "width,nb_read_frames"), "320,75");
    EXPECT_EQ(jobtest::probe(moved, "a", "codec_type"), "audio");
}

TEST_F(MuxerJob, ToolFailureIsReportedAndTemporaryFileRemoved) {
    m_movie->getMainTitle()->setStream(path("gone.mkv"));

    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    ASSERT_TRUE(waitForReport());
    EXPECT_EQ(m_recorder.muxErrors, 1);
    EXPECT_FALSE(QFileInfo::exists(temporary()));
}

TEST_F(MuxerJob, PauseHoldsTheToolAndStopWhilePausedEndsItWithoutAReport) {
    ASSERT_TRUE(m_muxer.muxMovie(m_movie));
    m_muxer.suspendProcess();
    EXPECT_EQ(m_muxer.statusField(), "(Paused)");
    waitUntil([] { return false; }, 1500);
    EXPECT_EQ(m_recorder.muxCompletes + m_recorder.muxErrors, 0) << "the tool ran while paused";
    m_muxer.stopMuxing();
    // A paused tool must still see the stop.
    EXPECT_TRUE(waitUntil([&] { return !QFileInfo::exists(temporary()); }, 15000));
    waitUntil([] { return false; }, 300);
    EXPECT_EQ(m_recorder.muxCompletes + m_recorder.muxErrors, 0);
    EXPECT_FALSE(m_muxer.progressViewVisible());
}

} // namespace
