// The tag set and generic items through the public API: every setter
// survives a write and a fresh read, null removes, artwork, freeform items.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <cstring>
#include <string>

using namespace mp4test;

namespace {

class Mp4Tags : public ::testing::Test {
protected:
    void SetUp() override { path = copyInto(dir, aacSample()).toStdString(); }

    // Opens for modification, lets `edit` change the fetched tags, stores, closes.
    template <typename F> void modify(F edit) {
        MP4FileHandle h = MP4Modify(path.c_str());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        const MP4Tags* tags = MP4TagsAlloc();
        ASSERT_TRUE(MP4TagsFetch(tags, h));
        edit(tags, h);
        EXPECT_TRUE(MP4TagsStore(tags, h));
        MP4TagsFree(tags);
        MP4Close(h);
    }

    template <typename F> void read(F check) {
        MP4FileHandle h = MP4Read(path.c_str());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        const MP4Tags* tags = MP4TagsAlloc();
        ASSERT_TRUE(MP4TagsFetch(tags, h));
        check(tags, h);
        MP4TagsFree(tags);
        MP4Close(h);
    }

    QTemporaryDir dir;
    std::string path;
};

std::string str(const char* s) {
    return s ? s : "<null>";
}

// Text items of each kind of code: the copyright-sign ones, plain ones, sort
// names, long texts, account items.
const struct {
    bool (*set)(const MP4Tags*, const char*);
    const char* MP4Tags::*field;
    const char* label;
} kTexts[] = {
    {MP4TagsSetName, &MP4Tags::name, "name"},
    {MP4TagsSetAlbumArtist, &MP4Tags::albumArtist, "albumArtist"},
    {MP4TagsSetGenre, &MP4Tags::genre, "genre"},
    {MP4TagsSetLongDescription, &MP4Tags::longDescription, "longDescription"},
    {MP4TagsSetSortName, &MP4Tags::sortName, "sortName"},
    {MP4TagsSetITunesAccount, &MP4Tags::iTunesAccount, "iTunesAccount"},
};

std::string textValue(const char* label) {
    return std::string("Wert \xc3\xa4 ") + label;
}

template <typename T> void expectValue(const T* p, T want, const char* label) {
    ASSERT_NE(p, nullptr) << label;
    EXPECT_EQ(*p, want) << label;
}

QByteArray bytesOf(const MP4TagArtwork& a) {
    return QByteArray(static_cast<const char*>(a.data), int(a.size));
}

MP4TagArtwork artOf(const QByteArray& bytes, MP4TagArtworkType type) {
    return {const_cast<char*>(bytes.constData()), uint32_t(bytes.size()), type};
}

} // namespace

// Numbers of each width, including a 32-bit one above 2^31.
TEST_F(Mp4Tags, SettersSurviveAWriteAndAFreshReadAndNullRemovesOnlyThatItem) {
    modify([](const MP4Tags* t, MP4FileHandle) {
        for (const auto& c : kTexts)
            EXPECT_TRUE(c.set(t, textValue(c.label).c_str()));
        const uint16_t genreType = 18;
        const uint8_t media = 9;
        const uint32_t content = 4000000001u, season = 3;
        const uint64_t playlist = 0x1122334455667788ull;
        const MP4TagTrack track{3, 12};
        const MP4TagDisk disk{1, 2};
        EXPECT_TRUE(MP4TagsSetGenreType(t, &genreType) && MP4TagsSetMediaType(t, &media) &&
                    MP4TagsSetContentID(t, &content) && MP4TagsSetTVSeason(t, &season) &&
                    MP4TagsSetPlaylistID(t, &playlist) && MP4TagsSetTrack(t, &track) &&
                    MP4TagsSetDisk(t, &disk));
    });
    read([](const MP4Tags* t, MP4FileHandle) {
        for (const auto& c : kTexts)
            EXPECT_EQ(str(t->*c.field), textValue(c.label)) << c.label;
        expectValue<uint16_t>(t->genreType, 18, "genreType");
        expectValue<uint8_t>(t->mediaType, 9, "mediaType");
        expectValue<uint32_t>(t->contentID, 4000000001u, "contentID");
        expectValue<uint32_t>(t->tvSeason, 3, "tvSeason");
        expectValue<uint64_t>(t->playlistID, 0x1122334455667788ull, "playlistID");
        ASSERT_TRUE(t->track && t->disk);
        EXPECT_EQ(t->track->index, 3);
        EXPECT_EQ(t->track->total, 12);
        EXPECT_EQ(t->disk->total, 2);
    });
    modify([](const MP4Tags* t, MP4FileHandle) {
        for (size_t i = 0; i < std::size(kTexts); i += 2)
            EXPECT_TRUE(kTexts[i].set(t, nullptr));
        MP4TagsSetTrack(t, nullptr);
        MP4TagsSetContentID(t, nullptr);
        MP4TagsSetPlaylistID(t, nullptr);
    });
    read([](const MP4Tags* t, MP4FileHandle h) {
        for (size_t i = 0; i < std::size(kTexts); ++i)
            EXPECT_EQ(str(t->*kTexts[i].field), i % 2 ? textValue(kTexts[i].label) : "<null>")
                << kTexts[i].label;
        EXPECT_EQ(t->track, nullptr);
        EXPECT_EQ(t->contentID, nullptr);
        EXPECT_EQ(t->playlistID, nullptr);
        ASSERT_TRUE(t->disk);
        expectValue<uint32_t>(t->tvSeason, 3, "tvSeason");
        // No stale duplicates left behind in the item list.
        MP4ItmfItemList* names = MP4ItmfGetItemsByCode(h, "\xa9nam");
        ASSERT_TRUE(names);
        EXPECT_EQ(names->size, 0u);
        MP4ItmfItemListFree(names);
    });
}

// Art keeps its type and order; art stored without a type is told by its
// signature when read back.
TEST_F(Mp4Tags, ArtworkKeepsTypeAndOrder) {
    const QByteArray png = readAll(coverImage(QStringLiteral("cover.png")));
    const QByteArray jpg = readAll(coverImage(QStringLiteral("cover.jpg")));
    const QByteArray bmp = QByteArray("BM") + QByteArray(60, '\x01');
    modify([&](const MP4Tags* t, MP4FileHandle) {
        const MP4TagArtwork a = artOf(png, MP4_ART_PNG), b = artOf(jpg, MP4_ART_JPEG),
                            c = artOf(bmp, MP4_ART_UNDEFINED);
        EXPECT_TRUE(MP4TagsAddArtwork(t, &a) && MP4TagsAddArtwork(t, &b) &&
                    MP4TagsAddArtwork(t, &c));
        EXPECT_FALSE(MP4TagsSetArtwork(t, 5, &a));
        EXPECT_FALSE(MP4TagsRemoveArtwork(t, 3));
    });
    read([&](const MP4Tags* t, MP4FileHandle) {
        ASSERT_EQ(t->artworkCount, 3u);
        EXPECT_EQ(t->artwork[0].type, MP4_ART_PNG);
        EXPECT_EQ(bytesOf(t->artwork[0]), png);
        EXPECT_EQ(t->artwork[1].type, MP4_ART_JPEG);
        EXPECT_EQ(bytesOf(t->artwork[1]), jpg);
        EXPECT_EQ(t->artwork[2].type, MP4_ART_BMP);
    });
    // Replace the first with the JPEG, drop the others.
    modify([&](const MP4Tags* t, MP4FileHandle) {
        const MP4TagArtwork b = artOf(jpg, MP4_ART_JPEG);
        EXPECT_TRUE(MP4TagsSetArtwork(t, 0, &b));
        EXPECT_TRUE(MP4TagsRemoveArtwork(t, 2) && MP4TagsRemoveArtwork(t, 1));
    });
    MP4FileHandle h = MP4Read(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4Tags* t = MP4TagsAlloc();
    ASSERT_TRUE(MP4TagsFetchArtwork(t, h));
    ASSERT_EQ(t->artworkCount, 1u);
    EXPECT_EQ(t->artwork[0].type, MP4_ART_JPEG);
    EXPECT_EQ(bytesOf(t->artwork[0]), jpg);
    EXPECT_EQ(t->name, nullptr) << "fetching artwork reads nothing else";
    MP4TagsFree(t);
    MP4Close(h);
}

// Freeform items are added, found by meaning and removed, and survive a store
// of the tag set; read-only handles refuse changes, bad arguments fail cleanly.
TEST_F(Mp4Tags, FreeformItemsAddFindRemoveAndSurviveTagStores) {
    auto value = [](const MP4ItmfItemList* l) {
        const MP4ItmfData& d = l->elements[0].dataList.elements[0];
        return std::string(reinterpret_cast<const char*>(d.value), d.valueSize);
    };
    MP4FileHandle h = MP4Modify(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    for (auto [name, text] : {std::pair{"iTunEXTC", "mpaa|R|400|"}, {"iTunMOVI", "<plist/>"}}) {
        MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
        item->mean = strdup("com.apple.iTunes");
        item->name = strdup(name);
        item->dataList.elements[0].typeCode = MP4_ITMF_BT_UTF8;
        item->dataList.elements[0].valueSize = uint32_t(std::strlen(text));
        item->dataList.elements[0].value = reinterpret_cast<uint8_t*>(strdup(text));
        EXPECT_TRUE(MP4ItmfAddItem(h, item));
        MP4ItmfItemFree(item);
    }
    MP4Close(h);
    modify([](const MP4Tags* t, MP4FileHandle) { MP4TagsSetName(t, "Kept"); });

    h = MP4Modify(path.c_str());
    MP4ItmfItemList* list = MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", "iTunEXTC");
    ASSERT_TRUE(list && list->size == 1);
    EXPECT_EQ(value(list), "mpaa|R|400|");
    EXPECT_TRUE(MP4ItmfRemoveItem(h, &list->elements[0]));
    EXPECT_FALSE(MP4ItmfRemoveItem(h, &list->elements[0])) << "already gone";
    MP4ItmfItemListFree(list);
    MP4Close(h);

    h = MP4Read(path.c_str());
    MP4ItmfItemList* left = MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", nullptr);
    ASSERT_TRUE(left && left->size == 1);
    EXPECT_EQ(value(left), "<plist/>");
    EXPECT_FALSE(MP4ItmfRemoveItem(h, &left->elements[0])) << "read-only handle";
    MP4ItmfItemListFree(left);
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    EXPECT_EQ(str(t->name), "Kept");
    EXPECT_FALSE(MP4TagsStore(t, h));
    MP4TagsFree(t);
    MP4Close(h);
    EXPECT_FALSE(MP4TagsSetName(nullptr, "x"));
    EXPECT_FALSE(MP4TagsFetch(nullptr, h));
    // Opening and closing without a change writes nothing.
    const QByteArray before = readAll(QString::fromStdString(path));
    MP4Close(MP4Modify(path.c_str()));
    EXPECT_EQ(readAll(QString::fromStdString(path)), before);
}
