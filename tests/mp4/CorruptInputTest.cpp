// Bad input never crashes: missing, empty, random, truncated and mutated
// files either fail to open or answer every query without harm.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QRandomGenerator>

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

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
    MP4TagsFree(t);
    MP4ItmfItemListFree(MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", nullptr));
    for (uint32_t i = 0; i < MP4GetNumberOfTracks(h) && i < 64; ++i) {
        const MP4TrackId id = MP4FindTrackId(h, uint16_t(i));
        char lang[4];
        MP4GetTrackLanguage(h, id, lang);
        uint8_t* config = nullptr;
        uint32_t size = 0;
        MP4GetTrackESConfiguration(h, id, &config, &size);
        std::free(config);
        MP4GetSampleDuration(h, id, 1);
    }
    MP4Chapter_t* chapters = nullptr;
    uint32_t count = 0;
    MP4GetChapters(h, &chapters, &count, MP4ChapterTypeAny);
    std::free(chapters);
}

} // namespace

TEST(Mp4CorruptInput, MissingEmptyAndForeignFilesDoNotOpen) {
    QTemporaryDir dir;
    const QString empty = dir.path() + "/empty.mp4", text = dir.path() + "/text.mp4";
    writeFile(empty, {});
    writeFile(text, "This is not a movie at all, just some words.\n");
    for (const QString& path : {dir.path() + "/missing.mp4", dir.path(), empty, text,
                                coverImage(QStringLiteral("cover.png"))}) {
        EXPECT_EQ(MP4Read(path.toUtf8().constData()), MP4_INVALID_FILE_HANDLE) << qPrintable(path);
        EXPECT_EQ(MP4Modify(path.toUtf8().constData()), MP4_INVALID_FILE_HANDLE);
    }
    EXPECT_EQ(MP4Read(nullptr), MP4_INVALID_FILE_HANDLE);
}

// A file whose every read fails (this attribute refuses reads) is refused at
// once rather than read again and again.
TEST(Mp4CorruptInput, AFileThatCannotBeReadIsRefusedWithoutRetrying) {
    const char* unreadable = "/sys/class/net/lo/speed";
    if (!QFile::exists(QString::fromLatin1(unreadable)))
        GTEST_SKIP() << unreadable << " is missing here";
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::alarm(10);
        ::_exit(MP4Read(unreadable) == MP4_INVALID_FILE_HANDLE ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
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
        ASSERT_NE(again, MP4_INVALID_FILE_HANDLE) << "case " << i;
        const MP4Tags* back = MP4TagsAlloc();
        MP4TagsFetch(back, again);
        EXPECT_STREQ(back->name, "fuzz") << "case " << i;
        MP4TagsFree(back);
        MP4Close(again);
    }
    EXPECT_GT(opened, 20) << "mutations should mostly leave an openable file";
}
