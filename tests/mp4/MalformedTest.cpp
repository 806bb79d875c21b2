// Files whose boxes lie about their sizes: each is refused for writing with a
// reason and left byte for byte as it was, or (two moovs) repaired; reading
// any of them never crashes. Built from bytes here, so the suite also runs
// under AddressSanitizer without sample media.

#include "Mp4Bytes.h"
#include "mp4/Box.h"
#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>

using namespace tarnwick::mp4;
using namespace mp4bytes;

namespace {

Bytes nameItem(const std::string& name) {
    Bytes data = zeros(8);
    data[3] = 1; // UTF-8
    const Bytes t = text(name);
    data.insert(data.end(), t.begin(), t.end());
    return box("\xa9nam", box("data", data));
}

// ftyp, moov (one video track whose single chunk lies in mdat, a name tag), mdat.
struct Parts {
    Bytes ftyp = box("ftyp", cat({text("isom"), zeros(4), text("isomavc1")}));
    std::string name = "Original";
    uint64_t chunkOffset = 0; // 0: the first byte of the media data
    Bytes mdatPayload = Bytes(256, 0x5a);

    Bytes trak() const {
        Bytes tkhd = zeros(84);
        tkhd[3] = 3;
        writeBE(tkhd, 12, 4, 1); // track id
        Bytes mdhd = zeros(24);
        writeBE(mdhd, 12, 4, 1000);
        const Bytes hdlr = cat({zeros(8), text("vide"), zeros(13)});
        Bytes stco = zeros(8);
        writeBE(stco, 4, 4, 1);
        appendBE(stco, 4, chunkOffset);
        const Bytes stbl = box("stbl", cat({box("stsd", zeros(8)), box("stco", stco)}));
        return box("trak",
                   cat({box("tkhd", tkhd), box("mdia", cat({box("mdhd", mdhd), box("hdlr", hdlr),
                                                            box("minf", stbl)}))}));
    }
    Bytes udta() const {
        const Bytes hdlr = cat({zeros(8), text("mdirappl"), zeros(9)});
        return box("udta",
                   box("meta", cat({zeros(4), box("hdlr", hdlr), box("ilst", nameItem(name))})));
    }
    Bytes moov() const {
        Bytes mvhd = zeros(100);
        writeBE(mvhd, 12, 4, 1000);
        return box("moov", cat({box("mvhd", mvhd), trak(), udta()}));
    }
    // Lays out ftyp, moov, mdat with the chunk offset pointing into mdat.
    Bytes file() {
        if (chunkOffset == 0)
            chunkOffset = ftyp.size() + moov().size() + 8;
        return cat({ftyp, moov(), box("mdat", mdatPayload)});
    }
};

// Offset of the first `type` box at or after `from` (a plain byte search).
size_t offsetOf(const Bytes& b, const char* type, size_t from = 0) {
    const std::string_view hay(reinterpret_cast<const char*>(b.data()), b.size());
    const size_t at = hay.find(std::string_view(type, 4), from);
    return at == std::string_view::npos ? 0 : at - 4;
}

void setSize(Bytes& b, const char* type, uint32_t size, size_t from = 0) {
    writeBE(b, offsetOf(b, type, from), 4, size);
}

bool writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    return bool(
        f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size())));
}

Bytes readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::string nameIn(MP4FileHandle h) {
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    std::string name = t->name ? t->name : "";
    MP4TagsFree(t);
    return name;
}

// Every reader once; what they answer does not matter, surviving does.
void readEverything(MP4FileHandle h) {
    nameIn(h);
    MP4ItmfItemListFree(MP4ItmfGetItems(h));
    for (uint32_t i = 0; i < MP4GetNumberOfTracks(h) && i < 8; ++i) {
        const MP4TrackId id = MP4FindTrackId(h, uint16_t(i));
        MP4GetTrackType(h, id);
        MP4GetSampleSize(h, id, 1);
    }
}

// The sample file with the size of its first `type` box changed.
Bytes resized(const char* type, uint32_t size) {
    Bytes b = Parts().file();
    setSize(b, type, size);
    return b;
}

struct Case {
    const char* label;
    std::function<Bytes()> make;
    const char* reason; // part of the refusal; nullptr: the write goes through
};

Bytes twoMoovs(bool laterComplete) {
    Parts first;
    first.name = "Earlier";
    Parts later;
    later.name = "Later";
    Bytes a = first.moov(), b = later.moov();
    const uint64_t mdatAt = first.ftyp.size() + a.size() + b.size();
    first.chunkOffset = later.chunkOffset = mdatAt + 8;
    a = first.moov();
    b = later.moov();
    if (!laterComplete)
        setSize(b, "mdia", 4000); // runs past its trak
    return cat({first.ftyp, a, b, box("mdat", first.mdatPayload)});
}

const Case kCases[] = {
    {"well formed", [] { return Parts().file(); }, nullptr},
    {"moov of size 0 swallowing the media", [] { return resized("moov", 0); }, "size 0"},
    {"moov running past the end of the file", [] { return resized("moov", 0x7fffffff); },
     "past the end"},
    {"trak of size 0", [] { return resized("trak", 0); }, "'trak' box of size 0"},
    {"trak of size 1 with a 64-bit size past its parent", [] { return resized("trak", 1); },
     "bad 64-bit size"},
    {"data box overrunning its tag item", [] { return resized("data", 500); },
     "running past its parent"},
    {"moov overlapping the next box",
     [] {
         Bytes b = Parts().file();
         const size_t at = offsetOf(b, "moov");
         writeBE(b, at, 4, readBE(b, at, 4) + 12);
         return b;
     },
     "ends past the end"},
    {"chunk offset inside moov",
     [] {
         Parts p;
         p.chunkOffset = p.ftyp.size() + 20;
         return p.file();
     },
     "overlaps the 'moov' box"},
    {"chunk offset past the end of the file",
     [] {
         Parts p;
         p.chunkOffset = 1 << 20;
         return p.file();
     },
     "past the end of the file"},
    {"two complete moovs", [] { return twoMoovs(true); }, nullptr},
    {"a complete moov and a damaged later one", [] { return twoMoovs(false); }, nullptr},
};

} // namespace

TEST(Mp4Malformed, RefusedForWritingAndLeftUnchanged) {
    QTemporaryDir dir;
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.label);
        const std::string path = dir.filePath(QStringLiteral("case.mp4")).toStdString();
        const Bytes before = c.make();
        ASSERT_TRUE(writeFile(path, before));
        if (MP4FileHandle r = MP4Read(path.c_str())) {
            readEverything(r);
            MP4Close(r);
        }
        MP4FileHandle h = MP4Modify(path.c_str());
        if (c.reason) {
            EXPECT_EQ(h, MP4_INVALID_FILE_HANDLE);
            const std::string why = MP4GetLastError();
            EXPECT_NE(why.find(c.reason), std::string::npos) << why;
            EXPECT_NE(why.find("); left unchanged"), std::string::npos) << why;
            MP4Close(h);
            EXPECT_EQ(readFile(path), before) << "a refused file is never written to";
            continue;
        }
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE) << MP4GetLastError();
        readEverything(h);
        // Of two moovs the later complete one is kept, the other freed on open.
        EXPECT_EQ(nameIn(h), std::string(c.label).find("damaged") != std::string::npos ? "Earlier"
                             : std::string(c.label).find("two") != std::string::npos   ? "Later"
                                                                                     : "Original");
        // A tag write on what was accepted reads back.
        const MP4Tags* t = MP4TagsAlloc();
        MP4TagsFetch(t, h);
        MP4TagsSetName(t, "Written");
        MP4TagsStore(t, h);
        MP4TagsFree(t);
        EXPECT_TRUE(MP4Close(h)) << MP4GetLastError();
        std::string error;
        auto f = File::open(path, false, &error);
        ASSERT_TRUE(f) << error;
        EXPECT_EQ(std::count_if(f->topLevel().begin(), f->topLevel().end(),
                                [](const TopLevelBox& b) { return b.type == fourcc("moov"); }),
                  1);
        h = MP4Read(path.c_str());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        EXPECT_EQ(nameIn(h), "Written");
        MP4Close(h);
    }
}
