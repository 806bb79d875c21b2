// Independent readers agree with us: what we write, ffprobe reads back; what
// AtomicParsley and HandBrake write, we read.

#include "Mp4TestMedia.h"
#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdlib>
#include <cstring>

using namespace mp4test;

namespace {

#define REQUIRE_TOOL(name)                                                                         \
    if (!haveTool(name))                                                                           \
    GTEST_SKIP() << name << " is not installed"

const char* kName = "Der Name \xc3\xa4\xc3\xb6\xc3\xbc";
const char* kArtist = "Some Artist";
const char* kGenre = "Drama";
const char* kRating = "mpaa|PG-13|300|";

void addFreeform(MP4FileHandle h, const char* mean, const char* name, const char* value) {
    MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
    item->mean = strdup(mean);
    item->name = strdup(name);
    item->dataList.elements[0].typeCode = MP4_ITMF_BT_UTF8;
    item->dataList.elements[0].value = reinterpret_cast<uint8_t*>(strdup(value));
    item->dataList.elements[0].valueSize = uint32_t(std::strlen(value));
    ASSERT_TRUE(MP4ItmfAddItem(h, item));
    MP4ItmfItemFree(item);
}

// The multi-track sample tagged the way the application tags its output.
QString taggedSample(const QTemporaryDir& dir) {
    const QString path = copyInto(dir, multiTrackSample(), QStringLiteral("tagged.m4v"));
    const QByteArray png = readAll(coverImage(QStringLiteral("cover.png")));
    MP4FileHandle h = MP4Modify(path.toUtf8().constData());
    EXPECT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    MP4TagsSetName(t, kName);
    MP4TagsSetArtist(t, kArtist);
    MP4TagsSetGenre(t, kGenre);
    const uint8_t movie = 9;
    MP4TagsSetMediaType(t, &movie);
    MP4TagArtwork art{const_cast<char*>(png.constData()), uint32_t(png.size()), MP4_ART_PNG};
    MP4TagsAddArtwork(t, &art);
    MP4TagsStore(t, h);
    MP4TagsFree(t);
    addFreeform(h, "com.apple.iTunes", "iTunEXTC", kRating);
    addFreeform(h, "com.oswenna.metadata", "MOVI", "<plist><dict/></plist>");
    const MP4TrackId ac3 = MP4FindTrackId(h, 0, MP4_AUDIO_TRACK_TYPE);
    MP4SetTrackLanguage(h, ac3, "deu");
    MP4SetTrackName(h, ac3, "Surround Deutsch");
    const MP4TrackId subs = MP4FindTrackId(h, 0, MP4_SUBTITLE_TRACK_TYPE);
    MP4SetTrackLanguage(h, subs, "spa");
    MP4SetTrackName(h, subs, "Espanol");
    MP4Close(h, MP4_CLOSE_DO_NOT_COMPUTE_BITRATE);
    return path;
}

} // namespace

TEST(Mp4Interop, FfprobeReadsOurTagsAndTrackLabels) {
    REQUIRE_TOOL("ffprobe");
    QTemporaryDir dir;
    const QString path = taggedSample(dir);
    const RunResult r =
        run(QStringLiteral("ffprobe"),
            {"-v", "error", "-show_entries",
             "format_tags:stream=codec_type:stream_tags:stream_disposition=attached_pic", "-of",
             "json", path});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.trimmed().isEmpty()) << r.err.toStdString();
    const QJsonObject root = QJsonDocument::fromJson(r.out).object();
    const QJsonObject tags = root.value("format").toObject().value("tags").toObject();
    EXPECT_EQ(tags.value("title").toString(), QString::fromUtf8(kName));
    EXPECT_EQ(tags.value("artist").toString(), kArtist);
    EXPECT_EQ(tags.value("genre").toString(), kGenre);
    EXPECT_EQ(tags.value("iTunEXTC").toString(), kRating);
    const QJsonArray streams = root.value("streams").toArray();
    ASSERT_EQ(streams.size(), 6) << "five tracks and the cover art";
    const QJsonObject ac3 = streams[1].toObject().value("tags").toObject();
    EXPECT_EQ(ac3.value("language").toString(), "deu");
    EXPECT_EQ(ac3.value("handler_name").toString(), "Surround Deutsch");
    EXPECT_EQ(streams[2].toObject().value("tags").toObject().value("language").toString(), "fra");
    EXPECT_EQ(streams[4].toObject().value("tags").toObject().value("language").toString(), "spa");
    EXPECT_EQ(streams[5].toObject().value("disposition").toObject().value("attached_pic").toInt(),
              1);
    EXPECT_TRUE(ffmpegPlays(path));
}

TEST(Mp4Interop, WeReadWhatAtomicParsleyWrites) {
    REQUIRE_TOOL("AtomicParsley");
    QTemporaryDir dir;
    const QString path = copyInto(dir, aacSample(), QStringLiteral("ap.m4v"));
    const QString cover = coverImage(QStringLiteral("cover.png"));
    const RunResult r = run(QStringLiteral("AtomicParsley"),
                            QStringList{path, "--genre", "Sci-Fi & Fantasy", "--artwork", cover,
                                        "--rDNSatom", kRating} +
                                testsupport::words("name=iTunEXTC domain=com.apple.iTunes --title "
                                                   "AP_Title --artist AP_Artist --tracknum 4/9 "
                                                   "--stik Movie --hdvideo 1 --overWrite"));
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    MP4FileHandle h = MP4Read(path.toUtf8().constData());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4Tags* t = MP4TagsAlloc();
    ASSERT_TRUE(MP4TagsFetch(t, h));
    EXPECT_STREQ(t->name, "AP_Title");
    EXPECT_STREQ(t->artist, "AP_Artist");
    EXPECT_STREQ(t->genre, "Sci-Fi & Fantasy");
    ASSERT_TRUE(t->track);
    EXPECT_EQ(t->track->index, 4);
    EXPECT_EQ(t->track->total, 9);
    ASSERT_TRUE(t->mediaType);
    EXPECT_EQ(*t->mediaType, 9);
    ASSERT_TRUE(t->hdVideo);
    EXPECT_EQ(*t->hdVideo, 1);
    ASSERT_EQ(t->artworkCount, 1u);
    EXPECT_EQ(t->artwork[0].type, MP4_ART_PNG);
    EXPECT_EQ(QByteArray(static_cast<const char*>(t->artwork[0].data), int(t->artwork[0].size)),
              readAll(cover));
    MP4TagsFree(t);
    MP4ItmfItemList* items = MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", "iTunEXTC");
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size, 1u);
    const MP4ItmfData& d = items->elements[0].dataList.elements[0];
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(d.value), d.valueSize), kRating);
    MP4ItmfItemListFree(items);
    MP4Close(h);

    // And our write on top of theirs keeps their items.
    h = MP4Modify(path.toUtf8().constData());
    t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    MP4TagsSetName(t, "Ours Now");
    MP4TagsStore(t, h);
    MP4TagsFree(t);
    MP4Close(h);
    const RunResult again = run(QStringLiteral("AtomicParsley"), {path, "-t"});
    EXPECT_TRUE(again.out.contains("contains: Ours Now"));
    EXPECT_TRUE(again.out.contains("contains: AP_Artist"));
    EXPECT_TRUE(again.out.contains("1 piece of artwork"));
    EXPECT_TRUE(ffmpegPlays(path));
}

TEST(Mp4Interop, WeReadWhatHandBrakeWrites) {
    REQUIRE_TOOL("HandBrakeCLI");
    const QString out = mediaDir() + QStringLiteral("/handbrake-aac-ac3.m4v");
    if (!QFile::exists(out)) {
        const QString tmp = mediaDir() + QStringLiteral("/handbrake-part.m4v");
        const RunResult r = run(QStringLiteral("HandBrakeCLI"),
                                {"-i", multiTrackSample(), "-o", tmp, "-e", "x264", "--x264-preset",
                                 "ultrafast", "-q", "35", "-a", "1,1", "-E", "av_aac,copy:ac3",
                                 "--aname", "Stereo Mix,Surround", "-B", "64"});
        ASSERT_EQ(r.exitCode, 0) << r.err.right(2000).toStdString();
        QFile::rename(tmp, out);
    }
    MP4FileHandle h = MP4Read(out.toUtf8().constData());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4Tags* t = MP4TagsAlloc();
    ASSERT_TRUE(MP4TagsFetch(t, h));
    ASSERT_TRUE(t->encodingTool);
    EXPECT_EQ(std::string(t->encodingTool).rfind("HandBrake", 0), 0u) << t->encodingTool;
    MP4TagsFree(t);
    ASSERT_EQ(MP4GetNumberOfTracks(h, MP4_AUDIO_TRACK_TYPE), 2u);
    const MP4TrackId aac = MP4FindTrackId(h, 0, MP4_AUDIO_TRACK_TYPE);
    const MP4TrackId ac3 = MP4FindTrackId(h, 1, MP4_AUDIO_TRACK_TYPE);
    char* name = nullptr;
    ASSERT_TRUE(MP4GetTrackName(h, aac, &name));
    EXPECT_STREQ(name, "Stereo Mix");
    std::free(name);
    ASSERT_TRUE(MP4GetTrackName(h, ac3, &name));
    EXPECT_STREQ(name, "Surround");
    std::free(name);
    EXPECT_EQ(MP4GetTrackEsdsObjectTypeId(h, aac), MP4_MPEG4_AUDIO_TYPE);
    uint64_t acmod = 0;
    EXPECT_TRUE(MP4GetTrackIntegerProperty(h, ac3, "mdia.minf.stbl.stsd.ac-3.dac3.acmod", &acmod));
    EXPECT_EQ(acmod, 7u);
    EXPECT_EQ(MP4GetNumberOfTracks(h, MP4_VIDEO_TRACK_TYPE), 1u);
    MP4Close(h);
}
