// Tarnwick_Pro_Muxer driven as the muxer job runs it: a converted file made
// by the encoder tool with a stand-by video and tagged through the MP4 layer,
// joined with an H.264 source in Matroska, MP4 and MPEG-TS. The results are
// checked with ffprobe/ffmpeg, AtomicParsley and the MP4 layer.
#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include "Processes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr double kFrameSeconds = 1001.0 / 24000.0;
const char* const kMovieName = "Muxer Test Movie";
const char* const kGenre = "Drama";
const char* const kMovieInfo = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist "
                               "version=\"1.0\"><dict><key>cast</key><array><dict><key>name</"
                               "key><string>A. Actor</string></dict></array></dict></plist>";

using Outcome = testsupport::RunResult;
using testsupport::words;

Outcome run(const QString& program, const QStringList& args, const QProcessEnvironment& env = {}) {
    return testsupport::run(program, args, 180000, env);
}

QString muxerPath() {
    return QString::fromLocal8Bit(std::getenv("TARNWICK_LIBEXEC")) +
           QStringLiteral("/Tarnwick_Pro_Muxer");
}

QString mediaDir() {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-media/muxer");
    QDir().mkpath(dir);
    return dir;
}

QString cached(const QString& name, const std::function<bool(const QString&)>& make) {
    return testsupport::cachedFile(mediaDir() + QLatin1Char('/') + name, make);
}

using testsupport::ffmpeg;

QString writeText(const QString& name, const QByteArray& text) {
    const QString path = mediaDir() + QLatin1Char('/') + name;
    QFile f(path);
    if (!f.exists() && f.open(QIODevice::WriteOnly))
        f.write(text);
    return path;
}

// 6 s of 320x180 H.264 with B-frames, AAC and two chapters, in Matroska.
QString sourceMkv() {
    const QString chapters =
        writeText(QStringLiteral("chapters.txt"),
                  ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=3000\ntitle=Opening\n"
                  "[CHAPTER]\nTIMEBASE=1/1000\nSTART=3000\nEND=6000\ntitle=Second\n");
    return cached(QStringLiteral("source.mkv"), [&](const QString& out) {
        return ffmpeg(words("-f lavfi -i testsrc=size=320x180:rate=24000/1001:duration=6 -f lavfi "
                            "-i sine=frequency=440:duration=6 -i") +
                      QStringList{chapters} +
                      words("-map 0:V -map 1:a -map_chapters 2 -c:v libx264 -preset superfast -g "
                            "48 -c:a aac -ac 2 -f matroska") +
                      QStringList{out});
    });
}

QString sourceAs(const QString& ext, const char* format) {
    const QString mkv = sourceMkv();
    return cached(QStringLiteral("source.") + ext, [&](const QString& out) {
        return ffmpeg({"-i", mkv, "-map", "0", "-c", "copy", "-f", format, out});
    });
}

// What the encoder job leaves: stand-by video, converted audio, a subtitle, chapters.
QString convertedFile() {
    const QString mkv = sourceMkv();
    const QString srt = writeText(
        QStringLiteral("subs.srt"),
        "1\n00:00:00,500 --> 00:00:02,000\nHello\n\n2\n00:00:03,000 --> 00:00:04,000\nWorld\n");
    return cached(QStringLiteral("converted.m4v"), [&](const QString& out) {
        const QString encoder =
            QString::fromLocal8Bit(std::getenv("TARNWICK_LIBEXEC")) + "/Tarnwick_Pro_Encoder";
        const Outcome r =
            run(encoder, QStringList{"-i", mkv, "-o", out, "--srt-file", srt} +
                             words("--encoder x264 --encoder-preset ultrafast --encoder-profile "
                                   "high --vb 50 --format mp4 --width 80 --maxWidth 80 --audio 1 "
                                   "--aencoder av_aac --srt-lang eng --markers"));
        if (r.exitCode != 0)
            ADD_FAILURE() << "encoder tool failed: " << r.err.right(2000).toStdString();
        return r.exitCode == 0 && QFileInfo(out).size() > 0;
    });
}

QString coverPng() {
    return cached(QStringLiteral("cover.png"), [](const QString& out) {
        return ffmpeg({"-f", "lavfi", "-i", "testsrc=size=48x48", "-frames:v", "1", "-c:v", "png",
                       "-f", "image2", "-update", "1", out});
    });
}

QByteArray readAll(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

MP4TrackId findTrack(MP4FileHandle h, const char* type) {
    return MP4FindTrackId(h, 0, type);
}

// Tags the converted file the way the encoder job does before muxing.
bool tagConverted(const QString& path) {
    MP4FileHandle h = MP4Modify(QFile::encodeName(path).constData());
    if (!h)
        return false;
    const MP4Tags* tags = MP4TagsAlloc();
    MP4TagsFetch(tags, h);
    MP4TagsSetName(tags, kMovieName);
    MP4TagsSetGenre(tags, kGenre);
    const uint8_t hd = 1;
    MP4TagsSetHDVideo(tags, &hd);
    QByteArray png = readAll(coverPng());
    MP4TagArtwork art{png.data(), uint32_t(png.size()), MP4_ART_PNG};
    MP4TagsAddArtwork(tags, &art);
    MP4TagsStore(tags, h);
    MP4TagsFree(tags);

    MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
    item->mean = strdup("com.apple.iTunes");
    item->name = strdup("iTunMOVI");
    item->dataList.elements[0].typeCode = MP4_ITMF_BT_UTF8;
    item->dataList.elements[0].valueSize = uint32_t(std::strlen(kMovieInfo));
    item->dataList.elements[0].value = static_cast<uint8_t*>(malloc(std::strlen(kMovieInfo)));
    std::memcpy(item->dataList.elements[0].value, kMovieInfo, std::strlen(kMovieInfo));
    MP4ItmfAddItem(h, item);
    MP4ItmfItemFree(item);

    const MP4TrackId audio = findTrack(h, MP4_AUDIO_TRACK_TYPE);
    const MP4TrackId subtitle = findTrack(h, MP4_SUBTITLE_TRACK_TYPE);
    const bool named = audio && subtitle && MP4SetTrackName(h, audio, "Stereo Français") &&
                       MP4SetTrackLanguage(h, audio, "fra") &&
                       MP4SetTrackName(h, subtitle, "English Subtitles");
    MP4Close(h);
    return named;
}

QString taggedConverted() {
    const QString plain = convertedFile();
    return cached(QStringLiteral("converted-tagged.m4v"), [&](const QString& out) {
        return QFile::copy(plain, out) &&
               QFile::setPermissions(out, QFile::ReadOwner | QFile::WriteOwner) &&
               tagConverted(out);
    });
}

QJsonArray probeStreams(const QString& path) {
    const Outcome r =
        run(QStringLiteral("ffprobe"), {"-v", "error", "-show_streams", "-of", "json", path});
    return QJsonDocument::fromJson(r.out).object().value("streams").toArray();
}

QJsonObject streamOfType(const QJsonArray& streams, const char* type) {
    for (const auto& s : streams)
        if (s.toObject().value("codec_type").toString() == QLatin1String(type))
            return s.toObject();
    return {};
}

// Per-packet (or, for `decode`, per-frame) checksums of one stream selection.
QStringList checksums(const QString& path, const char* map, bool decode,
                      const QStringList& extra = {}) {
    QStringList args{"-v", "error", "-i", path, "-map", map};
    if (!decode)
        args << "-c"
             << "copy";
    args << extra << "-f"
         << "framemd5"
         << "-";
    const Outcome r = run(QStringLiteral("ffmpeg"), args);
    QStringList sums;
    for (const QByteArray& line : r.out.split('\n'))
        if (!line.startsWith('#') && !line.trimmed().isEmpty())
            sums << QString::fromLatin1(line.split(',').last().trimmed());
    return sums;
}

// Same checksums in the same order; on a mismatch, says where.
::testing::AssertionResult sameStream(const QStringList& a, const QStringList& b) {
    if (a.isEmpty())
        return ::testing::AssertionFailure() << "no packets read";
    for (int i = 0; i < std::min(a.size(), b.size()); ++i)
        if (a[i] != b[i])
            return ::testing::AssertionFailure() << "packet " << i << " differs";
    if (a.size() != b.size())
        return ::testing::AssertionFailure() << a.size() << " packets against " << b.size();
    return ::testing::AssertionSuccess();
}

std::vector<std::string> topLevelTypes(const QString& path) {
    std::string why;
    auto f = tarnwick::mp4::File::open(QFile::encodeName(path).toStdString(), false, &why);
    std::vector<std::string> types;
    if (f)
        for (const auto& b : f->topLevel())
            types.push_back(tarnwick::mp4::fourccString(b.type));
    return types;
}

bool moovBeforeMdat(const QString& path) {
    const auto t = topLevelTypes(path);
    const auto moov = std::find(t.begin(), t.end(), "moov");
    const auto mdat = std::find(t.begin(), t.end(), "mdat");
    return moov != t.end() && mdat != t.end() && moov < mdat;
}

// Every line "Phase: number", numbers rising within a phase, each phase ending at 100.
void expectProgressLines(const QByteArray& err, const QStringList& phases) {
    static const QRegularExpression line(QStringLiteral("^([A-Za-z]+): (\\d+\\.\\d)$"));
    QStringList seen;
    double last = -1;
    for (const QByteArray& raw : err.split('\n')) {
        if (raw.isEmpty())
            continue;
        const auto m = line.match(QString::fromLatin1(raw));
        ASSERT_TRUE(m.hasMatch()) << "not a progress line: " << raw.toStdString();
        const double value = m.captured(2).toDouble();
        if (seen.isEmpty() || seen.last() != m.captured(1)) {
            if (!seen.isEmpty()) {
                EXPECT_EQ(last, 100.0) << seen.last().toStdString() << " did not reach 100";
            }
            seen << m.captured(1);
        } else {
            EXPECT_GE(value, last);
        }
        last = value;
    }
    EXPECT_EQ(seen, phases);
    EXPECT_EQ(last, 100.0);
}

class MuxerTool : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffmpeg", "ffprobe", "HandBrakeCLI"})
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                GTEST_SKIP() << tool << " is not installed";
        ASSERT_TRUE(QFileInfo(muxerPath()).isExecutable()) << muxerPath().toStdString();
        ASSERT_TRUE(m_dir.isValid());
        const QString tagged = taggedConverted();
        ASSERT_FALSE(tagged.isEmpty());
        // The muxer job moves the encoder's output to the .tmp.m4v name first.
        m_source = m_dir.filePath(QStringLiteral("Movie.tmp.m4v"));
        ASSERT_TRUE(QFile::copy(tagged, m_source));
        m_dest = m_dir.filePath(QStringLiteral("Movie.m4v"));
    }

    Outcome mux(const QString& video, bool optimize = true, const QProcessEnvironment& env = {}) {
        QStringList args{"-dest", m_dest, "-source", m_source, "-video", video};
        if (optimize)
            args << "-optimize";
        return run(muxerPath(), args, env);
    }

    // Nothing but the inputs (and the result, when there is one) in the folder.
    void expectNoLeftovers(bool withResult) {
        QStringList expected{QStringLiteral("Movie.tmp.m4v")};
        if (withResult)
            expected << QStringLiteral("Movie.m4v");
        QStringList found =
            QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
        found.removeAll(QStringLiteral("notes.txt"));
        expected.sort();
        found.sort();
        EXPECT_EQ(found, expected);
    }

    void expectTagsCarried() {
        MP4FileHandle h = MP4Read(QFile::encodeName(m_dest).constData());
        ASSERT_NE(h, nullptr);
        const MP4Tags* tags = MP4TagsAlloc();
        ASSERT_TRUE(MP4TagsFetch(tags, h));
        EXPECT_STREQ(tags->name, kMovieName);
        EXPECT_STREQ(tags->genre, kGenre);
        ASSERT_NE(tags->hdVideo, nullptr);
        EXPECT_EQ(*tags->hdVideo, 1);
        ASSERT_EQ(tags->artworkCount, 1u);
        const QByteArray png = readAll(coverPng());
        EXPECT_EQ(
            QByteArray(static_cast<const char*>(tags->artwork[0].data), int(tags->artwork[0].size)),
            png);
        EXPECT_STRNE(tags->encodingTool, nullptr);
        if (tags->encodingTool) {
            EXPECT_EQ(std::string(tags->encodingTool).find("Lavf"), std::string::npos);
        }
        MP4TagsFree(tags);

        MP4ItmfItemList* items = MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", "iTunMOVI");
        ASSERT_NE(items, nullptr);
        ASSERT_EQ(items->size, 1u);
        ASSERT_EQ(items->elements[0].dataList.size, 1u);
        const MP4ItmfData& d = items->elements[0].dataList.elements[0];
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(d.value), d.valueSize), kMovieInfo);
        MP4ItmfItemListFree(items);

        const MP4TrackId audio = findTrack(h, MP4_AUDIO_TRACK_TYPE);
        const MP4TrackId subtitle = findTrack(h, MP4_SUBTITLE_TRACK_TYPE);
        ASSERT_NE(audio, MP4_INVALID_TRACK_ID);
        ASSERT_NE(subtitle, MP4_INVALID_TRACK_ID);
        for (const auto& [track, label, language] :
             {std::tuple{audio, "Stereo Français", "fra"},
              std::tuple{subtitle, "English Subtitles", "eng"}}) {
            char* name = nullptr;
            char lang[4] = {};
            ASSERT_TRUE(MP4GetTrackName(h, track, &name) && MP4GetTrackLanguage(h, track, lang));
            EXPECT_STREQ(name, label);
            EXPECT_STREQ(lang, language);
            free(name);
        }

        MP4Chapter_t* chapters = nullptr;
        uint32_t count = 0;
        EXPECT_NE(MP4GetChapters(h, &chapters, &count, MP4ChapterTypeQt), MP4ChapterTypeNone);
        ASSERT_EQ(count, 2u);
        EXPECT_STREQ(chapters[0].title, "Opening");
        EXPECT_STREQ(chapters[1].title, "Second");
        free(chapters);
        MP4Close(h);
    }

    QTemporaryDir m_dir;
    QString m_source, m_dest;
};

class PassThrough : public MuxerTool, public ::testing::WithParamInterface<const char*> {
protected:
    QString video() {
        const std::string ext = GetParam();
        if (ext == "mkv")
            return sourceMkv();
        return sourceAs(QString::fromStdString(ext), ext == "ts" ? "mpegts" : "mp4");
    }
};

TEST_P(PassThrough, SourceVideoJoinsConvertedTracksWithMoovInFront) {
    const QString v = video();
    ASSERT_FALSE(v.isEmpty());
    const Outcome r = mux(v);
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    expectProgressLines(r.err, {QStringLiteral("Muxing")});
    expectNoLeftovers(true);
    EXPECT_TRUE(moovBeforeMdat(m_dest));

    const QJsonArray streams = probeStreams(m_dest);
    const QJsonObject vs = streamOfType(streams, "video");
    const QJsonObject as = streamOfType(streams, "audio");
    EXPECT_EQ(vs.value("codec_name").toString(), QStringLiteral("h264"));
    EXPECT_EQ(vs.value("width").toInt(), 320); // the source's picture, not the stand-by one
    EXPECT_EQ(as.value("codec_name").toString(), QStringLiteral("aac"));
    EXPECT_EQ(streamOfType(streams, "subtitle").value("codec_name").toString(),
              QStringLiteral("mov_text"));
    const double vStart = vs.value("start_time").toString().toDouble();
    const double aStart = as.value("start_time").toString().toDouble();
    EXPECT_LE(std::fabs(vStart - aStart), kFrameSeconds) << vStart << " vs " << aStart;
    // The source's first picture takes the stand-by video's place exactly.
    const double standbyStart =
        streamOfType(probeStreams(m_source), "video").value("start_time").toString().toDouble();
    EXPECT_NEAR(vStart, standbyStart, 0.001);
    EXPECT_NEAR(vs.value("duration").toString().toDouble(), 6.0, 0.1);

    // The video is the source's, packet for packet; Annex B from MPEG-TS
    // becomes length-prefixed, so there the decoded pictures are compared.
    const bool annexB = std::string(GetParam()) == "ts";
    const QStringList fromSource = checksums(v, "0:V", annexB);
    EXPECT_EQ(fromSource.size(), 144);
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", annexB), fromSource));
    // Audio and subtitles are the converted file's, untouched.
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:a", false), checksums(m_source, "0:a", false)));
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:s", false), checksums(m_source, "0:s", false)));
    const Outcome decode = run(QStringLiteral("ffmpeg"), {"-v", "error", "-i", m_dest, "-map",
                                                          "0:V", "-map", "0:a", "-f", "null", "-"});
    EXPECT_EQ(decode.exitCode, 0);
    EXPECT_TRUE(decode.err.trimmed().isEmpty()) << decode.err.toStdString();

    expectTagsCarried();
}

INSTANTIATE_TEST_SUITE_P(Containers, PassThrough, ::testing::Values("mkv", "mp4", "ts"));

// The demuxing path reserves room for the header while writing; too little
// of it means a rewrite.
TEST_F(MuxerTool, TooLittleReservedRoomIsRewrittenWithOptimizingProgress) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TARNWICK_MUXER_MOOV_RESERVE"), QStringLiteral("512"));
    env.insert(QStringLiteral("TARNWICK_MUXER_INDEX"), QStringLiteral("off"));
    QFile old(m_dest); // an older result, to be replaced
    ASSERT_TRUE(old.open(QIODevice::WriteOnly) && old.write("older") == 5);
    old.close();
    const Outcome r = mux(sourceMkv(), true, env);
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    expectProgressLines(r.err, {QStringLiteral("Muxing"), QStringLiteral("Optimizing")});
    EXPECT_TRUE(moovBeforeMdat(m_dest));
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", false), checksums(sourceMkv(), "0:V", false)));
    expectTagsCarried();
    expectNoLeftovers(true);
}

TEST_F(MuxerTool, BadInputsFailClearlyAndLeaveNoOutput) {
    struct Case {
        const char* what;
        QString video;
        std::function<void(const QString&)> spoilSource;
        const char* message;
    };
    const QString missing = m_dir.filePath(QStringLiteral("no-such-movie.mkv"));
    const QString notVideo = writeText(QStringLiteral("not-a-video.srt"), "1\nnot a movie\n");
    const QString audioOnly = cached(QStringLiteral("audio-only.m4a"), [](const QString& out) {
        return ffmpeg({"-f", "lavfi", "-i", "sine=duration=1", "-c:a", "aac", "-f", "mp4", out});
    });
    const QByteArray good = readAll(m_source);
    const std::vector<Case> cases = {
        {"missing video source", missing, {}, "no-such-movie.mkv"},
        {"video source that is no media file", notVideo, {}, "not-a-video.srt"},
        {"video source without video", audioOnly, {}, "no video stream"},
        {"converted file of garbage", sourceMkv(),
         [](const QString& p) {
             QFile f(p);
             f.open(QIODevice::WriteOnly | QIODevice::Truncate);
             f.write(QByteArray(4096, '\x5a'));
         },
         "Movie.tmp.m4v"},
        {"converted file cut short", sourceMkv(),
         [&](const QString& p) {
             QFile f(p);
             f.open(QIODevice::WriteOnly | QIODevice::Truncate);
             f.write(good.left(good.size() / 3));
         },
         "Movie.tmp.m4v"},
        {"missing converted file", sourceMkv(), [](const QString& p) { QFile::remove(p); },
         "Movie.tmp.m4v"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        QFile::remove(m_source);
        QFile f(m_source);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(good);
        f.close();
        if (c.spoilSource)
            c.spoilSource(m_source);
        const Outcome r = mux(c.video);
        EXPECT_NE(r.exitCode, 0);
        EXPECT_FALSE(QFile::exists(m_dest));
        EXPECT_TRUE(r.err.contains("Tarnwick_Pro_Muxer: ")) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains(c.message)) << r.err.toStdString();
        QStringList left =
            QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
        left.removeAll(QStringLiteral("Movie.tmp.m4v"));
        EXPECT_TRUE(left.isEmpty()) << left.join(' ').toStdString();
    }
}

TEST_F(MuxerTool, UnwritableDestinationFailsWithoutTouchingInputs) {
    const QByteArray before = readAll(m_source);
    // A destination whose folder is a plain file cannot be written, even by root.
    const QString blocker = m_dir.filePath(QStringLiteral("notes.txt"));
    QFile f(blocker);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.close();
    m_dest = blocker + QStringLiteral("/Movie.m4v");
    Outcome r = mux(sourceMkv());
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains("cannot create a file in")) << r.err.toStdString();

    if (::geteuid() != 0) {
        const QString locked = m_dir.filePath(QStringLiteral("locked"));
        ASSERT_TRUE(QDir().mkpath(locked));
        QFile::setPermissions(locked, QFile::ReadOwner | QFile::ExeOwner);
        m_dest = locked + QStringLiteral("/Movie.m4v");
        r = mux(sourceMkv());
        EXPECT_NE(r.exitCode, 0);
        EXPECT_FALSE(QFile::exists(m_dest));
        QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    // Writing over an input is refused before anything is written.
    m_dest = m_source;
    r = mux(sourceMkv());
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains("is one of the input files")) << r.err.toStdString();
    EXPECT_EQ(readAll(m_source), before);
}

TEST_F(MuxerTool, BadArgumentsAreRefusedWithUsage) {
    const std::vector<QStringList> bad = {
        {},
        {"-dest", m_dest, "-source", m_source},
        {"-dest", m_dest, "-source", m_source, "-video"},
        {"-dest", m_dest, "-source", m_source, "-video", sourceMkv(), "-fast"},
        {"-dest", "", "-source", m_source, "-video", sourceMkv()},
    };
    for (const QStringList& args : bad) {
        SCOPED_TRACE(args.join(' ').toStdString());
        const Outcome r = run(muxerPath(), args);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_TRUE(r.err.contains("usage: Tarnwick_Pro_Muxer -dest")) << r.err.toStdString();
        EXPECT_FALSE(QFile::exists(m_dest));
    }
}

// --- The video source indexed from its container ---------------------------

// Matroska elements, enough to lay the same pictures out in other ways.
constexpr quint32 kSegment = 0x18538067, kSeekHead = 0x114D9B74, kCues = 0x1C53BB6B,
                  kTracks = 0x1654AE6B, kTrackEntry = 0xAE, kTrackNumber = 0xD7,
                  kCluster = 0x1F43B675, kSimpleBlock = 0xA3, kBlockGroup = 0xA0, kBlock = 0xA1,
                  kBlockDuration = 0x9B, kReferenceBlock = 0xFB, kVoid = 0xEC;

struct Element {
    quint32 id = 0;
    qint64 start = 0, data = 0, size = 0;
    qint64 end() const { return data + size; }
};

bool readElement(const QByteArray& b, qint64 pos, Element* e) {
    auto byte = [&](qint64 i) { return i < b.size() ? quint8(b[int(i)]) : 0; };
    const quint8 first = byte(pos);
    if (first == 0)
        return false;
    const int idLength = __builtin_clz(quint32(first)) - 23;
    e->start = pos;
    e->id = 0;
    for (int i = 0; i < idLength; ++i)
        e->id = (e->id << 8) | byte(pos + i);
    pos += idLength;
    const quint8 lead = byte(pos);
    if (lead == 0)
        return false;
    const int n = __builtin_clz(quint32(lead)) - 23;
    quint64 size = lead & (0xFFu >> n);
    for (int i = 1; i < n; ++i)
        size = (size << 8) | byte(pos + i);
    e->data = pos + n;
    e->size = qint64(size);
    return e->end() <= b.size();
}

QByteArray idBytes(quint32 id) {
    QByteArray out;
    for (int shift = 24; shift >= 0; shift -= 8)
        if (!out.isEmpty() || (id >> shift) & 0xFF)
            out += char((id >> shift) & 0xFF);
    return out;
}

// Sizes always in eight bytes, a valid if unusual choice.
QByteArray sized(quint32 id, const QByteArray& content) {
    QByteArray out = idBytes(id) + char(0x01);
    for (int shift = 48; shift >= 0; shift -= 8)
        out += char((quint64(content.size()) >> shift) & 0xFF);
    return out + content;
}

QByteArray unknownSized(quint32 id, const QByteArray& content) {
    return idBytes(id) + QByteArray("\x01\xff\xff\xff\xff\xff\xff\xff", 8) + content;
}

QByteArray uintElement(quint32 id, quint64 v) {
    QByteArray content;
    do {
        content.prepend(char(v & 0xFF));
        v >>= 8;
    } while (v);
    return sized(id, content);
}

enum class Layout {
    BlockGroups,    // video in BlockGroups with ReferenceBlock/BlockDuration, Void between,
                    // segment and clusters of unknown size
    Laced,          // video blocks with (single-frame) Xiph lacing
    HeaderStripped, // video track compressed by header stripping of each frame's first byte
};

// The same pictures (track 1) as `mkv`, laid out as `layout` says; seek
// head and cues are left out since every position moves.
QByteArray relayout(const QByteArray& mkv, Layout layout) {
    Element head, segment;
    if (!readElement(mkv, 0, &head) || !readElement(mkv, head.end(), &segment) ||
        segment.id != kSegment)
        return {};
    QByteArray body;
    int picture = 0;
    for (qint64 pos = segment.data; pos < segment.end();) {
        Element e;
        if (!readElement(mkv, pos, &e))
            return {};
        pos = e.end();
        const QByteArray content = mkv.mid(int(e.data), int(e.size));
        if (e.id == kSeekHead || e.id == kCues)
            continue;
        if (e.id == kTracks && layout == Layout::HeaderStripped) {
            QByteArray tracks;
            for (qint64 t = e.data; t < e.end();) {
                Element entry;
                if (!readElement(mkv, t, &entry))
                    return {};
                t = entry.end();
                QByteArray c = mkv.mid(int(entry.data), int(entry.size));
                if (entry.id == kTrackEntry && quint8(c[0]) == kTrackNumber &&
                    quint8(c[1]) == 0x81 && quint8(c[2]) == 1) {
                    const QByteArray compression =
                        sized(0x5034, uintElement(0x4254, 3) + sized(0x4255, QByteArray(1, '\0')));
                    c += sized(0x6D80,
                               sized(0x6240, uintElement(0x5031, 0) + uintElement(0x5032, 1) +
                                                 uintElement(0x5033, 0) + compression));
                }
                tracks += sized(entry.id, c);
            }
            body += sized(kTracks, tracks);
            continue;
        }
        if (e.id != kCluster) {
            body += mkv.mid(int(e.start), int(e.end() - e.start));
            continue;
        }
        QByteArray cluster;
        for (qint64 c = e.data; c < e.end();) {
            Element child;
            if (!readElement(mkv, c, &child))
                return {};
            c = child.end();
            const QByteArray raw = mkv.mid(int(child.start), int(child.end() - child.start));
            if (child.id != kSimpleBlock || quint8(mkv[int(child.data)]) != 0x81) {
                cluster += raw;
                continue;
            }
            QByteArray header = mkv.mid(int(child.data), 4);
            QByteArray frame = mkv.mid(int(child.data) + 4, int(child.size) - 4);
            const bool key = quint8(header[3]) & 0x80;
            ++picture;
            switch (layout) {
            case Layout::BlockGroups: {
                header[3] = char(quint8(header[3]) & 0x7F);
                QByteArray group = sized(kBlock, header + frame);
                if (!key)
                    group += sized(kReferenceBlock, QByteArray(1, char(0xFF)));
                if (picture % 2)
                    group += uintElement(kBlockDuration, 42);
                if (picture % 3 == 0)
                    cluster += sized(kVoid, QByteArray(3, '\0'));
                cluster += sized(kBlockGroup, group);
                break;
            }
            case Layout::Laced:
                header[3] = char(quint8(header[3]) | 0x02);
                cluster += sized(kSimpleBlock, header + QByteArray(1, '\0') + frame);
                break;
            case Layout::HeaderStripped:
                if (frame.isEmpty() || frame[0] != '\0')
                    return {};
                cluster += sized(kSimpleBlock, header + frame.mid(1));
                break;
            }
        }
        body += layout == Layout::BlockGroups ? unknownSized(kCluster, cluster)
                                              : sized(kCluster, cluster);
    }
    const QByteArray front = mkv.left(int(head.end()));
    return front +
           (layout == Layout::BlockGroups ? unknownSized(kSegment, body) : sized(kSegment, body));
}

QString relaidSource(const char* name, Layout layout) {
    const QString mkv = sourceMkv();
    return cached(QString::fromLatin1(name), [&](const QString& out) {
        const QByteArray bytes = relayout(readAll(mkv), layout);
        QFile f(out);
        return !bytes.isEmpty() && f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
    });
}

QProcessEnvironment indexMode(const char* mode) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TARNWICK_MUXER_INDEX"), QString::fromLatin1(mode));
    return env;
}

// Video packets' times and flags as a reader sees them.
QStringList videoPacketTimes(const QString& path) {
    const Outcome r =
        run(QStringLiteral("ffprobe"), {"-v", "error", "-select_streams", "V", "-show_entries",
                                        "packet=pts,dts,duration,flags", "-of", "csv", path});
    return QString::fromLatin1(r.out).split('\n', Qt::SkipEmptyParts);
}

class IndexedSource : public MuxerTool, public ::testing::WithParamInterface<const char*> {
protected:
    QString video() {
        const std::string kind = GetParam();
        if (kind == "mkv")
            return sourceMkv();
        if (kind == "blockgroups.mkv")
            return relaidSource("blockgroups.mkv", Layout::BlockGroups);
        const char* format = kind == "m4v" ? "ipod" : kind == "mov" ? "mov" : "mp4";
        return sourceAs(QString::fromStdString(kind), format);
    }
};

// What a reader sees of a file's streams: codec, tag, picture size, aspect,
// start (to the millisecond) and, per stream, the packets' checksums; the
// video's packet times and flags too.
struct Movie {
    QStringList streams, videoTimes, video, audio, subtitles, chapters;
};

Movie movieOf(const QString& path) {
    Movie m;
    for (const auto& v : probeStreams(path)) {
        const QJsonObject s = v.toObject();
        m.streams << QStringLiteral("%1 %2 %3x%4 %5 %6")
                         .arg(s.value("codec_name").toString(),
                              s.value("codec_tag_string").toString())
                         .arg(s.value("width").toInt())
                         .arg(s.value("height").toInt())
                         .arg(s.value("sample_aspect_ratio").toString())
                         .arg(std::lround(s.value("start_time").toString().toDouble() * 1000));
    }
    m.videoTimes = videoPacketTimes(path);
    m.video = checksums(path, "0:V", false);
    m.audio = checksums(path, "0:a", false);
    m.subtitles = checksums(path, "0:s", false);
    const Outcome r = run(QStringLiteral("ffprobe"),
                          {"-v", "error", "-show_entries",
                           "chapter=start_time,end_time:chapter_tags=title", "-of", "csv", path});
    m.chapters = QString::fromUtf8(r.out).split('\n', Qt::SkipEmptyParts);
    return m;
}

// The pictures are found from the container and copied unread, the movie
// header made without the demuxer; a reader must find the very movie the
// demuxing path makes, and the source's video.
TEST_P(IndexedSource, GivesTheSameMovieAsDemuxing) {
    const QString v = video();
    ASSERT_FALSE(v.isEmpty());
    const Outcome indexed = mux(v, true, indexMode("required"));
    ASSERT_EQ(indexed.exitCode, 0) << indexed.err.toStdString();
    expectProgressLines(indexed.err, {QStringLiteral("Muxing")});
    expectTagsCarried();
    const QString fromIndex = m_dir.filePath(QStringLiteral("Indexed.m4v"));
    ASSERT_TRUE(QFile::rename(m_dest, fromIndex));
    const Outcome demuxed = mux(v, true, indexMode("off"));
    ASSERT_EQ(demuxed.exitCode, 0) << demuxed.err.toStdString();

    const Movie a = movieOf(fromIndex), b = movieOf(m_dest);
    EXPECT_EQ(a.streams, b.streams);
    EXPECT_EQ(a.videoTimes, b.videoTimes);
    EXPECT_TRUE(sameStream(a.video, checksums(sourceMkv(), "0:V", false)));
    EXPECT_TRUE(sameStream(a.video, b.video));
    EXPECT_TRUE(sameStream(a.audio, checksums(m_source, "0:a", false)));
    EXPECT_TRUE(sameStream(a.audio, b.audio));
    EXPECT_TRUE(sameStream(a.subtitles, b.subtitles));
    EXPECT_EQ(a.chapters, b.chapters);
    EXPECT_EQ(a.chapters.size(), 2);
    EXPECT_TRUE(moovBeforeMdat(fromIndex));

    // B-frames: pictures shown later than decoded, their order kept.
    const QStringList& times = a.videoTimes;
    ASSERT_EQ(times.size(), 144);
    int reordered = 0, keys = 0;
    for (const QString& line : times) {
        const QStringList f = line.split(',');
        ASSERT_EQ(f.size(), 5) << line.toStdString();
        reordered += f[1].toLongLong() > f[2].toLongLong();
        keys += f[4].startsWith('K');
    }
    EXPECT_GT(reordered, 20);
    EXPECT_EQ(keys, 3); // a keyframe every 48 pictures
}

INSTANTIATE_TEST_SUITE_P(Containers, IndexedSource,
                         ::testing::Values("mkv", "blockgroups.mkv", "mp4", "m4v", "mov"));

// Blocks the index cannot take as they are go through the demuxer, and the
// video still arrives bit for bit.
TEST_F(MuxerTool, LacedOrStrippedBlocksAndTransportStreamsAreDemuxed) {
    const std::vector<std::pair<const char*, QString>> sources = {
        {"laced", relaidSource("laced.mkv", Layout::Laced)},
        {"header stripping", relaidSource("stripped.mkv", Layout::HeaderStripped)},
        {"MPEG-TS", sourceAs(QStringLiteral("ts"), "mpegts")},
    };
    const QStringList expected = checksums(sourceMkv(), "0:V", false);
    for (const auto& [what, v] : sources) {
        SCOPED_TRACE(what);
        ASSERT_FALSE(v.isEmpty());
        const Outcome refused = mux(v, true, indexMode("required"));
        EXPECT_NE(refused.exitCode, 0);
        EXPECT_TRUE(refused.err.contains("cannot be indexed")) << refused.err.toStdString();
        EXPECT_FALSE(QFile::exists(m_dest));

        const Outcome r = mux(v);
        ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
        expectProgressLines(r.err, {QStringLiteral("Muxing")});
        const bool annexB = std::string(what) == "MPEG-TS";
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", annexB), checksums(v, "0:V", annexB)));
        if (!annexB) {
            EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", false), expected));
        }
        ASSERT_TRUE(QFile::remove(m_dest));
    }
}

// One second of large pictures (about 390 KB each, with B-frames).
QString largePicturesMkv() {
    return cached(QStringLiteral("large-pictures.mkv"), [](const QString& out) {
        return ffmpeg({"-f", "lavfi", "-i",
                       "testsrc2=size=640x360:rate=24000/1001:duration=1,noise=alls=40:allf=t",
                       "-c:v", "libx264", "-preset", "ultrafast", "-qp", "0", "-bf", "2", "-g",
                       "12", "-f", "matroska", out});
    });
}

// Large pictures are copied page-aligned with the source, leaving unused
// bytes between chunks; the tables must still find every sample, with the
// movie header in front, at the end, or rewritten, on either path.
TEST_F(MuxerTool, LargePicturesLandPageAlignedAndIntact) {
    const QString v = largePicturesMkv();
    ASSERT_FALSE(v.isEmpty());
    const QStringList video = checksums(v, "0:V", false);
    ASSERT_EQ(video.size(), 24);
    const QByteArray source = readAll(v);
    QProcessEnvironment smallReserve = indexMode("off");
    smallReserve.insert(QStringLiteral("TARNWICK_MUXER_MOOV_RESERVE"), QStringLiteral("512"));
    struct Case {
        const char* what;
        bool optimize;
        QProcessEnvironment env;
    };
    for (const Case& c : {Case{"moov in front", true, indexMode("required")},
                          Case{"moov at the end", false, indexMode("required")},
                          Case{"demuxed, moov in front", true, indexMode("off")},
                          Case{"demuxed and rewritten", true, smallReserve}}) {
        SCOPED_TRACE(c.what);
        const Outcome r = mux(v, c.optimize, c.env);
        ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", false), video));
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:a", false), checksums(m_source, "0:a", false)));
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:s", false), checksums(m_source, "0:s", false)));
        const Outcome decode =
            run(QStringLiteral("ffmpeg"), {"-v", "error", "-i", m_dest, "-f", "null", "-"});
        EXPECT_TRUE(decode.err.trimmed().isEmpty()) << decode.err.toStdString();
        EXPECT_EQ(moovBeforeMdat(m_dest), c.optimize);

        // Each large picture starts where it starts within a page in the
        // source (a rewrite moves the media by the header's size).
        if (c.env.contains(QStringLiteral("TARNWICK_MUXER_MOOV_RESERVE"))) {
            ASSERT_TRUE(QFile::remove(m_dest));
            continue;
        }
        const QByteArray out = readAll(m_dest);
        const Outcome packets =
            run(QStringLiteral("ffprobe"), {"-v", "error", "-select_streams", "V", "-show_entries",
                                            "packet=pos,size", "-of", "csv=p=0", m_dest});
        int large = 0, runs = 0;
        qint64 lastPos = -1, lastFrom = -1;
        for (const QByteArray& line : packets.out.split('\n')) {
            const QList<QByteArray> f = line.split(','); // size, position
            if (f.size() != 2)
                continue;
            const qint64 pos = f[1].toLongLong();
            const qint64 from = source.indexOf(out.mid(int(pos), 64));
            ASSERT_GE(from, 0);
            if (lastPos >= 0 && pos - lastPos == from - lastFrom &&
                out.mid(int(lastPos), int(pos - lastPos)) ==
                    source.mid(int(lastFrom), int(pos - lastPos)))
                ++runs;
            lastPos = pos;
            lastFrom = from;
            if (f[0].toLongLong() < (256 << 10))
                continue;
            EXPECT_EQ(pos % 4096, from % 4096) << "picture at " << pos;
            ++large;
        }
        EXPECT_GE(large, 20);
        // Without the demuxer, pictures are copied in runs with the source's
        // block headers between them, rather than one by one.
        if (c.env.value(QStringLiteral("TARNWICK_MUXER_INDEX")) == QLatin1String("required")) {
            EXPECT_GE(runs, 18) << "pictures copied along with the one before";
        }
        ASSERT_TRUE(QFile::remove(m_dest));
    }
}

// A source whose audio outweighs its pictures many times over (PCM beside
// small pictures): the runs copied from it leave that audio out, so the
// result holds little more than the pictures and the converted tracks.
TEST_F(MuxerTool, LargeAudioBetweenPicturesIsNotCarriedAlong) {
    const QString v = cached(QStringLiteral("pcm-audio.mkv"), [](const QString& out) {
        return ffmpeg(words("-f lavfi -i testsrc=size=320x180:rate=24000/1001:duration=6 -f "
                            "lavfi -i sine=frequency=440:duration=6:sample_rate=48000 -map 0:V "
                            "-map 1:a -c:v libx264 -preset superfast -g 48 -c:a pcm_s16le -ac 2 "
                            "-f matroska") +
                      QStringList{out});
    });
    ASSERT_FALSE(v.isEmpty());
    const Outcome r = mux(v, true, indexMode("required"));
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QStringList video = checksums(v, "0:V", false);
    EXPECT_EQ(video.size(), 144);
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", false), video));
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:a", false), checksums(m_source, "0:a", false)));

    qint64 pictures = 0;
    const Outcome sizes =
        run(QStringLiteral("ffprobe"), {"-v", "error", "-select_streams", "V", "-show_entries",
                                        "packet=size", "-of", "csv=p=0", v});
    for (const QByteArray& line : sizes.out.split('\n'))
        pictures += line.trimmed().toLongLong();
    std::string why;
    const auto out =
        tarnwick::mp4::File::open(QFile::encodeName(m_dest).toStdString(), false, &why);
    ASSERT_TRUE(out) << why;
    const tarnwick::mp4::TopLevelBox* mdat = out->topLevelBox(tarnwick::mp4::fourcc("mdat"));
    ASSERT_NE(mdat, nullptr);
    const qint64 audio = QFileInfo(v).size() - pictures; // about 1.1 MB
    ASSERT_GT(audio, 1000 * 1000);
    EXPECT_LT(qint64(mdat->size), pictures + QFileInfo(m_source).size() + audio / 20);
}

// H.264 and HEVC are taken without the demuxer, which the muxer does not
// even load: with broken libav* libraries first in the search path it
// still works, and only the demuxing path fails to start.
TEST_F(MuxerTool, IndexedPathRunsWithoutTheDemuxerLibraries) {
    const QString v = cached(QStringLiteral("hevc.mkv"), [](const QString& out) {
        return ffmpeg({"-f", "lavfi", "-i", "testsrc=size=320x180:rate=24000/1001:duration=2",
                       "-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                       "log-level=error:bframes=3", "-f", "matroska", out});
    });
    ASSERT_FALSE(v.isEmpty());
    const QString broken = m_dir.filePath(QStringLiteral("broken-libs"));
    ASSERT_TRUE(QDir().mkpath(broken));
    for (const char* name : {"libavformat", "libavcodec", "libavutil"})
        for (int version = 56; version <= 62; ++version) {
            QFile lib(broken + QStringLiteral("/%1.so.%2").arg(QLatin1String(name)).arg(version));
            ASSERT_TRUE(lib.open(QIODevice::WriteOnly));
            lib.write("not a library");
        }
    QProcessEnvironment env = indexMode("required");
    env.insert(QStringLiteral("LD_LIBRARY_PATH"), broken);

    const Outcome r = mux(v, true, env);
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QJsonObject vs = streamOfType(probeStreams(m_dest), "video");
    EXPECT_EQ(vs.value("codec_name").toString(), QStringLiteral("hevc"));
    EXPECT_EQ(vs.value("codec_tag_string").toString(), QStringLiteral("hvc1"));
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", false), checksums(v, "0:V", false)));
    EXPECT_EQ(videoPacketTimes(m_dest).size(), 48);
    const Outcome decode =
        run(QStringLiteral("ffmpeg"), {"-v", "error", "-i", m_dest, "-f", "null", "-"});
    EXPECT_TRUE(decode.err.trimmed().isEmpty()) << decode.err.toStdString();
    const QString fast = m_dir.filePath(QStringLiteral("Fast.m4v"));
    ASSERT_TRUE(QFile::rename(m_dest, fast));

    ASSERT_EQ(mux(v, true, indexMode("off")).exitCode, 0);
    EXPECT_EQ(videoPacketTimes(fast), videoPacketTimes(m_dest));
    ASSERT_TRUE(QFile::remove(m_dest));

    env.insert(QStringLiteral("TARNWICK_MUXER_INDEX"), QStringLiteral("off"));
    EXPECT_NE(mux(v, true, env).exitCode, 0);
    EXPECT_FALSE(QFile::exists(m_dest));
}

} // namespace
