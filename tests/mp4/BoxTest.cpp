// The box tree: parsing nested boxes and sample entries, byte-exact round
// trips of what does not parse.

#include "mp4/Box.h"
#include "Mp4Bytes.h"

#include <gtest/gtest.h>

using namespace tarnwick::mp4;
using namespace mp4bytes;

namespace {

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

std::unique_ptr<Box> parseAll(const Bytes& b) {
    size_t n = 0;
    return Box::parse(b.data(), b.size(), &n);
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
    Box* item = moov->find("udta.meta.ilst.\xa9nam.data");
    ASSERT_TRUE(item);
    EXPECT_EQ(std::string(item->data().begin() + 8, item->data().end()), "Title");
    EXPECT_EQ(moov->find("udta.meta")->data().size(), 4u); // version and flags stay with meta
    EXPECT_EQ(readBE(moov->find("trak.tkhd")->data(), 12, 4), 7u);
    EXPECT_EQ(moov->find("trak[0].mdia.mdhd")->parent()->type(), fourcc("mdia"));
    EXPECT_EQ(serialized(*moov), raw);
}

TEST(Mp4Box, EditsChangeSizesAllTheWayUp) {
    auto moov = parseAll(sampleMoov());
    // A box made where none was starts as version 0 without flags.
    moov->find("trak")->obtain(fourcc("udta"))->obtain(fourcc("meta"), 4);
    Box* ilst = moov->find("udta.meta.ilst");
    auto item = std::make_unique<Box>(fourcc("desc"));
    item->setContainer(true);
    auto d = std::make_unique<Box>(fourcc("data"));
    d->data() = cat({Bytes{0, 0, 0, 1}, Bytes(4, 0), text("Plot")});
    item->append(std::move(d));
    ilst->append(std::move(item));
    const Bytes out = serialized(*moov);
    EXPECT_EQ(out.size(), sampleMoov().size() + 8 + 8 + 8 + 4 + 8 + 8 + 4);
    auto again = parseAll(out);
    ASSERT_TRUE(again);
    ASSERT_TRUE(again->find("udta.meta.ilst.desc.data"));
    EXPECT_EQ(readBE(out, 0, 4), out.size());
    EXPECT_EQ(again->find("trak.udta.meta")->data(), Bytes(4, 0));
}

TEST(Mp4Box, MalformedChildrenStayOpaqueAndByteExact) {
    const std::pair<Bytes, bool> cases[] = {
        // "Children" that do not tile the box: kept as a leaf, untouched.
        {box("udta", cat({box("abcd", Bytes(4, 1)), Bytes{0, 0, 0, 50, 'x', 'y', 'z', 'w', 1}})),
         false},
        // QuickTime's four zero bytes after the last child.
        {box("udta", cat({box("name", text("x")), Bytes(4, 0)})), true},
        // A size-0 box means "to the end of the file" only at the top level.
        {box("udta", Bytes{0, 0, 0, 0, 'n', 'a', 'm', 'e', 1, 2, 3, 4}), false}};
    for (const auto& [raw, container] : cases) {
        auto b = parseAll(raw);
        ASSERT_TRUE(b);
        EXPECT_EQ(b->isContainer(), container);
        EXPECT_EQ(serialized(*b), raw);
    }
    // Sizes that lie are rejected rather than read past the buffer.
    Bytes lying = box("moov", Bytes(8, 0));
    writeBE(lying, 0, 4, 1000);
    EXPECT_EQ(parseAll(lying), nullptr);
    Bytes tiny = {0, 0, 0, 4, 'm', 'o', 'o', 'v'};
    EXPECT_EQ(parseAll(tiny), nullptr);
}

TEST(Mp4Box, SampleEntriesExposeTheirChildBoxes) {
    Bytes v1(44, 0);
    writeBE(v1, 8, 2, 1); // QuickTime sound description version 1: 16 more bytes
    Bytes entryV1 = box("mp4a", cat({v1, box("wave", Bytes(4, 0))}));
    Bytes stsd = fullBox("stsd", cat({Bytes{0, 0, 0, 1}, entryV1}));
    auto b = parseAll(stsd);
    ASSERT_TRUE(b);
    ASSERT_EQ(b->children().size(), 1u);
    EXPECT_TRUE(b->find("mp4a.wave"));
    EXPECT_EQ(serialized(*b), stsd);
}
