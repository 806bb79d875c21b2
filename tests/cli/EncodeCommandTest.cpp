// `tarnwick-cli encode` as a user runs it: real sources made with ffmpeg, the
// real encoder tool, the loopback movie database, and the files it leaves.

#include "scan/ScanTestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <signal.h>

namespace {

const QString kCli = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli");

QString mediaDir() {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-media/cli");
    QDir().mkpath(dir);
    return dir;
}

// Samples by file name, made once per build tree (under a temporary name,
// then renamed, so parallel runs never see half a file):
//   "Harbour Lights.mp4"                320x240 h264 + AAC stereo, 2 s
//   "The Lighthouse Keeper (2019).mkv"  1280x720 h264 + AAC + English SRT, 2 s
//   "Long Take.mp4"                     640x360, 12 s: long enough to interrupt
//   "Cut Short.mkv"                     a 3 s MKV cut in half: the container
//                                       promises 75 frames, the stream has ~37
//   "junk.mkv"                          random bytes
QString sample(const QString& name) {
    const QString target = mediaDir() + u'/' + name;
    if (QFileInfo(target).size() > 0)
        return target;
    QTemporaryDir work(mediaDir() + QStringLiteral("/make-XXXXXX"));
    const QString made = work.filePath(name);
    const QStringList x264 = {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"};
    const QStringList aac = {"-c:a", "aac", "-ac", "2"};
    bool ok = false;
    if (name == QLatin1String("Harbour Lights.mp4")) {
        ok = scantest::ffmpeg(QStringList{"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25",
                                          "-f", "lavfi", "-i",
                                          "sine=frequency=440:sample_rate=48000", "-t", "2"} +
                              x264 + aac + QStringList{made});
    } else if (name == QLatin1String("Long Take.mp4")) {
        ok = scantest::ffmpeg(QStringList{"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25",
                                          "-f", "lavfi", "-i",
                                          "sine=frequency=440:sample_rate=48000", "-t", "12"} +
                              x264 + aac + QStringList{made});
    } else if (name == QLatin1String("The Lighthouse Keeper (2019).mkv")) {
        scantest::writeFile(work.filePath("en.srt"), "1\n00:00:00,500 --> 00:00:01,500\nHello\n");
        ok = scantest::ffmpeg(
            QStringList{"-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=25", "-f", "lavfi", "-i",
                        "sine=frequency=660:sample_rate=48000", "-i", work.filePath("en.srt"), "-t",
                        "2", "-map", "0:v", "-map", "1:a", "-map", "2"} +
            x264 + aac +
            QStringList{"-c:s", "srt", "-metadata:s:a:0", "language=eng", "-metadata:s:s:0",
                        "language=eng", made});
    } else if (name == QLatin1String("Cut Short.mkv")) {
        const QString whole = work.filePath("whole.mkv");
        ok = scantest::ffmpeg(QStringList{"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25",
                                          "-f", "lavfi", "-i",
                                          "sine=frequency=440:sample_rate=48000", "-t", "3"} +
                              x264 + aac + QStringList{whole});
        QFile in(whole);
        ok = ok && in.open(QIODevice::ReadOnly) &&
             scantest::writeFile(made, in.readAll().left(QFileInfo(whole).size() / 2));
    } else if (name == QLatin1String("junk.mkv")) {
        QByteArray bytes(128 * 1024, '\0');
        QRandomGenerator rng(7);
        for (char& c : bytes)
            c = char(rng.generate() & 0xff);
        ok = scantest::writeFile(made, bytes);
    } else {
        ADD_FAILURE() << "no recipe for sample " << name.toStdString();
    }
    if (!ok)
        return {};
    QFile::rename(made, target);
    return QFileInfo::exists(target) ? target : QString();
}

struct CliResult {
    int status = -1;
    QString out;
    QString err;
};

QProcessEnvironment childEnvironment(const QString& tempDir) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // Its own temporary folder, to see the scratch folder go.
    if (!tempDir.isEmpty())
        env.insert(QStringLiteral("TMPDIR"), tempDir);
    return env;
}

CliResult finished(QProcess& p, int timeoutMs) {
    CliResult r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        ADD_FAILURE() << "tarnwick-cli did not finish";
        return r;
    }
    r.status = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

CliResult runCli(const QStringList& args, const QString& tempDir = QString(),
                 int timeoutMs = 120000) {
    QProcess p;
    p.setProcessEnvironment(childEnvironment(tempDir));
    p.start(kCli, args);
    p.closeWriteChannel();
    return finished(p, timeoutMs);
}

QString setting(const QString& name) {
    const CliResult r = runCli({QStringLiteral("settings"), QStringLiteral("get"), name});
    return r.out.trimmed();
}

QJsonObject probe(const QString& path) {
    QProcess p;
    p.start(QStringLiteral("ffprobe"),
            {"-v", "error", "-show_format", "-show_streams", "-of", "json", path});
    p.waitForFinished(30000);
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
}

bool hasCover(const QJsonObject& probed) {
    for (const QJsonValue& s : probed.value("streams").toArray()) {
        if (s.toObject().value("disposition").toObject().value("attached_pic").toInt() == 1)
            return true;
    }
    return false;
}

QJsonArray summaryJson(const CliResult& r) {
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(r.out.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << r.out.toStdString();
    return doc.object().value("items").toArray();
}

QStringList movieFiles(const QString& folder) {
    return QDir(folder).entryList({QStringLiteral("*.m4v")}, QDir::Files);
}

// Ours, and the one HandBrakeCLI makes for itself.
QStringList scratchFolders(const QString& tempDir) {
    return QDir(tempDir).entryList({QStringLiteral("Tarnwick.*"), QStringLiteral("hb.*")},
                                   QDir::Dirs);
}

class EncodeCliTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffmpeg", "ffprobe", "HandBrakeCLI"}) {
            if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
                GTEST_SKIP() << tool << " is not installed";
        }
        ASSERT_TRUE(m_dir.isValid());
        scantest::server();
        QDir().mkpath(tmp());
    }
    QString dest() const { return m_dir.filePath(QStringLiteral("out")); }
    QString tmp() const { return m_dir.filePath(QStringLiteral("tmp")); }

    QTemporaryDir m_dir;
};

} // namespace

// Two sources that would make one output name end as two files, and the
// summary names both.
TEST_F(EncodeCliTest, TwoSourcesWithOneOutputNameEndAsTwoFiles) {
    const QString source = sample(QStringLiteral("Harbour Lights.mp4"));
    ASSERT_FALSE(source.isEmpty());
    QStringList sources;
    for (const char* folder : {"a", "b"}) {
        QDir().mkpath(m_dir.filePath(folder));
        sources << m_dir.filePath(QStringLiteral("%1/Harbour Lights.mp4").arg(folder));
        ASSERT_TRUE(QFile::copy(source, sources.last()));
    }
    const CliResult r =
        runCli(QStringList{QStringLiteral("encode")} + sources +
                   QStringList{QStringLiteral("--dest"), dest(), QStringLiteral("--preset"),
                               QStringLiteral("SD 480p")},
               tmp());
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    for (const QString name : {"Harbour Lights.m4v", "Harbour Lights (2).m4v"}) {
        EXPECT_GT(QFileInfo(dest() + u'/' + name).size(), 0) << name.toStdString();
        EXPECT_TRUE(r.out.contains(dest() + u'/' + name)) << r.out.toStdString();
    }
}

TEST_F(EncodeCliTest, EncodesOneSourceIntoATaggedMovieAndKeepsTheStoredSettings) {
    const QString source = sample(QStringLiteral("Harbour Lights.mp4"));
    ASSERT_FALSE(source.isEmpty());
    const QString primaryBefore = setting(QStringLiteral("Primary Device"));
    const QString destinationBefore = setting(QStringLiteral("Destination Path Bookmark"));

    const CliResult r = runCli({QStringLiteral("encode"), source, QStringLiteral("--dest"), dest(),
                                QStringLiteral("--preset"), QStringLiteral("SD 480p")},
                               tmp());
    EXPECT_EQ(r.status, 0) << r.err.toStdString();

    const QString movie = dest() + QStringLiteral("/Harbour Lights.m4v");
    ASSERT_TRUE(QFileInfo::exists(movie)) << r.err.toStdString();
    const QJsonObject probed = probe(movie);
    const QJsonObject tags = probed.value("format").toObject().value("tags").toObject();
    EXPECT_EQ(tags.value("title").toString(), "Harbour Lights");
    EXPECT_EQ(tags.value("genre").toString(), "Comedy");
    EXPECT_TRUE(hasCover(probed));

    // The summary: one row for the source, done, with its file.
    const QStringList lines = r.out.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << r.out.toStdString();
    EXPECT_TRUE(lines.at(0).startsWith("SOURCE")) << r.out.toStdString();
    const QRegularExpression row(u'^' + QRegularExpression::escape(source) +
                                 QStringLiteral("  +done  +") + QRegularExpression::escape(movie) +
                                 u'$');
    EXPECT_TRUE(row.match(lines.at(1)).hasMatch()) << r.out.toStdString();

    // Without a terminal, plain progress lines: the phases, no redrawing.
    EXPECT_FALSE(r.err.contains("\033[")) << r.err.toStdString();
    EXPECT_FALSE(r.err.contains('\r'));
    EXPECT_TRUE(r.err.contains("[1 of 1] scanning  Harbour Lights")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("[1 of 1] encoding  Harbour Lights  (Transcoding)"));
    EXPECT_TRUE(r.err.contains("[1 of 1] tagging  Harbour Lights  (Tagging)"));
    EXPECT_TRUE(r.err.contains("Harbour Lights: done"));

    // The options held for this run only; the scratch folder is gone.
    EXPECT_EQ(setting(QStringLiteral("Primary Device")), primaryBefore);
    EXPECT_EQ(setting(QStringLiteral("Destination Path Bookmark")), destinationBefore);
    EXPECT_TRUE(scratchFolders(tmp()).isEmpty()) << scratchFolders(tmp()).join(' ').toStdString();
}

TEST_F(EncodeCliTest, OnATerminalTheProgressLineIsRedrawnInPlace) {
    if (QStandardPaths::findExecutable(QStringLiteral("script")).isEmpty())
        GTEST_SKIP() << "script (util-linux) is not installed";
    const QString source = sample(QStringLiteral("Harbour Lights.mp4"));
    ASSERT_FALSE(source.isEmpty());
    auto quoted = [](QString s) {
        return u'\'' + s.replace(u'\'', QStringLiteral("'\\''")) + u'\'';
    };
    // script runs the command on a pseudo-terminal: stderr is a terminal there.
    QProcess p;
    p.setProcessEnvironment(childEnvironment(tmp()));
    p.start(QStringLiteral("script"), {QStringLiteral("-qec"),
                                       QStringList{quoted(kCli), "encode", quoted(source), "--dest",
                                                   quoted(dest()), "--skip-tagging", "--yes"}
                                           .join(u' '),
                                       QStringLiteral("/dev/null")});
    p.closeWriteChannel();
    const CliResult r = finished(p, 120000);
    EXPECT_EQ(r.status, 0) << r.out.toStdString();
    const QString& shown = r.out;
    EXPECT_TRUE(shown.contains("\r\033[K[1 of 1] scanning  Harbour Lights  (Scanning...)"))
        << shown.toStdString();
    const QRegularExpression progress(
        QStringLiteral("\r\033") +
        QStringLiteral(
            R"(\[K\[1 of 1\] encoding  Harbour Lights  \(Transcoding\)  \[[#-]{10}\]  \d+\.\d %)"));
    EXPECT_TRUE(progress.match(shown).hasMatch()) << shown.toStdString();
    // The line is redrawn, never ended: the next thing after it is a redraw.
    EXPECT_FALSE(shown.contains("(Transcoding)\r\n"));
    EXPECT_FALSE(shown.contains(QRegularExpression(QStringLiteral(" %\r?\n"))));
    // The summary comes after the line was cleared.
    const qsizetype table = shown.indexOf(QStringLiteral("SOURCE"));
    ASSERT_GT(table, 0);
    EXPECT_TRUE(shown.left(table).endsWith(QStringLiteral("\r\033[KHarbour Lights: done\r\n")))
        << shown.toStdString();
    EXPECT_TRUE(QFileInfo::exists(dest() + QStringLiteral("/Harbour Lights.m4v")));
}

TEST_F(EncodeCliTest, ReportsFailedPartialAndDoneSourcesWithTheirWarnings) {
    const QString junk = sample(QStringLiteral("junk.mkv"));
    const QString cut = sample(QStringLiteral("Cut Short.mkv"));
    const QString whole = sample(QStringLiteral("Harbour Lights.mp4"));
    ASSERT_FALSE(junk.isEmpty() || cut.isEmpty() || whole.isEmpty());

    const CliResult r =
        runCli({QStringLiteral("encode"), junk, cut, whole, QStringLiteral("--dest"), dest(),
                QStringLiteral("--preset"), QStringLiteral("SD 480p"), QStringLiteral("--json")},
               tmp());
    EXPECT_EQ(r.status, 1) << r.err.toStdString();
    const QJsonArray items = summaryJson(r);
    ASSERT_EQ(items.size(), 3) << r.out.toStdString();

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
    EXPECT_TRUE(partialText.endsWith(
        "% of the movie has been converted. There may be an problem with the source media. The "
        "movie has been tagged, but no further processing was performed. The movie file has been "
        "placed in the output folder. The unfinished file was kept as \"Cut Short "
        "(incomplete).m4v\"."));
    // About half the frames arrived.
    const int percent = partialText.mid(21).section(u'%', 0, 0).toInt();
    EXPECT_GT(percent, 20);
    EXPECT_LT(percent, 80);
    // The partial movie stays, tagged, in the output folder, named as partial.
    EXPECT_EQ(partial.value("outputs").toArray().at(0).toObject().value("path").toString(),
              dest() + QStringLiteral("/Cut Short (incomplete).m4v"));
    EXPECT_FALSE(QFileInfo::exists(dest() + QStringLiteral("/Cut Short.m4v")));

    const QJsonObject done = items.at(2).toObject();
    EXPECT_EQ(done.value("state").toString(), "done");
    EXPECT_EQ(done.value("status").toInt(), 19);
    EXPECT_TRUE(done.value("warnings").toArray().isEmpty());
    EXPECT_EQ(done.value("outputs").toArray().at(0).toObject().value("path").toString(),
              dest() + QStringLiteral("/Harbour Lights.m4v"));

    EXPECT_TRUE(r.err.contains("Cut Short: partial: It appears that only")) << r.err.toStdString();
}

TEST_F(EncodeCliTest, HdAndSdVersionsGoIntoTheITunesFolder) {
    const QString source = sample(QStringLiteral("The Lighthouse Keeper (2019).mkv"));
    ASSERT_FALSE(source.isEmpty());
    const QString iTunes = m_dir.filePath(QStringLiteral("iTunes Media"));

    const CliResult r =
        runCli({QStringLiteral("encode"), source, QStringLiteral("--dest"), dest(),
                QStringLiteral("--hd-sd"), QStringLiteral("--preset"), QStringLiteral("HD 720p"),
                QStringLiteral("--secondary"), QStringLiteral("SD 480p"),
                QStringLiteral("--add-itunes"), iTunes, QStringLiteral("--json")},
               tmp(), 180000);
    EXPECT_EQ(r.status, 0) << r.err.toStdString();

    const QString added = iTunes + QStringLiteral("/Automatically Add to iTunes");
    EXPECT_EQ(movieFiles(added),
              QStringList({"The Lighthouse Keeper(HD).m4v", "The Lighthouse Keeper.m4v"}))
        << r.err.toStdString();
    EXPECT_TRUE(movieFiles(dest()).isEmpty());
    const QJsonObject item = summaryJson(r).at(0).toObject();
    EXPECT_EQ(item.value("state").toString(), "done");
    EXPECT_EQ(item.value("outputs").toArray().size(), 2);

    // The HD file keeps the source's size, the SD one is smaller; both tagged.
    auto height = [](const QString& path) {
        for (const QJsonValue& s : probe(path).value("streams").toArray()) {
            const QJsonObject o = s.toObject();
            if (o.value("codec_type").toString() == "video" &&
                o.value("disposition").toObject().value("attached_pic").toInt() == 0)
                return o.value("height").toInt();
        }
        return 0;
    };
    EXPECT_EQ(height(added + QStringLiteral("/The Lighthouse Keeper(HD).m4v")), 720);
    const int sdHeight = height(added + QStringLiteral("/The Lighthouse Keeper.m4v"));
    EXPECT_GT(sdHeight, 0);
    EXPECT_LE(sdHeight, 480);
    EXPECT_EQ(probe(added + QStringLiteral("/The Lighthouse Keeper.m4v"))
                  .value("format")
                  .toObject()
                  .value("tags")
                  .toObject()
                  .value("title")
                  .toString(),
              "The Lighthouse Keeper");
    EXPECT_TRUE(r.err.contains("(Transcoding HD)"));
    EXPECT_TRUE(r.err.contains("(Transcoding SD)"));
}

TEST_F(EncodeCliTest, AnInterruptStopsTheEncodeAndLeavesNoMovieBehind) {
    const QString source = sample(QStringLiteral("Long Take.mp4"));
    ASSERT_FALSE(source.isEmpty());
    for (int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig == SIGINT ? "SIGINT" : "SIGTERM");
        QProcess p;
        p.setProcessEnvironment(childEnvironment(tmp()));
        p.start(kCli, {QStringLiteral("encode"), source, QStringLiteral("--dest"), dest(),
                       QStringLiteral("--skip-tagging")});
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
        ::kill(pid_t(p.processId()), sig);
        CliResult r = finished(p, 60000);
        r.err.prepend(QString::fromUtf8(err));

        EXPECT_EQ(r.status, 128 + sig) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains("Stopping...")) << r.err.toStdString();
        EXPECT_TRUE(r.out.contains("  stopped  ")) << r.out.toStdString();
        EXPECT_TRUE(movieFiles(dest()).isEmpty()) << movieFiles(dest()).join(' ').toStdString();
        EXPECT_TRUE(scratchFolders(tmp()).isEmpty());
    }
    EXPECT_EQ(setting(QStringLiteral("Skip Tagging")), "NO");
}

TEST_F(EncodeCliTest, BadArgumentsAndAnUnansweredUpdateNoticeAreRefused) {
    const QString source = sample(QStringLiteral("junk.mkv"));
    CliResult r = runCli({QStringLiteral("encode")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.contains("no source given"));
    EXPECT_TRUE(r.err.contains("usage: tarnwick-cli encode SOURCE..."));

    r = runCli({QStringLiteral("encode"), QStringLiteral("/no/such/movie.mkv")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("/no/such/movie.mkv: no such file or folder"));

    r = runCli({QStringLiteral("encode"), source, QStringLiteral("--title"), QStringLiteral("x")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.contains("--title needs a title number"));

    r = runCli({QStringLiteral("encode"), source, QStringLiteral("--fast")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.contains("unknown option '--fast'"));

    r = runCli({QStringLiteral("encode"), source, QStringLiteral("--dest")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.contains("option '--dest' needs a value"));

    r = runCli({QStringLiteral("encode"), source, QStringLiteral("--preset"),
                QStringLiteral("Toaster 8K")},
               tmp());
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.contains("unknown preset \"Toaster 8K\"; known presets: "))
        << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("SD 480p"));
    EXPECT_TRUE(r.out.isEmpty());

    // Out-of-date presets: without a terminal the notice needs --yes.
    ASSERT_EQ(runCli({"settings", "set", "Update Presets", "NO"}).status, 0);
    r = runCli({QStringLiteral("encode"), source}, tmp());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("Update Notice: The device presets are out of date"));
    EXPECT_TRUE(r.err.contains("run again with --yes")) << r.err.toStdString();
    EXPECT_EQ(setting(QStringLiteral("Update Presets")), "NO");

    r = runCli({QStringLiteral("encode"), source, QStringLiteral("--yes"), QStringLiteral("--dest"),
                dest()},
               tmp());
    EXPECT_EQ(r.status, 1); // the junk source fails its scan
    EXPECT_TRUE(r.err.contains("Presets updated (--yes).")) << r.err.toStdString();
    EXPECT_EQ(setting(QStringLiteral("Update Presets")), "YES");
    EXPECT_TRUE(scratchFolders(tmp()).isEmpty());
}
