// Bad input never crashes: missing, empty, random, truncated and mutated
// files either fail to open or answer every query without harm.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QRandomGenerator>

#include <cstdlib>

using namespace mp4test;

namespace {

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(bytes);
}

// Runs every reader over a handle; the answers do not matter, surviving does.
void exerciseAll(MP4FileHandle h) {
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    MP4TagsFetchArtwork(t, h);
    MP4TagsFree(t);
    MP4ItmfItemListFree(MP4ItmfGetItems(h));
    MP4ItmfItemListFree(MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", nullptr));
    const uint32_t n = MP4GetNumberOfTracks(h);
    for (uint32_t i = 0; i < n && i < 64; ++i) {
        const MP4TrackId id = MP4FindTrackId(h, uint16_t(i));
        MP4GetTrackType(h, id);
        MP4GetTrackMediaDataName(h, id);
        char lang[4];
        MP4GetTrackLanguage(h, id, lang);
        char* name = nullptr;
        if (MP4GetTrackName(h, id, &name))
            std::free(name);
        MP4GetTrackEsdsObjectTypeId(h, id);
        uint8_t* config = nullptr;
        uint32_t size = 0;
        MP4GetTrackESConfiguration(h, id, &config, &size);
        std::free(config);
        MP4GetSampleSize(h, id, 1);
        MP4GetSampleDuration(h, id, 1);
        MP4GetTrackNumberOfSamples(h, id);
        uint64_t v = 0;
        MP4GetTrackIntegerProperty(h, id, "mdia.minf.stbl.stsd.ac-3.dac3.acmod", &v);
        MP4GetTrackIntegerProperty(h, id, "mdia.minf.stbl.stsd.mp4a.channels", &v);
    }
    MP4Chapter_t* chapters = nullptr;
    uint32_t count = 0;
    MP4GetChapters(h, &chapters, &count, MP4ChapterTypeAny);
    std::free(chapters);
}

} // namespace

TEST(Mp4CorruptInput, MissingEmptyAndForeignFilesDoNotOpen) {
    QTemporaryDir dir;
    EXPECT_EQ(MP4Read((dir.path() + "/missing.mp4").toUtf8().constData()), MP4_INVALID_FILE_HANDLE);
    EXPECT_EQ(MP4Modify((dir.path() + "/missing.mp4").toUtf8().constData()),
              MP4_INVALID_FILE_HANDLE);
    EXPECT_EQ(MP4Read(nullptr), MP4_INVALID_FILE_HANDLE);
    EXPECT_EQ(MP4Read(dir.path().toUtf8().constData()), MP4_INVALID_FILE_HANDLE) << "a folder";
    const QString empty = dir.path() + "/empty.mp4";
    writeFile(empty, {});
    EXPECT_EQ(MP4Read(empty.toUtf8().constData()), MP4_INVALID_FILE_HANDLE);
    const QString text = dir.path() + "/text.mp4";
    writeFile(text, "This is not a movie at all, just some words.\n");
    EXPECT_EQ(MP4Read(text.toUtf8().constData()), MP4_INVALID_FILE_HANDLE);
    const QString png = coverImage(QStringLiteral("cover.png"));
    EXPECT_EQ(MP4Read(png.toUtf8().constData()), MP4_INVALID_FILE_HANDLE);
    QRandomGenerator rng(42);
    for (int i = 0; i < 50; ++i) {
        QByteArray noise(int(rng.bounded(1, 5000)), Qt::Uninitialized);
        for (auto& c : noise)
            c = char(rng.bounded(256));
        const QString path = dir.path() + "/noise.mp4";
        writeFile(path, noise);
        MP4FileHandle h = MP4Read(path.toUtf8().constData());
        if (h) {
            exerciseAll(h);
            MP4Close(h);
        }
    }
}

TEST(Mp4CorruptInput, TruncatedFilesAreRefused) {
    QTemporaryDir dir;
    for (const QString& source : {aacSample(), faststartSample()}) {
        const QByteArray whole = readAll(source);
        ASSERT_GT(whole.size(), 1000);
        const QString path = dir.path() + "/cut.mp4";
        // Cuts inside the moov or the media data: the file is damaged.
        for (double at : {0.02, 0.3, 0.5, 0.9, 0.97, 0.999}) {
            writeFile(path, whole.left(int(whole.size() * at)));
            MP4FileHandle h = MP4Read(path.toUtf8().constData());
            EXPECT_EQ(h, MP4_INVALID_FILE_HANDLE) << source.toStdString() << " cut at " << at;
            MP4Close(h);
        }
    }
}

// Random truncations and byte mutations of a real file, with a modify and a
// write on whatever still opens.
TEST(Mp4CorruptInput, FuzzedFilesNeverCrash) {
    QTemporaryDir dir;
    const QByteArray whole = readAll(multiTrackSample());
    ASSERT_FALSE(whole.isEmpty());
    QRandomGenerator rng(7);
    int opened = 0;
    for (int i = 0; i < 300; ++i) {
        QByteArray bytes = whole;
        if (i % 3 == 0)
            bytes.truncate(int(rng.bounded(whole.size())));
        const int flips = int(rng.bounded(1, 40));
        for (int f = 0; f < flips && !bytes.isEmpty(); ++f) {
            // Aim most mutations at the moov, where the structure is.
            const int at =
                rng.bounded(4)
                    ? bytes.size() - 1 - int(rng.bounded(std::min<qsizetype>(bytes.size(), 6000)))
                    : int(rng.bounded(bytes.size()));
            bytes[at] = char(rng.bounded(256));
        }
        const QString path = dir.path() + "/fuzz.mp4";
        writeFile(path, bytes);
        MP4FileHandle h = MP4Modify(path.toUtf8().constData());
        if (!h)
            continue;
        ++opened;
        exerciseAll(h);
        const MP4Tags* t = MP4TagsAlloc();
        MP4TagsFetch(t, h);
        MP4TagsSetName(t, "fuzz");
        MP4TagsStore(t, h);
        MP4TagsFree(t);
        MP4SetTrackLanguage(h, MP4FindTrackId(h, 0), "eng");
        ASSERT_TRUE(MP4Close(h)) << "case " << i << ": " << MP4GetLastError();
        MP4FileHandle again = MP4Read(path.toUtf8().constData());
        ASSERT_NE(again, MP4_INVALID_FILE_HANDLE)
            << "our own write must stay readable (case " << i << ")";
        const MP4Tags* back = MP4TagsAlloc();
        MP4TagsFetch(back, again);
        EXPECT_STREQ(back->name, "fuzz") << "case " << i;
        MP4TagsFree(back);
        MP4Close(again);
    }
    EXPECT_GT(opened, 20) << "mutations should mostly leave an openable file";
}
