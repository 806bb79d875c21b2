// Tarnwick_Pro_Muxer driven as the muxer job runs it: a converted file made
// by the encoder tool with a stand-by video and tagged through the MP4 layer,
// joined with an H.264 source in Matroska, MP4 and MPEG-TS. The results are
// checked with ffprobe/ffmpeg and the MP4 layer.
#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "Mp4TestMedia.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace {

using mp4test::readAll;
using Outcome = testsupport::RunResult;
using testsupport::ffmpeg;
using testsupport::words;

Outcome run(const QString& program, const QStringList& args, const QProcessEnvironment& env = {}) {
    return testsupport::run(program, args, 180000, env);
}

QString libexec(const char* tool) {
    return QString::fromLocal8Bit(std::getenv("TARNWICK_LIBEXEC")) + QLatin1Char('/') +
           QLatin1String(tool);
}

QString cached(const QString& name, const std::function<bool(const QString&)>& make) {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-media/muxer");
    QDir().mkpath(dir);
    return testsupport::cachedFile(dir + QLatin1Char('/') + name, make);
}

QString writeText(const QString& name, const QByteArray& text) {
    return cached(name, [&](const QString& out) {
        QFile f(out);
        return f.open(QIODevice::WriteOnly) && f.write(text) == text.size();
    });
}

// 6 s of 320x180 H.264 with B-frames, AAC and two chapters, in Matroska; the
// pictures are shown 9:8 wide (a display size of 2x1 pixels, the form the
// index reads) and the video's language is a two-letter code.
QString sourceMkv() {
    const QString chapters =
        writeText(QStringLiteral("chapters.txt"),
                  ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=3000\ntitle=Opening\n"
                  "[CHAPTER]\nTIMEBASE=1/1000\nSTART=3000\nEND=6000\ntitle=Second\n");
    return cached(QStringLiteral("source-9-8.mkv"), [&](const QString& out) {
        QFile f(out);
        const QByteArray ratioUnit("\x54\xb2\x81\x03", 4);
        return ffmpeg(words("-f lavfi -i testsrc=size=320x180:rate=24000/1001:duration=6 -f lavfi "
                            "-i sine=frequency=440:duration=6 -i") +
                      QStringList{chapters} +
                      words("-map 0:V -map 1:a -map_chapters 2 -vf setsar=9/8 -c:v libx264 "
                            "-preset superfast -g 48 -metadata:s:v:0 language=en -c:a aac -ac 2 "
                            "-f matroska") +
                      QStringList{out}) &&
               f.open(QIODevice::ReadWrite) && f.seek(f.readAll().indexOf(ratioUnit) + 3) &&
               f.putChar('\0');
    });
}

QString sourceAs(const QString& ext, const char* format) {
    const QString mkv = sourceMkv();
    return cached(QStringLiteral("source-9-8.") + ext, [&](const QString& out) {
        return ffmpeg({"-i", mkv, "-map", "0", "-c", "copy", "-f", format, out});
    });
}

// Tags the encoder tool's output (stand-by video, converted audio, a
// subtitle, chapters) the way the encoder job does before muxing.
bool tagConverted(const QString& path) {
    MP4FileHandle h = MP4Modify(QFile::encodeName(path).constData());
    if (!h)
        return false;
    const MP4Tags* tags = MP4TagsAlloc();
    MP4TagsFetch(tags, h);
    MP4TagsSetName(tags, "Muxer Test Movie");
    QByteArray png = readAll(mp4test::coverImage(QStringLiteral("cover.png")));
    MP4TagArtwork art{png.data(), uint32_t(png.size()), MP4_ART_PNG};
    MP4TagsAddArtwork(tags, &art);
    MP4TagsStore(tags, h);
    MP4TagsFree(tags);
    const MP4TrackId audio = MP4FindTrackId(h, 0, MP4_AUDIO_TRACK_TYPE);
    const MP4TrackId subtitle = MP4FindTrackId(h, 0, MP4_SUBTITLE_TRACK_TYPE);
    const bool named = audio && subtitle && MP4SetTrackName(h, audio, "Stereo Français") &&
                       MP4SetTrackLanguage(h, audio, "fra") &&
                       MP4SetTrackName(h, subtitle, "English Subtitles");
    MP4Close(h);
    return named;
}

QString taggedConverted() {
    const QString mkv = sourceMkv();
    const QString srt = writeText(
        QStringLiteral("subs.srt"),
        "1\n00:00:00,500 --> 00:00:02,000\nHello\n\n2\n00:00:03,000 --> 00:00:04,000\nWorld\n");
    return cached(QStringLiteral("converted-9-8.m4v"), [&](const QString& out) {
        const Outcome r =
            run(libexec("Tarnwick_Pro_Encoder"),
                QStringList{"-i", mkv, "-o", out, "--srt-file", srt} +
                    words("--encoder x264 --encoder-preset ultrafast --encoder-profile high --vb "
                          "50 --format mp4 --width 80 --maxWidth 80 --audio 1 --aencoder av_aac "
                          "--srt-lang eng --markers"));
        EXPECT_EQ(r.exitCode, 0) << "encoder tool: " << r.err.right(2000).toStdString();
        return r.exitCode == 0 && tagConverted(out);
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
QStringList checksums(const QString& path, const char* map, bool decode = false) {
    QStringList args{"-v", "error", "-i", path, "-map", map};
    if (!decode)
        args << "-c"
             << "copy";
    const Outcome r = run(QStringLiteral("ffmpeg"), args + words("-f framemd5 -"));
    QStringList sums;
    for (const QByteArray& line : r.out.split('\n'))
        if (!line.startsWith('#') && !line.trimmed().isEmpty())
            sums << QString::fromLatin1(line.split(',').last().trimmed());
    return sums;
}

// Same packets in the same order, and some at all.
bool sameStream(const QStringList& a, const QStringList& b) {
    return !a.isEmpty() && a == b;
}

bool moovBeforeMdat(const QString& path) {
    std::string why;
    const auto f = tarnwick::mp4::File::open(QFile::encodeName(path).toStdString(), false, &why);
    const auto* moov = f ? f->topLevelBox(tarnwick::mp4::fourcc("moov")) : nullptr;
    const auto* mdat = f ? f->topLevelBox(tarnwick::mp4::fourcc("mdat")) : nullptr;
    return moov && mdat && moov->offset < mdat->offset;
}

bool decodesCleanly(const QString& path) {
    const Outcome r = run(QStringLiteral("ffmpeg"), {"-v", "error", "-i", path, "-f", "null", "-"});
    return r.exitCode == 0 && r.err.trimmed().isEmpty();
}

// Every line "Phase: number", numbers rising within a phase, each phase ending at 100.
void expectProgressLines(const QByteArray& err, const QStringList& phases) {
    static const QRegularExpression line(QStringLiteral("^([A-Za-z]+): (\\d+\\.\\d)$"));
    QStringList seen;
    double last = -1;
    for (const QByteArray& raw : err.trimmed().split('\n')) {
        const auto m = line.match(QString::fromLatin1(raw));
        ASSERT_TRUE(m.hasMatch()) << "not a progress line: " << raw.toStdString();
        const bool next = seen.isEmpty() || seen.last() != m.captured(1);
        EXPECT_TRUE(next ? seen.isEmpty() || last == 100.0 : m.captured(2).toDouble() >= last);
        if (next)
            seen << m.captured(1);
        last = m.captured(2).toDouble();
    }
    EXPECT_EQ(seen, phases);
    EXPECT_EQ(last, 100.0);
}

QProcessEnvironment indexMode(const char* mode) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TARNWICK_MUXER_INDEX"), QString::fromLatin1(mode));
    return env;
}

class MuxerTool : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffmpeg", "ffprobe", "HandBrakeCLI"})
            if (!testsupport::haveTool(tool))
                GTEST_SKIP() << tool << " is not installed";
        ASSERT_TRUE(QFileInfo(libexec("Tarnwick_Pro_Muxer")).isExecutable());
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
        return run(libexec("Tarnwick_Pro_Muxer"), args, env);
    }

    // Nothing but the inputs (and the result, when there is one) in the folder.
    void expectNoLeftovers(bool withResult) {
        QStringList expected{QStringLiteral("Movie.tmp.m4v")};
        if (withResult)
            expected.prepend(QStringLiteral("Movie.m4v"));
        EXPECT_EQ(QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden, QDir::Name), expected);
    }

    void expectTagsCarried() {
        MP4FileHandle h = MP4Read(QFile::encodeName(m_dest).constData());
        ASSERT_NE(h, nullptr);
        const MP4Tags* tags = MP4TagsAlloc();
        ASSERT_TRUE(MP4TagsFetch(tags, h));
        EXPECT_STREQ(tags->name, "Muxer Test Movie");
        ASSERT_EQ(tags->artworkCount, 1u);
        EXPECT_EQ(
            QByteArray(static_cast<const char*>(tags->artwork[0].data), int(tags->artwork[0].size)),
            readAll(mp4test::coverImage(QStringLiteral("cover.png"))));
        ASSERT_TRUE(tags->encodingTool);
        EXPECT_EQ(std::string(tags->encodingTool).find("Lavf"), std::string::npos);
        MP4TagsFree(tags);

        for (const auto& [type, label, language] :
             {std::tuple{MP4_AUDIO_TRACK_TYPE, "Stereo Français", "fra"},
              std::tuple{MP4_SUBTITLE_TRACK_TYPE, "English Subtitles", "eng"}}) {
            const MP4TrackId track = MP4FindTrackId(h, 0, type);
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
        EXPECT_STREQ(chapters[1].title, "Second");
        free(chapters);
        MP4Close(h);
    }

    QTemporaryDir m_dir;
    QString m_source, m_dest;
};

// The demuxing path reserves room for the header while writing; too little
// of it means a rewrite, and an older result is replaced.
TEST_F(MuxerTool, TooLittleReservedRoomIsRewrittenWithOptimizingProgress) {
    QProcessEnvironment env = indexMode("off");
    env.insert(QStringLiteral("TARNWICK_MUXER_MOOV_RESERVE"), QStringLiteral("512"));
    QFile old(m_dest);
    ASSERT_TRUE(old.open(QIODevice::WriteOnly) && old.write("older") == 5);
    old.close();
    const Outcome r = mux(sourceMkv(), true, env);
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    expectProgressLines(r.err, {QStringLiteral("Muxing"), QStringLiteral("Optimizing")});
    EXPECT_TRUE(moovBeforeMdat(m_dest));
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:V"), checksums(sourceMkv(), "0:V")));
    expectTagsCarried();
    expectNoLeftovers(true);
}

TEST_F(MuxerTool, BadInputsFailClearlyAndLeaveNoOutput) {
    const QString audioOnly = cached(QStringLiteral("audio-only.m4a"), [](const QString& out) {
        return ffmpeg({"-f", "lavfi", "-i", "sine=duration=1", "-c:a", "aac", "-f", "mp4", out});
    });
    const QByteArray good = readAll(m_source);
    for (const auto& [video, converted, message] :
         {std::tuple{audioOnly, good, "no video stream"},
          {sourceMkv(), QByteArray(4096, '\x5a'), "Movie.tmp.m4v"},
          {sourceMkv(), good.left(good.size() / 3), "Movie.tmp.m4v"}}) {
        SCOPED_TRACE(message);
        QFile f(m_source);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
                    f.write(converted) == converted.size());
        f.close();
        const Outcome r = mux(video);
        EXPECT_NE(r.exitCode, 0);
        EXPECT_TRUE(r.err.contains(QByteArray("Tarnwick_Pro_Muxer: ")) && r.err.contains(message))
            << r.err.toStdString();
        expectNoLeftovers(false);
    }
}

TEST_F(MuxerTool, UnwritableDestinationsAndBadArgumentsAreRefused) {
    const QByteArray before = readAll(m_source);
    // A destination whose folder is a plain file cannot be written, even by root.
    const QString blocker = m_dir.filePath(QStringLiteral("notes.txt"));
    ASSERT_TRUE(QFile(blocker).open(QIODevice::WriteOnly));
    m_dest = blocker + QStringLiteral("/Movie.m4v");
    Outcome r = mux(sourceMkv());
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains("cannot create a file in")) << r.err.toStdString();
    // Writing over an input is refused before anything is written.
    m_dest = m_source;
    r = mux(sourceMkv());
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains("is one of the input files")) << r.err.toStdString();
    EXPECT_EQ(readAll(m_source), before);

    for (const QStringList& args : {QStringList{},
                                    {"-dest", m_dest, "-source", m_source, "-video"},
                                    {"-dest", "", "-source", m_source, "-video", sourceMkv()}}) {
        r = run(libexec("Tarnwick_Pro_Muxer"), args);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_TRUE(r.err.contains("usage: Tarnwick_Pro_Muxer -dest")) << r.err.toStdString();
    }
}

// --- The video source indexed from its container ---------------------------

// Matroska elements, enough to lay the same pictures out in other ways.
constexpr quint32 kSegment = 0x18538067, kSeekHead = 0x114D9B74, kCues = 0x1C53BB6B,
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
    BlockGroups, // video in BlockGroups with ReferenceBlock/BlockDuration, Void between,
                 // segment and clusters of unknown size
    Laced,       // video blocks with (single-frame) Xiph lacing
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
        if (e.id == kSeekHead || e.id == kCues)
            continue;
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
            const QByteArray frame = mkv.mid(int(child.data) + 4, int(child.size) - 4);
            const bool key = quint8(header[3]) & 0x80;
            ++picture;
            if (layout == Layout::Laced) {
                header[3] = char(quint8(header[3]) | 0x02);
                cluster += sized(kSimpleBlock, header + QByteArray(1, '\0') + frame);
                continue;
            }
            header[3] = char(quint8(header[3]) & 0x7F);
            QByteArray group = sized(kBlock, header + frame);
            if (!key)
                group += sized(kReferenceBlock, QByteArray(1, char(0xFF)));
            if (picture % 2)
                group += uintElement(kBlockDuration, 42);
            if (picture % 3 == 0)
                cluster += sized(kVoid, QByteArray(3, '\0'));
            cluster += sized(kBlockGroup, group);
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
            return relaidSource("9-8-blockgroups.mkv", Layout::BlockGroups);
        return sourceAs(QString::fromStdString(kind), kind.c_str());
    }
};

// What a reader sees of a file: per stream codec, tag, picture size, aspect
// and start (to the millisecond); the video's packet times and flags.
struct Movie {
    QStringList streams, videoTimes;
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
    return m;
}

// The pictures are found from the container and copied unread, the movie
// header made without the demuxer; a reader must find the very movie the
// demuxing path makes: the source's video in the stand-by video's place, and
// the converted file's tracks, tags and chapters.
TEST_P(IndexedSource, GivesTheSameMovieAsDemuxing) {
    const QString v = video();
    ASSERT_FALSE(v.isEmpty());
    const Outcome indexed = mux(v, true, indexMode("required"));
    ASSERT_EQ(indexed.exitCode, 0) << indexed.err.toStdString();
    expectProgressLines(indexed.err, {QStringLiteral("Muxing")});
    expectNoLeftovers(true);
    expectTagsCarried();
    const QString fromIndex = m_dir.filePath(QStringLiteral("Indexed.m4v"));
    ASSERT_TRUE(QFile::rename(m_dest, fromIndex));
    const Outcome demuxed = mux(v, true, indexMode("off"));
    ASSERT_EQ(demuxed.exitCode, 0) << demuxed.err.toStdString();

    const Movie a = movieOf(fromIndex), b = movieOf(m_dest);
    EXPECT_EQ(a.streams, b.streams);
    EXPECT_EQ(a.videoTimes, b.videoTimes);
    EXPECT_TRUE(sameStream(checksums(fromIndex, "0:V"), checksums(sourceMkv(), "0:V")));
    EXPECT_TRUE(sameStream(checksums(fromIndex, "0:a"), checksums(m_source, "0:a")));
    EXPECT_TRUE(sameStream(checksums(fromIndex, "0:s"), checksums(m_source, "0:s")));
    EXPECT_TRUE(moovBeforeMdat(fromIndex));
    EXPECT_TRUE(decodesCleanly(fromIndex));

    const QJsonObject vs = streamOfType(probeStreams(fromIndex), "video");
    EXPECT_EQ(vs.value("width").toInt(), 320);
    EXPECT_EQ(vs.value("sample_aspect_ratio").toString(), QStringLiteral("9:8"));
    // Players that take the aspect from the container's box alone see it too.
    std::string why;
    const auto f = tarnwick::mp4::File::open(fromIndex.toStdString(), false, &why);
    const auto* pasp = f ? f->moov()->find("trak.mdia.minf.stbl.stsd.avc1.pasp") : nullptr;
    ASSERT_TRUE(pasp) << why;
    EXPECT_EQ(tarnwick::mp4::readBE(pasp->data(), 0, 8), (9ull << 32) | 8);
    const QJsonObject standby = streamOfType(probeStreams(m_source), "video");
    EXPECT_NEAR(vs.value("start_time").toString().toDouble(),
                standby.value("start_time").toString().toDouble(), 0.001);
    // Matroska's language is kept only as a three-letter code.
    if (std::string(GetParam()).find("mkv") != std::string::npos) {
        EXPECT_EQ(vs.value("tags").toObject().value("language").toString(), QStringLiteral("und"));
    }

    EXPECT_EQ(a.videoTimes.size(), 144);
}

INSTANTIATE_TEST_SUITE_P(Containers, IndexedSource,
                         ::testing::Values("mkv", "blockgroups.mkv", "mov"));

// Blocks the index cannot take as they are go through the demuxer, and the
// video still arrives bit for bit (decoded alike from MPEG-TS's Annex B).
TEST_F(MuxerTool, LacedBlocksAndTransportStreamsAreDemuxed) {
    for (const auto& [v, annexB] : {std::pair{relaidSource("9-8-laced.mkv", Layout::Laced), false},
                                    std::pair{sourceAs(QStringLiteral("ts"), "mpegts"), true}}) {
        SCOPED_TRACE(v.toStdString());
        ASSERT_FALSE(v.isEmpty());
        const Outcome refused = mux(v, true, indexMode("required"));
        EXPECT_NE(refused.exitCode, 0);
        EXPECT_TRUE(refused.err.contains("cannot be indexed")) << refused.err.toStdString();
        EXPECT_FALSE(QFile::exists(m_dest));

        const Outcome r = mux(v);
        ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
        expectProgressLines(r.err, {QStringLiteral("Muxing")});
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:V", annexB), checksums(v, "0:V", annexB)));
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:a"), checksums(m_source, "0:a")));
        ASSERT_TRUE(QFile::remove(m_dest));
    }
}

// Large pictures (about 390 KB each, with B-frames) are copied page-aligned
// with the source, leaving unused bytes between chunks; the tables must still
// find every sample, with the movie header in front or at the end, on either path.
// Without the demuxer, pictures are copied in runs with the source's block
// headers between them, rather than one by one.
TEST_F(MuxerTool, LargePicturesLandPageAlignedAndIntact) {
    const QString v = cached(QStringLiteral("large-pictures.mkv"), [](const QString& out) {
        return ffmpeg(words("-f lavfi -i testsrc2=size=640x360:rate=24000/1001:duration=1,noise="
                            "alls=40:allf=t -c:v libx264 -preset ultrafast -qp 0 -bf 2 -g 12 -f "
                            "matroska") +
                      QStringList{out});
    });
    ASSERT_FALSE(v.isEmpty());
    const QStringList video = checksums(v, "0:V");
    ASSERT_EQ(video.size(), 24);
    const QByteArray source = readAll(v);
    for (const auto& [optimize, mode] :
         {std::pair{true, "required"}, {false, "required"}, {true, "off"}}) {
        SCOPED_TRACE(std::string(mode) + (optimize ? ", moov in front" : ", moov at the end"));
        const Outcome r = mux(v, optimize, indexMode(mode));
        ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:V"), video));
        EXPECT_TRUE(sameStream(checksums(m_dest, "0:a"), checksums(m_source, "0:a")));
        EXPECT_TRUE(decodesCleanly(m_dest));
        EXPECT_EQ(moovBeforeMdat(m_dest), optimize);

        const QByteArray out = readAll(m_dest);
        const Outcome packets =
            run(QStringLiteral("ffprobe"), {"-v", "error", "-select_streams", "V", "-show_entries",
                                            "packet=pos", "-of", "csv=p=0", m_dest});
        int runs = 0;
        qint64 lastPos = -1, lastFrom = -1;
        for (const QByteArray& line : packets.out.trimmed().split('\n')) {
            const qint64 pos = line.toLongLong();
            const qint64 from = source.indexOf(out.mid(int(pos), 64));
            ASSERT_GE(from, 0);
            runs += lastPos >= 0 && pos - lastPos == from - lastFrom &&
                    out.mid(int(lastPos), int(pos - lastPos)) ==
                        source.mid(int(lastFrom), int(pos - lastPos));
            lastPos = pos;
            lastFrom = from;
        }
        if (std::string(mode) == "required") {
            EXPECT_GE(runs, 18) << "pictures copied along with the one before";
        }
        ASSERT_TRUE(QFile::remove(m_dest));
    }
}

// H.264 and HEVC are taken without the demuxer, which the muxer does not
// even load: with broken libav* libraries first in the search path it
// still works, and only the demuxing path fails to start.
TEST_F(MuxerTool, IndexedPathRunsWithoutTheDemuxerLibraries) {
    const QString v = cached(QStringLiteral("hevc.mkv"), [](const QString& out) {
        return ffmpeg(words("-f lavfi -i testsrc=size=320x180:rate=24000/1001:duration=2 -c:v "
                            "libx265 -preset ultrafast -x265-params log-level=error:bframes=3 -f "
                            "matroska") +
                      QStringList{out});
    });
    ASSERT_FALSE(v.isEmpty());
    const QString broken = m_dir.filePath(QStringLiteral("broken-libs"));
    ASSERT_TRUE(QDir().mkpath(broken));
    for (const char* name : {"libavformat", "libavcodec", "libavutil"})
        for (int version = 56; version <= 62; ++version) {
            QFile lib(broken + QStringLiteral("/%1.so.%2").arg(QLatin1String(name)).arg(version));
            ASSERT_TRUE(lib.open(QIODevice::WriteOnly) && lib.write("not a library") > 0);
        }
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("LD_LIBRARY_PATH"), broken);
    const Outcome r = mux(v, true, env);
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(streamOfType(probeStreams(m_dest), "video").value("codec_tag_string").toString(),
              QStringLiteral("hvc1"));
    EXPECT_TRUE(sameStream(checksums(m_dest, "0:V"), checksums(v, "0:V")));
    EXPECT_TRUE(decodesCleanly(m_dest));
    EXPECT_EQ(videoPacketTimes(m_dest).size(), 48);
    ASSERT_TRUE(QFile::remove(m_dest));
    env.insert(QStringLiteral("TARNWICK_MUXER_INDEX"), QStringLiteral("off"));
    EXPECT_NE(mux(v, true, env).exitCode, 0);
    EXPECT_FALSE(QFile::exists(m_dest));
}

} // namespace
