// `tarnwick-cli encode` as a user runs it: real sources made with ffmpeg, the
// real encoder tool, the loopback movie database, and the files it leaves.

#include "retag/RetagTestSupport.h"

#include "CliJson.h"
#include "Processes.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <signal.h>

namespace {

using testsupport::CliResult;

const QString kCli = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli");
const QString kMedia = QStringLiteral(TARNWICK_BINARY_DIR "/test-media/cli/");

// Test pattern with a 440 Hz tone, made once per build tree.
QString clip(const QString& name, const QString& size, int seconds) {
    return testsupport::cachedFile(kMedia + name, [&](const QString& out) {
        return testsupport::ffmpeg({"-f",       "lavfi",
                                    "-i",       "testsrc2=size=" + size + ":rate=25",
                                    "-f",       "lavfi",
                                    "-i",       "sine=frequency=440:sample_rate=48000",
                                    "-t",       QString::number(seconds),
                                    "-c:v",     "libx264",
                                    "-preset",  "ultrafast",
                                    "-pix_fmt", "yuv420p",
                                    "-c:a",     "aac",
                                    "-ac",      "2",
                                    out});
    });
}

// A 3 s MKV cut in half: the container promises 75 frames, the stream has ~37.
QString cutShort() {
    const QString whole = clip("whole.mkv", "320x240", 3);
    return testsupport::cachedFile(kMedia + "Cut Short.mkv", [&](const QString& out) {
        QFile in(whole), half(out);
        return in.open(QIODevice::ReadOnly) && half.open(QIODevice::WriteOnly) &&
               half.write(in.readAll().left(in.size() / 2)) > 0;
    });
}

QString setting(const QString& name) {
    return testsupport::runCli({"settings", "get", name}).out.trimmed();
}

// The height of the movie's picture (the first video stream; a cover comes after).
int height(const QString& path) {
    return testsupport::run("ffprobe", {"-v", "error", "-select_streams", "v:0", "-show_entries",
                                        "stream=height", "-of", "csv=p=0", path})
        .out.trimmed()
        .toInt();
}

QString outputPath(const QJsonObject& item) {
    return item.value("outputs").toArray().at(0).toObject().value("path").toString();
}

QStringList movieFiles(const QString& folder) {
    return QDir(folder).entryList({"*.m4v"}, QDir::Files);
}

class EncodeCliTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffmpeg", "ffprobe", "HandBrakeCLI"}) {
            if (!testsupport::haveTool(tool))
                GTEST_SKIP() << tool << " is not installed";
        }
        ASSERT_TRUE(m_dir.isValid());
        scantest::server();
        QDir().mkpath(tmp());
    }
    QString dest() const { return m_dir.filePath("out"); }
    QString tmp() const { return m_dir.filePath("tmp"); }

    // With a temporary folder of its own, to see the scratch folder go.
    CliResult cli(const QStringList& args, int timeoutMs = 120000) const {
        return testsupport::runCli(args, {}, timeoutMs, {{"TMPDIR", tmp()}});
    }
    // Ours, and the one the encoder makes for itself.
    QStringList scratchFolders() const {
        return QDir(tmp()).entryList({"Tarnwick.*", "hb.*"}, QDir::Dirs);
    }

    QTemporaryDir m_dir;
};

// A source that fails, one that stops short and two with one output name, in
// one run: each ends as it should, the options hold for this run only.
TEST_F(EncodeCliTest, EachSourceEndsAsItShouldAndTheOptionsHoldForTheRunOnly) {
    const QString junk = scantest::sample("junk.mkv");
    const QString cut = cutShort();
    const QString harbour = clip("Harbour Lights.mp4", "320x240", 2);
    ASSERT_FALSE(junk.isEmpty() || cut.isEmpty() || harbour.isEmpty());
    QStringList sources = {junk, cut};
    for (const char* folder : {"a", "b"}) {
        QDir().mkpath(m_dir.filePath(folder));
        sources << m_dir.filePath(QStringLiteral("%1/Harbour Lights.mp4").arg(folder));
        ASSERT_TRUE(QFile::copy(harbour, sources.last()));
    }
    const QString primaryBefore = setting("Primary Device");
    const QString destinationBefore = setting("Destination Path Bookmark");

    const CliResult r = cli(QStringList{"encode"} + sources +
                            QStringList{"--dest", dest(), "--preset", "SD 480p", "--json"});
    EXPECT_EQ(r.status, 1) << r.err.toStdString();
    const QJsonArray items =
        testsupport::expectCliJson(r.out, "encode", 1).value("items").toArray();
    ASSERT_EQ(items.size(), 4) << r.out.toStdString();

    const QJsonObject failed = items.at(0).toObject();
    EXPECT_EQ(failed.value("source").toObject().value("path").toString(), junk);
    EXPECT_EQ(failed.value("state").toString(), "failed");
    EXPECT_EQ(failed.value("status").toInt(), 0);
    EXPECT_TRUE(failed.value("outputs").toArray().isEmpty());
    EXPECT_EQ(failed.value("warnings").toArray().at(0).toString(),
              "No valid title was found!. Either the file is corrupt, unsupported, or contains no "
              "title tracks.");

    const QJsonObject partial = items.at(1).toObject();
    EXPECT_EQ(partial.value("state").toString(), "partial") << r.err.toStdString();
    EXPECT_EQ(partial.value("status").toInt(), 0);
    const QString partialText = partial.value("warnings").toArray().at(0).toString();
    EXPECT_TRUE(partialText.startsWith("It appears that only ")) << partialText.toStdString();
    EXPECT_TRUE(partialText.endsWith("kept as \"Cut Short (incomplete).m4v\"."));
    // About half the frames arrived.
    const int percent = partialText.mid(21).section(u'%', 0, 0).toInt();
    EXPECT_GT(percent, 20);
    EXPECT_LT(percent, 80);
    EXPECT_EQ(outputPath(partial), dest() + "/Cut Short (incomplete).m4v");
    EXPECT_FALSE(QFileInfo::exists(dest() + "/Cut Short.m4v"));

    // One output name taken twice ends as two files.
    const QStringList names = {"Harbour Lights.m4v", "Harbour Lights (2).m4v"};
    for (int i = 0; i < 2; ++i) {
        const QJsonObject done = items.at(2 + i).toObject();
        EXPECT_EQ(done.value("state").toString(), "done");
        EXPECT_EQ(done.value("status").toInt(), 19);
        EXPECT_TRUE(done.value("warnings").toArray().isEmpty());
        EXPECT_EQ(outputPath(done), dest() + u'/' + names.at(i));
        EXPECT_GT(QFileInfo(outputPath(done)).size(), 0);
    }
    const QJsonObject tags = retagtest::probeTags(dest() + "/Harbour Lights.m4v");
    EXPECT_EQ(tags.value("title").toString(), "Harbour Lights");
    EXPECT_EQ(tags.value("genre").toString(), "Comedy");
    EXPECT_TRUE(retagtest::probeHasCover(dest() + "/Harbour Lights.m4v"));

    // Without a terminal, plain progress lines: the phases, no redrawing.
    EXPECT_FALSE(r.err.contains("\033[")) << r.err.toStdString();
    EXPECT_FALSE(r.err.contains('\r'));
    for (const char* line :
         {"[3 of 4] scanning  Harbour Lights", "[3 of 4] encoding  Harbour Lights  (Transcoding)",
          "[4 of 4] tagging  Harbour Lights  (Tagging)", "Harbour Lights: done",
          "Cut Short: partial: It appears that only"})
        EXPECT_TRUE(r.err.contains(line)) << line << "\n" << r.err.toStdString();

    EXPECT_EQ(setting("Primary Device"), primaryBefore);
    EXPECT_EQ(setting("Destination Path Bookmark"), destinationBefore);
    EXPECT_TRUE(scratchFolders().isEmpty()) << scratchFolders().join(' ').toStdString();
}

// On a terminal, with an HD and an SD version sent to the iTunes folder.
TEST_F(EncodeCliTest, HdAndSdVersionsGoIntoTheITunesFolderAndTheProgressLineIsRedrawn) {
    if (!testsupport::haveTool("script"))
        GTEST_SKIP() << "script (util-linux) is not installed";
    const QString source = clip("The Lighthouse Keeper (2019).mkv", "1280x720", 2);
    ASSERT_FALSE(source.isEmpty());
    const QString iTunes = m_dir.filePath("iTunes Media");
    QStringList command = {kCli,           "encode",   source,    "--dest",      dest(),
                           "--hd-sd",      "--preset", "HD 720p", "--secondary", "SD 480p",
                           "--add-itunes", iTunes,     "--yes"};
    for (QString& word : command)
        word = u'\'' + word.replace(u'\'', QStringLiteral("'\\''")) + u'\'';
    // script runs the command on a pseudo-terminal: stderr is a terminal there.
    const testsupport::RunResult r =
        testsupport::run("script", {"-qec", command.join(u' '), "/dev/null"}, 180000);
    const QString shown = QString::fromUtf8(r.out);
    EXPECT_EQ(r.exitCode, 0) << shown.toStdString();

    const QString added = iTunes + "/Automatically Add to iTunes";
    EXPECT_EQ(movieFiles(added),
              QStringList({"The Lighthouse Keeper(HD).m4v", "The Lighthouse Keeper.m4v"}));
    EXPECT_TRUE(movieFiles(dest()).isEmpty());
    // The HD file keeps the source's size, the SD one is smaller; both tagged.
    EXPECT_EQ(height(added + "/The Lighthouse Keeper(HD).m4v"), 720);
    const int sd = height(added + "/The Lighthouse Keeper.m4v");
    EXPECT_TRUE(sd > 0 && sd <= 480) << sd;
    EXPECT_EQ(retagtest::probeTags(added + "/The Lighthouse Keeper.m4v").value("title").toString(),
              "The Lighthouse Keeper");

    EXPECT_TRUE(shown.contains("\r\033[K[1 of 1] scanning  The Lighthouse Keeper  (Scanning...)"))
        << shown.toStdString();
    for (const char* pass : {"HD", "SD"}) {
        const QRegularExpression progress(
            QStringLiteral("\r\033\\[K\\[1 of 1\\] encoding  The Lighthouse Keeper  \\(Transcoding "
                           "%1\\)  \\[[#-]{10}\\]  \\d+\\.\\d %")
                .arg(pass));
        EXPECT_TRUE(progress.match(shown).hasMatch()) << pass << shown.toStdString();
    }
    // The line is redrawn, never ended: the next thing after it is a redraw.
    EXPECT_FALSE(shown.contains(QRegularExpression(R"(\((Transcoding|Tagging)[^)]*\)\r?\n)")));
    EXPECT_FALSE(shown.contains(QRegularExpression(" %\r?\n")));
    // The summary comes after the line was cleared: a row for the source with its files.
    const qsizetype table = shown.indexOf("SOURCE");
    ASSERT_GT(table, 0);
    EXPECT_TRUE(shown.left(table).endsWith("\r\033[KThe Lighthouse Keeper: done\r\n"))
        << shown.toStdString();
    const QRegularExpression row('\n' + QRegularExpression::escape(source) + "  +done  +" +
                                 QRegularExpression::escape(added + "/The Lighthouse Keeper"));
    EXPECT_TRUE(row.match(shown.mid(table)).hasMatch()) << shown.toStdString();
}

TEST_F(EncodeCliTest, AnInterruptStopsTheEncodeAndLeavesNoMovieBehind) {
    const QString source = clip("Long Take.mp4", "640x360", 12);
    ASSERT_FALSE(source.isEmpty());
    for (int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig == SIGINT ? "SIGINT" : "SIGTERM");
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TMPDIR", tmp());
        p.setProcessEnvironment(env);
        p.start(kCli, {"encode", source, "--dest", dest(), "--skip-tagging"});
        ASSERT_TRUE(p.waitForStarted());
        // Interrupt once the encode has visibly made progress.
        QByteArray err;
        QDeadlineTimer deadline(120000);
        while (!err.contains(" %") && !deadline.hasExpired() && p.state() == QProcess::Running) {
            p.waitForReadyRead(100);
            err += p.readAllStandardError();
        }
        ASSERT_TRUE(err.contains("encoding")) << err.toStdString();
        ASSERT_EQ(p.state(), QProcess::Running) << "the encode ended before the interrupt";
        QElapsedTimer stopping;
        stopping.start();
        ::kill(pid_t(p.processId()), sig);
        ASSERT_TRUE(p.waitForFinished(60000));
        // Over once the encoder has stopped, long before the grace period ends.
        EXPECT_LT(stopping.elapsed(), 10000);
        err += p.readAllStandardError();
        const QString out = QString::fromUtf8(p.readAllStandardOutput());

        EXPECT_EQ(p.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(p.exitCode(), 128 + sig) << err.toStdString();
        EXPECT_TRUE(err.contains("Stopping...")) << err.toStdString();
        // Standard output is the summary alone.
        EXPECT_TRUE(out.startsWith("SOURCE")) << out.toStdString();
        EXPECT_TRUE(out.contains("  stopped  ")) << out.toStdString();
        EXPECT_EQ(out.count(u'\n'), 2) << out.toStdString();
        EXPECT_TRUE(movieFiles(dest()).isEmpty()) << movieFiles(dest()).join(' ').toStdString();
        EXPECT_TRUE(scratchFolders().isEmpty());
    }
    EXPECT_EQ(setting("Skip Tagging"), "NO");
}

TEST_F(EncodeCliTest, AnUnansweredUpdateNoticeIsRefusedWithoutYes) {
    const QString source = scantest::sample("junk.mkv");
    ASSERT_TRUE(testsupport::runCli({"settings", "set", "Update Presets", "NO"}).status == 0);
    CliResult r = cli({"encode", source});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("Update Notice: The device presets are out of date"));
    EXPECT_TRUE(r.err.contains("run again with --yes")) << r.err.toStdString();
    EXPECT_EQ(setting("Update Presets"), "NO");

    r = cli({"encode", source, "--yes", "--dest", dest()});
    EXPECT_EQ(r.status, 1); // the junk source fails its scan
    EXPECT_TRUE(r.err.contains("Presets updated (--yes).")) << r.err.toStdString();
    EXPECT_EQ(setting("Update Presets"), "YES");
    EXPECT_TRUE(scratchFolders().isEmpty());
}

} // namespace
