// The encoder job: progress text, the completeness judgement and its
// warnings, HD and SD passes, tagging, the hand-over to the muxer job, the
// iTunes move, the next ready movie, and pause, resume and stop — with the
// real encoder tool on generated samples, and with a scripted stand-in where
// the tool's report has to be exact.
#include "ProcessingTestSupport.h"
#include "SmallDisk.h"
#include "TestSupport.h"

#include "core/Startup.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "metadata/MDB_Basicdata.h"
#include "processing/EncoderController.h"

#include <QStandardPaths>

using jobtest::JobTest;
using jobtest::Recorder;
using testsupport::waitUntil;

namespace {

const QString kEncoderFile = "/Tarnwick_Pro_Encoder";

// The name a file shows: its title tag, else its file name.
QString titleTag(const QString& path) {
    const auto data = MDB_Basicdata::readBasicDataFromFile(QUrl::fromLocalFile(path));
    return data ? data->name : QString();
}

class EncoderJob : public JobTest {
protected:
    void SetUp() override {
        m_libexec = qEnvironmentVariable("TARNWICK_LIBEXEC");
        JobTest::SetUp();
        if (const std::string missing = jobtest::missingTool(); !missing.empty())
            GTEST_SKIP() << missing << " is not installed";
        // Shipped presets and defaults.
        QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/Oswenna")
            .removeRecursively();
        QString error;
        ASSERT_TRUE(Startup::registerDefaults(&error)) << error.toStdString();
        m_source = jobtest::sourceMovie();
        EncodeList::releaseInstance();
        EncodeList::setInstance();
        m_encoder.setStatusDelegate(&m_recorder);
        m_encoder.setEncoderDelegate(&m_recorder);
    }
    void TearDown() override {
        m_encoder.stopEncoding();
        // Let a stopped tool end before its folder goes.
        waitUntil([] { return false; }, 200);
        EncodeList::releaseInstance();
        qputenv("TARNWICK_LIBEXEC", m_libexec.toLocal8Bit());
        JobTest::TearDown();
    }

    // A movie as the scan session leaves it: the tool's report of the sample
    // read into the item, ready for conversion.
    std::shared_ptr<MDI_Movie> scannedMovie(const QString& outName) {
        const jobtest::Run scan =
            jobtest::run(m_libexec + kEncoderFile, {"-i", m_source, "-t", "0", "--scan"});
        auto movie = std::make_shared<MDI_Movie>();
        movie->setInPath(m_source);
        movie->setName("Test Pattern");
        EXPECT_TRUE(MDI_Utility::decodeScanString(QString::fromLatin1(scan.err), *movie));
        movie->autoFindMainTitle();
        movie->setOutPath(path(outName));
        movie->setPrimaryDevice("SD 480p");
        movie->setSecondaryDevice("SD 480p");
        movie->setTag("Test Pattern", "Name");
        movie->setStatus(8);
        EncodeList::instance()->append(movie);
        return movie;
    }

    // Puts a scripted stand-in for the encoder tool in a folder of its own.
    // The script knows the output path as $out; it logs its arguments.
    void useScriptedEncoder(const QString& body) {
        const QString dir = path("libexec");
        QDir().mkpath(dir);
        QFile f(dir + kEncoderFile);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(QStringLiteral("#!/bin/sh\nout=\"\"; prev=\"\"\nfor a in \"$@\"; do [ \"$prev\" = "
                               "\"--output\" ] && out=\"$a\"; prev=\"$a\"; done\n"
                               "printf '%s\\n' \"$*\" >> '%1'\n%2\n")
                    .arg(argsLog(), body)
                    .toUtf8());
        f.close();
        f.setPermissions(f.permissions() | QFileDevice::ExeOwner);
        // The muxer job finds its tool in the same folder.
        QFile::link(m_libexec + "/Tarnwick_Pro_Muxer", dir + "/Tarnwick_Pro_Muxer");
        qputenv("TARNWICK_LIBEXEC", dir.toLocal8Bit());
    }
    QString argsLog() const { return path("encoder-args.log"); }
    // A script that leaves a real MP4 as its output and reports these frames.
    QString reportingFrames(qint64 got, qint64 expected, int exitCode = 0) const {
        return QStringLiteral("cp '%1' \"$out\"\n"
                              "printf '\\rEncoding: task 1 of 1, 100.00 %%'\n"
                              "echo '[00:00:01] sync: got %2 frames, %3 expected' >&2\n"
                              "exit %4")
            .arg(m_source, QString::number(got), QString::number(expected),
                 QString::number(exitCode));
    }

    bool waitForRunEnd(int timeoutMs = 120000) {
        return waitUntil([&] { return m_recorder.encodeCompletes > 0; }, timeoutMs);
    }

    QString m_source;
    QString m_libexec;
    Recorder m_recorder;
    EncoderController m_encoder;
};

TEST(EncoderProgress, PercentAndRemainingTimeAndOtherOutputIgnored) {
    EncoderController encoder;
    encoder.stdOutput(QStringLiteral(
        "\rEncoding: task 1 of 1, 45.23 % (31.02 fps, avg 30.11 fps, ETA 00h12m34s)"));
    EXPECT_DOUBLE_EQ(encoder.progressIndicator(), 45.23);
    EXPECT_EQ(encoder.timeField(), "(00h 12m 34s remaining)");
    // Early lines carry no rate and no time; other output is no progress.
    encoder.stdOutput("\rEncoding: task 2 of 2, 0.50 %");
    encoder.stdOutput(
        "libdvdread: Encrypted DVD support unavailable.\n\rEncoding: task 1 of 1, 80.00 %");
    EXPECT_DOUBLE_EQ(encoder.progressIndicator(), 0.5);
    EXPECT_EQ(encoder.timeField(), "(00h 12m 34s remaining)");
}

TEST_F(EncoderJob, JudgesFramesAndExitStatus) {
    const QString kept = "The unfinished file was kept as \"Movie (incomplete).m4v\".";
    const QString tagged = "% of the movie has been converted. There may be an problem with the "
                           "source media. The movie has been tagged, but no further processing "
                           "was performed. The movie file has been placed in the output folder. " +
                           kept;
    const struct {
        qint64 got, expected;
        int exitCode;
        bool passThru;
        qint32 status;
        QString says; // the end of the warnings
        bool outputKept;
    } cases[] = {
        {9950, 10000, 0, false, 19, "", true},
        {9949, 10000, 0, false, 0, "only 99" + tagged, true},
        {60, 100, 0, true, 0, "The movie was unable to be fully processed and was removed.", false},
        {75, 75, 0, true, 19, "", true},
        {0, 0, 0, false, 0, "only 0" + tagged, true},
        {75, 75, 3, false, 0, "The encoder ended with exit status 3. " + kept, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.got << " of " << c.expected << " exit " << c.exitCode);
        EncodeList::instance()->clear();
        QFile::remove(path("Movie (incomplete).m4v"));
        m_recorder = Recorder();
        useScriptedEncoder(reportingFrames(c.got, c.expected, c.exitCode));
        auto movie = scannedMovie("Movie.m4v");
        movie->setPassthruVideo(c.passThru);
        ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
        ASSERT_TRUE(waitForRunEnd());
        EXPECT_EQ(movie->status(), c.status);
        EXPECT_EQ(movie->frameTotal(), c.expected);
        EXPECT_TRUE(c.says.isEmpty() ? movie->warnings().isEmpty()
                                     : movie->warnings().endsWith(c.says));
        EXPECT_EQ(QFileInfo::exists(movie->outPath()), c.outputKept);
        EXPECT_TRUE(c.status == 19 || !QFileInfo::exists(path("Movie.m4v"))) << "unfinished";
        EXPECT_TRUE(!c.outputKept || c.exitCode || titleTag(movie->outPath()) == "Test Pattern");
        QFile::remove(path("Movie.m4v"));
    }
}

TEST_F(EncoderJob, HDAndSDMovieMakesTwoFilesWithTheirOwnPresetsMovedIntoITunes) {
    const QString addFolder = makeITunesFolder();
    useScriptedEncoder(reportingFrames(75, 75));
    auto movie = scannedMovie("Movie.m4v");
    movie->setCreateHDSD(true);
    movie->setPrimaryDevice("HD 720p");
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    EXPECT_EQ(movie->outPath(), path("Movie(HD).m4v"));
    EXPECT_EQ(m_encoder.statusField(), "(Transcoding HD)");
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->status(), 19) << movie->warnings().toStdString();
    EXPECT_TRUE(movie->createdHD() && movie->createdSD());
    // The run is reported as ended once, after the second pass.
    EXPECT_EQ(m_recorder.encodeCompletes, 1);
    for (const char* name : {"Movie(HD).m4v", "Movie.m4v"}) {
        EXPECT_FALSE(QFileInfo::exists(path(QLatin1String(name))));
        EXPECT_EQ(titleTag(addFolder + QLatin1Char('/') + QLatin1String(name)), "Test Pattern");
    }
    QFile log(argsLog());
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QStringList runs = QString::fromUtf8(log.readAll()).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(runs.size(), 2);
    EXPECT_TRUE(runs[0].contains("--maxWidth 1280"));
    EXPECT_TRUE(runs[1].contains("--maxWidth 854"));
}

// A complete encode whose tags cannot be written is failed with the reason,
// never done with only the encoder's own tags.
TEST_F(EncoderJob, OutputThatTakesNoTagsFailsWithTheReason) {
    auto movie = scannedMovie("Junk.m4v");
    useScriptedEncoder(QStringLiteral("echo junk > \"$out\"\n"
                                      "echo '[00:00:01] sync: got 75 frames, 75 expected' >&2"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->status(), 0);
    EXPECT_EQ(movie->warnings(), movie->tagWriteError());
}

// --- stop, failure and the user's files ----------------------------------------

TEST_F(EncoderJob, PausedStoppedTwiceOrDestroyedJobLeavesNoHalfWrittenFile) {
    // A tool that has written part of the file and is still at work.
    useScriptedEncoder(QStringLiteral("printf 'partial' > \"$out\"\n"
                                      "printf '\\rEncoding: task 1 of 1, 10.00 %%'\n"
                                      "sleep 30\n"));
    auto movie = scannedMovie("Movie.m4v");
    auto next = scannedMovie("Next.m4v");
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitUntil([&] { return m_encoder.progressIndicator() > 0; }, 10000));
    m_encoder.suspendProcess();
    EXPECT_EQ(m_encoder.statusField(), "(Paused)");
    m_encoder.resumeProcess();
    EXPECT_EQ(m_encoder.statusField(), "(Transcoding)");
    m_encoder.suspendProcess();
    m_encoder.stopEncoding();
    EXPECT_EQ(movie->status(), 8);
    m_encoder.stopEncoding(); // the tool has not ended yet
    EXPECT_TRUE(waitForRunEnd(10000)) << "a paused tool never saw the stop";
    EXPECT_TRUE(waitUntil([&] { return !QFileInfo::exists(movie->outPath()); }, 5000));
    EXPECT_EQ(movie->status(), 8);
    EXPECT_EQ(next->status(), 8) << "another movie was started after the stop";

    // A job that goes away mid-pass takes the pass's file with it.
    {
        EncoderController job;
        ASSERT_TRUE(job.startMovieEncoding(next));
        ASSERT_TRUE(waitUntil([&] { return job.progressIndicator() > 0; }, 10000));
        ASSERT_TRUE(QFileInfo::exists(next->outPath()));
    }
    EXPECT_FALSE(QFileInfo::exists(next->outPath()));
}

TEST_F(EncoderJob, KilledEncoderLeavesNoUnplayableFileAndSaysWhy) {
    useScriptedEncoder(QStringLiteral("head -c 4096 '%1' > \"$out\"\nkill -9 $$\n").arg(m_source));
    auto movie = scannedMovie("Movie.m4v");
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->status(), 0);
    EXPECT_TRUE(movie->warnings().contains("ended by signal 9"));
    EXPECT_TRUE(
        movie->warnings().endsWith("The unfinished file could not be played and was removed."));
    EXPECT_EQ(QDir(path(QString())).entryList({"Movie*"}), QStringList());
}

TEST_F(EncoderJob, FullOrReadOnlyDestinationNamesTheCause) {
    testsupport::SmallDisk full(path("full"));
    SKIP_WITHOUT_SMALL_DISK(full);
    full.fill();
    testsupport::SmallDisk readOnly(path("ro"), "64k", true);
    ASSERT_TRUE(readOnly.mounted());
    useScriptedEncoder(QStringLiteral("cp '%1' \"$out\"").arg(m_source));
    auto first = scannedMovie("full/Movie.m4v");
    auto second = scannedMovie("ro/Movie.m4v");
    ASSERT_TRUE(m_encoder.startMovieEncoding(first));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_TRUE(first->warnings().contains("No space is left"));
    EXPECT_TRUE(second->warnings().contains("read-only file system"));
    EXPECT_EQ(first->status() + second->status(), 0);
    EXPECT_EQ(QDir(path("full")).entryList(QDir::Files), QStringList());
}

TEST_F(EncoderJob, TakenOutputNamesGetNumbers) {
    useScriptedEncoder(reportingFrames(75, 75));
    for (const char* earlier : {"Movie.m4v", "Pair.m4v"}) {
        QFile file(path(earlier));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("an earlier run's movie") == 22);
    }
    auto first = scannedMovie("Movie.m4v");
    auto second = scannedMovie("Movie.m4v");
    auto pair = scannedMovie("Pair.m4v");
    pair->setCreateHDSD(true);
    ASSERT_TRUE(m_encoder.startMovieEncoding(first));
    ASSERT_TRUE(waitForRunEnd());
    for (const auto& movie : {first, second, pair})
        EXPECT_EQ(movie->status(), 19) << movie->warnings().toStdString();
    EXPECT_EQ(first->outPath(), path("Movie (2).m4v"));
    EXPECT_EQ(second->outPath(), path("Movie (3).m4v"));
    EXPECT_EQ(pair->outPath(), path("Pair (2).m4v"));
    EXPECT_TRUE(QFileInfo::exists(path("Pair (2)(HD).m4v")));
    for (const char* earlier : {"Movie.m4v", "Pair.m4v"})
        EXPECT_EQ(QFileInfo(path(earlier)).size(), 22) << "an earlier run's file was touched";
}

} // namespace
