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

#include "media/AudioTrack.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "media/Title.h"

#include "Processes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>

namespace {

const QString kTool = QStringLiteral(TARNWICK_BINARY_DIR "/bin/Tarnwick_Pro_Encoder");

struct ToolRun {
    int exitCode = -1;
    bool crashed = false;
    bool finished = false;
    QByteArray out;
    QByteArray err;
};

ToolRun runTool(const QStringList& args, const QString& handbrake = {}, int timeoutMs = 180000) {
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!handbrake.isEmpty())
        env.insert(QStringLiteral("TARNWICK_HANDBRAKE"), handbrake);
    p.setProcessEnvironment(env);
    p.start(kTool, args);
    ToolRun r;
    r.finished = p.waitForFinished(timeoutMs);
    if (!r.finished) {
        p.kill();
        p.waitForFinished();
    }
    r.exitCode = p.exitCode();
    r.crashed = p.exitStatus() == QProcess::CrashExit;
    r.out = p.readAllStandardOutput();
    r.err = p.readAllStandardError();
    return r;
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
    writeFile(w + "/s.ass",
              "[Script Info]\nScriptType: v4.00+\nPlayResX: 640\nPlayResY: 360\n\n"
              "[V4+ Styles]\nFormat: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, "
              "OutlineColour, BackColour, Bold, Italic, Underline, StrikeOut, ScaleX, ScaleY, "
              "Spacing, Angle, BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, "
              "MarginV, Encoding\nStyle: Default,Arial,20,&H00FFFFFF,&H000000FF,&H00000000,"
              "&H00000000,0,0,0,0,100,100,0,0,1,1,0,2,10,10,10,1\n\n[Events]\nFormat: Layer, "
              "Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n"
              "Dialogue: 0,0:00:01.00,0:00:03.00,Default,,0,0,0,,Bonjour\n");
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
    } else if (name == QLatin1String("movie.ts")) {
        testsupport::ffmpeg(words("-f lavfi -i testsrc2=size=1280x720:rate=30000/1001 -f lavfi -i "
                                  "sine -t 5 -c:v mpeg2video -c:a mp2 -metadata:s:a:0 "
                                  "language=ita") +
                            QStringList{made});
    } else if (name == QLatin1String("interlaced.mkv")) {
        // Two frames woven into one: every frame with motion shows combing.
        testsupport::ffmpeg(words("-f lavfi -i testsrc2=size=720x480:rate=60000/1001 -f lavfi -i "
                                  "sine -t 5 -vf tinterlace=4,setfield=tff -c:v mpeg2video -flags "
                                  "+ilme+ildct -b:v 6M -c:a ac3 -ac 2") +
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
        QString mpg = w + "/title.mpg";
        testsupport::ffmpeg(words("-f lavfi -i testsrc2=size=720x480:rate=30000/1001 -f lavfi -i "
                                  "sine -t 5 -target ntsc-dvd -aspect 16:9") +
                            QStringList{mpg});
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("VIDEO_FORMAT", "NTSC");
        p.setProcessEnvironment(env);
        // Bitmap subtitles rendered from the text ones, when the font is there.
        const QString font = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
        QStringList subtitleArgs;
        if (QFileInfo::exists(font)) {
            writeFile(w + "/spumux.xml",
                      "<subpictures format=\"NTSC\"><stream><textsub filename=\"" +
                          (w + "/s.srt").toUtf8() +
                          "\" characterset=\"UTF-8\" fontsize=\"28.0\" "
                          "font=\"" +
                          font.toUtf8() +
                          "\" horizontal-alignment=\"center\" "
                          "vertical-alignment=\"bottom\" subtitle-fps=\"29.97\" "
                          "movie-fps=\"29.97\" movie-width=\"720\" movie-height=\"478\"/>"
                          "</stream></subpictures>\n");
            p.setStandardInputFile(mpg);
            p.setStandardOutputFile(w + "/subtitled.mpg");
            p.start("spumux", {"-s0", w + "/spumux.xml"});
            if (p.waitForFinished(120000) && p.exitCode() == 0) {
                mpg = w + "/subtitled.mpg";
                subtitleArgs = {"-s", "en"};
            }
            p.setStandardInputFile(QProcess::nullDevice());
            p.setStandardOutputFile(QString());
        }
        p.setProcessChannelMode(QProcess::MergedChannels);
        for (const QStringList& a :
             {QStringList{"-o", made, "-t", "-a", "ac3+en"} + subtitleArgs + QStringList{mpg},
              QStringList{"-o", made, "-T"}}) {
            p.start("dvdauthor", a);
            EXPECT_TRUE(p.waitForFinished(120000) && p.exitCode() == 0) << p.readAll().data();
        }
    }
    if (!QFileInfo::exists(made))
        return {};
    if (!QFile::rename(made, target) && !QFileInfo::exists(target))
        return {};
    return target;
}

QJsonObject probe(const QString& path) {
    QProcess p;
    p.start("ffprobe", {"-v", "error", "-of", "json", "-show_streams", "-show_format", path});
    p.waitForFinished(60000);
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
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

// One title block of a report, read line by line with the exact layout
// the core's parser expects; lines that do not fit are collected.
struct AudioLine {
    int index = 0;
    QString name, codec, channels, iso, freq, bps;
};
struct SubtitleLine {
    int index = 0;
    QString name, iso, type;
};
struct TitleBlock {
    int id = 0;
    QString stream, codec, duration, size, pixelAspect, displayAspect, fps;
    QList<AudioLine> audio;
    QList<SubtitleLine> subtitles;
    bool combing = false;
};
struct Report {
    QList<TitleBlock> titles;
    QStringList badLines;
    bool noTitle = false;
    bool dvdMarker = false;
    QString blurayLine;
    QString lastLine;
};

Report readReport(const QByteArray& err) {
    Report r;
    const QStringList lines = QString::fromLatin1(err).split(u'\n', Qt::SkipEmptyParts);
    r.lastLine = lines.isEmpty() ? QString() : lines.last();
    qsizetype start = 0;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        if (lines[i].contains("libdvdnav: DVD disk reports"))
            r.dvdMarker = true;
        if (lines[i].startsWith("scan: BD has"))
            r.blurayLine = lines[i];
        if (lines[i] == QLatin1String("No title found."))
            r.noTitle = true;
        if (start == 0 && lines[i].startsWith("+ title "))
            start = i;
    }
    if (start == 0)
        return r;
    static const QRegularExpression title(R"(^\+ title (\d+):$)");
    static const QRegularExpression field(R"(^  \+ (stream|codec|duration): (.+)$)");
    static const QRegularExpression size(
        R"(^  \+ size: (\d+x\d+), pixel aspect: (\d+/\d+), display aspect: (\d+\.\d\d), (\d+(?:\.\d{3})?) FPS$)");
    static const QRegularExpression audio(
        R"(^    \+ (\d+), ([^()]+) \(([^()]+)\) \((\d+\.\d ch)\) \(iso639-2: ([a-z]{3})\)(?:, (\d+Hz), (\d+bps))?$)");
    static const QRegularExpression subtitle(
        R"(^    \+ (\d+), ([^()]+) \(iso639-2: ([a-z]{3})\) (\((?:Text|Bitmap)\)\([^()]+\))$)");
    static const QRegularExpression skipped(
        R"(^  \+ (Main Feature|autocrop: .*|chapters:|playlist: .*)$|^    \+ \d+: duration \d\d:\d\d:\d\d$)");
    enum { None, Audio, Subs } section = None;
    for (qsizetype i = start; i < lines.size(); ++i) {
        const QString& l = lines[i];
        QRegularExpressionMatch m;
        if ((m = title.match(l)).hasMatch()) {
            r.titles.append(TitleBlock{});
            r.titles.last().id = m.captured(1).toInt();
            section = None;
        } else if (r.titles.isEmpty()) {
            r.badLines << l;
        } else if ((m = field.match(l)).hasMatch()) {
            TitleBlock& t = r.titles.last();
            (m.captured(1) == "stream"  ? t.stream
             : m.captured(1) == "codec" ? t.codec
                                        : t.duration) = m.captured(2);
        } else if ((m = size.match(l)).hasMatch()) {
            TitleBlock& t = r.titles.last();
            t.size = m.captured(1);
            t.pixelAspect = m.captured(2);
            t.displayAspect = m.captured(3);
            t.fps = m.captured(4);
        } else if (l == QLatin1String("  + audio tracks:")) {
            section = Audio;
        } else if (l == QLatin1String("  + subtitle tracks:")) {
            section = Subs;
        } else if (section == Audio && (m = audio.match(l)).hasMatch()) {
            r.titles.last().audio.append({m.captured(1).toInt(), m.captured(2), m.captured(3),
                                          m.captured(4), m.captured(5), m.captured(6),
                                          m.captured(7)});
        } else if (section == Subs && (m = subtitle.match(l)).hasMatch()) {
            r.titles.last().subtitles.append(
                {m.captured(1).toInt(), m.captured(2), m.captured(3), m.captured(4)});
        } else if (l == QLatin1String("+ combing detected, may be interlaced or telecined")) {
            r.titles.last().combing = true;
        } else if (l == QLatin1String("HandBrake has exited.") && i == lines.size() - 1) {
            break;
        } else if (!skipped.match(l).hasMatch()) {
            r.badLines << l;
        }
    }
    return r;
}

bool isAscii(const QByteArray& bytes) {
    for (char c : bytes) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    }
    return true;
}

int seconds(const QString& hms) {
    const QStringList p = hms.split(u':');
    return p.size() == 3 ? p[0].toInt() * 3600 + p[1].toInt() * 60 + p[2].toInt() : -1;
}

QString fpsText(double fps) {
    return std::fabs(fps - std::round(fps)) < 0.0005 ? QString::number(std::lround(fps))
                                                     : QString::number(fps, 'f', 3);
}

QLocale::Language languageOf(const QString& code) {
    return QLocale::codeToLanguage(code, QLocale::ISO639Part2);
}

// Checks a file title block against what ffprobe reads from the file.
void expectTitleMatchesProbe(const TitleBlock& t, const QString& path) {
    const QJsonObject probed = probe(path);
    const QList<QJsonObject> video = probeStreams(probed, "video");
    ASSERT_EQ(video.size(), 1);
    const QJsonObject v = video.first();
    EXPECT_EQ(t.stream, path);
    EXPECT_EQ(t.size,
              QString("%1x%2").arg(v.value("width").toInt()).arg(v.value("height").toInt()));
    EXPECT_EQ(t.fps, fpsText(ratio(v.value("r_frame_rate").toString())));
    const double duration =
        probed.value("format").toObject().value("duration").toString().toDouble();
    EXPECT_LE(std::abs(seconds(t.duration) - int(duration)), 1) << t.duration.toStdString();
    const QString codec = v.value("codec_name").toString();
    EXPECT_EQ(t.codec, codec == "mpeg2video" ? QString("mpeg2") : codec);

    const QList<QJsonObject> audio = probeStreams(probed, "audio");
    ASSERT_EQ(t.audio.size(), audio.size());
    for (qsizetype i = 0; i < audio.size(); ++i) {
        const QJsonObject a = audio[i];
        const AudioLine& line = t.audio[i];
        EXPECT_EQ(line.index, i + 1);
        EXPECT_EQ(line.codec, a.value("codec_name").toString().toUpper());
        const int channels = a.value("channels").toInt();
        const int lfe = a.value("channel_layout").toString().startsWith("5.1") ? 1 : 0;
        EXPECT_EQ(line.channels, QString("%1.%2 ch").arg(channels - lfe).arg(lfe));
        const QString language = a.value("tags").toObject().value("language").toString();
        EXPECT_EQ(languageOf(line.iso), languageOf(language))
            << line.iso.toStdString() << " vs " << language.toStdString();
        if (!line.freq.isEmpty()) {
            EXPECT_EQ(line.freq, a.value("sample_rate").toString() + "Hz");
        }
    }
}

TEST(EncoderToolScan, MatroskaReportMatchesTheFile) {
    const QString mkv = sample("movie.mkv");
    ASSERT_FALSE(mkv.isEmpty());
    const ToolRun r = runTool({"-i", mkv, "-t", "1", "--scan", "--use-opencl"});
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(isAscii(r.err));
    EXPECT_TRUE(r.out.isEmpty() || !r.out.contains("+ title")) << "report belongs on stderr";
    const Report report = readReport(r.err);
    EXPECT_TRUE(report.badLines.isEmpty()) << report.badLines.join('\n').toStdString();
    EXPECT_EQ(report.lastLine, "HandBrake has exited.");
    EXPECT_FALSE(report.dvdMarker);
    EXPECT_FALSE(report.noTitle);
    ASSERT_EQ(report.titles.size(), 1);
    const TitleBlock& t = report.titles.first();
    EXPECT_EQ(t.id, 1);
    expectTitleMatchesProbe(t, mkv);
    EXPECT_EQ(t.pixelAspect, "1/1");
    EXPECT_EQ(t.displayAspect, "1.78");
    EXPECT_FALSE(t.combing);
    ASSERT_EQ(t.audio.size(), 2);
    EXPECT_EQ(t.audio[0].name, "English");
    EXPECT_EQ(t.audio[0].bps, "448000bps");
    const QList<QJsonObject> subs = probeStreams(probe(mkv), "subtitle");
    ASSERT_EQ(t.subtitles.size(), subs.size());
    EXPECT_EQ(t.subtitles[0].type, "(Text)(UTF-8)");
    EXPECT_EQ(t.subtitles[1].type, "(Text)(SSA)");
    for (qsizetype i = 0; i < subs.size(); ++i)
        EXPECT_EQ(languageOf(t.subtitles[i].iso),
                  languageOf(subs[i].value("tags").toObject().value("language").toString()));
    // The scan's own log is relayed ahead of the report.
    EXPECT_TRUE(r.err.contains("hb_scan:"));
    EXPECT_FALSE(r.err.contains("JSON Title Set"));
    // The core's parser takes the report as it is.
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(QString::fromLatin1(r.err), movie));
    EXPECT_EQ(movie.sourceType(), 1);
    EXPECT_EQ(movie.titles().front()->numberAudioTracks(), 2);
}

TEST(EncoderToolScan, Mp4AndTransportStreamReports) {
    const QString mp4 = sample("movie.mp4");
    const QString ts = sample("movie.ts");
    ASSERT_FALSE(mp4.isEmpty());
    ASSERT_FALSE(ts.isEmpty());

    ToolRun r = runTool({"-i", mp4, "-t", "1", "--scan", "--use-opencl"});
    Report report = readReport(r.err);
    EXPECT_TRUE(report.badLines.isEmpty()) << report.badLines.join('\n').toStdString();
    ASSERT_EQ(report.titles.size(), 1);
    expectTitleMatchesProbe(report.titles[0], mp4);
    ASSERT_EQ(report.titles[0].subtitles.size(), 1);
    const SubtitleLine& sub = report.titles[0].subtitles[0];
    EXPECT_EQ(sub.type, "(Text)(TX3G)");
    EXPECT_EQ(sub.iso, "spa");
    // The native name is reported in ASCII, capitalised.
    EXPECT_EQ(sub.name, "Espanol");

    // Title 0 asks for every title of the source.
    r = runTool({"-i", ts, "-t", "0", "--use-opencl"});
    report = readReport(r.err);
    EXPECT_TRUE(report.badLines.isEmpty()) << report.badLines.join('\n').toStdString();
    ASSERT_EQ(report.titles.size(), 1);
    expectTitleMatchesProbe(report.titles[0], ts);
    EXPECT_EQ(report.titles[0].fps, "29.970");
    ASSERT_EQ(report.titles[0].audio.size(), 1);
    EXPECT_EQ(report.titles[0].audio[0].codec, "MP2");
    EXPECT_EQ(report.titles[0].audio[0].channels, "1.0 ch");
    EXPECT_TRUE(report.titles[0].subtitles.isEmpty());
}

TEST(EncoderToolScan, DvdFolderIsMarkedAndHasNoStream) {
    const QString dvd = sample("DVD");
    ASSERT_FALSE(dvd.isEmpty());
    const QJsonObject probed = probe(dvd + "/VIDEO_TS/VTS_01_1.VOB");
    const QJsonObject video = probeStreams(probed, "video").value(0);

    for (const QStringList& args :
         {QStringList{"-i", dvd, "-t", "1", "--scan", "--use-opencl"},
          QStringList{"-i", dvd, "-t", "0", "--min-duration", "0", "--use-opencl"}}) {
        const ToolRun r = runTool(args);
        ASSERT_TRUE(r.finished);
        EXPECT_EQ(r.exitCode, 0);
        const Report report = readReport(r.err);
        EXPECT_TRUE(report.dvdMarker);
        EXPECT_TRUE(report.badLines.isEmpty()) << report.badLines.join('\n').toStdString();
        ASSERT_EQ(report.titles.size(), 1);
        const TitleBlock& t = report.titles[0];
        EXPECT_TRUE(t.stream.isEmpty());
        EXPECT_EQ(t.codec, "mpeg2");
        EXPECT_EQ(
            t.size,
            QString("%1x%2").arg(video.value("width").toInt()).arg(video.value("height").toInt()));
        EXPECT_EQ(t.pixelAspect, video.value("sample_aspect_ratio").toString().replace(':', '/'));
        EXPECT_EQ(
            t.displayAspect,
            QString::number(ratio(video.value("display_aspect_ratio").toString().replace(':', '/')),
                            'f', 2));
        EXPECT_EQ(t.fps, fpsText(ratio(video.value("r_frame_rate").toString())));
        EXPECT_LE(std::abs(seconds(t.duration) - 5), 1);
        ASSERT_EQ(t.audio.size(), 1);
        EXPECT_EQ(t.audio[0].codec, "AC3");
        EXPECT_EQ(t.audio[0].freq, "48000Hz");
        EXPECT_EQ(t.audio[0].name, "English");
        EXPECT_EQ(t.audio[0].iso, "eng");
        MDI_Movie movie;
        EXPECT_TRUE(MDI_Utility::decodeScanString(QString::fromLatin1(r.err), movie));
        EXPECT_EQ(movie.sourceType(), 2);
        if (QFileInfo::exists(dvd + "/VIDEO_TS/VTS_01_0.IFO") &&
            !probeStreams(probed, "subtitle").isEmpty()) {
            ASSERT_EQ(t.subtitles.size(), 1);
            EXPECT_EQ(t.subtitles[0].type, "(Bitmap)(VOBSUB)");
            EXPECT_EQ(t.subtitles[0].name, "English");
            EXPECT_EQ(t.subtitles[0].iso, "eng");
        }
    }
}

TEST(EncoderToolScan, CombingIsReportedForInterlacedVideoOnly) {
    const QString interlaced = sample("interlaced.mkv");
    ASSERT_FALSE(interlaced.isEmpty());
    const Report report = readReport(runTool({"-i", interlaced, "-t", "1", "--scan"}).err);
    ASSERT_EQ(report.titles.size(), 1);
    EXPECT_TRUE(report.titles[0].combing);
    EXPECT_TRUE(report.badLines.isEmpty()) << report.badLines.join('\n').toStdString();
}

TEST(EncoderToolScan, JunkAndMissingSourcesEndInTheNoTitleVerdict) {
    const QString junk = sample("junk.bin");
    ASSERT_FALSE(junk.isEmpty());
    for (const QString& source : {junk, mediaDir() + "/no-such-movie.mkv"}) {
        QElapsedTimer clock;
        clock.start();
        const ToolRun r = runTool({"-i", source, "-t", "1", "--scan", "--use-opencl"}, {}, 120000);
        ASSERT_TRUE(r.finished) << "scan of " << source.toStdString() << " hung";
        EXPECT_NE(r.exitCode, 0);
        const Report report = readReport(r.err);
        EXPECT_TRUE(report.noTitle);
        EXPECT_TRUE(report.titles.isEmpty());
        EXPECT_TRUE(r.err.endsWith("No title found.\nHandBrake has exited.\n"));
        // The verdict only counts when something precedes it.
        EXPECT_FALSE(r.err.startsWith("No title found."));
    }
}

TEST(EncoderTool, MissingHandBrakeNamesThePackage) {
    for (const QStringList& args :
         {QStringList{"-i", "/tmp/x.mkv", "-t", "1", "--scan", "--use-opencl"},
          QStringList{"--input", "/tmp/x.mkv", "--output", "/tmp/x.m4v", "--title", "1"}}) {
        const ToolRun r = runTool(args, "/nonexistent/HandBrakeCLI", 30000);
        ASSERT_TRUE(r.finished);
        EXPECT_NE(r.exitCode, 0);
        const QList<QByteArray> lines = r.err.split('\n');
        ASSERT_FALSE(lines.isEmpty());
        EXPECT_TRUE(lines.first().contains("handbrake-cli")) << r.err.toStdString();
        EXPECT_TRUE(lines.first().contains("/nonexistent/HandBrakeCLI"));
    }
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
        QFile f(m_path + ".args");
        f.open(QIODevice::ReadOnly);
        return QString::fromUtf8(f.readAll()).split(u'\n', Qt::SkipEmptyParts);
    }
    QByteArray file(const char* suffix) const {
        QFile f(m_path + suffix);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }
    QString dir() const { return m_dir.path(); }
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

QJsonObject fakeTitle(int index, int type) {
    QJsonObject t;
    t["Index"] = index;
    t["Type"] = type;
    t["Path"] = "/media/disc";
    t["Playlist"] = 800 + index;
    t["VideoCodec"] = "h264";
    t["Duration"] = QJsonObject{{"Hours", 1}, {"Minutes", 39}, {"Seconds", 4}};
    t["FrameRate"] = QJsonObject{{"Num", 24000}, {"Den", 1001}};
    t["Geometry"] = QJsonObject{
        {"Width", 1920}, {"Height", 1080}, {"PAR", QJsonObject{{"Num", 1}, {"Den", 1}}}};
    t["InterlaceDetected"] = false;
    t["AudioList"] = QJsonArray{
        QJsonObject{{"TrackNumber", 1},
                    {"CodecName", "dts"},
                    {"ChannelCount", 6},
                    {"LFECount", 1},
                    {"Language", QString::fromUtf8("espa\xc3\xb1ol")},
                    {"LanguageCode", "spa"},
                    {"SampleRate", 48000},
                    {"BitRate", 1509000}},
        QJsonObject{{"TrackNumber", 2},
                    {"CodecName", "truehd"},
                    {"ChannelCount", 8},
                    {"LFECount", 1},
                    {"Language", QString::fromUtf8("\xd0\xa0\xd1\x83\xd1\x81\xd1\x81\xd0\xba"
                                                   "\xd0\xb8\xd0\xb9")},
                    {"LanguageCode", "rus"},
                    {"SampleRate", 48000},
                    {"BitRate", 1}}};
    t["SubtitleList"] = QJsonArray{QJsonObject{{"TrackNumber", 1},
                                               {"Format", "bitmap"},
                                               {"SourceName", "PGS"},
                                               {"Language", "English [PGS]"},
                                               {"LanguageCode", "eng"}}};
    return t;
}

TEST(EncoderToolScan, BlurayTitleSetWithBitmapSubtitlesAndForeignNames) {
    QJsonObject second = fakeTitle(2, 1);
    second["AudioList"] = QJsonArray{};
    second["SubtitleList"] = QJsonArray{};
    second["InterlaceDetected"] = true;
    const QJsonObject set{{"MainFeature", 1}, {"TitleList", QJsonArray{fakeTitle(1, 1), second}}};
    QByteArray json = QJsonDocument(set).toJson(QJsonDocument::Indented);
    // A library message printed in the middle of the block must not break it.
    const qsizetype third = json.indexOf('\n', json.indexOf('\n', json.indexOf('\n') + 1) + 1);
    json.insert(third + 1, "libbluray: a message from another thread\n");
    FakeHandBrake fake("echo '[00:00:00] bd: scanning' >&2\n"
                       "cat <<'EOF'\nJSON Title Set: " +
                       json + "EOF\necho 'HandBrake has exited.' >&2\nexit 0\n");

    const ToolRun r = runTool({"-i", "/media/disc", "-t", "0", "--use-opencl"}, fake.path());
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(isAscii(r.err));
    EXPECT_TRUE(r.err.contains("libbluray: a message from another thread\n"));
    EXPECT_EQ(r.err.count("HandBrake has exited."), 1);
    const QStringList args = fake.args();
    EXPECT_FALSE(args.contains("--use-opencl"));
    EXPECT_TRUE(args.contains("--scan"));
    EXPECT_TRUE(args.contains("--json"));
    EXPECT_EQ(args.mid(0, 4), (QStringList{"-i", "/media/disc", "-t", "0"}));

    const Report report = readReport(r.err);
    EXPECT_TRUE(report.badLines.isEmpty()) << report.badLines.join('\n').toStdString();
    EXPECT_EQ(report.blurayLine, "scan: BD has 2 title(s)");
    EXPECT_FALSE(report.dvdMarker);
    ASSERT_EQ(report.titles.size(), 2);
    const TitleBlock& t = report.titles[0];
    EXPECT_TRUE(t.stream.isEmpty());
    EXPECT_EQ(t.duration, "01:39:04");
    EXPECT_EQ(t.size, "1920x1080");
    EXPECT_EQ(t.fps, "23.976");
    ASSERT_EQ(t.audio.size(), 2);
    EXPECT_EQ(t.audio[0].name, "Espanol");
    EXPECT_EQ(t.audio[0].codec, "DTS");
    EXPECT_EQ(t.audio[0].channels, "5.1 ch");
    EXPECT_EQ(t.audio[0].bps, "1509000bps");
    // Russian has no ASCII spelling: the English name stands in.
    EXPECT_EQ(t.audio[1].name, "Russian");
    EXPECT_EQ(t.audio[1].codec, "TrueHD");
    EXPECT_EQ(t.audio[1].channels, "7.1 ch");
    EXPECT_TRUE(t.audio[1].freq.isEmpty()) << "an unknown bit rate drops the pair";
    ASSERT_EQ(t.subtitles.size(), 1);
    EXPECT_EQ(t.subtitles[0].name, "English");
    EXPECT_EQ(t.subtitles[0].type, "(Bitmap)(PGS)");
    EXPECT_FALSE(t.combing);
    EXPECT_TRUE(report.titles[1].audio.isEmpty());
    EXPECT_TRUE(report.titles[1].combing);
    // The second title's empty lists still carry both headers.
    EXPECT_TRUE(r.err.contains("+ title 2:"));
    const QByteArray tail = r.err.mid(r.err.indexOf("+ title 2:"));
    EXPECT_TRUE(tail.contains("  + audio tracks:\n  + subtitle tracks:\n+ combing detected"));
}

TEST(EncoderToolScan, ProgressIsRelayedWhileTheScanRuns) {
    FakeHandBrake fake("cat <<'EOF'\nProgress: {\n    \"Scanning\": {\n        \"Preview\": 5,\n"
                       "        \"PreviewCount\": 10,\n        \"Progress\": 0.5,\n"
                       "        \"Title\": 2,\n        \"TitleCount\": 3\n    },\n"
                       "    \"State\": \"SCANNING\"\n}\nEOF\n"
                       "sleep 2\necho 'No title found.' >&2\nexit 2\n");
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
}

char processState(qint64 pid) {
    QFile f(QString("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray s = f.readAll();
    const qsizetype close = s.lastIndexOf(')');
    return close > 0 && close + 2 < s.size() ? s.at(close + 2) : 0;
}

qint64 lineCount(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll().count('\n') : 0;
}

TEST(EncoderToolScan, StopContinueAndTerminateReachTheScan) {
    FakeHandBrake fake("i=0\nwhile [ $i -lt 200 ]; do echo $i >> \"$0.ticks\"; i=$((i+1)); "
                       "sleep 0.1; done\necho 'JSON Title Set: {\"TitleList\": []}'\n");
    const QString ticks = fake.path() + ".ticks";
    QProcess p;
    fake.apply(p);
    p.start(kTool, {"-i", "/x", "-t", "1", "--scan"});
    ASSERT_TRUE(p.waitForStarted());
    const qint64 pid = p.processId();
    for (int i = 0; i < 100 && lineCount(ticks) < 3; ++i)
        QThread::msleep(50);
    ASSERT_GE(lineCount(ticks), 3);

    ::kill(pid_t(pid), SIGSTOP);
    QThread::msleep(500);
    const qint64 stoppedAt = lineCount(ticks);
    QThread::msleep(800);
    EXPECT_EQ(lineCount(ticks), stoppedAt) << "the scan went on while the tool was stopped";

    ::kill(pid_t(pid), SIGCONT);
    QThread::msleep(800);
    EXPECT_GT(lineCount(ticks), stoppedAt) << "the scan did not resume";

    ::kill(pid_t(pid), SIGTERM);
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_TRUE(p.exitStatus() == QProcess::CrashExit || p.exitCode() != 0);
    EXPECT_LT(lineCount(ticks), 150);
    const qint64 afterEnd = lineCount(ticks);
    QThread::msleep(300);
    EXPECT_EQ(lineCount(ticks), afterEnd) << "the scan outlived the tool";
}

// A scan by tarnwick-cli itself, with a stand-in HandBrakeCLI that makes its
// "hb.<pid>" folder, notes its parent (the relay) and then hangs.
class HangingScan : public ::testing::Test {
protected:
    HangingScan() : fake("mkdir \"$TMPDIR/hb.$$\"\necho $PPID > \"$0.relay\"\nexec sleep 60\n") {}
    void start(const QStringList& args) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TARNWICK_HANDBRAKE", fake.path());
        env.insert("TARNWICK_SETTINGS", home.filePath("Tarnwick.plist"));
        QDir().mkpath(tmp());
        env.insert("TMPDIR", tmp());
        cli.setProcessEnvironment(env);
        cli.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"), args);
        ASSERT_TRUE(cli.waitForStarted());
    }
    QString tmp() const { return home.filePath("tmp"); }
    QStringList leftInTmp() const {
        return QDir(tmp()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }
    // Gone, or a zombie waiting for a parent that does not reap.
    static bool ended(qint64 pid) {
        const char state = processState(pid);
        return state == 0 || state == 'Z';
    }

    FakeHandBrake fake;
    QTemporaryDir home;
    QProcess cli;
};

TEST_F(HangingScan, KillingTheCliLeavesNoHelperAndNoTemporaryFolder) {
    start({"scan", fake.path()});
    QElapsedTimer clock;
    clock.start();
    while (fake.file(".relay").isEmpty() && clock.elapsed() < 20000)
        QThread::msleep(50);
    const qint64 scanPid = fake.file(".pid").trimmed().toLongLong();
    const qint64 relayPid = fake.file(".relay").trimmed().toLongLong();
    ASSERT_GT(relayPid, 0) << "the scan never started";
    EXPECT_TRUE(leftInTmp().contains(QStringLiteral("hb.%1").arg(scanPid)));

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

TEST_F(HangingScan, ScanPastItsTimeLimitFailsWithAWarning) {
    start({"settings", "set", "Scan Time Limit", "1"});
    ASSERT_TRUE(cli.waitForFinished(30000));
    ASSERT_EQ(cli.exitCode(), 0) << cli.readAllStandardError().toStdString();
    QElapsedTimer clock;
    clock.start();
    start({"scan", fake.path()});
    ASSERT_TRUE(cli.waitForFinished(30000));
    EXPECT_LT(clock.elapsed(), 15000);
    EXPECT_NE(cli.exitCode(), 0);
    const QByteArray said = cli.readAllStandardOutput() + cli.readAllStandardError();
    EXPECT_TRUE(said.contains("stopped after 1 second")) << said.toStdString();
    EXPECT_TRUE(said.contains("Scan Time Limit")) << said.toStdString();
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
            "Path": "/m\u00e9dia/\"x\" \\ \/ \ud83c\udfac.mkv",
            "SubtitleList": [{"Format": "Bitmap", "SourceName": "VOBSUB (forced)",
                              "Language": "\u010ce\u0161tina [VOBSUB]", "LanguageCode": "ces"}],
            "Type": 2,
            "VideoCodec": "h264"
        }
    ]
})json";

ToolRun scanWithTitleSet(const QByteArray& titleSet) {
    FakeHandBrake fake("cat \"$0.json\"\n");
    writeFile(fake.path() + ".json", "JSON Title Set: " + titleSet + '\n');
    return runTool({"-i", "/x", "-t", "0", "--scan"}, fake.path(), 30000);
}

TEST(EncoderToolScan, HandWrittenTitleSetIsReadWhetherSpreadOrOnOneLine) {
    // Whole numbers count in any notation; others, or out of int's range, read as 0.
    const QByteArray expected = "+ title 3:\n"
                                "  + Main Feature\n"
                                "  + stream: /m??dia/\"x\" \\ / ????.mkv\n"
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
        const ToolRun r = scanWithTitleSet(text);
        ASSERT_TRUE(r.finished);
        EXPECT_FALSE(r.crashed);
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
        {"bare fraction", broken("\"Index\": 1,", "\"Index\": .5,")},
        {"number past double", broken("\"Index\": 1,", "\"Index\": 1e400,")},
        {"unknown escape", broken("VOBSUB (forced)", "VOBSUB \\x")},
        {"short unicode escape", broken("\\u00e9dia", "\\u0e dia")},
        {"lone high surrogate", broken("\\ud83c\\udfac", "\\ud83c")},
        {"lone low surrogate", broken("\\ud83c\\udfac", "\\udfac")},
        {"invalid UTF-8", broken("\"h264\"", "\"h\xff"
                                             "264\"")},
        {"encoded surrogate", broken("\"h264\"", "\"h\xed\xa0\x80"
                                                 "264\"")},
        {"control character in a string", broken("\"h264\"", "\"h\t264\"")},
        {"bad literal", broken("true", "tru")},
        {"missing colon", broken("\"Type\": 2", "\"Type\" 2")},
        {"unquoted key", broken("\"Type\": 2", "Type: 2")},
        {"unbalanced", broken("\"Crop\": [0, 2E0, 4, 6]", "\"Crop\": [0, 2E0, 4, 6")},
        {"too deep", broken("\"Extra\": [", "\"Extra\": " + QByteArray(3000, '[') +
                                                QByteArray(3000, ']') + ", \"More\": [")},
        {"cut short", good.left(good.indexOf("\"Geometry\"")) + "\n}"},
    };
    for (const auto& [what, text] : cases) {
        SCOPED_TRACE(what);
        const ToolRun r = scanWithTitleSet(text);
        ASSERT_TRUE(r.finished);
        EXPECT_FALSE(r.crashed);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_FALSE(r.err.contains("+ title")) << r.err.toStdString();
        EXPECT_TRUE(r.err.endsWith("No title found.\nHandBrake has exited.\n"))
            << r.err.toStdString();
    }
}

TEST(EncoderToolEncode, ArgumentsAreAdjustedAndTheToolBecomesTheEncoder) {
    FakeHandBrake fake("echo \"\\rEncoding: task 1 of 1, 50.00 %\"\n"
                       "echo '[00:00:01] sync: got 10 frames, 10 expected' >&2\nexit 3\n");
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
    EXPECT_TRUE(p.readAllStandardOutput().contains("Encoding: task 1 of 1, 50.00 %"));
    EXPECT_TRUE(p.readAllStandardError().contains("sync: got 10 frames, 10 expected"));
}

// The launcher starts every encode, so it must not load Qt; the scan half
// lives in a relay beside it. Copied away from the relay, an encode still
// runs and a scan fails with a clear line and the no-title verdict.
TEST(EncoderToolEncode, LauncherLinksNoQtAndNeedsItsRelayOnlyToScan) {
    // The relay runs for every scan: no Qt, no shared C++ runtime either.
    for (const QString& program :
         {kTool, QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-encoder-scan")}) {
        const testsupport::RunResult elf = testsupport::run("readelf", {"-d", program});
        ASSERT_TRUE(elf.out.contains("NEEDED")) << elf.out.toStdString();
        EXPECT_FALSE(elf.out.contains("Qt6")) << program.toStdString();
        EXPECT_FALSE(program != kTool && elf.out.contains("libstdc++")) << program.toStdString();
    }

    QTemporaryDir alone;
    const QString copy = alone.path() + "/Tarnwick_Pro_Encoder";
    ASSERT_TRUE(QFile::copy(kTool, copy));
    FakeHandBrake fake("echo \"\\rEncoding: task 1 of 1, 10.00 %\"\n");
    QProcess encode;
    fake.apply(encode);
    encode.start(copy, {"--input", "/in.mkv", "--output", "/out.m4v", "--use-opencl"});
    ASSERT_TRUE(encode.waitForFinished(20000));
    EXPECT_EQ(encode.exitCode(), 0);
    EXPECT_EQ(fake.args(), (QStringList{"--input", "/in.mkv", "--output", "/out.m4v"}));

    QProcess scan;
    fake.apply(scan);
    scan.start(copy, {"-i", "/in.mkv", "-t", "1", "--scan"});
    ASSERT_TRUE(scan.waitForFinished(20000));
    EXPECT_NE(scan.exitCode(), 0);
    const QByteArray err = scan.readAllStandardError();
    EXPECT_TRUE(
        err.contains("cannot run " + QFile::encodeName(alone.path()) + "/tarnwick-encoder-scan"))
        << err.toStdString();
    EXPECT_TRUE(err.endsWith("No title found.\nHandBrake has exited.\n")) << err.toStdString();
}

// HandBrakeCLI polls its standard input for keyboard commands between
// status checks; an idle pipe there (the core's) would hold up the end of
// every scan and encode, so both modes hand it no input at all.
TEST(EncoderToolEncode, HandBrakeGetsNoInputFromThePipeTheToolWasGiven) {
    FakeHandBrake fake("readlink /proc/$$/fd/0 > \"$0.stdin\"\n");
    for (const QStringList& args : {QStringList{"--input", "/in.mkv", "--output", "/out.m4v"},
                                    QStringList{"-i", "/in.mkv", "-t", "1", "--scan"}}) {
        QProcess p;
        fake.apply(p);
        p.start(kTool, args); // standard input: a pipe left open and idle
        ASSERT_TRUE(p.waitForStarted());
        ASSERT_TRUE(p.waitForFinished(20000));
        EXPECT_EQ(fake.file(".stdin").trimmed(), "/dev/null") << args.join(' ').toStdString();
    }
}

TEST(EncoderToolEncode, EncodesAPlayableM4vWithProgressAndFrameCounts) {
    const QString mkv = sample("movie.mkv");
    ASSERT_FALSE(mkv.isEmpty());
    QTemporaryDir out;
    const QString m4v = out.path() + "/movie.m4v";
    const ToolRun r = runTool({"--input", mkv, "--output", m4v, "--title", "1", "--encoder", "x264",
                               "--vb", "1000", "--format", "av_mp4", "--aencoder", "av_aac",
                               "--audio", "1", "--use-opencl"});
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();

    const QJsonObject source = probe(mkv);
    const QJsonObject result = probe(m4v);
    ASSERT_EQ(probeStreams(result, "video").size(), 1);
    ASSERT_EQ(probeStreams(result, "audio").size(), 1);
    EXPECT_EQ(probeStreams(result, "video")[0].value("codec_name").toString(), "h264");
    EXPECT_EQ(probeStreams(result, "audio")[0].value("codec_name").toString(), "aac");
    const double sourceSeconds =
        source.value("format").toObject().value("duration").toString().toDouble();
    const double resultSeconds =
        result.value("format").toObject().value("duration").toString().toDouble();
    EXPECT_NEAR(resultSeconds, sourceSeconds, 0.5);

    // Progress as the core reads it: a percentage after "Encoding: task N of M,".
    static const QRegularExpression progress(
        R"(Encoding: task (\d+) of (\d+), (\d+\.\d+) %(?: \(.*ETA (\d\d)h(\d\d)m(\d\d)s\))?)");
    double last = -1;
    int count = 0;
    for (auto it = progress.globalMatch(QString::fromLatin1(r.out)); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        const double percent = m.captured(3).toDouble();
        EXPECT_GE(percent, last);
        EXPECT_LE(percent, 100.0);
        last = percent;
        ++count;
    }
    EXPECT_GT(count, 0) << r.out.toStdString();

    // Frame counts: text precedes the marker, as the core requires.
    static const QRegularExpression sync(R"(\S.*sync: got (\d+) frames, (\d+) expected)");
    const QRegularExpressionMatch m = sync.match(QString::fromLatin1(r.err));
    ASSERT_TRUE(m.hasMatch()) << r.err.toStdString();
    const int got = m.captured(1).toInt();
    const int expected = m.captured(2).toInt();
    const QJsonObject video = probeStreams(source, "video")[0];
    const double frames = sourceSeconds * ratio(video.value("r_frame_rate").toString());
    EXPECT_NEAR(expected, frames, 3);
    EXPECT_NEAR(got, expected, 3);
}

} // namespace
