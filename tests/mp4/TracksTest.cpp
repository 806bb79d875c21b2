// Tracks through the public API: enumeration, languages and names, the
// esds/dac3/alac properties a channel-layout description needs, sample tables.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace mp4test;

namespace {

struct TrackInfo {
    MP4TrackId id;
    std::string type;
    std::string coding;
};

std::vector<TrackInfo> tracksOf(MP4FileHandle h) {
    std::vector<TrackInfo> out;
    const uint32_t n = MP4GetNumberOfTracks(h);
    for (uint32_t i = 0; i < n; ++i) {
        const MP4TrackId id = MP4FindTrackId(h, uint16_t(i));
        const char* type = MP4GetTrackType(h, id);
        const char* coding = MP4GetTrackMediaDataName(h, id);
        out.push_back({id, type ? type : "", coding ? coding : ""});
    }
    return out;
}

MP4TrackId trackWithCoding(MP4FileHandle h, const char* coding) {
    for (const auto& t : tracksOf(h))
        if (t.coding == coding)
            return t.id;
    return MP4_INVALID_TRACK_ID;
}

class Mp4Tracks : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        source = multiTrackSample();
        ASSERT_FALSE(source.isEmpty());
        path = copyInto(dir, source).toStdString();
    }
    QTemporaryDir dir;
    QString source;
    std::string path;
};

} // namespace

TEST_F(Mp4Tracks, EnumeratesTracksByTypeInFileOrder) {
    MP4FileHandle h = MP4Read(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const auto tracks = tracksOf(h);
    ASSERT_EQ(tracks.size(), 5u);
    EXPECT_EQ(tracks[0].type, MP4_VIDEO_TRACK_TYPE);
    EXPECT_EQ(tracks[0].coding, "avc1");
    EXPECT_EQ(tracks[1].type, MP4_AUDIO_TRACK_TYPE);
    EXPECT_EQ(tracks[1].coding, "ac-3");
    EXPECT_EQ(tracks[2].coding, "mp4a");
    EXPECT_EQ(tracks[3].coding, "alac");
    EXPECT_EQ(tracks[4].type, MP4_SUBTITLE_TRACK_TYPE);
    EXPECT_EQ(tracks[4].coding, "tx3g");
    EXPECT_EQ(MP4GetNumberOfTracks(h, MP4_AUDIO_TRACK_TYPE), 3u);
    EXPECT_EQ(MP4GetNumberOfTracks(h, MP4_AUDIO_TRACK_TYPE, MP4_MPEG4_AUDIO_TYPE), 1u);
    EXPECT_EQ(MP4FindTrackId(h, 1, MP4_AUDIO_TRACK_TYPE), tracks[2].id);
    EXPECT_EQ(MP4FindTrackId(h, 3, MP4_AUDIO_TRACK_TYPE), MP4_INVALID_TRACK_ID);
    EXPECT_EQ(MP4FindTrackIndex(h, tracks[3].id), 3);
    EXPECT_EQ(MP4GetTrackType(h, 999), nullptr);
    MP4Close(h);
}

TEST_F(Mp4Tracks, LanguagesAndNamesRoundTrip) {
    MP4FileHandle h = MP4Read(path.c_str());
    const auto tracks = tracksOf(h);
    char lang[4] = {};
    ASSERT_TRUE(MP4GetTrackLanguage(h, tracks[2].id, lang));
    EXPECT_STREQ(lang, "fra"); // set by ffmpeg
    char* name = nullptr;
    EXPECT_FALSE(MP4GetTrackName(h, tracks[1].id, &name));
    EXPECT_FALSE(MP4SetTrackLanguage(h, tracks[1].id, "deu")) << "read-only handle";
    MP4Close(h);

    h = MP4Modify(path.c_str());
    EXPECT_TRUE(MP4SetTrackLanguage(h, tracks[1].id, "deu"));
    EXPECT_TRUE(MP4SetTrackLanguage(h, tracks[4].id, "JPN"));
    EXPECT_FALSE(MP4SetTrackLanguage(h, tracks[2].id, "de"));
    EXPECT_FALSE(MP4SetTrackLanguage(h, tracks[2].id, "d3u"));
    EXPECT_FALSE(MP4SetTrackLanguage(h, 999, "deu"));
    EXPECT_TRUE(MP4SetTrackName(h, tracks[1].id, "Surround 5.1 \xc3\xa9"));
    EXPECT_TRUE(MP4SetTrackName(h, tracks[4].id, "Japanisch"));
    MP4Close(h, MP4_CLOSE_DO_NOT_COMPUTE_BITRATE);

    h = MP4Read(path.c_str());
    ASSERT_TRUE(MP4GetTrackLanguage(h, tracks[1].id, lang));
    EXPECT_STREQ(lang, "deu");
    ASSERT_TRUE(MP4GetTrackLanguage(h, tracks[4].id, lang));
    EXPECT_STREQ(lang, "jpn");
    ASSERT_TRUE(MP4GetTrackLanguage(h, tracks[2].id, lang));
    EXPECT_STREQ(lang, "fra") << "untouched track keeps its language";
    ASSERT_TRUE(MP4GetTrackName(h, tracks[1].id, &name));
    EXPECT_STREQ(name, "Surround 5.1 \xc3\xa9");
    std::free(name);
    ASSERT_TRUE(MP4GetTrackName(h, tracks[4].id, &name));
    EXPECT_STREQ(name, "Japanisch");
    std::free(name);
    MP4Close(h);

    // Renaming replaces; an empty name removes.
    h = MP4Modify(path.c_str());
    EXPECT_TRUE(MP4SetTrackName(h, tracks[1].id, "Other"));
    EXPECT_TRUE(MP4SetTrackName(h, tracks[4].id, ""));
    MP4Close(h);
    h = MP4Read(path.c_str());
    ASSERT_TRUE(MP4GetTrackName(h, tracks[1].id, &name));
    EXPECT_STREQ(name, "Other");
    std::free(name);
    EXPECT_FALSE(MP4GetTrackName(h, tracks[4].id, &name));
    MP4Close(h);
    EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path)));
}

// What a channel-layout description reads: stereo AAC gives object type 64
// and channel configuration 2; 5.1 AC-3 gives dac3 with acmod 7 and lfeon 1.
TEST_F(Mp4Tracks, ChannelPropertiesOfAacAc3AndAlac) {
    MP4FileHandle h = MP4Read(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);

    const MP4TrackId aac = trackWithCoding(h, "mp4a");
    EXPECT_EQ(MP4GetTrackEsdsObjectTypeId(h, aac), MP4_MPEG4_AUDIO_TYPE);
    uint8_t* config = nullptr;
    uint32_t size = 0;
    ASSERT_TRUE(MP4GetTrackESConfiguration(h, aac, &config, &size));
    ASSERT_GE(size, 2u);
    const int frequencyIndex = ((config[0] & 0x07) << 1) | (config[1] >> 7);
    EXPECT_EQ(frequencyIndex, 4); // 44100 Hz
    EXPECT_EQ((config[1] >> 3) & 0x0f, 2) << "channel configuration";
    std::free(config);
    EXPECT_FALSE(MP4HaveTrackAtom(h, aac, "mdia.minf.stbl.stsd.ac-3.dac3"));
    uint64_t v = 0;
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, aac, "mdia.minf.stbl.stsd.mp4a.channels", &v));
    EXPECT_EQ(v, 2u);

    const MP4TrackId ac3 = trackWithCoding(h, "ac-3");
    EXPECT_EQ(MP4GetTrackEsdsObjectTypeId(h, ac3), MP4_INVALID_AUDIO_TYPE);
    EXPECT_FALSE(MP4GetTrackESConfiguration(h, ac3, &config, &size));
    EXPECT_EQ(config, nullptr);
    EXPECT_TRUE(MP4HaveTrackAtom(h, ac3, "mdia.minf.stbl.stsd.ac-3.dac3"));
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, ac3, "mdia.minf.stbl.stsd.ac-3.dac3.acmod", &v));
    EXPECT_EQ(v, 7u);
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, ac3, "mdia.minf.stbl.stsd.ac-3.dac3.lfeon", &v));
    EXPECT_EQ(v, 1u);
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, ac3, "mdia.minf.stbl.stsd.ac-3.dac3.fscod", &v));
    EXPECT_EQ(v, 1u); // 44.1 kHz
    EXPECT_FALSE(MP4GetTrackIntegerProperty(h, ac3, "mdia.minf.stbl.stsd.ac-3.dac3.nothing", &v));
    EXPECT_FALSE(MP4GetTrackIntegerProperty(h, ac3, "mdia.minf.stbl.stsd.mp4a.channels", &v));

    const MP4TrackId alac = trackWithCoding(h, "alac");
    EXPECT_TRUE(MP4HaveTrackAtom(h, alac, "mdia.minf.stbl.stsd.alac"));
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, alac, "mdia.minf.stbl.stsd.alac.channels", &v));
    EXPECT_EQ(v, 2u);
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, alac, "mdia.minf.stbl.stsd.alac.sampleSize", &v));
    EXPECT_EQ(v, 16u);

    const MP4TrackId video = MP4FindTrackId(h, 0, MP4_VIDEO_TRACK_TYPE);
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, video, "mdia.minf.stbl.stsd.avc1.width", &v));
    EXPECT_EQ(v, 160u);
    ASSERT_TRUE(MP4GetTrackIntegerProperty(h, video, "tkhd.trackId", &v));
    EXPECT_EQ(v, video);
    EXPECT_FALSE(MP4HaveTrackAtom(h, video, ""));
    EXPECT_FALSE(MP4HaveTrackAtom(h, video, "mdia..minf"));
    MP4Close(h);
}

TEST_F(Mp4Tracks, SampleTablesAgreeWithFfprobe) {
    const RunResult probe =
        run(QStringLiteral("ffprobe"),
            {"-v", "error", "-select_streams", "a:1", "-show_packets", "-show_entries",
             "packet=size,duration", "-of", "json", QString::fromStdString(path)});
    ASSERT_EQ(probe.exitCode, 0);
    const QJsonArray packets =
        QJsonDocument::fromJson(probe.out).object().value("packets").toArray();
    ASSERT_GT(packets.size(), 10);

    MP4FileHandle h = MP4Read(path.c_str());
    const MP4TrackId aac = trackWithCoding(h, "mp4a");
    EXPECT_EQ(MP4GetTrackNumberOfSamples(h, aac), uint32_t(packets.size()));
    for (int i = 0; i < packets.size(); ++i) {
        const QJsonObject p = packets[i].toObject();
        EXPECT_EQ(MP4GetSampleSize(h, aac, MP4SampleId(i + 1)),
                  uint32_t(p.value("size").toString().toUInt()))
            << i;
    }
    EXPECT_EQ(MP4GetSampleDuration(h, aac, 1), 1024u);
    EXPECT_EQ(MP4GetSampleSize(h, aac, 0), 0u);
    EXPECT_EQ(MP4GetSampleSize(h, aac, MP4SampleId(packets.size() + 1)), 0u);
    EXPECT_EQ(MP4GetSampleDuration(h, aac, MP4SampleId(packets.size() + 5)), MP4_INVALID_DURATION);
    EXPECT_EQ(MP4GetTrackTimeScale(h, aac), 44100u);
    const double seconds = double(MP4GetTrackDuration(h, aac)) / MP4GetTrackTimeScale(h, aac);
    EXPECT_NEAR(seconds, 2.0, 0.1);
    EXPECT_NEAR(double(MP4GetDuration(h)) / MP4GetTimeScale(h), 2.0, 0.1);
    EXPECT_TRUE(MP4HaveAtom(h, "moov.mvhd"));
    EXPECT_FALSE(MP4HaveAtom(h, "moov.nope"));
    MP4Close(h);
}

TEST(Mp4Chapters, ReadsTheChapterTextTrack) {
    QTemporaryDir dir;
    const QString meta = dir.path() + "/chapters.txt";
    QFile f(meta);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1000\ntitle=Opening\n"
            "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1000\nEND=2000\ntitle=Finale\n");
    f.close();
    const QString out = dir.path() + "/chapters.mp4";
    const RunResult r = run(QStringLiteral("ffmpeg"),
                            {"-v", "error", "-i", aacSample(), "-i", meta, "-map_metadata", "1",
                             "-map_chapters", "1", "-c", "copy", out});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    MP4FileHandle h = MP4Read(out.toUtf8().constData());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    MP4Chapter_t* chapters = nullptr;
    uint32_t count = 0;
    const MP4ChapterType kind = MP4GetChapters(h, &chapters, &count, MP4ChapterTypeAny);
    ASSERT_NE(kind, MP4ChapterTypeNone);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(chapters[0].title, "Opening");
    EXPECT_STREQ(chapters[1].title, "Finale");
    EXPECT_NEAR(double(chapters[0].duration), 1000.0, 50.0);
    std::free(chapters);
    // ffmpeg also writes the Nero list; it must say the same.
    ASSERT_EQ(MP4GetChapters(h, &chapters, &count, MP4ChapterTypeNero), MP4ChapterTypeNero);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(chapters[0].title, "Opening");
    EXPECT_STREQ(chapters[1].title, "Finale");
    EXPECT_EQ(chapters[0].duration, 1000u);
    std::free(chapters);
    MP4Close(h);

    h = MP4Read(aacSample().toUtf8().constData());
    EXPECT_EQ(MP4GetChapters(h, &chapters, &count, MP4ChapterTypeAny), MP4ChapterTypeNone);
    EXPECT_EQ(count, 0u);
    MP4Close(h);
}
