// Writing: a tag change costs the moov, never the media data; free space is
// reused; moov-first files stay so while padding lasts; optimize puts moov
// first; files over 4 GiB with co64 tables; a writer killed at any moment.

#include "Mp4TestMedia.h"
#include "SmallDisk.h"
#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace mp4test;
using namespace tarnwick::mp4;

namespace {

struct Layout {
    uint64_t moovOffset = 0, moovSize = 0, mdatOffset = 0, mdatSize = 0, fileSize = 0;
    size_t moovCount = 0;
};

Layout layoutOf(const std::string& path) {
    Layout l;
    std::string error;
    const auto f = File::open(path, false, &error);
    EXPECT_TRUE(f) << error;
    for (const auto& b : f ? f->topLevel() : std::vector<TopLevelBox>{}) {
        if (b.type == fourcc("moov") && l.moovCount++ == 0)
            std::tie(l.moovOffset, l.moovSize) = std::pair(b.offset, b.size);
        else if (b.type == fourcc("mdat"))
            std::tie(l.mdatOffset, l.mdatSize) = std::pair(b.offset, b.size);
    }
    l.fileSize = f ? f->fileSize() : 0;
    return l;
}

QByteArray rangeHash(const std::string& path, uint64_t offset, uint64_t size) {
    QFile f(QString::fromStdString(path));
    if (!f.open(QIODevice::ReadOnly) || !f.seek(qint64(offset)))
        return {};
    return QCryptographicHash::hash(f.read(qint64(size)), QCryptographicHash::Sha1).toHex();
}

// Real PNG art (players decode it as an attached picture), sized by side.
QByteArray art(int side, int seed = 1) {
    return readAll(noisyPng(side, seed));
}

// Writes a name and one piece of art (empty ones remove); false when the
// file would not open or the write failed (the reason in MP4GetLastError()).
bool writeTags(const std::string& path, const std::string& name, const QByteArray& art,
               uint32_t modifyFlags = 0) {
    MP4FileHandle h = MP4Modify(path.c_str(), modifyFlags);
    if (!h)
        return false;
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    MP4TagsSetName(t, name.empty() ? nullptr : name.c_str());
    MP4TagArtwork a{const_cast<char*>(art.constData()), uint32_t(art.size()), MP4_ART_PNG};
    while (t->artworkCount)
        MP4TagsRemoveArtwork(t, 0);
    if (!art.isEmpty())
        MP4TagsAddArtwork(t, &a);
    MP4TagsStore(t, h);
    MP4TagsFree(t);
    return MP4Close(h);
}

struct ReadBack {
    bool opened = false;
    std::string name;
    QByteArray art;
};

ReadBack readTags(const std::string& path) {
    ReadBack r;
    MP4FileHandle h = MP4Read(path.c_str());
    if (!h)
        return r;
    r.opened = true;
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    r.name = t->name ? t->name : "";
    if (t->artworkCount)
        r.art = QByteArray(static_cast<const char*>(t->artwork[0].data), int(t->artwork[0].size));
    MP4TagsFree(t);
    MP4Close(h);
    return r;
}

struct Mp4Write : ::testing::Test {
    std::string copy(const QString& source, const char* name) {
        return copyInto(dir, source, QString::fromLatin1(name)).toStdString();
    }
    QTemporaryDir dir;
};

} // namespace

TEST_F(Mp4Write, RepeatedWritesReuseFreedSpaceInsteadOfGrowing) {
    const std::string path = copy(aacSample(), "repeat.mp4");
    const Layout start = layoutOf(path);
    ASSERT_GT(start.moovOffset, start.mdatOffset);
    const QByteArray mdat = rangeHash(path, start.mdatOffset, start.mdatSize);
    uint64_t largestMoov = 0;
    for (int i = 0; i < 12; ++i) {
        const QByteArray picture = art(i % 3 == 0 ? 120 : 60 + 2 * i);
        ASSERT_TRUE(writeTags(path, "Round " + std::to_string(i), picture));
        ASSERT_EQ(readTags(path).art, picture);
        const Layout l = layoutOf(path);
        largestMoov = std::max(largestMoov, l.moovSize);
        EXPECT_EQ(l.moovCount, 1u);
        // Old moovs are recycled: the file never holds more than about two of them.
        EXPECT_LE(l.fileSize, start.fileSize + 2 * largestMoov + 16) << "round " << i;
    }
    EXPECT_EQ(rangeHash(path, start.mdatOffset, start.mdatSize), mdat);
}

// Moov-first files stay so, without growing, while the padding lasts; a
// moov that outgrows it goes to the end (never the media), and comes back
// to the front as soon as it fits there again.
TEST_F(Mp4Write, MoovFirstFilesStayMoovFirstWhileTheyCan) {
    const std::string path = copy(aacSample(), "front.mp4");
    ASSERT_TRUE(MP4Optimize(path.c_str()));
    const Layout before = layoutOf(path);
    ASSERT_LT(before.moovOffset, before.mdatOffset);
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(writeTags(path, "In place", art(100 + 4 * i)));
        const Layout l = layoutOf(path);
        EXPECT_LT(l.moovOffset, l.mdatOffset) << "round " << i;
        EXPECT_EQ(l.fileSize, before.fileSize) << "no growth while the padding holds";
    }

    const std::string tight = copy(faststartSample(), "faststart.mp4");
    const Layout start = layoutOf(tight);
    const QByteArray mdat = rangeHash(tight, start.mdatOffset, start.mdatSize);
    ASSERT_TRUE(writeTags(tight, "Grown", art(130)));
    const Layout grown = layoutOf(tight);
    EXPECT_EQ(grown.mdatOffset, start.mdatOffset);
    EXPECT_GT(grown.moovOffset, grown.mdatOffset);
    EXPECT_EQ(rangeHash(tight, start.mdatOffset, start.mdatSize), mdat);
    ASSERT_TRUE(writeTags(tight, "", QByteArray()));
    const Layout small = layoutOf(tight);
    EXPECT_LT(small.moovOffset, small.mdatOffset);
    EXPECT_LT(small.fileSize, grown.fileSize) << "trailing padding is trimmed";
    EXPECT_EQ(rangeHash(tight, start.mdatOffset, start.mdatSize), mdat);
}

// Appending after the last box: one whose size says "to the end of the file"
// gets its real size first; padding that this write did not free (another
// program's, or a box someone is still writing) is never cut away.
TEST_F(Mp4Write, TheLastBoxIsSizedAndForeignPaddingKept) {
    const std::string path = copy(aacSample(), "open-ended.mp4");
    const QByteArray packets = packetHash(QString::fromStdString(path));
    const Layout before = layoutOf(path);
    {
        QFile f(QString::fromStdString(path));
        ASSERT_TRUE(f.open(QIODevice::ReadWrite) && f.seek(qint64(before.moovOffset)));
        f.write(QByteArray(4, '\0'));
    }
    ASSERT_TRUE(writeTags(path, "Sized", art(90)));
    const Layout after = layoutOf(path);
    EXPECT_EQ(after.moovCount, 1u);
    EXPECT_GT(after.moovOffset, before.moovOffset);
    EXPECT_EQ(readTags(path).name, "Sized");
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);

    const uint64_t end = after.fileSize;
    QByteArray pad("\0\0\x10\0free", 8);
    pad.append(4096 - 8, 'p');
    {
        QFile f(QString::fromStdString(path));
        ASSERT_TRUE(f.open(QIODevice::Append) && f.write(pad) == pad.size());
    }
    ASSERT_TRUE(writeTags(path, "Grown", art(200)));
    EXPECT_EQ(rangeHash(path, end, uint64_t(pad.size())),
              QCryptographicHash::hash(pad, QCryptographicHash::Sha1).toHex());
    EXPECT_EQ(readTags(path).name, "Grown");
}

// A file over 4 GiB: a sparse 64-bit free box pushes the media data past
// 4 GiB, so the chunk offsets need a co64 table. Reading, writing and
// optimizing must keep every packet where it was.
TEST_F(Mp4Write, FilesOverFourGigabytesWithCo64) {
    const std::string source = aacSample().toStdString();
    std::string error;
    auto f = File::open(source, false, &error);
    ASSERT_TRUE(f) << error;
    const TopLevelBox* mdat = f->topLevelBox(fourcc("mdat"));
    const TopLevelBox* ftyp = f->topLevelBox(fourcc("ftyp"));
    ASSERT_TRUE(mdat && ftyp);
    const uint64_t gap = (4ULL << 30) + (512ULL << 20);
    const uint64_t newMdat = ftyp->size + gap;
    // Every stco becomes a co64 moved by the gap.
    for (Box* trak : f->moov()->childrenOfType(fourcc("trak"))) {
        Box* stbl = trak->find("mdia.minf.stbl");
        const Box* stco = stbl->child(fourcc("stco"));
        const uint64_t n = readBE(stco->data(), 4, 4);
        auto co64 = std::make_unique<Box>(fourcc("co64"));
        appendBE(co64->data(), 8, n);
        for (uint64_t i = 0; i < n; ++i)
            appendBE(co64->data(), 8, readBE(stco->data(), 8 + i * 4, 4) + newMdat - mdat->offset);
        stbl->insert(stbl->indexOf(stco), std::move(co64));
        stbl->remove(stco);
    }
    Bytes head(ftyp->size), media(mdat->size), moov, pad;
    ASSERT_TRUE(f->readAt(ftyp->offset, head.data(), head.size()) &&
                f->readAt(mdat->offset, media.data(), media.size()));
    f->moov()->serialize(moov);
    appendBE(pad, 4, 1);
    appendBE(pad, 4, fourcc("free"));
    appendBE(pad, 8, gap);
    const std::string path = (dir.path() + "/huge.mp4").toStdString();
    const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    for (const auto& [bytes, at] : {std::pair{&head, uint64_t(0)},
                                    {&pad, ftyp->size},
                                    {&media, newMdat},
                                    {&moov, newMdat + media.size()}})
        ASSERT_EQ(::pwrite(fd, bytes->data(), bytes->size(), off_t(at)), ssize_t(bytes->size()));
    ::close(fd);

    const QByteArray packets = packetHash(QString::fromStdString(source));
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets) << "reads like its source";
    ASSERT_TRUE(writeTags(path, "Huge", art(40)));
    EXPECT_GT(layoutOf(path).moovOffset, 4ULL << 30);
    EXPECT_EQ(readTags(path).name, "Huge");
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);
    // Optimizing drops the sparse gap and moves every 64-bit offset down.
    ASSERT_TRUE(MP4Optimize(path.c_str()));
    const Layout o = layoutOf(path);
    EXPECT_LT(o.fileSize, 16u << 20);
    EXPECT_LT(o.moovOffset, o.mdatOffset);
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);
    EXPECT_EQ(readTags(path).name, "Huge");
}

// Stops a writer right after each step of the protocol (as a kill there
// would): before the new moov's header flip the old tags show, after the old
// moov is freed the new ones, in between either; the file always plays and the
// next complete write leaves a single moov.
TEST_F(Mp4Write, StoppedAfterEveryStepLeavesOldOrNewTags) {
    const std::string steps[] = {"sized", "region",      "chunk",     "synced",
                                 "moov",  "stale-freed", "old-freed", "trimmed"};
    for (const bool optimize : {false, true}) {
        for (const std::string& stopAt : steps) {
            SCOPED_TRACE((optimize ? "moov first, stopped after " : "stopped after ") + stopAt);
            const std::string path = copy(aacSample(), "stopped.mp4");
            ASSERT_TRUE(!optimize || MP4Optimize(path.c_str()));
            // Moov first, a larger moov freed before leaves room for the new one.
            ASSERT_TRUE(!optimize || writeTags(path, "old", art(480, 3)));
            ASSERT_TRUE(writeTags(path, "old", art(200, 1)));
            const int side = optimize ? 300 : 480;
            const pid_t child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                setWriteStepHook([stopAt](const char* step) {
                    if (step == stopAt)
                        ::_exit(3);
                });
                writeTags(path, "new", art(side, 2));
                ::_exit(0);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            const bool stopped = WIFEXITED(status) && WEXITSTATUS(status) == 3;
            // Every write takes these steps, whichever way it places the moov.
            EXPECT_TRUE(stopped ||
                        (stopAt != "synced" && stopAt != "moov" && stopAt != "old-freed"));
            const ReadBack r = readTags(path);
            ASSERT_TRUE(r.opened);
            const bool old = stopped && (stopAt == "region" || stopAt == "chunk" ||
                                         stopAt == "synced" || stopAt == "sized");
            const bool fresh = !stopped || stopAt == "old-freed" || stopAt == "trimmed";
            EXPECT_TRUE((!old && !fresh) || r.name == (old ? "old" : "new")) << r.name;
            EXPECT_EQ(r.art, art(r.name == "new" ? side : 200, r.name == "new" ? 2 : 1));
            EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path)));
            ASSERT_TRUE(writeTags(path, "after", art(100, 3)));
            EXPECT_EQ(layoutOf(path).moovCount, 1u);
        }
    }
}

// Two writers on one file at the same moment, 60 times, with moovs of the
// same and of different sizes: the second waits for the first, so the file
// ends with one whole set of tags, plays, and keeps its media.
TEST_F(Mp4Write, ConcurrentWritersTakeTurns) {
    const std::string path = copy(aacSample(), "both.mp4");
    const QByteArray packets = packetHash(QString::fromStdString(path));
    const QByteArray small = art(40, 1), large = art(160, 2);
    for (int round = 0; round < 60; ++round) {
        const QByteArray& artB = round % 2 ? large : small;
        const std::string nameA = "A" + std::to_string(round), nameB = "B" + std::to_string(round);
        std::atomic<int> ready{0};
        std::atomic<int> failed{0};
        auto writer = [&](const std::string& name, const QByteArray& picture) {
            for (ready.fetch_add(1); ready.load() < 2;)
                std::this_thread::yield();
            failed += !writeTags(path, name, picture, MP4_MODIFY_FRESH_OUTPUT);
        };
        std::thread a(writer, nameA, small), b(writer, nameB, artB);
        a.join();
        b.join();
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_EQ(failed, 0);
        const ReadBack r = readTags(path);
        ASSERT_TRUE(r.name == nameA || r.name == nameB) << r.name;
        ASSERT_EQ(r.art, r.name == nameA ? small : artB);
        ASSERT_EQ(layoutOf(path).moovCount, 1u);
    }
    EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path)));
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);
}

// A tag write that does not fit on the disk fails with the reason and leaves
// the file byte for byte as it was.
TEST_F(Mp4Write, FullDiskFailsAndLeavesTheFileAsItWas) {
    const QString mount = dir.filePath(QStringLiteral("small-disk"));
    const testsupport::SmallDisk disk(mount, "1m");
    SKIP_WITHOUT_SMALL_DISK(disk);
    const std::string onDisk = (mount + QStringLiteral("/movie.mp4")).toStdString();
    ASSERT_TRUE(QFile::copy(aacSample(), QString::fromStdString(onDisk)));
    ASSERT_TRUE(writeTags(onDisk, "Fits", art(40, 1)));
    disk.fill();
    const QByteArray before = readAll(QString::fromStdString(onDisk));
    EXPECT_FALSE(writeTags(onDisk, "Does not fit", art(300, 5)));
    EXPECT_NE(std::string(MP4GetLastError()).find("No space left on device"), std::string::npos)
        << MP4GetLastError();
    EXPECT_EQ(readAll(QString::fromStdString(onDisk)), before);
}
