// The encoder job: progress text, the completeness judgement and its
// warnings, HD and SD passes, tagging, the hand-over to the muxer job, the
// iTunes move, the next ready movie, and pause, resume and stop — with the
// real encoder tool on generated samples, and with a scripted stand-in where
// the tool's report has to be exact.
#include "ImageTestSupport.h"
#include "ProcessingTestSupport.h"
#include "SmallDisk.h"
#include "TestSupport.h"

#include "core/Startup.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "metadata/MDB_Metadata.h"
#include "processing/EncoderController.h"
#include "processing/MuxerController.h"

#include <QStandardPaths>

using jobtest::JobTest;
using jobtest::Recorder;
using testsupport::waitUntil;

namespace {

const QString kEncoderFile = QStringLiteral("/Tarnwick_Pro_Encoder");

// The tags of a file as ffprobe reads them.
QJsonObject formatTags(const QString& path) {
    const jobtest::Run r = jobtest::run(QStringLiteral("ffprobe"),
                                        {"-v", "error", "-show_format", "-of", "json", path});
    return QJsonDocument::fromJson(r.out)
        .object()
        .value(QStringLiteral("format"))
        .toObject()
        .value(QStringLiteral("tags"))
        .toObject();
}

class EncoderJob : public JobTest {
protected:
    void SetUp() override {
        m_libexec = qEnvironmentVariable("TARNWICK_LIBEXEC");
        JobTest::SetUp();
        QString missing;
        if (!jobtest::toolsPresent(&missing))
            GTEST_SKIP() << missing.toStdString() << " is not installed";
        // Shipped presets and defaults.
        QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
             QStringLiteral("/Oswenna"))
            .removeRecursively();
        QString error;
        ASSERT_TRUE(Startup::registerDefaults(&error)) << error.toStdString();
        m_source = jobtest::sourceMovie();
        ASSERT_FALSE(m_source.isEmpty());

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
    std::shared_ptr<MDI_Movie> scannedMovie(const QString& outName,
                                            const QString& source = QString()) {
        const QString input = source.isEmpty() ? m_source : source;
        const jobtest::Run scan =
            jobtest::run(m_libexec + kEncoderFile, {"-i", input, "-t", "0", "--scan"});
        auto movie = std::make_shared<MDI_Movie>();
        movie->setInPath(input);
        movie->setName(QStringLiteral("Test Pattern"));
        EXPECT_TRUE(MDI_Utility::decodeScanString(QString::fromLatin1(scan.err), *movie))
            << scan.err.right(1500).toStdString();
        movie->autoFindMainTitle();
        movie->setOutPath(path(outName));
        movie->setPrimaryDevice(QStringLiteral("SD 480p"));
        movie->setSecondaryDevice(QStringLiteral("SD 480p"));
        movie->setTag(QStringLiteral("Test Pattern"), QStringLiteral("Name"));
        movie->setStatus(8);
        EncodeList::instance()->append(movie);
        return movie;
    }

    // Puts a scripted stand-in for the encoder tool in a folder of its own.
    // The script knows the output path as $out; it logs its arguments.
    void useScriptedEncoder(const QString& body) {
        const QString dir = path(QStringLiteral("libexec"));
        QDir().mkpath(dir);
        const QString script = dir + kEncoderFile;
        QFile f(script);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write("#!/bin/sh\n"
                "out=\"\"; prev=\"\"\n"
                "for a in \"$@\"; do [ \"$prev\" = \"--output\" ] && out=\"$a\"; prev=\"$a\"; "
                "done\n");
        f.write(QStringLiteral("printf '%s\\n' \"$*\" >> '%1'\n").arg(argsLog()).toUtf8());
        f.write(body.toUtf8());
        f.write("\n");
        f.close();
        f.setPermissions(f.permissions() | QFileDevice::ExeOwner);
        // The muxer job finds its tool in the same folder.
        QFile::link(m_libexec + QStringLiteral("/Tarnwick_Pro_Muxer"),
                    dir + QStringLiteral("/Tarnwick_Pro_Muxer"));
        qputenv("TARNWICK_LIBEXEC", dir.toLocal8Bit());
    }
    QString argsLog() const { return path(QStringLiteral("encoder-args.log")); }
    QStringList loggedRuns() const {
        QFile f(argsLog());
        if (!f.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    // A script that leaves a real MP4 as its output and reports these frames.
    QString reportingFrames(qint64 got, qint64 expected, int exitCode = 0) const {
        return QStringLiteral("cp '%1' \"$out\"\n"
                              "printf '\\rEncoding: task 1 of 1, 100.00 %%'\n"
                              "echo '[00:00:01] sync: got %2 frames, %3 expected' >&2\n"
                              "exit %4")
            .arg(m_source)
            .arg(got)
            .arg(expected)
            .arg(exitCode);
    }

    bool waitForRunEnd(int timeoutMs = 120000) {
        return waitUntil([&] { return m_recorder.encodeCompletes > 0; }, timeoutMs);
    }

    QString m_source;
    QString m_libexec;
    Recorder m_recorder;
    EncoderController m_encoder;
};

// --- progress text ---------------------------------------------------------

TEST(EncoderProgress, PercentAndRemainingTimeAndOtherOutputIgnored) {
    EncoderController encoder;
    encoder.stdOutput(QStringLiteral(
        "\rEncoding: task 1 of 1, 45.23 % (31.02 fps, avg 30.11 fps, ETA 00h12m34s)"));
    EXPECT_DOUBLE_EQ(encoder.progressIndicator(), 45.23);
    EXPECT_EQ(encoder.timeField(), QStringLiteral("(00h 12m 34s remaining)"));

    // Early lines carry no rate and no time: only the percentage changes.
    encoder.stdOutput(QStringLiteral("\rEncoding: task 2 of 2, 0.50 %"));
    EXPECT_DOUBLE_EQ(encoder.progressIndicator(), 0.5);
    EXPECT_EQ(encoder.timeField(), QStringLiteral("(00h 12m 34s remaining)"));
    for (const char* chunk : {"Muxing: this may take awhile...",
                              "libdvdread: Encrypted DVD support unavailable.\n"
                              "\rEncoding: task 1 of 1, 80.00 %",
                              "", "\n\n"})
        encoder.stdOutput(QString::fromLatin1(chunk));
    EXPECT_DOUBLE_EQ(encoder.progressIndicator(), 0.5);
}

// --- the judgement, with exact frame reports ----------------------------------

struct Verdict {
    const char* name;
    qint64 got;
    qint64 expected;
    int exitCode;
    bool passThru;
    qint32 status;
    const char* warnings; // nullptr: none
    bool outputKept;
};

void PrintTo(const Verdict& v, std::ostream* os) {
    *os << v.name;
}

class EncoderVerdict : public EncoderJob, public ::testing::WithParamInterface<Verdict> {};

TEST_P(EncoderVerdict, JudgesFramesAndExitStatus) {
    const Verdict& v = GetParam();
    useScriptedEncoder(reportingFrames(v.got, v.expected, v.exitCode));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    if (v.passThru) {
        movie->setPassthruVideo(true);
        ASSERT_TRUE(movie->canPassthru());
    }
    double highest = 0;
    QObject::connect(&m_encoder, &JobDisplay::progressIndicatorChanged,
                     [&](double p) { highest = std::max(highest, p); });
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_DOUBLE_EQ(highest, 100.0);
    // Only an ended pass resets the bar; a failed tool leaves it where it was.
    EXPECT_DOUBLE_EQ(m_encoder.progressIndicator(), v.exitCode == 0 ? 0.0 : 100.0);
    EXPECT_EQ(movie->status(), v.status);
    EXPECT_EQ(movie->frameCount(), v.got);
    EXPECT_EQ(movie->frameTotal(), v.expected);
    EXPECT_EQ(movie->warnings().toStdString(), v.warnings ? std::string(v.warnings) : "");
    EXPECT_EQ(QFileInfo::exists(movie->outPath()), v.outputKept);
    if (v.status != 19)
        EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("Movie.m4v"))))
            << "an unfinished file under the final name";
    if (v.outputKept && v.exitCode == 0) {
        EXPECT_EQ(formatTags(movie->outPath()).value(QStringLiteral("title")).toString(),
                  QStringLiteral("Test Pattern"))
            << "the file was not tagged";
    }
    EXPECT_FALSE(m_encoder.isEncoding());
    EXPECT_FALSE(m_encoder.progressViewVisible());
    EXPECT_EQ(m_encoder.curMovie(), nullptr);
    EXPECT_EQ(m_recorder.encodeCompletes, 1);
    EXPECT_GE(m_recorder.statusUpdates, 2);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, EncoderVerdict,
    ::testing::Values(
        Verdict{"JustAboveTheMark", 9950, 10000, 0, false, 19, nullptr, true},
        Verdict{"JustBelowTheMark", 9949, 10000, 0, false, 0,
                "It appears that only 99% of the movie has been converted. There may be an "
                "problem with the source media. The movie has been tagged, but no further "
                "processing was performed. The movie file has been placed in the output folder. "
                "The unfinished file was kept as \"Movie (incomplete).m4v\".",
                true},
        Verdict{"PartialPassThroughIsRemoved", 60, 100, 0, true, 0,
                "It appears that only 60% of the movie has been converted. There may be an "
                "problem with the source media. The movie was unable to be fully processed and "
                "was removed.",
                false},
        Verdict{"CompletePassThroughIsMuxed", 75, 75, 0, true, 19, nullptr, true},
        Verdict{"NoFramesExpected", 0, 0, 0, false, 0,
                "It appears that only 0% of the movie has been converted. There may be an "
                "problem with the source media. The movie has been tagged, but no further "
                "processing was performed. The movie file has been placed in the output folder. "
                "The unfinished file was kept as \"Movie (incomplete).m4v\".",
                true},
        Verdict{"ToolFailed", 75, 75, 3, false, 0,
                "An error has occurred during the conversion. The movie is not able to be "
                "processed. The movie file has been placed in the output folder. The encoder "
                "ended with exit status 3. The unfinished file was kept as \"Movie "
                "(incomplete).m4v\".",
                true}),
    [](const ::testing::TestParamInfo<Verdict>& info) { return std::string(info.param.name); });

TEST_F(EncoderJob, FrameReportAtTheVeryStartOfAChunkIsNotRead) {
    useScriptedEncoder(QStringLiteral("cp '%1' \"$out\"\n"
                                      "printf 'sync: got 75 frames, 75 expected' >&2\n")
                           .arg(m_source));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->frameTotal(), 0);
    EXPECT_EQ(movie->status(), 0);
    EXPECT_TRUE(movie->warnings().startsWith(QStringLiteral("It appears that only 0%")));
}

TEST_F(EncoderJob, ForeignSearchShowsScanningUntilTheScanPartIsDone) {
    useScriptedEncoder(reportingFrames(75, 75));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    movie->setSearchForeign(true);
    QStringList times;
    QObject::connect(&m_encoder, &JobDisplay::timeFieldChanged,
                     [&](const QString& text) { times << text; });
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    EXPECT_TRUE(m_encoder.isScanning());
    EXPECT_EQ(m_encoder.timeField(), QStringLiteral("(Scanning...)"));
    ASSERT_TRUE(waitForRunEnd());
    // The scan part reaches 100 % first; the estimate follows.
    const qsizetype scanning = times.indexOf(QStringLiteral("(Scanning...)"));
    ASSERT_GE(scanning, 0);
    EXPECT_GT(times.indexOf(QStringLiteral("(Estimating...)"), scanning), scanning);
}

// An information panel that records what it was asked to redraw.
struct Panel : InformationPanel {
    const MDI_Media* shown = nullptr;
    QList<MDI_Media*> refreshed;
    const MDI_Media* shownMovie() const override { return shown; }
    void refreshView(MDI_Media* movie) override { refreshed << movie; }
};

TEST_F(EncoderJob, InformationPanelShowingTheMovieIsRefreshedLater) {
    useScriptedEncoder(reportingFrames(75, 75));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    const MDB_Image poster = imagetest::png(imagetest::solid(4, 6, Qt::red));
    movie->getMetadata()->setArtwork(poster);
    Panel panel;
    panel.shown = movie.get();
    m_encoder.setInformationController(&panel);

    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    EXPECT_EQ(m_encoder.thumbnail(), poster);
    // Not while the pass is being set up: on a later turn of the event loop.
    EXPECT_TRUE(panel.refreshed.isEmpty());
    m_encoder.stopEncoding();
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(panel.refreshed, (QList<MDI_Media*>{movie.get(), movie.get()}));

    // A panel showing another movie is left alone.
    m_recorder = Recorder();
    Panel other;
    m_encoder.setInformationController(&other);
    movie->setStatus(8);
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_TRUE(other.refreshed.isEmpty());
    m_encoder.setInformationController(nullptr);
}

// --- HD and SD ---------------------------------------------------------------

TEST_F(EncoderJob, HDAndSDMovieMakesTwoFilesWithTheirOwnPresets) {
    useScriptedEncoder(reportingFrames(75, 75));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    movie->setCreateHDSD(true);
    movie->setPrimaryDevice(QStringLiteral("HD 720p"));
    movie->setSecondaryDevice(QStringLiteral("SD 480p"));
    QStringList statusTexts;
    QObject::connect(&m_encoder, &JobDisplay::statusFieldChanged,
                     [&](const QString& text) { statusTexts << text; });

    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    EXPECT_EQ(movie->outPath(), path(QStringLiteral("Movie(HD).m4v")));
    EXPECT_EQ(m_encoder.statusField(), QStringLiteral("(Transcoding HD)"));
    ASSERT_TRUE(waitForRunEnd());

    EXPECT_EQ(movie->status(), 19);
    EXPECT_TRUE(movie->createdHD());
    EXPECT_TRUE(movie->createdSD());
    EXPECT_EQ(movie->outPath(), path(QStringLiteral("Movie.m4v")));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("Movie(HD).m4v"))));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("Movie.m4v"))));
    EXPECT_TRUE(statusTexts.contains(QStringLiteral("(Transcoding SD)")));
    // The run is reported as ended once, after the second pass.
    EXPECT_EQ(m_recorder.encodeCompletes, 1);

    const QStringList runs = loggedRuns();
    ASSERT_EQ(runs.size(), 2);
    EXPECT_TRUE(runs[0].contains(QStringLiteral("--output ") + path("Movie(HD).m4v")));
    EXPECT_TRUE(runs[0].contains(QStringLiteral("--maxWidth 1280")));
    EXPECT_TRUE(runs[1].contains(QStringLiteral("--output ") + path("Movie.m4v")));
    EXPECT_TRUE(runs[1].contains(QStringLiteral("--maxWidth 854")));
}

TEST_F(EncoderJob, HDVideoTagFollowsPictureSizeAndPreset) {
    useScriptedEncoder(reportingFrames(75, 75));
    struct Case {
        const char* size;
        const char* preset;
        bool hdsd;
        quint8 hdVideo;
        const char* field;
    };
    for (const Case& c : {Case{"1920x1080", "HD 1080p", false, 2, "HD"},
                          Case{"1280x720", "HD 720p", true, 1, "HD-SD"},
                          Case{"1920x1080", "SD 480p", false, 0, "SD"},
                          Case{"320x240", "HD 720p", false, 0, "SD"}}) {
        SCOPED_TRACE(std::string(c.size) + " " + c.preset);
        m_recorder = Recorder();
        auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
        movie->getMainTitle()->setSize(QLatin1String(c.size));
        movie->setPrimaryDevice(QLatin1String(c.preset));
        movie->setCreateHDSD(c.hdsd);
        ASSERT_TRUE(m_encoder.encodeMovie(movie));
        EXPECT_EQ(movie->outputHD(), c.hdVideo != 0);
        EXPECT_EQ(movie->metaData()->hdVideo(), c.hdVideo);
        EXPECT_EQ(m_encoder.hdsdField(), QLatin1String(c.field));
        m_encoder.stopEncoding();
        ASSERT_TRUE(waitForRunEnd());
        EncodeList::instance()->clear();
    }
}

// --- the real encoder --------------------------------------------------------

TEST_F(EncoderJob, CompleteEncodeIsTaggedAndDone) {
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    QStringList times;
    QObject::connect(&m_encoder, &JobDisplay::timeFieldChanged,
                     [&](const QString& text) { times << text; });

    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    EXPECT_EQ(movie->status(), 9);
    EXPECT_TRUE(m_encoder.isEncoding());
    EXPECT_TRUE(m_encoder.progressViewVisible());
    EXPECT_EQ(m_encoder.titleField(), QStringLiteral("Test Pattern"));
    EXPECT_EQ(m_encoder.countField(), QStringLiteral("[1 of 1]"));
    EXPECT_EQ(m_encoder.statusField(), QStringLiteral("(Transcoding)"));
    EXPECT_EQ(m_encoder.hdsdField(), QStringLiteral("SD"));
    EXPECT_EQ(m_encoder.timeField(), QStringLiteral("(Estimating...)"));
    ASSERT_TRUE(waitForRunEnd());

    EXPECT_EQ(movie->status(), 19) << movie->warnings().toStdString();
    EXPECT_EQ(movie->frameCount(), 75);
    EXPECT_EQ(movie->frameTotal(), 75);
    EXPECT_TRUE(movie->warnings().isEmpty());
    EXPECT_EQ(formatTags(movie->outPath()).value(QStringLiteral("title")).toString(),
              QStringLiteral("Test Pattern"));
    EXPECT_EQ(jobtest::firstStream(movie->outPath(), QStringLiteral("video"))
                  .value(QStringLiteral("nb_read_frames"))
                  .toString(),
              QStringLiteral("75"));
    EXPECT_EQ(times.value(0), QStringLiteral("(Starting...)"));
    EXPECT_TRUE(times.contains(QStringLiteral("(Transcoder Started...)")));
    EXPECT_TRUE(times.contains(QStringLiteral("(Transcoding Complete)")));
    EXPECT_EQ(m_recorder.encodeCompletes, 1);
    EXPECT_FALSE(m_encoder.progressViewVisible());
}

// A complete encode whose tags cannot be written is failed with the reason,
// never done with only the encoder's own tags.
TEST_F(EncoderJob, OutputThatTakesNoTagsFailsWithTheReason) {
    auto movie = scannedMovie(QStringLiteral("Junk.m4v"));
    useScriptedEncoder(QStringLiteral("echo junk > \"$out\"\n"
                                      "echo '[00:00:01] sync: got 75 frames, 75 expected' >&2"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->status(), 0);
    EXPECT_FALSE(movie->tagWriteError().isEmpty());
    EXPECT_EQ(movie->warnings(), movie->tagWriteError());
}

TEST_F(EncoderJob, FailedMovieCarriesTheWarningAndTheNextReadyOneFollows) {
    // A source that is gone by the time it is converted.
    const QString doomed = path(QStringLiteral("doomed.mp4"));
    ASSERT_TRUE(QFile::copy(m_source, doomed));
    auto first = scannedMovie(QStringLiteral("First.m4v"), doomed);
    auto done = scannedMovie(QStringLiteral("Done.m4v"));
    done->setStatus(19);
    auto second = scannedMovie(QStringLiteral("Second.m4v"));
    ASSERT_TRUE(QFile::remove(doomed));
    QStringList counts;
    QObject::connect(&m_encoder, &JobDisplay::countFieldChanged,
                     [&](const QString& text) { counts << text; });

    ASSERT_TRUE(m_encoder.startMovieEncoding(first));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(first->status(), 0);
    EXPECT_TRUE(first->warnings().startsWith(
        QStringLiteral("An error has occurred during the conversion. The movie is not able "
                       "to be processed. The movie file has been placed in the output "
                       "folder. The encoder ended with exit status ")))
        << first->warnings().toStdString();
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("First.m4v"))));
    EXPECT_EQ(second->status(), 19) << second->warnings().toStdString();
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("Second.m4v"))));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("Done.m4v"))));
    EXPECT_EQ(counts, (QStringList{"[1 of 3]", "[3 of 3]"}));
    EXPECT_EQ(m_recorder.encodeCompletes, 1);
}

TEST_F(EncoderJob, PassThroughMovieEndsWithTheSourceVideoTagged) {
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    movie->setPrimaryDevice(QStringLiteral("HD 720p"));
    movie->setPassthruVideo(true);
    ASSERT_TRUE(movie->canPassthru());

    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->status(), 19) << movie->warnings().toStdString();
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("Movie.tmp.m4v"))));
    const QJsonObject video = jobtest::firstStream(movie->outPath(), QStringLiteral("video"));
    EXPECT_EQ(video.value(QStringLiteral("codec_name")).toString(), QStringLiteral("h264"));
    EXPECT_EQ(video.value(QStringLiteral("width")).toInt(), 320);
    EXPECT_EQ(video.value(QStringLiteral("nb_read_frames")).toString(), QStringLiteral("75"));
    EXPECT_EQ(formatTags(movie->outPath()).value(QStringLiteral("title")).toString(),
              QStringLiteral("Test Pattern"));
}

TEST_F(EncoderJob, AddITunesMovesBothFilesIntoTheAddFolder) {
    const QString addFolder = makeITunesFolder();
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    movie->setCreateHDSD(true);

    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd(240000));
    EXPECT_EQ(movie->status(), 19) << movie->warnings().toStdString();
    for (const char* name : {"Movie(HD).m4v", "Movie.m4v"}) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(QFileInfo::exists(path(QLatin1String(name))));
        const QString moved = addFolder + QLatin1Char('/') + QLatin1String(name);
        EXPECT_EQ(formatTags(moved).value(QStringLiteral("title")).toString(),
                  QStringLiteral("Test Pattern"));
    }
}

TEST_F(EncoderJob, PauseHoldsTheEncodeAndResumeFinishesIt) {
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    m_encoder.suspendProcess();
    EXPECT_EQ(m_encoder.statusField(), QStringLiteral("(Paused)"));
    // Longer than the whole encode takes when it runs.
    waitUntil([] { return false; }, 8000);
    EXPECT_EQ(movie->status(), 9);
    EXPECT_EQ(m_recorder.encodeCompletes, 0);
    m_encoder.resumeProcess();
    EXPECT_EQ(m_encoder.statusField(), QStringLiteral("(Transcoding)"));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->status(), 19) << movie->warnings().toStdString();
}

TEST_F(EncoderJob, StopMidEncodeQueuesTheMovieAgainAndLeavesNoOutput) {
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    auto next = scannedMovie(QStringLiteral("Next.m4v"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    // Stop once the tool is at work on the output.
    ASSERT_TRUE(waitUntil([&] { return QFileInfo::exists(movie->outPath()); }, 60000));
    m_encoder.stopEncoding();
    EXPECT_EQ(movie->status(), 8);
    EXPECT_FALSE(m_encoder.isEncoding());
    EXPECT_EQ(m_encoder.curMovie(), nullptr);
    ASSERT_TRUE(waitForRunEnd());
    waitUntil([] { return false; }, 500);
    EXPECT_FALSE(QFileInfo::exists(movie->outPath()));
    EXPECT_EQ(movie->status(), 8);
    EXPECT_EQ(next->status(), 8) << "another movie was started after the stop";
    EXPECT_FALSE(m_encoder.progressViewVisible());
}

TEST_F(EncoderJob, StoppingPausedOrTwiceOrDestroyingTheJobLeavesNoHalfWrittenFile) {
    // A tool that has written part of the file and is still at work.
    useScriptedEncoder(QStringLiteral("printf 'partial' > \"$out\"\n"
                                      "printf '\\rEncoding: task 1 of 1, 10.00 %%'\n"
                                      "sleep 30\n"));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitUntil([&] { return m_encoder.progressIndicator() > 0; }, 10000));
    m_encoder.suspendProcess();
    m_encoder.stopEncoding();
    m_encoder.stopEncoding(); // the tool has not ended yet
    EXPECT_TRUE(waitForRunEnd(10000)) << "a paused tool never saw the stop";
    EXPECT_TRUE(waitUntil([&] { return !QFileInfo::exists(movie->outPath()); }, 5000));
    EXPECT_EQ(movie->status(), 8);

    // A job that goes away mid-pass takes the pass's file with it.
    auto other = scannedMovie(QStringLiteral("Other.m4v"));
    {
        EncoderController job;
        ASSERT_TRUE(job.startMovieEncoding(other));
        ASSERT_TRUE(waitUntil([&] { return job.progressIndicator() > 0; }, 10000));
        ASSERT_TRUE(QFileInfo::exists(other->outPath()));
    }
    EXPECT_FALSE(QFileInfo::exists(other->outPath()));
}

TEST_F(EncoderJob, StopBetweenPassesStartsNothingMore) {
    useScriptedEncoder(reportingFrames(75, 75));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    movie->setCreateHDSD(true);
    // Stop right after the HD pass, before the SD pass it schedules can start.
    QObject::connect(&m_encoder, &JobDisplay::timeFieldChanged, [&](const QString& text) {
        if (text == QStringLiteral("(Transcoding Complete)"))
            QMetaObject::invokeMethod(
                &m_encoder, [&] { m_encoder.stopEncoding(); }, Qt::QueuedConnection);
    });
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitUntil([&] { return movie->createdHD(); }, 30000));
    waitUntil([] { return false; }, 1000);
    EXPECT_EQ(loggedRuns().size(), 1);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("Movie.m4v"))));
    EXPECT_FALSE(m_encoder.progressViewVisible());
}

TEST_F(EncoderJob, KilledEncoderLeavesNoUnplayableFileAndSaysWhy) {
    useScriptedEncoder(QStringLiteral("head -c 4096 '%1' > \"$out\"\nkill -9 $$\n").arg(m_source));
    auto movie = scannedMovie(QStringLiteral("Movie.m4v"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(movie));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_EQ(movie->status(), 0);
    EXPECT_TRUE(movie->warnings().contains(QStringLiteral("ended by signal 9")))
        << movie->warnings().toStdString();
    EXPECT_TRUE(movie->warnings().endsWith(
        QStringLiteral("The unfinished file could not be played and was removed.")));
    EXPECT_EQ(QDir(path(QString())).entryList({"Movie*"}), QStringList());
}

TEST_F(EncoderJob, FullOrReadOnlyDestinationNamesTheCause) {
    testsupport::SmallDisk full(path(QStringLiteral("full")));
    SKIP_WITHOUT_SMALL_DISK(full);
    full.fill();
    testsupport::SmallDisk readOnly(path(QStringLiteral("ro")), "64k", true);
    ASSERT_TRUE(readOnly.mounted());
    useScriptedEncoder(QStringLiteral("cp '%1' \"$out\"").arg(m_source));
    auto first = scannedMovie(QStringLiteral("full/Movie.m4v"));
    auto second = scannedMovie(QStringLiteral("ro/Movie.m4v"));
    ASSERT_TRUE(m_encoder.startMovieEncoding(first));
    ASSERT_TRUE(waitForRunEnd());
    EXPECT_TRUE(first->warnings().contains(QStringLiteral("No space is left")))
        << first->warnings().toStdString();
    EXPECT_TRUE(second->warnings().contains(QStringLiteral("read-only file system")))
        << second->warnings().toStdString();
    for (const auto& movie : {first, second})
        EXPECT_EQ(movie->status(), 0);
    EXPECT_EQ(QDir(path(QStringLiteral("full"))).entryList(QDir::Files), QStringList());
}

TEST_F(EncoderJob, TakenOutputNamesGetNumbers) {
    useScriptedEncoder(reportingFrames(75, 75));
    for (const char* earlier : {"Movie.m4v", "Pair.m4v"}) {
        QFile file(path(QLatin1String(earlier)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("an earlier run's movie");
    }
    auto first = scannedMovie(QStringLiteral("Movie.m4v"));
    auto second = scannedMovie(QStringLiteral("Movie.m4v"));
    auto pair = scannedMovie(QStringLiteral("Pair.m4v"));
    pair->setCreateHDSD(true);
    ASSERT_TRUE(m_encoder.startMovieEncoding(first));
    ASSERT_TRUE(waitForRunEnd());
    for (const auto& movie : {first, second, pair})
        EXPECT_EQ(movie->status(), 19) << movie->warnings().toStdString();
    EXPECT_EQ(first->outPath(), path(QStringLiteral("Movie (2).m4v")));
    EXPECT_EQ(second->outPath(), path(QStringLiteral("Movie (3).m4v")));
    EXPECT_EQ(pair->outPath(), path(QStringLiteral("Pair (2).m4v")));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("Pair (2)(HD).m4v"))));
    for (const char* earlier : {"Movie.m4v", "Pair.m4v"}) {
        QFile file(path(QLatin1String(earlier)));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_EQ(file.readAll(), QByteArray("an earlier run's movie")) << earlier;
    }
}

} // namespace
