// An independent reader agrees with us: what we write, ffprobe reads back.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstring>

using namespace mp4test;

// The multi-track sample tagged the way the application tags its output.
TEST(Mp4Interop, FfprobeReadsOurTagsAndTrackLabels) {
    if (!haveTool("ffprobe"))
        GTEST_SKIP() << "ffprobe is not installed";
    QTemporaryDir dir;
    const QString path = copyInto(dir, multiTrackSample(), QStringLiteral("tagged.m4v"));
    const QByteArray png = readAll(coverImage(QStringLiteral("cover.png")));
    const char* name = "Der Name \xc3\xa4\xc3\xb6\xc3\xbc";
    const char* rating = "mpaa|PG-13|300|";
    MP4FileHandle h = MP4Modify(path.toUtf8().constData());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    MP4TagsSetName(t, name);
    MP4TagArtwork art{const_cast<char*>(png.constData()), uint32_t(png.size()), MP4_ART_PNG};
    MP4TagsAddArtwork(t, &art);
    MP4TagsStore(t, h);
    MP4TagsFree(t);
    MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
    item->mean = strdup("com.apple.iTunes");
    item->name = strdup("iTunEXTC");
    item->dataList.elements[0].typeCode = MP4_ITMF_BT_UTF8;
    item->dataList.elements[0].value = reinterpret_cast<uint8_t*>(strdup(rating));
    item->dataList.elements[0].valueSize = uint32_t(std::strlen(rating));
    ASSERT_TRUE(MP4ItmfAddItem(h, item));
    MP4ItmfItemFree(item);
    const MP4TrackId ac3 = MP4FindTrackId(h, 0, MP4_AUDIO_TRACK_TYPE);
    MP4SetTrackLanguage(h, ac3, "deu");
    MP4SetTrackName(h, ac3, "Surround Deutsch");
    MP4Close(h, MP4_CLOSE_DO_NOT_COMPUTE_BITRATE);

    const RunResult r =
        run(QStringLiteral("ffprobe"),
            {"-v", "error", "-show_entries",
             "format_tags:stream=codec_type:stream_tags:stream_disposition=attached_pic", "-of",
             "json", path});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.trimmed().isEmpty()) << r.err.toStdString();
    const QJsonObject root = QJsonDocument::fromJson(r.out).object();
    const QJsonObject tags = root.value("format").toObject().value("tags").toObject();
    EXPECT_EQ(tags.value("title").toString(), QString::fromUtf8(name));
    EXPECT_EQ(tags.value("iTunEXTC").toString(), rating);
    const QJsonArray streams = root.value("streams").toArray();
    ASSERT_EQ(streams.size(), 6) << "five tracks and the cover art";
    const QJsonObject labels = streams[1].toObject().value("tags").toObject();
    EXPECT_EQ(labels.value("language").toString(), "deu");
    EXPECT_EQ(labels.value("handler_name").toString(), "Surround Deutsch");
    EXPECT_EQ(streams[5].toObject().value("disposition").toObject().value("attached_pic").toInt(),
              1);
    EXPECT_TRUE(ffmpegPlays(path));
}
