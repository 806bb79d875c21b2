// The box tree: parsing nested and 64-bit boxes, byte-exact round trips,
// and the top-level layout of files on disk.

#include "mp4/Box.h"
#include "Mp4Bytes.h"
#include "mp4/Mp4File.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>

using namespace tarnwick::mp4;
using namespace mp4bytes;

namespace {

Bytes largeBox(const char* type, const Bytes& payload) {
    Bytes b;
    appendBE(b, 4, 1);
    appendBE(b, 4, fourcc(std::string_view(type, 4)));
    appendBE(b, 8, payload.size() + 16);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

Bytes fullBox(const char* type, const Bytes& payload) {
    return box(type, cat({Bytes(4, 0), payload}));
}

// moov with a track and an iTunes item list, the way files carry them.
Bytes sampleMoov() {
    const Bytes data = box("data", cat({Bytes{0, 0, 0, 1}, Bytes(4, 0), text("Title")}));
    const Bytes ilst = box("ilst", box("\xa9nam", data));
    const Bytes hdlr = fullBox("hdlr", cat({Bytes(4, 0), text("mdirappl"), Bytes(9, 0)}));
    const Bytes meta = fullBox("meta", cat({hdlr, ilst}));
    Bytes tkhd(84, 0);
    writeBE(tkhd, 12, 4, 7);
    const Bytes trak =
        box("trak", cat({box("tkhd", tkhd), box("mdia", box("mdhd", Bytes(24, 0)))}));
    return box("moov", cat({box("mvhd", Bytes(100, 0)), trak, box("udta", meta)}));
}

std::unique_ptr<Box> parseAll(const Bytes& b, size_t* used = nullptr) {
    size_t n = 0;
    auto r = Box::parse(b.data(), b.size(), &n);
    if (used)
        *used = n;
    return r;
}

Bytes serialized(const Box& b) {
    Bytes out;
    b.serialize(out);
    return out;
}

} // namespace

TEST(Mp4Box, ParsesNestedContainersAndFindsPaths) {
    const Bytes raw = sampleMoov();
    auto moov = parseAll(raw);
    ASSERT_TRUE(moov);
    EXPECT_TRUE(moov->isContainer());
    EXPECT_EQ(moov->children().size(), 3u);
    Box* item = moov->find("udta.meta.ilst.\xa9nam.data");
    ASSERT_TRUE(item);
    EXPECT_EQ(std::string(item->data().begin() + 8, item->data().end()), "Title");
    EXPECT_EQ(moov->find("udta.meta")->data().size(), 4u); // version and flags stay with meta
    EXPECT_EQ(readBE(moov->find("trak.tkhd")->data(), 12, 4), 7u);
    EXPECT_EQ(moov->find("trak[1]"), nullptr);
    EXPECT_EQ(moov->find("trak[0].mdia.mdhd")->parent()->type(), fourcc("mdia"));
    EXPECT_EQ(moov->find("udta.nope"), nullptr);
    EXPECT_EQ(serialized(*moov), raw);
}

TEST(Mp4Box, EditsChangeSizesAllTheWayUp) {
    auto moov = parseAll(sampleMoov());
    Box* ilst = moov->find("udta.meta.ilst");
    auto item = std::make_unique<Box>(fourcc("desc"));
    item->setContainer(true);
    auto d = std::make_unique<Box>(fourcc("data"));
    d->data() = cat({Bytes{0, 0, 0, 1}, Bytes(4, 0), text("Plot")});
    item->append(std::move(d));
    ilst->append(std::move(item));
    const Bytes out = serialized(*moov);
    EXPECT_EQ(out.size(), sampleMoov().size() + 8 + 8 + 8 + 4);
    auto again = parseAll(out);
    ASSERT_TRUE(again);
    ASSERT_TRUE(again->find("udta.meta.ilst.desc.data"));
    EXPECT_EQ(readBE(out, 0, 4), out.size());
    EXPECT_EQ(again->find("udta.meta.ilst")->children().size(), 2u);
}

TEST(Mp4Box, SixtyFourBitSizesAreReadAndKept) {
    const Bytes inner = largeBox("free", Bytes(20, 0xab));
    const Bytes raw = largeBox("udta", inner);
    auto udta = parseAll(raw);
    ASSERT_TRUE(udta);
    EXPECT_TRUE(udta->largeHeader());
    ASSERT_EQ(udta->children().size(), 1u);
    EXPECT_EQ(udta->children()[0]->data(), Bytes(20, 0xab));
    EXPECT_EQ(udta->size(), raw.size());
    EXPECT_EQ(serialized(*udta), raw);
}

TEST(Mp4Box, MalformedChildrenStayOpaqueAndByteExact) {
    // A udta whose "children" do not tile it: kept as a leaf, untouched.
    Bytes bad =
        box("udta", cat({box("abcd", Bytes(4, 1)), Bytes{0, 0, 0, 50, 'x', 'y', 'z', 'w', 1}}));
    auto b = parseAll(bad);
    ASSERT_TRUE(b);
    EXPECT_FALSE(b->isContainer());
    EXPECT_EQ(serialized(*b), bad);

    // QuickTime's four zero bytes after the last child survive a round trip.
    Bytes qt = box("udta", cat({box("name", text("x")), Bytes(4, 0)}));
    auto q = parseAll(qt);
    ASSERT_TRUE(q && q->isContainer());
    EXPECT_EQ(q->children().size(), 1u);
    EXPECT_EQ(serialized(*q), qt);

    // A size-0 box means "to the end of the file" only at the top level.
    Bytes zero = box("udta", Bytes{0, 0, 0, 0, 'n', 'a', 'm', 'e', 1, 2, 3, 4});
    auto z = parseAll(zero);
    ASSERT_TRUE(z);
    EXPECT_FALSE(z->isContainer());
    EXPECT_EQ(serialized(*z), zero);

    // Sizes that lie are rejected rather than read past the buffer.
    Bytes lying = box("moov", Bytes(8, 0));
    writeBE(lying, 0, 4, 1000);
    EXPECT_EQ(parseAll(lying), nullptr);
    Bytes tiny = {0, 0, 0, 4, 'm', 'o', 'o', 'v'};
    EXPECT_EQ(parseAll(tiny), nullptr);
}

TEST(Mp4Box, SampleEntriesExposeTheirChildBoxes) {
    Bytes mp4a(28, 0);
    writeBE(mp4a, 16, 2, 2); // channels
    Bytes esds = fullBox("esds", Bytes{3, 5, 0, 1, 0, 4, 0});
    Bytes entry = box("mp4a", cat({mp4a, esds}));
    Bytes v1(44, 0);
    writeBE(v1, 8, 2, 1); // QuickTime sound description version 1: 16 more bytes
    Bytes entryV1 = box("mp4a", cat({v1, box("wave", Bytes(4, 0))}));
    Bytes stsd = fullBox("stsd", cat({Bytes{0, 0, 0, 2}, entry, entryV1}));
    auto b = parseAll(stsd);
    ASSERT_TRUE(b);
    ASSERT_EQ(b->children().size(), 2u);
    EXPECT_EQ(b->data().size(), 8u);
    EXPECT_TRUE(b->find("mp4a.esds"));
    EXPECT_EQ(readBE(b->find("mp4a")->data(), 16, 2), 2u);
    EXPECT_TRUE(b->find("mp4a[1].wave"));
    EXPECT_EQ(serialized(*b), stsd);
}

TEST(Mp4Box, FourccHelpers) {
    EXPECT_EQ(fourcc("moov"), 0x6d6f6f76u);
    EXPECT_EQ(fourcc(std::string_view("abc")), 0u);
    EXPECT_EQ(fourccString(fourcc("ac-3")), "ac-3");
    Bytes b;
    writeBE(b, 2, 2, 0x1234);
    EXPECT_EQ(b, (Bytes{0, 0, 0x12, 0x34}));
    EXPECT_EQ(readBE(b, 3, 2), 0u); // past the end
}

TEST(Mp4FileLayout, TopLevelBoxesWithLargeAndOpenEndedSizes) {
    QTemporaryDir dir;
    const std::string path = (dir.path() + "/layout.mp4").toStdString();
    const Bytes ftyp = box("ftyp", text(std::string("isom\0\0\0\0isom", 12)));
    const Bytes moov = sampleMoov();
    const Bytes wide = largeBox("free", Bytes(100, 0));
    Bytes mdat = box("mdat", Bytes(64, 0x55));
    writeBE(mdat, 0, 4, 0); // runs to the end of the file
    const Bytes all = cat({ftyp, moov, wide, mdat});
    FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(all.data(), 1, all.size(), f);
    std::fclose(f);

    std::string error;
    auto file = File::open(path, false, &error);
    ASSERT_TRUE(file) << error;
    const auto& top = file->topLevel();
    ASSERT_EQ(top.size(), 4u);
    EXPECT_EQ(top[2].headerSize, 16);
    EXPECT_EQ(top[2].size, wide.size());
    EXPECT_TRUE(top[3].toEnd);
    EXPECT_EQ(top[3].size, mdat.size());
    EXPECT_EQ(file->topLevelMoov()->offset, ftyp.size());
    EXPECT_TRUE(file->moov()->find("udta.meta.ilst"));
}
