// Channel layouts of real audio tracks made with ffmpeg.

#include "core/MDB_Utility.h"
#include "mp4/Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QFile>

#include <cstring>

using namespace mp4test;

namespace {

// The layout of every audio track of a file, in track order.
QStringList layouts(const QString& path) {
    QStringList out;
    MP4FileHandle h = MP4Read(QFile::encodeName(path).constData());
    EXPECT_NE(h, MP4_INVALID_FILE_HANDLE) << path.toStdString();
    if (!h)
        return out;
    const uint32_t n = MP4GetNumberOfTracks(h);
    for (uint32_t i = 0; i < n; ++i) {
        const MP4TrackId id = MP4FindTrackId(h, uint16_t(i));
        const char* type = MP4GetTrackType(h, id);
        if (type && std::strcmp(type, MP4_AUDIO_TRACK_TYPE) == 0)
            out.append(MDB_Utility::getNumAudioChannelsInMP4(h, id));
    }
    MP4Close(h);
    return out;
}

QString audioSample(const char* name, const QStringList& codec) {
    QStringList a = lavfi("sine=frequency=440:duration=1");
    a += codec;
    return ffmpegSample(QString::fromLatin1(name), a);
}

TEST(AudioChannels, LayoutsComeFromDecoderConfigurationOrSampleEntry) {
    const struct {
        const char* name;
        QStringList codec;
        const char* layout;
    } rows[] = {
        {"ch-aac-mono.mp4", {"-c:a", "aac", "-ac", "1"}, "1.0"},
        {"ch-aac-51.mp4", {"-c:a", "aac", "-af", "aformat=channel_layouts=5.1"}, "5.1"},
        // A low sampling frequency sets other bits around the channel configuration.
        {"ch-aac-7350.mp4", {"-c:a", "aac", "-ar", "7350", "-ac", "2"}, "2.0"},
        {"ch-ac3-50.mp4", {"-c:a", "ac3", "-af", "aformat=channel_layouts=5.0"}, "5.0"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(layouts(audioSample(row.name, row.codec)), QStringList{row.layout}) << row.name;
    // 5.1 AC-3, stereo AAC and stereo ALAC side by side.
    const QString multi = multiTrackSample();
    ASSERT_FALSE(multi.isEmpty());
    EXPECT_EQ(layouts(multi), (QStringList{"5.1", "2.0", "2.0"}));
}

} // namespace
