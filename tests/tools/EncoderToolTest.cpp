// Tarnwick_Pro_Encoder against Debian's HandBrakeCLI on sample media made
// here with ffmpeg and dvdauthor, and against scripted stand-ins where a
// case (Blu-ray, bitmap subtitles, timing) cannot be made from samples.
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "media/Title.h"

#include "Processes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>

namespace {

const QString kTool = QStringLiteral(TARNWICK_BINARY_DIR "/bin/Tarnwick_Pro_Encoder");

using testsupport::RunResult;

// The tool, with `handbrake` standing in for HandBrakeCLI when given.
RunResult runTool(const QStringList& args, const QString& handbrake = {}, int timeoutMs = 180000,
                  const QString& tool = kTool) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!handbrake.isEmpty())
        env.insert(QStringLiteral("TARNWICK_HANDBRAKE"), handbrake);
    return testsupport::run(tool, args, timeoutMs, env);
}

QString mediaDir() {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/testmedia/encoder");
    QDir().mkpath(dir);
    return dir;
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(bytes);
}

using testsupport::words;

// Sample sources are cached in the build tree. Each is made under a
// temporary name and renamed into place, so concurrent test processes
// never see half a file.
QString sample(const QString& name) {
    const QString target = mediaDir() + u'/' + name;
    if (QFileInfo::exists(target))
        return target;
    QTemporaryDir work(mediaDir() + QStringLiteral("/make-XXXXXX"));
    const QString w = work.path();
    writeFile(w + "/s.srt", "1\n00:00:01,000 --> 00:00:03,000\nHello there\n\n"
                            "2\n00:00:03,500 --> 00:00:05,000\nSecond line\n");
    writeFile(w + "/s.ass", "[Script Info]\nScriptType: v4.00+\n\n[Events]\nFormat: Layer, "
                            "Start, End, Style, Text\nDialogue: 0,0:00:01.00,0:00:03.00,Default,"
                            "Bonjour\n");
    const QStringList avInputs = words("-f lavfi -i testsrc2=size=640x360:rate=25 -f lavfi -i "
                                       "sine=frequency=440 -f lavfi -i sine=frequency=660");
    const QStringList avCodecs =
        words("-c:v libx264 -preset ultrafast -c:a:0 ac3 -ac:a:0 6 -c:a:1 aac -ac:a:1 2 "
              "-metadata:s:a:0 language=eng -metadata:s:a:1 language=fre");
    const QString made = w + u'/' + name;
    if (name == QLatin1String("movie.mkv")) {
        testsupport::ffmpeg(avInputs + QStringList{"-i", w + "/s.srt", "-i", w + "/s.ass"} +
                            words("-t 6 -map 0:v -map 1:a -map 2:a -map 3 -map 4") + avCodecs +
                            words("-c:s:0 srt -c:s:1 ass -metadata:s:s:0 language=eng "
                                  "-metadata:s:s:1 language=fre") +
                            QStringList{made});
    } else if (name == QLatin1String("movie.mp4")) {
        testsupport::ffmpeg(avInputs + QStringList{"-i", w + "/s.srt"} +
                            words("-t 6 -map 0:v -map 1:a -map 2:a -map 3") + avCodecs +
                            words("-c:s mov_text -metadata:s:s:0 language=spa") +
                            QStringList{made});
    } else if (name == QLatin1String("junk.bin")) {
        QByteArray bytes;
        QByteArray seed = "tarnwick";
        while (bytes.size() < 256 * 1024) {
            seed = QCryptographicHash::hash(seed, QCryptographicHash::Sha256);
            bytes += seed;
        }
        writeFile(made, bytes);
    } else if (name == QLatin1String("DVD")) {
        const QString mpg = w + "/title.mpg";
        testsupport::ffmpeg(words("-f lavfi -i testsrc2=size=720x480:rate=30000/1001 -f lavfi -i "
                                  "sine -t 5 -target ntsc-dvd -aspect 16:9") +
                            QStringList{mpg});
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("VIDEO_FORMAT", "NTSC");
        for (const QStringList& a :
             {QStringList{"-o", made, "-t", "-a", "ac3+en", mpg}, QStringList{"-o", made, "-T"}}) {
            const RunResult r = testsupport::run("dvdauthor", a, 120000, env);
            EXPECT_EQ(r.exitCode, 0) << r.err.data();
        }
    }
    if (!QFileInfo::exists(made))
        return {};
    if (!QFile::rename(made, target) && !QFileInfo::exists(target))
        return {};
    return target;
}

QJsonObject probe(const QString& path) {
    return QJsonDocument::fromJson(
               testsupport::run(
                   "ffprobe", {"-v", "error", "-of", "json", "-show_streams", "-show_format", path})
                   .out)
        .object();
}

QList<QJsonObject> probeStreams(const QJsonObject& probed, const QString& type) {
    QList<QJsonObject> out;
    for (const QJsonValue& v : probed.value("streams").toArray()) {
        if (v.toObject().value("codec_type").toString() == type)
            out << v.toObject();
    }
    return out;
}

double ratio(const QString& text) {
    const QStringList parts = text.split(u'/');
    return parts.size() == 2 && parts[1].toDouble() != 0 ? parts[0].toDouble() / parts[1].toDouble()
                                                         : 0.0;
}

// The lines from a report's first title on that fit none of the shapes the
// core's parser expects, in the exact layout it reads them.
QStringList badLines(const QByteArray& err) {
    static const QRegularExpression shapes(
        "^(?:"
        R"(\+ title \d+:|  \+ (?:stream|codec|duration): .+)"
        R"(|  \+ size: \d+x\d+, pixel aspect: \d+/\d+, display aspect: \d+\.\d\d, \d+(?:\.\d{3})? FPS)"
        R"(|  \+ (?:audio|subtitle) tracks:)"
        R"(|    \+ \d+, [^()]+ \([^()]+\) \(\d+\.\d ch\) \(iso639-2: [a-z]{3}\)(?:, \d+Hz, \d+bps)?)"
        R"(|    \+ \d+, [^()]+ \(iso639-2: [a-z]{3}\) \((?:Text|Bitmap)\)\([^()]+\))"
        R"(|\+ combing detected, may be interlaced or telecined)"
        R"(|  \+ (?:Main Feature|autocrop: .*|chapters:|playlist: .*)|    \+ \d+: duration \d\d:\d\d:\d\d)"
        ")$");
    QStringList lines = QString::fromLatin1(err).split(u'\n', Qt::SkipEmptyParts);
    if (lines.value(lines.size() - 1) == QLatin1String("HandBrake has exited."))
        lines.removeLast();
    const qsizetype first = lines.indexOf(QRegularExpression(R"(^\+ title \d+:$)"));
    QStringList bad;
    for (qsizetype i = first < 0 ? lines.size() : first; i < lines.size(); ++i) {
        if (!shapes.match(lines[i]).hasMatch())
            bad << lines[i];
    }
    return bad;
}

// A report as the core reads it, after checking its shape.
std::unique_ptr<MDI_Movie> parsed(const RunResult& r) {
    EXPECT_EQ(badLines(r.err), QStringList());
    EXPECT_TRUE(r.err.endsWith("\nHandBrake has exited.\n"));
    auto movie = std::make_unique<MDI_Movie>();
    EXPECT_TRUE(MDI_Utility::decodeScanString(QString::fromLatin1(r.err), *movie));
    return movie;
}

QString fpsText(double fps) {
    return std::fabs(fps - std::round(fps)) < 0.0005 ? QString::number(std::lround(fps))
                                                     : QString::number(fps, 'f', 3);
}

QLocale::Language languageOf(const QString& code) {
    return QLocale::codeToLanguage(code, QLocale::ISO639Part2);
}

// Checks a file title against what ffprobe reads from the file.
void expectTitleMatchesProbe(const Title& t, const QString& path) {
    const QJsonObject probed = probe(path);
    const QJsonObject v = probeStreams(probed, "video").value(0);
    EXPECT_EQ(t.stream(), path);
    EXPECT_EQ(t.size(),
              QString("%1x%2").arg(v.value("width").toInt()).arg(v.value("height").toInt()));
    EXPECT_EQ(t.FPS().trimmed(), fpsText(ratio(v.value("r_frame_rate").toString())));
    const QString codec = v.value("codec_name").toString();
    EXPECT_EQ(t.codec(), codec == "mpeg2video" ? QString("mpeg2") : codec);

    const QList<QJsonObject> audio = probeStreams(probed, "audio");
    ASSERT_EQ(t.numberAudioTracks(), audio.size());
    for (int i = 0; i < audio.size(); ++i) {
        const QJsonObject a = audio[i];
        const AudioTrack& track = *t.audioTrack(i);
        EXPECT_EQ(track.codec(), a.value("codec_name").toString().toUpper());
        const int channels = a.value("channels").toInt();
        const int lfe = a.value("channel_layout").toString().startsWith("5.1") ? 1 : 0;
        EXPECT_EQ(track.channels(), QString("%1.%2 ch").arg(channels - lfe).arg(lfe));
        EXPECT_EQ(languageOf(track.isoName()),
                  languageOf(a.value("tags").toObject().value("language").toString()));
        if (!track.freq().isEmpty())
            EXPECT_EQ(track.freq(), a.value("sample_rate").toString() + "Hz");
    }
}

TEST(EncoderToolScan, FileReportsMatchTheFiles) {
    const QString mkv = sample("movie.mkv");
    const QString mp4 = sample("movie.mp4");
    ASSERT_FALSE(mkv.isEmpty() || mp4.isEmpty());
    const RunResult r = runTool({"-i", mkv, "-t", "1", "--scan", "--use-opencl"});
    EXPECT_EQ(r.exitCode, 0);
    // The scan's own log is relayed ahead of the report, the JSON is not.
    EXPECT_FALSE(r.err.contains("JSON Title Set"));
    auto movie = parsed(r);
    ASSERT_EQ(movie->titles().size(), 1u);
    const Title& t = *movie->titles().front();
    expectTitleMatchesProbe(t, mkv);
    EXPECT_EQ(movie->sourceType(), 1);
    EXPECT_EQ(t.audioTrack(0)->name(), "English");
    EXPECT_EQ(t.audioTrack(0)->bps(), "448000bps");
    ASSERT_EQ(t.numberSubtitleTracks(), 2);
    EXPECT_EQ(t.subtitleTrack(0)->type(), "(Text)(UTF-8)");
    EXPECT_EQ(t.subtitleTrack(1)->type(), "(Text)(SSA)");
    EXPECT_EQ(t.subtitleTrack(1)->isoName(), "fra");

    // Title 0 asks for every title of the source.
    movie = parsed(runTool({"-i", mp4, "-t", "0", "--use-opencl"}));
    ASSERT_EQ(movie->titles().size(), 1u);
    expectTitleMatchesProbe(*movie->titles().front(), mp4);
    const SubtitleTrack* text = movie->titles().front()->subtitleTrack(0);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text->type(), "(Text)(TX3G)");
    // The native name is reported in ASCII, capitalised.
    EXPECT_EQ(text->name(), "Espanol");
}

TEST(EncoderToolScan, DvdFolderIsMarkedAndHasNoStream) {
    const QString dvd = sample("DVD");
    ASSERT_FALSE(dvd.isEmpty());
    const QJsonObject video = probeStreams(probe(dvd + "/VIDEO_TS/VTS_01_1.VOB"), "video").value(0);
    for (const QStringList& args :
         {QStringList{"-i", dvd, "-t", "1", "--scan", "--use-opencl"},
          QStringList{"-i", dvd, "-t", "0", "--min-duration", "0", "--use-opencl"}}) {
        SCOPED_TRACE(args.join(' ').toStdString());
        const RunResult r = runTool(args);
        EXPECT_EQ(r.exitCode, 0);
        const auto movie = parsed(r);
        EXPECT_EQ(movie->sourceType(), 2);
        ASSERT_EQ(movie->titles().size(), 1u);
        const Title& t = *movie->titles().front();
        EXPECT_FALSE(t.isStreaming());
        EXPECT_EQ(t.pixelAspect(), video.value("sample_aspect_ratio").toString().replace(':', '/'));
        EXPECT_EQ(t.FPS().trimmed(), fpsText(ratio(video.value("r_frame_rate").toString())));
        ASSERT_EQ(t.numberAudioTracks(), 1);
        EXPECT_EQ(t.audioTrack(0)->isoName(), "eng");
    }
}

TEST(EncoderToolScan, JunkAndMissingSourcesEndInTheNoTitleVerdict) {
    const QString junk = sample("junk.bin");
    ASSERT_FALSE(junk.isEmpty());
    for (const QString& source : {junk, mediaDir() + "/no-such-movie.mkv"}) {
        const RunResult r =
            runTool({"-i", source, "-t", "1", "--scan", "--use-opencl"}, {}, 120000);
        EXPECT_NE(r.exitCode, 0);
        EXPECT_FALSE(r.err.contains("+ title"));
        // The verdict only counts when something precedes it.
        EXPECT_TRUE(r.err.endsWith("\nNo title found.\nHandBrake has exited.\n"));
    }
}

TEST(EncoderTool, MissingHelpersFailAScanWithAClearLineAndTheVerdict) {
    RunResult r = runTool({"-i", "/tmp/x.mkv", "-t", "1", "--scan"}, "/nonexistent/HandBrakeCLI");
    EXPECT_NE(r.exitCode, 0);
    const QByteArray first = r.err.left(r.err.indexOf('\n'));
    EXPECT_TRUE(first.contains("handbrake-cli") && first.contains("/nonexistent/HandBrakeCLI"))
        << r.err.toStdString();
    EXPECT_TRUE(r.err.endsWith("\nNo title found.\nHandBrake has exited.\n"));

    // Copied away from its scan relay, the tool still fails the scan plainly.
    QTemporaryDir alone;
    ASSERT_TRUE(QFile::copy(kTool, alone.filePath("Tarnwick_Pro_Encoder")));
    r = runTool({"-i", "/in.mkv", "-t", "1", "--scan"}, "/bin/true", 20000,
                alone.filePath("Tarnwick_Pro_Encoder"));
    EXPECT_EQ(r.exitCode, 127);
    EXPECT_TRUE(r.err.startsWith("Tarnwick_Pro_Encoder: cannot run " +
                                 QFile::encodeName(alone.filePath("tarnwick-encoder-scan"))))
        << r.err.toStdString();
    EXPECT_TRUE(r.err.endsWith("\nNo title found.\nHandBrake has exited.\n"));
}

// A stand-in for HandBrakeCLI: a shell script that records its arguments
// and prints what the test gives it.
class FakeHandBrake {
public:
    FakeHandBrake(const QByteArray& body) {
        m_path = m_dir.path() + "/HandBrakeCLI";
        writeFile(m_path,
                  "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.args\"\necho $$ > \"$0.pid\"\n" + body);
        QFile::setPermissions(m_path, QFile::permissions(m_path) | QFile::ExeOwner);
    }
    QString path() const { return m_path; }
    QStringList args() const {
        return QString::fromUtf8(file(".args")).split(u'\n', Qt::SkipEmptyParts);
    }
    QByteArray file(const char* suffix) const {
        QFile f(m_path + suffix);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }
    // Makes `p` run this stand-in in place of HandBrakeCLI.
    void apply(QProcess& p) const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TARNWICK_HANDBRAKE", m_path);
        p.setProcessEnvironment(env);
    }

private:
    QTemporaryDir m_dir;
    QString m_path;
};

TEST(EncoderToolScan, BlurayTitleSetWithBitmapSubtitlesAndForeignNames) {
    // A library message printed in the middle of the block must not break it;
    // log lines lose control characters and trailing blanks, not tabs.
    FakeHandBrake fake(R"(printf '[00:00:00] bd:\tscanning\001 \n' >&2
cat <<'EOF'
JSON Title Set: {"MainFeature": 1, "TitleList": [
 {"Index": 1, "Type": 1, "Path": "/media/disc", "Playlist": 801, "VideoCodec": "h264",
  "Duration": {"Hours": 1, "Minutes": 39, "Seconds": 4}, "FrameRate": {"Num": 24000, "Den": 1001},
  "Geometry": {"Width": 1920, "Height": 1080, "PAR": {"Num": 1, "Den": 1}},
  "AudioList": [
   {"TrackNumber": 1, "CodecName": "dts", "ChannelCount": 6, "LFECount": 1, "Language": "español",
    "LanguageCode": "spa", "SampleRate": 48000, "BitRate": 1509000},
libbluray: a message from another thread
   {"TrackNumber": 2, "CodecName": "truehd", "ChannelCount": 8, "LFECount": 1,
    "Language": "Русский", "LanguageCode": "rus", "SampleRate": 48000, "BitRate": 1}],
  "SubtitleList": [{"TrackNumber": 1, "Format": "bitmap", "SourceName": "PGS",
    "Language": "English [PGS]", "LanguageCode": "eng"}]},
 {"Index": 2, "Type": 1, "Path": "/media/disc", "Playlist": 802, "VideoCodec": "h264",
  "Duration": {"Hours": 0, "Minutes": 2, "Seconds": 0}, "FrameRate": {"Num": 25, "Den": 1},
  "Geometry": {"Width": 1920, "Height": 1080, "PAR": {"Num": 1, "Den": 1}},
  "InterlaceDetected": true, "AudioList": [], "SubtitleList": []}]
}
EOF
echo 'HandBrake has exited.' >&2
)");
    const RunResult r = runTool({"-i", "/media/disc", "-t", "0", "--use-opencl"}, fake.path());
    EXPECT_EQ(r.exitCode, 0);
    // Russian has no ASCII spelling: the English name stands in. An unknown
    // bit rate (1) drops the rate pair; empty lists still carry both headers.
    EXPECT_EQ(r.err, "[00:00:00] bd:\tscanning\n"
                     "libbluray: a message from another thread\n"
                     "scan: BD has 2 title(s)\n"
                     "+ title 1:\n"
                     "  + Main Feature\n"
                     "  + playlist: 00801.MPLS\n"
                     "  + codec: h264\n"
                     "  + duration: 01:39:04\n"
                     "  + size: 1920x1080, pixel aspect: 1/1, display aspect: 1.78, 23.976 FPS\n"
                     "  + chapters:\n"
                     "  + audio tracks:\n"
                     "    + 1, Espanol (DTS) (5.1 ch) (iso639-2: spa), 48000Hz, 1509000bps\n"
                     "    + 2, Russian (TrueHD) (7.1 ch) (iso639-2: rus)\n"
                     "  + subtitle tracks:\n"
                     "    + 1, English (iso639-2: eng) (Bitmap)(PGS)\n"
                     "+ title 2:\n"
                     "  + playlist: 00802.MPLS\n"
                     "  + codec: h264\n"
                     "  + duration: 00:02:00\n"
                     "  + size: 1920x1080, pixel aspect: 1/1, display aspect: 1.78, 25 FPS\n"
                     "  + chapters:\n"
                     "  + audio tracks:\n"
                     "  + subtitle tracks:\n"
                     "+ combing detected, may be interlaced or telecined\n"
                     "HandBrake has exited.\n");
    EXPECT_EQ(fake.args(), (QStringList{"-i", "/media/disc", "-t", "0", "--scan", "--json"}));
}

TEST(EncoderToolScan, ProgressIsRelayedWhileTheScanRuns) {
    FakeHandBrake fake(R"(readlink /proc/$$/fd/0 > "$0.stdin"
echo 'Progress: {"Scanning": {"Preview": 5, "PreviewCount": 10, "Progress": 0.5, "Title": 2, "TitleCount": 3}, "State": "SCANNING"}'
sleep 2
echo 'No title found.' >&2
exit 2
)");
    QProcess p;
    fake.apply(p);
    QElapsedTimer clock;
    clock.start();
    p.start(kTool, {"-i", "/x", "-t", "0", "--use-opencl"});
    QByteArray err;
    qint64 progressAt = -1;
    while (p.state() != QProcess::NotRunning && clock.elapsed() < 20000) {
        p.waitForReadyRead(100);
        err += p.readAllStandardError();
        if (progressAt < 0 && err.contains("Scanning title 2 of 3, preview 5, 50.00 %\n"))
            progressAt = clock.elapsed();
    }
    p.waitForFinished(5000);
    const qint64 endedAt = clock.elapsed();
    err += p.readAllStandardError();
    ASSERT_GE(progressAt, 0) << err.toStdString();
    EXPECT_LT(progressAt + 1000, endedAt) << "progress held back until the end";
    EXPECT_EQ(p.exitCode(), 2);
    EXPECT_TRUE(err.endsWith("No title found.\nHandBrake has exited.\n"));
    EXPECT_EQ(err.count("No title found."), 1);
    EXPECT_EQ(fake.file(".stdin").trimmed(), "/dev/null");
}

// Gone, or a zombie waiting for a parent that does not reap.
bool ended(qint64 pid) {
    QFile f(QString("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return true;
    const QByteArray s = f.readAll();
    return s.mid(s.lastIndexOf(')') + 2, 1) == "Z";
}

qint64 lineCount(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll().count('\n') : 0;
}

TEST(EncoderToolScan, StopContinueAndTerminateReachTheScan) {
    FakeHandBrake fake("while true; do echo >> \"$0.ticks\"; sleep 0.1; done\n");
    const QString ticks = fake.path() + ".ticks";
    QProcess p;
    fake.apply(p);
    p.start(kTool, {"-i", "/x", "-t", "1", "--scan"});
    ASSERT_TRUE(p.waitForStarted());
    const auto pid = pid_t(p.processId());
    for (int i = 0; i < 100 && lineCount(ticks) < 3; ++i)
        QThread::msleep(50);
    ASSERT_GE(lineCount(ticks), 3);

    ::kill(pid, SIGSTOP);
    QThread::msleep(500);
    const qint64 stoppedAt = lineCount(ticks);
    QThread::msleep(800);
    EXPECT_EQ(lineCount(ticks), stoppedAt) << "the scan went on while the tool was stopped";
    ::kill(pid, SIGCONT);
    QThread::msleep(800);
    EXPECT_GT(lineCount(ticks), stoppedAt) << "the scan did not resume";

    ::kill(pid, SIGTERM);
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_TRUE(p.exitStatus() == QProcess::CrashExit || p.exitCode() != 0);
}

// A scan by tarnwick-cli itself, with a stand-in HandBrakeCLI that makes its
// "hb.<pid>" folder, notes its parent (the relay) and then hangs.
TEST(EncoderToolScan, KillingTheCliLeavesNoHelperAndNoTemporaryFolder) {
    FakeHandBrake fake("mkdir \"$TMPDIR/hb.$$\"\necho $PPID > \"$0.relay\"\nexec sleep 60\n");
    QTemporaryDir home;
    const QString tmp = home.filePath("tmp");
    QDir().mkpath(tmp);
    const auto leftInTmp = [&] {
        return QDir(tmp).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    };
    QProcess cli;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TARNWICK_HANDBRAKE", fake.path());
    env.insert("TARNWICK_SETTINGS", home.filePath("Tarnwick.plist"));
    env.insert("TMPDIR", tmp);
    cli.setProcessEnvironment(env);
    cli.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"), {"scan", fake.path()});
    QElapsedTimer clock;
    clock.start();
    while (fake.file(".relay").isEmpty() && clock.elapsed() < 20000)
        QThread::msleep(50);
    const qint64 scanPid = fake.file(".pid").trimmed().toLongLong();
    const qint64 relayPid = fake.file(".relay").trimmed().toLongLong();
    ASSERT_GT(relayPid, 0) << "the scan never started";

    ::kill(pid_t(cli.processId()), SIGKILL);
    ASSERT_TRUE(cli.waitForFinished(5000));
    clock.restart();
    while ((!ended(scanPid) || !ended(relayPid) || !leftInTmp().isEmpty()) &&
           clock.elapsed() < 10000)
        QThread::msleep(50);
    EXPECT_TRUE(ended(scanPid)) << "HandBrakeCLI outlived tarnwick-cli";
    EXPECT_TRUE(ended(relayPid)) << "tarnwick-encoder-scan outlived tarnwick-cli";
    EXPECT_EQ(leftInTmp(), QStringList());
}

// An encode that outlives its caller takes its output with it; while the
// caller lives, the output stays for the caller to judge.
TEST(EncoderToolEncode, OutputOfACallerThatDiedIsRemoved) {
    const FakeHandBrake fake("while [ $# -gt 0 ]; do [ \"$1\" = -o ] && out=$2; shift; done\n"
                             "echo partial > \"$out\"\nsleep 1\n");
    QTemporaryDir dir;
    for (const bool callerDies : {true, false}) {
        const QString out = dir.filePath(callerDies ? "orphan.m4v" : "kept.m4v");
        QProcess caller;
        fake.apply(caller);
        const QString run = callerDies ? "\"$0\" -i x -o \"$1\" >/dev/null 2>&1 & sleep 0.3"
                                       : "\"$0\" -i x -o \"$1\" >/dev/null 2>&1";
        caller.start("sh", {"-c", run,
                            QStringLiteral(TARNWICK_BINARY_DIR "/bin/Tarnwick_Pro_Encoder"), out});
        ASSERT_TRUE(caller.waitForFinished(10000));
        // The encode ends a second in; the watcher looks ten times a second.
        QThread::msleep(1800);
        EXPECT_EQ(QFile::exists(out), !callerDies) << out.toStdString();
    }
}

// A title set written by hand: escapes, nesting and the number forms JSON
// allows, with a duplicated key (the last one counts).
const QByteArray kHandWrittenTitleSet = R"json({
    "Extra": [[1, [2.5e-3, [{"a": [null, true, false, "\"\\\/\b\f\n\r\t\u0041"]}]]], {}, []],
    "MainFeature": 3,
    "TitleList": [
        {
            "AudioList": [
                {"TrackNumber": 1, "CodecName": "AC3", "ChannelCount": 6, "LFECount": 1,
                 "Language": "Norsk bokm\u00e5l", "LanguageCode": "NOB",
                 "SampleRate": 48000, "BitRate": 448000.0},
                {"TrackNumber": 2147483648, "CodecName": "eac3", "ChannelCount": 8.0,
                 "LFECount": 1, "Language": "\u65e5\u672c\u8a9e", "LanguageCode": "jpn",
                 "SampleRate": 4.8E4, "BitRate": 1e0},
                {"CodecName": "truehd", "ChannelCount": 2, "Language": "Ti\u1ebfng Vi\u1ec7t #1~",
                 "LanguageCode": "vie"}
            ],
            "ChapterList": [{"Duration": {"Hours": 0, "Minutes": 1, "Seconds": 2}}],
            "Crop": [0, 2E0, 4, 6],
            "Duration": {"Hours": 1, "Minutes": 2.5, "Seconds": -0},
            "FrameRate": {"Den": 1001, "Num": 2.4e4},
            "Geometry": {"Height": 1080, "PAR": {"Den": 1, "Num": 1}, "Width": 1.92e3},
            "Index": 1,
            "Index": 3.0,
            "InterlaceDetected": true,
            "Path": "/m\u00e9dia/\"x\" \\ \/ \ud83c\udfac\ud800\udc00.mkv",
            "SubtitleList": [{"Format": "Bitmap", "SourceName": "VOBSUB (forced)",
                              "Language": "\u010ce\u0161tina [VOBSUB]", "LanguageCode": "ces"}],
            "Type": 2,
            "VideoCodec": "h264"
        }
    ]
})json";

RunResult scanWithTitleSet(const QByteArray& titleSet) {
    FakeHandBrake fake("cat \"$0.json\"\n");
    writeFile(fake.path() + ".json", "JSON Title Set: " + titleSet + '\n');
    return runTool({"-i", "/x", "-t", "0", "--scan"}, fake.path(), 30000);
}

TEST(EncoderToolScan, HandWrittenTitleSetIsReadWhetherSpreadOrOnOneLine) {
    // Whole numbers count in any notation; others, or out of int's range, read as 0.
    const QByteArray expected = "+ title 3:\n"
                                "  + Main Feature\n"
                                "  + stream: /m??dia/\"x\" \\ / ????????.mkv\n"
                                "  + codec: h264\n"
                                "  + duration: 01:00:00\n"
                                "  + size: 1920x1080, pixel aspect: 1/1, display aspect: 1.78, "
                                "23.976 FPS\n"
                                "  + autocrop: 0/2/4/6\n"
                                "  + chapters:\n"
                                "    + 1: duration 00:01:02\n"
                                "  + audio tracks:\n"
                                "    + 1, Norsk bokmal (AC3) (5.1 ch) (iso639-2: nob), 48000Hz, "
                                "448000bps\n"
                                "    + 0, Japanese (E-AC3) (7.1 ch) (iso639-2: jpn)\n"
                                "    + 3, Tieng Viet #1~ (TrueHD) (2.0 ch) (iso639-2: vie)\n"
                                "  + subtitle tracks:\n"
                                "    + 1, Cestina (iso639-2: ces) (Bitmap)(VOBSUB [forced])\n"
                                "+ combing detected, may be interlaced or telecined\n"
                                "HandBrake has exited.\n";
    QByteArray oneLine = kHandWrittenTitleSet;
    oneLine.replace('\n', ' ');
    for (const QByteArray& text : {kHandWrittenTitleSet, oneLine}) {
        const RunResult r = scanWithTitleSet(text);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_TRUE(r.err.endsWith(expected)) << r.err.toStdString();
        EXPECT_EQ(r.err.count("+ title"), 1);
    }
}

TEST(EncoderToolScan, MalformedTitleSetsEndInTheNoTitleVerdict) {
    const QByteArray good = kHandWrittenTitleSet;
    auto broken = [&](const char* from, const QByteArray& to) {
        EXPECT_TRUE(good.contains(from)) << from;
        return QByteArray(good).replace(from, to);
    };
    const QList<std::pair<const char*, QByteArray>> cases = {
        {"trailing comma", broken("\"vie\"}", "\"vie\"},")},
        {"leading zero", broken("\"Index\": 1,", "\"Index\": 01,")},
        {"number past double", broken("\"Index\": 1,", "\"Index\": 1e400,")},
        {"unknown escape", broken("VOBSUB (forced)", "VOBSUB \\x")},
        {"short unicode escape", broken("\\u00e9dia", "\\u0e dia")},
        {"lone high surrogate", broken("\\ud83c\\udfac", "\\ud83c")},
        {"invalid UTF-8", broken("\"h264\"", "\"h\xff"
                                             "264\"")},
        {"encoded surrogate", broken("\"h264\"", "\"h\xed\xa0\x80"
                                                 "264\"")},
        {"control character in a string", broken("\"h264\"", "\"h\t264\"")},
        {"bad literal", broken("true", "tru")},
        {"unbalanced", broken("\"Crop\": [0, 2E0, 4, 6]", "\"Crop\": [0, 2E0, 4, 6")},
        {"too deep", broken("\"Extra\": [", "\"Extra\": " + QByteArray(3000, '[') +
                                                QByteArray(3000, ']') + ", \"More\": [")},
        {"cut short", good.left(good.indexOf("\"Geometry\"")) + "\n}"},
    };
    for (const auto& [what, text] : cases) {
        SCOPED_TRACE(what);
        const RunResult r = scanWithTitleSet(text);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_FALSE(r.err.contains("+ title")) << r.err.toStdString();
        EXPECT_TRUE(r.err.endsWith("No title found.\nHandBrake has exited.\n"));
    }
}

TEST(EncoderToolEncode, ArgumentsAreAdjustedAndTheToolBecomesTheEncoder) {
    // HandBrakeCLI polls its standard input for keyboard commands; an idle
    // pipe there (the core's) would hold up the end of every encode.
    FakeHandBrake fake("readlink /proc/$$/fd/0 > \"$0.stdin\"\nexit 3\n");
    QProcess p;
    fake.apply(p);
    p.start(kTool, {"--input", "/in.mkv", "--output", "/out.m4v", "--title", "1", "", "--subtitle",
                    "scan,1", "--subtitle-burn", "1", "--subtitle-default", "2", "--decomb",
                    "--use-opencl"});
    ASSERT_TRUE(p.waitForStarted());
    const qint64 pid = p.processId();
    ASSERT_TRUE(p.waitForFinished(20000));
    EXPECT_EQ(p.exitCode(), 3) << "the encoder's status is the tool's";
    EXPECT_EQ(fake.args(), (QStringList{"--input", "/in.mkv", "--output", "/out.m4v", "--title",
                                        "1", "--subtitle", "scan,1", "--subtitle-burned=1",
                                        "--subtitle-default=2", "--decomb"}));
    // Executed in place: signals sent to the tool's pid reach the encoder.
    EXPECT_EQ(fake.file(".pid").trimmed().toLongLong(), pid);
    EXPECT_EQ(fake.file(".stdin").trimmed(), "/dev/null");
}

TEST(EncoderToolEncode, EncodesAPlayableM4vWithProgressAndFrameCounts) {
    const QString mkv = sample("movie.mkv");
    ASSERT_FALSE(mkv.isEmpty());
    QTemporaryDir out;
    const QString m4v = out.path() + "/movie.m4v";
    const RunResult r = runTool({"--input", mkv, "--output", m4v, "--title", "1", "--encoder",
                                 "x264", "--vb", "1000", "--format", "av_mp4", "--aencoder",
                                 "av_aac", "--audio", "1", "--use-opencl"});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();

    const QJsonObject result = probe(m4v);
    ASSERT_EQ(probeStreams(result, "video").size(), 1);
    ASSERT_EQ(probeStreams(result, "audio").size(), 1);
    const double seconds =
        result.value("format").toObject().value("duration").toString().toDouble();
    EXPECT_NEAR(seconds, 6, 0.5);

    // Progress and frame counts as the core reads them; text precedes the sync marker.
    EXPECT_TRUE(QString::fromLatin1(r.out).contains(
        QRegularExpression(R"(Encoding: task 1 of 1, \d+\.\d\d %)")))
        << r.out.toStdString();
    static const QRegularExpression sync(R"(\S.*sync: got (\d+) frames, (\d+) expected)");
    const QRegularExpressionMatch m = sync.match(QString::fromLatin1(r.err));
    ASSERT_TRUE(m.hasMatch()) << r.err.toStdString();
    EXPECT_NEAR(m.captured(2).toInt(), seconds * 25, 3); // the sample runs at 25 frames a second
    EXPECT_NEAR(m.captured(1).toInt(), m.captured(2).toInt(), 3);
}

} // namespace
