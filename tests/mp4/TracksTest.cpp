// Tracks through the public API: enumeration, languages and names, the
// dac3/alac properties a channel-layout description needs, sample tables.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdlib>
#include <cstring>

using namespace mp4test;

namespace {

MP4TrackId trackWithCoding(MP4FileHandle h, const char* coding) {
    for (uint16_t i = 0; i < MP4GetNumberOfTracks(h); ++i) {
        const char* c = MP4GetTrackMediaDataName(h, MP4FindTrackId(h, i));
        if (c && std::strcmp(c, coding) == 0)
            return MP4FindTrackId(h, i);
    }
    return MP4_INVALID_TRACK_ID;
}

class Mp4Tracks : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        path = copyInto(dir, multiTrackSample()).toStdString();
    }
    QTemporaryDir dir;
    std::string path;
};

} // namespace

TEST_F(Mp4Tracks, LanguagesAndNamesRoundTrip) {
    MP4FileHandle h = MP4Read(path.c_str());
    const MP4TrackId tracks[] = {MP4FindTrackId(h, 0), MP4FindTrackId(h, 1), MP4FindTrackId(h, 2),
                                 MP4FindTrackId(h, 3), MP4FindTrackId(h, 4)};
    EXPECT_FALSE(MP4SetTrackLanguage(h, tracks[1], "deu")) << "read-only handle";
    MP4Close(h);

    h = MP4Modify(path.c_str());
    EXPECT_TRUE(MP4SetTrackLanguage(h, tracks[1], "deu"));
    EXPECT_TRUE(MP4SetTrackLanguage(h, tracks[4], "JPN"));
    EXPECT_FALSE(MP4SetTrackLanguage(h, tracks[2], "de"));
    EXPECT_FALSE(MP4SetTrackLanguage(h, tracks[2], "d3u"));
    EXPECT_TRUE(MP4SetTrackName(h, tracks[1], "Surround 5.1 \xc3\xa9"));
    EXPECT_TRUE(MP4SetTrackName(h, tracks[4], "Japanisch"));
    MP4Close(h, MP4_CLOSE_DO_NOT_COMPUTE_BITRATE);
    // Renaming replaces; an empty name removes.
    h = MP4Modify(path.c_str());
    EXPECT_TRUE(MP4SetTrackName(h, tracks[4], ""));
    MP4Close(h);

    h = MP4Read(path.c_str());
    char lang[4] = {};
    for (const auto& [track, want] : {std::pair{1, "deu"}, {4, "jpn"}, {2, "fra"}}) {
        ASSERT_TRUE(MP4GetTrackLanguage(h, tracks[size_t(track)], lang));
        EXPECT_STREQ(lang, want);
    }
    char* name = nullptr;
    ASSERT_TRUE(MP4GetTrackName(h, tracks[1], &name));
    EXPECT_STREQ(name, "Surround 5.1 \xc3\xa9");
    std::free(name);
    EXPECT_FALSE(MP4GetTrackName(h, tracks[4], &name));
    MP4Close(h);
    EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path)));
}

// What a channel-layout description reads: 5.1 AC-3 gives dac3 with acmod 7
// and lfeon 1.
TEST_F(Mp4Tracks, ChannelPropertiesOfAacAc3AndAlac) {
    MP4FileHandle h = MP4Read(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4TrackId aac = trackWithCoding(h, "mp4a"), ac3 = trackWithCoding(h, "ac-3");
    const MP4TrackId alac = trackWithCoding(h, "alac");
    const std::tuple<MP4TrackId, const char*, uint64_t> properties[] = {
        {aac, "mdia.minf.stbl.stsd.mp4a.channels", 2},
        {ac3, "mdia.minf.stbl.stsd.ac-3.dac3.acmod", 7},
        {ac3, "mdia.minf.stbl.stsd.ac-3.dac3.lfeon", 1},
        {ac3, "mdia.minf.stbl.stsd.ac-3.dac3.fscod", 1}, // 44.1 kHz
        {alac, "mdia.minf.stbl.stsd.alac.channels", 2},
        {alac, "mdia.minf.stbl.stsd.alac.sampleSize", 16},
        {MP4FindTrackId(h, 0, MP4_VIDEO_TRACK_TYPE), "mdia.minf.stbl.stsd.avc1.width", 160},
    };
    for (const auto& [track, property, want] : properties) {
        uint64_t v = 0;
        EXPECT_TRUE(MP4GetTrackIntegerProperty(h, track, property, &v)) << property;
        EXPECT_EQ(v, want) << property;
    }
    uint64_t v = 0;
    EXPECT_FALSE(MP4GetTrackIntegerProperty(h, ac3, "mdia.minf.stbl.stsd.mp4a.channels", &v));
    EXPECT_FALSE(MP4HaveTrackAtom(h, aac, "mdia.minf.stbl.stsd.ac-3.dac3"));
    MP4Close(h);
}

// Every sample's size and duration as ffprobe sees the packets.
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
        EXPECT_EQ(MP4GetSampleSize(h, aac, MP4SampleId(i + 1)), p.value("size").toString().toUInt())
            << i;
        EXPECT_EQ(MP4GetSampleDuration(h, aac, MP4SampleId(i + 1)), p.value("duration").toInt())
            << i;
    }
    EXPECT_EQ(MP4GetSampleSize(h, aac, 0), 0u);
    EXPECT_EQ(MP4GetSampleSize(h, aac, MP4SampleId(packets.size() + 1)), 0u);
    EXPECT_EQ(MP4GetSampleDuration(h, aac, MP4SampleId(packets.size() + 1)), MP4_INVALID_DURATION);
    EXPECT_NEAR(double(MP4GetDuration(h)) / MP4GetTimeScale(h), 2.0, 0.1);
    MP4Close(h);
}
