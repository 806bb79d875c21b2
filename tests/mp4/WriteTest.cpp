// Writing: a tag change costs the moov, never the media data; free space is
// reused; moov-first files stay so while padding lasts; optimize puts moov
// first; files over 4 GiB with co64 tables; a writer killed at any moment.

#include "Mp4TestMedia.h"
#include "SmallDisk.h"
#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QRandomGenerator>

#include "media/MDI_Movie.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
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
    auto f = File::open(path, false, &error);
    EXPECT_TRUE(f) << error;
    if (!f)
        return l;
    l.fileSize = f->fileSize();
    for (const auto& b : f->topLevel()) {
        if (b.type == fourcc("moov")) {
            if (l.moovCount++ == 0) {
                l.moovOffset = b.offset;
                l.moovSize = b.size;
            }
        } else if (b.type == fourcc("mdat")) {
            l.mdatOffset = b.offset;
            l.mdatSize = b.size;
        }
    }
    return l;
}

QByteArray rangeHash(const std::string& path, uint64_t offset, uint64_t size) {
    QFile f(QString::fromStdString(path));
    if (!f.open(QIODevice::ReadOnly) || !f.seek(qint64(offset)))
        return {};
    QCryptographicHash h(QCryptographicHash::Sha1);
    while (size > 0) {
        const QByteArray chunk = f.read(qint64(std::min<uint64_t>(size, 1 << 20)));
        if (chunk.isEmpty())
            return {};
        h.addData(chunk);
        size -= uint64_t(chunk.size());
    }
    return h.result().toHex();
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
    if (t->artworkCount)
        MP4TagsSetArtwork(t, 0, &a);
    else if (!art.isEmpty())
        MP4TagsAddArtwork(t, &a);
    if (art.isEmpty() && t->artworkCount)
        MP4TagsRemoveArtwork(t, 0);
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

uint64_t processWriteCalls() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (io >> key >> value)
        if (key == "wchar:")
            return value;
    return 0;
}

class Mp4Write : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    std::string copy(const QString& source, const char* name) {
        EXPECT_FALSE(source.isEmpty());
        return copyInto(dir, source, QString::fromLatin1(name)).toStdString();
    }
    QTemporaryDir dir;
};

} // namespace

TEST_F(Mp4Write, RepeatedWritesReuseFreedSpaceInsteadOfGrowing) {
    const std::string path = copy(aacSample(), "repeat.mp4");
    const QByteArray packets = packetHash(QString::fromStdString(path));
    const Layout start = layoutOf(path);
    ASSERT_GT(start.moovOffset, start.mdatOffset);
    const QByteArray mdat = rangeHash(path, start.mdatOffset, start.mdatSize);
    uint64_t largestMoov = 0;
    for (int i = 0; i < 12; ++i) {
        const QByteArray picture = art(i % 3 == 0 ? 120 : 60 + 2 * i);
        const std::string name = "Round " + std::to_string(i);
        ASSERT_TRUE(writeTags(path, name, picture));
        const ReadBack r = readTags(path);
        ASSERT_EQ(r.name, name);
        ASSERT_EQ(r.art, picture);
        const Layout l = layoutOf(path);
        largestMoov = std::max(largestMoov, l.moovSize);
        EXPECT_EQ(l.moovCount, 1u);
        EXPECT_EQ(l.mdatOffset, start.mdatOffset);
        // Old moovs are recycled: the file never holds more than about two of them.
        EXPECT_LE(l.fileSize, start.fileSize + 2 * largestMoov + 16) << "round " << i;
    }
    EXPECT_EQ(rangeHash(path, start.mdatOffset, start.mdatSize), mdat);
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);
    EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path)));
}

TEST_F(Mp4Write, MoovFirstFilesStayMoovFirstWhilePaddingLasts) {
    const std::string path = copy(aacSample(), "front.mp4");
    ASSERT_TRUE(MP4Optimize(path.c_str()));
    const Layout before = layoutOf(path);
    ASSERT_LT(before.moovOffset, before.mdatOffset);
    const QByteArray mdat = rangeHash(path, before.mdatOffset, before.mdatSize);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(writeTags(path, "In place " + std::to_string(i), art(100 + 4 * i)));
        const Layout l = layoutOf(path);
        EXPECT_LT(l.moovOffset, l.mdatOffset) << "round " << i;
        EXPECT_EQ(l.mdatOffset, before.mdatOffset);
        EXPECT_EQ(l.fileSize, before.fileSize) << "no growth while the padding holds";
        EXPECT_EQ(readTags(path).name, "In place " + std::to_string(i));
    }
    EXPECT_EQ(rangeHash(path, before.mdatOffset, before.mdatSize), mdat);
    EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path)));
}

TEST_F(Mp4Write, MoovFirstWithoutRoomMovesMoovToTheEndNotTheMedia) {
    const std::string path = copy(faststartSample(), "faststart.mp4");
    const QByteArray packets = packetHash(QString::fromStdString(path));
    const Layout before = layoutOf(path);
    ASSERT_LT(before.moovOffset, before.mdatOffset);
    const QByteArray mdat = rangeHash(path, before.mdatOffset, before.mdatSize);
    ASSERT_TRUE(writeTags(path, "Grown", art(130)));
    const Layout after = layoutOf(path);
    EXPECT_EQ(after.mdatOffset, before.mdatOffset);
    EXPECT_GT(after.moovOffset, after.mdatOffset);
    EXPECT_EQ(rangeHash(path, after.mdatOffset, after.mdatSize), mdat);
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);
    // The freed front moov is reused as soon as a moov fits there again.
    ASSERT_TRUE(writeTags(path, "", QByteArray()));
    const Layout small = layoutOf(path);
    EXPECT_LT(small.moovOffset, small.mdatOffset);
    EXPECT_LT(small.fileSize, after.fileSize) << "trailing padding is trimmed";
    EXPECT_EQ(readTags(path).name, "");
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);
}

// A last box whose size field says "to the end of the file" would swallow an
// appended moov; the writer gives it its real size first.
TEST_F(Mp4Write, OpenEndedLastBoxIsSizedBeforeAppending) {
    const std::string path = copy(aacSample(), "open-ended.mp4");
    const QByteArray packets = packetHash(QString::fromStdString(path));
    const Layout before = layoutOf(path);
    {
        QFile f(QString::fromStdString(path));
        ASSERT_TRUE(f.open(QIODevice::ReadWrite));
        f.seek(qint64(before.moovOffset));
        f.write(QByteArray(4, '\0'));
    }
    ASSERT_TRUE(ffmpegPlays(QString::fromStdString(path)));
    ASSERT_TRUE(writeTags(path, "Sized", art(90)));
    const Layout after = layoutOf(path);
    EXPECT_EQ(after.moovCount, 1u);
    EXPECT_GT(after.moovOffset, before.moovOffset);
    EXPECT_EQ(readTags(path).name, "Sized");
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets);
}

// Padding at the end that this write did not free (another program's, or a
// box someone is still writing) is never cut away.
TEST_F(Mp4Write, TrailingPaddingThatIsNotOursIsKept) {
    const std::string path = copy(aacSample(), "padded.mp4");
    const uint64_t end = layoutOf(path).fileSize;
    Bytes pad = {0, 0, 0x10, 0, 'f', 'r', 'e', 'e'};
    pad.resize(4096, 'p');
    {
        QFile f(QString::fromStdString(path));
        ASSERT_TRUE(f.open(QIODevice::Append));
        f.write(reinterpret_cast<const char*>(pad.data()), qint64(pad.size()));
    }
    const QByteArray padHash = rangeHash(path, end, pad.size());
    ASSERT_TRUE(writeTags(path, "Grown", art(200)));
    EXPECT_EQ(rangeHash(path, end, pad.size()), padHash);
    EXPECT_EQ(readTags(path).name, "Grown");
}

TEST_F(Mp4Write, TagWriteCostsTheMoovNotTheFile) {
    QStringList args = lavfi("testsrc2=size=640x360:rate=25:duration=6,noise=alls=40:allf=t") +
                       lavfi("sine=duration=6");
    args += {"-c:v", "libx264", "-preset", "ultrafast", "-qp", "0", "-c:a", "aac"};
    const std::string path = copy(ffmpegSample(QStringLiteral("big.mp4"), args), "big.mp4");
    const Layout before = layoutOf(path);
    ASSERT_GT(before.mdatSize, 20u << 20) << "sample should be tens of megabytes";
    const QByteArray mdat = rangeHash(path, before.mdatOffset, before.mdatSize);

    const QByteArray picture = art(260);
    const uint64_t written0 = processWriteCalls();
    ASSERT_TRUE(writeTags(path, "Cheap", picture));
    const uint64_t written = processWriteCalls() - written0;
    const Layout after = layoutOf(path);
    EXPECT_LE(written, after.moovSize + 64 * 1024) << "wrote " << written << " bytes";
    EXPECT_GE(written, after.moovSize);
    EXPECT_LE(after.fileSize, before.fileSize + after.moovSize);
    EXPECT_EQ(rangeHash(path, before.mdatOffset, before.mdatSize), mdat);
    EXPECT_EQ(readTags(path).art, picture);
}

TEST_F(Mp4Write, OptimizePutsMoovFirstAndKeepsTagsAndMedia) {
    const std::string path = copy(multiTrackSample(), "opt.mp4");
    ASSERT_TRUE(writeTags(path, "Optimized", art(50)));
    {
        MP4FileHandle h = MP4Modify(path.c_str());
        MP4SetTrackName(h, MP4FindTrackId(h, 1), "Surround");
        MP4Close(h);
    }
    const QByteArray packets = packetHash(QString::fromStdString(path));
    ASSERT_FALSE(packets.isEmpty());
    ASSERT_GT(layoutOf(path).moovOffset, layoutOf(path).mdatOffset);

    const std::string copyPath = (dir.path() + "/opt-copy.mp4").toStdString();
    const QByteArray original = readAll(QString::fromStdString(path));
    ASSERT_TRUE(MP4Optimize(path.c_str(), copyPath.c_str()));
    EXPECT_EQ(readAll(QString::fromStdString(path)), original)
        << "source untouched with a new name";

    ASSERT_TRUE(MP4Optimize(path.c_str()));
    for (const std::string& p : {path, copyPath}) {
        const Layout l = layoutOf(p);
        EXPECT_LT(l.moovOffset, l.mdatOffset);
        EXPECT_EQ(l.moovCount, 1u);
        EXPECT_EQ(packetHash(QString::fromStdString(p)), packets);
        EXPECT_TRUE(ffmpegPlays(QString::fromStdString(p)));
        EXPECT_EQ(readTags(p).name, "Optimized");
        MP4FileHandle h = MP4Read(p.c_str());
        char* name = nullptr;
        ASSERT_TRUE(MP4GetTrackName(h, MP4FindTrackId(h, 1), &name));
        EXPECT_STREQ(name, "Surround");
        std::free(name);
        MP4Close(h);
    }
    // No temporary files left beside the result.
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 2);
    EXPECT_FALSE(MP4Optimize((dir.path() + "/missing.mp4").toUtf8().constData()));
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
    const int64_t shift = int64_t(newMdat) - int64_t(mdat->offset);
    // Swap every stco for a co64 moved by `shift`.
    std::vector<Box*> stack = {f->moov()};
    while (!stack.empty()) {
        Box* b = stack.back();
        stack.pop_back();
        for (const auto& c : b->children()) {
            if (c->type() != fourcc("stco")) {
                stack.push_back(c.get());
                continue;
            }
            const uint64_t n = readBE(c->data(), 4, 4);
            auto co64 = std::make_unique<Box>(fourcc("co64"));
            appendBE(co64->data(), 4, 0);
            appendBE(co64->data(), 4, n);
            for (uint64_t i = 0; i < n; ++i)
                appendBE(co64->data(), 8, readBE(c->data(), 8 + i * 4, 4) + shift);
            const size_t at = b->indexOf(c.get());
            b->remove(c.get());
            b->insert(at, std::move(co64));
            break;
        }
    }
    Bytes moov;
    f->moov()->serialize(moov);
    Bytes head(ftyp->size);
    ASSERT_TRUE(f->readAt(ftyp->offset, head.data(), head.size()));
    Bytes media(mdat->size);
    ASSERT_TRUE(f->readAt(mdat->offset, media.data(), media.size()));
    Bytes pad;
    appendBE(pad, 4, 1);
    appendBE(pad, 4, fourcc("free"));
    appendBE(pad, 8, gap);

    const std::string path = (dir.path() + "/huge.mp4").toStdString();
    const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, head.data(), head.size(), 0), ssize_t(head.size()));
    ASSERT_EQ(::pwrite(fd, pad.data(), pad.size(), off_t(ftyp->size)), ssize_t(pad.size()));
    ASSERT_EQ(::pwrite(fd, media.data(), media.size(), off_t(newMdat)), ssize_t(media.size()));
    ASSERT_EQ(::pwrite(fd, moov.data(), moov.size(), off_t(newMdat + media.size())),
              ssize_t(moov.size()));
    ::close(fd);
    struct stat st {};
    ::stat(path.c_str(), &st);
    ASSERT_GT(uint64_t(st.st_size), 4ULL << 30);

    const QByteArray packets = packetHash(QString::fromStdString(source));
    EXPECT_EQ(packetHash(QString::fromStdString(path)), packets)
        << "hand-made file reads like its source";
    MP4FileHandle h = MP4Read(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    EXPECT_TRUE(MP4HaveTrackAtom(h, MP4FindTrackId(h, 0), "mdia.minf.stbl.co64"));
    MP4Close(h);

    ASSERT_TRUE(writeTags(path, "Huge", art(40)));
    const Layout l = layoutOf(path);
    EXPECT_GT(l.moovOffset, 4ULL << 30);
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

// A fresh encode is not on disk itself yet, so its tag write skips the
// syncs; an existing file's write keeps them. Both give the same file.
TEST_F(Mp4Write, FreshOutputWritesWithoutSyncsAndTheSameResult) {
    int syncs = 0;
    setWriteStepHook([&syncs](const char* step) {
        if (std::strcmp(step, "fdatasync") == 0)
            ++syncs;
    });
    const std::string durable = copy(aacSample(), "durable");
    const std::string fresh = copy(aacSample(), "fresh");
    EXPECT_TRUE(writeTags(durable, "Harbour", art(300, 4)));
    const int durableSyncs = syncs;
    syncs = 0;
    EXPECT_TRUE(writeTags(fresh, "Harbour", art(300, 4), MP4_MODIFY_FRESH_OUTPUT));
    const int freshSyncs = syncs;
    setWriteStepHook({});
    EXPECT_GE(durableSyncs, 2);
    EXPECT_EQ(freshSyncs, 0);
    EXPECT_EQ(readAll(QString::fromStdString(fresh)), readAll(QString::fromStdString(durable)));
    EXPECT_EQ(readTags(fresh).name, "Harbour");
    EXPECT_TRUE(ffmpegPlays(QString::fromStdString(fresh)));
}

// Stops a writer right after each step of the protocol (as a kill there
// would): before the new moov's header flip the old tags show, after the old
// moov is freed the new ones, in between either; the file always plays and the
// next complete write leaves a single moov.
TEST_F(Mp4Write, StoppedAfterEveryStepLeavesOldOrNewTags) {
    const char* steps[] = {"sized", "region",      "chunk",     "synced",
                           "moov",  "stale-freed", "old-freed", "trimmed"};
    struct Variant {
        const char* label;
        bool optimize;
    };
    int stoppedSomewhere = 0;
    for (const Variant v : {Variant{"last", false}, Variant{"first", true}}) {
        for (const char* stopAt : steps) {
            const std::string path = copy(aacSample(), v.label);
            if (v.optimize)
                ASSERT_TRUE(MP4Optimize(path.c_str()));
            ASSERT_TRUE(writeTags(path, "old", art(200, 1)));
            const pid_t child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                setWriteStepHook([stopAt](const char* step) {
                    if (std::strcmp(step, stopAt) == 0)
                        ::_exit(3);
                });
                writeTags(path, "new", art(480, 2));
                ::_exit(0);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            const bool stopped = WIFEXITED(status) && WEXITSTATUS(status) == 3;
            stoppedSomewhere += stopped ? 1 : 0;
            const ReadBack r = readTags(path);
            ASSERT_TRUE(r.opened) << v.label << " " << stopAt;
            const std::string step = stopAt;
            if (stopped &&
                (step == "region" || step == "chunk" || step == "synced" || step == "sized"))
                EXPECT_EQ(r.name, "old") << v.label << " " << stopAt;
            else if (!stopped || step == "old-freed" || step == "trimmed")
                EXPECT_EQ(r.name, "new") << v.label << " " << stopAt;
            EXPECT_EQ(r.art, art(r.name == "new" ? 480 : 200, r.name == "new" ? 2 : 1));
            EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path))) << v.label << " " << stopAt;
            ASSERT_TRUE(writeTags(path, "after", art(100, 3)));
            EXPECT_EQ(readTags(path).name, "after");
            EXPECT_EQ(layoutOf(path).moovCount, 1u) << v.label << " " << stopAt;
            EXPECT_TRUE(ffmpegPlays(QString::fromStdString(path))) << v.label << " " << stopAt;
        }
    }
    EXPECT_GE(stoppedSomewhere, 8) << "most steps must occur in these writes";
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
        char nameA[8], nameB[8];
        std::snprintf(nameA, sizeof nameA, "A%03d", round);
        std::snprintf(nameB, sizeof nameB, "B%03d", round);
        std::atomic<int> ready{0};
        bool okA = false, okB = false;
        auto writer = [&](const char* name, const QByteArray* picture, bool* ok) {
            ready.fetch_add(1);
            while (ready.load() < 2)
                std::this_thread::yield();
            *ok = writeTags(path, name, *picture, MP4_MODIFY_FRESH_OUTPUT);
        };
        std::thread a(writer, nameA, &small, &okA), b(writer, nameB, &artB, &okB);
        a.join();
        b.join();
        ASSERT_TRUE(okA && okB) << "round " << round;
        const ReadBack r = readTags(path);
        ASSERT_TRUE(r.name == nameA || r.name == nameB) << "round " << round << ": " << r.name;
        ASSERT_EQ(r.art, r.name == nameA ? small : artB) << "round " << round;
        ASSERT_EQ(layoutOf(path).moovCount, 1u) << "round " << round;
        if (round % 20 == 19) {
            QByteArray errors;
            ASSERT_TRUE(ffmpegPlays(QString::fromStdString(path), &errors)) << errors.toStdString();
            ASSERT_EQ(packetHash(QString::fromStdString(path)), packets) << "round " << round;
        }
    }
}

// A writer that finds the file held waits a bounded time, then gives up
// with a message; readers are never held up.
TEST_F(Mp4Write, SecondWriterGivesUpAfterItsWait) {
    const std::string path = copy(aacSample(), "held.mp4");
    MP4FileHandle first = MP4Modify(path.c_str());
    ASSERT_NE(first, MP4_INVALID_FILE_HANDLE);
    setLockWait(300);
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(writeTags(path, "Second", {}));
    EXPECT_GE(clock.elapsed(), 300);
    EXPECT_LT(clock.elapsed(), 3000);
    EXPECT_NE(std::string(MP4GetLastError()).find("another program is writing to this file"),
              std::string::npos)
        << MP4GetLastError();
    EXPECT_TRUE(readTags(path).opened);
    EXPECT_TRUE(MP4Close(first));
    EXPECT_TRUE(writeTags(path, "Second", {}));
    setLockWait(10000);
    EXPECT_EQ(readTags(path).name, "Second");
}

// A tag write that does not fit on the disk fails with the reason, for the
// MP4 layer and for the media item, and leaves the file byte for byte as it was.
TEST_F(Mp4Write, FullDiskFailsAndLeavesTheFileAsItWas) {
    const QString mount = dir.filePath(QStringLiteral("small-disk"));
    const testsupport::SmallDisk disk(mount, "1m");
    SKIP_WITHOUT_SMALL_DISK(disk);

    const std::string path = copyInto(dir, aacSample()).toStdString();
    const std::string onDisk = (mount + QStringLiteral("/movie.mp4")).toStdString();
    ASSERT_TRUE(QFile::copy(QString::fromStdString(path), QString::fromStdString(onDisk)));
    ASSERT_TRUE(writeTags(onDisk, "Fits", art(40, 1)));
    disk.fill();
    const QByteArray before = readAll(QString::fromStdString(onDisk));
    EXPECT_FALSE(writeTags(onDisk, "Does not fit", art(300, 5)));
    EXPECT_NE(std::string(MP4GetLastError()).find("No space left on device"), std::string::npos)
        << MP4GetLastError();
    EXPECT_EQ(readAll(QString::fromStdString(onDisk)), before);

    MDI_Movie movie;
    movie.setOutPath(QString::fromStdString(onDisk));
    movie.getMetadata()->setTag(QString(200000, QLatin1Char('x')),
                                QLatin1String(TagName::LongDescription));
    movie.writeMetadataToFile(false);
    EXPECT_EQ(movie.status(), 0);
    EXPECT_TRUE(movie.warnings().startsWith(QString::fromLatin1(MDI_Media::kWriteNotDone)))
        << movie.warnings().toStdString();
    EXPECT_TRUE(movie.warnings().contains(QStringLiteral("No space left on device")));
    EXPECT_EQ(movie.tagWriteError(), movie.warnings());
    EXPECT_EQ(readAll(QString::fromStdString(onDisk)), before);
    EXPECT_EQ(readTags(onDisk).name, "Fits");
}
