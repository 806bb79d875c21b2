// The tag set and generic items through the public API: every setter
// survives a write and a fresh read, null removes, artwork, freeform items.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <cstdlib>
#include <cstring>
#include <string>

using namespace mp4test;

namespace {

class Mp4Tags : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        const QString source = aacSample();
        ASSERT_FALSE(source.isEmpty());
        path = copyInto(dir, source).toStdString();
    }

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

struct TextCase {
    bool (*set)(const MP4Tags*, const char*);
    const char* MP4Tags::*field;
    const char* label;
};

const TextCase kTexts[] = {
    {MP4TagsSetName, &MP4Tags::name, "name"},
    {MP4TagsSetArtist, &MP4Tags::artist, "artist"},
    {MP4TagsSetAlbumArtist, &MP4Tags::albumArtist, "albumArtist"},
    {MP4TagsSetAlbum, &MP4Tags::album, "album"},
    {MP4TagsSetGrouping, &MP4Tags::grouping, "grouping"},
    {MP4TagsSetComposer, &MP4Tags::composer, "composer"},
    {MP4TagsSetComments, &MP4Tags::comments, "comments"},
    {MP4TagsSetGenre, &MP4Tags::genre, "genre"},
    {MP4TagsSetReleaseDate, &MP4Tags::releaseDate, "releaseDate"},
    {MP4TagsSetTVShow, &MP4Tags::tvShow, "tvShow"},
    {MP4TagsSetTVNetwork, &MP4Tags::tvNetwork, "tvNetwork"},
    {MP4TagsSetTVEpisodeID, &MP4Tags::tvEpisodeID, "tvEpisodeID"},
    {MP4TagsSetDescription, &MP4Tags::description, "description"},
    {MP4TagsSetLongDescription, &MP4Tags::longDescription, "longDescription"},
    {MP4TagsSetSeriesDescription, &MP4Tags::seriesDescription, "seriesDescription"},
    {MP4TagsSetLyrics, &MP4Tags::lyrics, "lyrics"},
    {MP4TagsSetSortName, &MP4Tags::sortName, "sortName"},
    {MP4TagsSetSortArtist, &MP4Tags::sortArtist, "sortArtist"},
    {MP4TagsSetSortAlbumArtist, &MP4Tags::sortAlbumArtist, "sortAlbumArtist"},
    {MP4TagsSetSortAlbum, &MP4Tags::sortAlbum, "sortAlbum"},
    {MP4TagsSetSortComposer, &MP4Tags::sortComposer, "sortComposer"},
    {MP4TagsSetSortTVShow, &MP4Tags::sortTVShow, "sortTVShow"},
    {MP4TagsSetCopyright, &MP4Tags::copyright, "copyright"},
    {MP4TagsSetEncodingTool, &MP4Tags::encodingTool, "encodingTool"},
    {MP4TagsSetEncodedBy, &MP4Tags::encodedBy, "encodedBy"},
    {MP4TagsSetPurchaseDate, &MP4Tags::purchaseDate, "purchaseDate"},
    {MP4TagsSetKeywords, &MP4Tags::keywords, "keywords"},
    {MP4TagsSetCategory, &MP4Tags::category, "category"},
    {MP4TagsSetITunesAccount, &MP4Tags::iTunesAccount, "iTunesAccount"},
    {MP4TagsSetXID, &MP4Tags::xid, "xid"},
};

std::string textValue(const char* label) {
    return std::string("Wert \xc3\xa4 ") + label;
}

void setAllNumbers(const MP4Tags* t) {
    const uint16_t genreType = 18, tempo = 120;
    const uint8_t compilation = 1, podcast = 1, hd = 2, media = 9, rating = 4, gapless = 1,
                  acct = 1;
    const uint32_t season = 3, episode = 12, country = 143441, content = 4000000001u, artist = 77,
                   genreId = 4401, composer = 99;
    const uint64_t playlist = 0x1122334455667788ull;
    const MP4TagTrack track{3, 12};
    const MP4TagDisk disk{1, 2};
    EXPECT_TRUE(MP4TagsSetGenreType(t, &genreType));
    EXPECT_TRUE(MP4TagsSetTempo(t, &tempo));
    EXPECT_TRUE(MP4TagsSetCompilation(t, &compilation));
    EXPECT_TRUE(MP4TagsSetPodcast(t, &podcast));
    EXPECT_TRUE(MP4TagsSetHDVideo(t, &hd));
    EXPECT_TRUE(MP4TagsSetMediaType(t, &media));
    EXPECT_TRUE(MP4TagsSetContentRating(t, &rating));
    EXPECT_TRUE(MP4TagsSetGapless(t, &gapless));
    EXPECT_TRUE(MP4TagsSetITunesAccountType(t, &acct));
    EXPECT_TRUE(MP4TagsSetTVSeason(t, &season));
    EXPECT_TRUE(MP4TagsSetTVEpisode(t, &episode));
    EXPECT_TRUE(MP4TagsSetITunesCountry(t, &country));
    EXPECT_TRUE(MP4TagsSetContentID(t, &content));
    EXPECT_TRUE(MP4TagsSetArtistID(t, &artist));
    EXPECT_TRUE(MP4TagsSetGenreID(t, &genreId));
    EXPECT_TRUE(MP4TagsSetComposerID(t, &composer));
    EXPECT_TRUE(MP4TagsSetPlaylistID(t, &playlist));
    EXPECT_TRUE(MP4TagsSetTrack(t, &track));
    EXPECT_TRUE(MP4TagsSetDisk(t, &disk));
}

template <typename T> void expectValue(const T* p, T want, const char* label) {
    ASSERT_NE(p, nullptr) << label;
    EXPECT_EQ(*p, want) << label;
}

} // namespace

TEST_F(Mp4Tags, EverySetterSurvivesAWriteAndAFreshReadAndNullRemovesOnlyThatItem) {
    modify([](const MP4Tags* t, MP4FileHandle) {
        for (const auto& c : kTexts) {
            const std::string v = textValue(c.label);
            EXPECT_TRUE(c.set(t, v.c_str()));
            EXPECT_EQ(str(t->*c.field), v) << "setter must copy the value: " << c.label;
        }
        setAllNumbers(t);
    });
    read([](const MP4Tags* t, MP4FileHandle) {
        for (const auto& c : kTexts)
            EXPECT_EQ(str(t->*c.field), textValue(c.label)) << c.label;
        expectValue<uint16_t>(t->genreType, 18, "genreType");
        expectValue<uint16_t>(t->tempo, 120, "tempo");
        expectValue<uint8_t>(t->compilation, 1, "compilation");
        expectValue<uint8_t>(t->podcast, 1, "podcast");
        expectValue<uint8_t>(t->hdVideo, 2, "hdVideo");
        expectValue<uint8_t>(t->mediaType, 9, "mediaType");
        expectValue<uint8_t>(t->contentRating, 4, "contentRating");
        expectValue<uint8_t>(t->gapless, 1, "gapless");
        expectValue<uint8_t>(t->iTunesAccountType, 1, "iTunesAccountType");
        expectValue<uint32_t>(t->tvSeason, 3, "tvSeason");
        expectValue<uint32_t>(t->tvEpisode, 12, "tvEpisode");
        expectValue<uint32_t>(t->iTunesCountry, 143441, "iTunesCountry");
        expectValue<uint32_t>(t->contentID, 4000000001u, "contentID");
        expectValue<uint32_t>(t->artistID, 77, "artistID");
        expectValue<uint32_t>(t->genreID, 4401, "genreID");
        expectValue<uint32_t>(t->composerID, 99, "composerID");
        expectValue<uint64_t>(t->playlistID, 0x1122334455667788ull, "playlistID");
        ASSERT_TRUE(t->track && t->disk);
        EXPECT_EQ(t->track->index, 3);
        EXPECT_EQ(t->track->total, 12);
        EXPECT_EQ(t->disk->index, 1);
        EXPECT_EQ(t->disk->total, 2);
    });
    // Null removes only that item: every other text item and a handful of numbers.
    modify([](const MP4Tags* t, MP4FileHandle) {
        for (size_t i = 0; i < std::size(kTexts); i += 2)
            EXPECT_TRUE(kTexts[i].set(t, nullptr));
        MP4TagsSetTrack(t, nullptr);
        MP4TagsSetContentID(t, nullptr);
        MP4TagsSetMediaType(t, nullptr);
        MP4TagsSetPlaylistID(t, nullptr);
        MP4TagsSetGenreType(t, nullptr);
    });
    read([](const MP4Tags* t, MP4FileHandle h) {
        for (size_t i = 0; i < std::size(kTexts); ++i) {
            if (i % 2 == 0)
                EXPECT_EQ(t->*kTexts[i].field, nullptr) << kTexts[i].label;
            else
                EXPECT_EQ(str(t->*kTexts[i].field), textValue(kTexts[i].label)) << kTexts[i].label;
        }
        EXPECT_EQ(t->track, nullptr);
        EXPECT_EQ(t->contentID, nullptr);
        EXPECT_EQ(t->mediaType, nullptr);
        EXPECT_EQ(t->playlistID, nullptr);
        EXPECT_EQ(t->genreType, nullptr);
        ASSERT_TRUE(t->disk);
        EXPECT_EQ(t->disk->total, 2);
        expectValue<uint32_t>(t->artistID, 77, "artistID");
        // No stale duplicates left behind in the item list.
        MP4ItmfItemList* names = MP4ItmfGetItemsByCode(h, "\xa9nam");
        ASSERT_TRUE(names);
        EXPECT_EQ(names->size, 0u);
        MP4ItmfItemListFree(names);
    });
}

TEST_F(Mp4Tags, ArtworkKeepsTypeAndOrder) {
    const QByteArray png = readAll(coverImage(QStringLiteral("cover.png")));
    const QByteArray jpg = readAll(coverImage(QStringLiteral("cover.jpg")));
    ASSERT_FALSE(png.isEmpty());
    ASSERT_FALSE(jpg.isEmpty());
    modify([&](const MP4Tags* t, MP4FileHandle) {
        EXPECT_EQ(t->artworkCount, 0u);
        MP4TagArtwork a{const_cast<char*>(png.constData()), uint32_t(png.size()), MP4_ART_PNG};
        MP4TagArtwork b{const_cast<char*>(jpg.constData()), uint32_t(jpg.size()), MP4_ART_JPEG};
        EXPECT_TRUE(MP4TagsAddArtwork(t, &a));
        EXPECT_TRUE(MP4TagsAddArtwork(t, &b));
        EXPECT_FALSE(MP4TagsSetArtwork(t, 5, &a));
        EXPECT_FALSE(MP4TagsRemoveArtwork(t, 2));
    });
    read([&](const MP4Tags* t, MP4FileHandle) {
        ASSERT_EQ(t->artworkCount, 2u);
        EXPECT_EQ(t->artwork[0].type, MP4_ART_PNG);
        EXPECT_EQ(QByteArray(static_cast<const char*>(t->artwork[0].data), t->artwork[0].size),
                  png);
        EXPECT_EQ(t->artwork[1].type, MP4_ART_JPEG);
        EXPECT_EQ(QByteArray(static_cast<const char*>(t->artwork[1].data), t->artwork[1].size),
                  jpg);
    });
    // Replace the first with the JPEG, drop the second.
    modify([&](const MP4Tags* t, MP4FileHandle) {
        MP4TagArtwork b{const_cast<char*>(jpg.constData()), uint32_t(jpg.size()), MP4_ART_JPEG};
        EXPECT_TRUE(MP4TagsSetArtwork(t, 0, &b));
        EXPECT_TRUE(MP4TagsRemoveArtwork(t, 1));
    });
    MP4FileHandle h = MP4Read(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4Tags* t = MP4TagsAlloc();
    ASSERT_TRUE(MP4TagsFetchArtwork(t, h));
    ASSERT_EQ(t->artworkCount, 1u);
    EXPECT_EQ(t->artwork[0].type, MP4_ART_JPEG);
    EXPECT_EQ(QByteArray(static_cast<const char*>(t->artwork[0].data), t->artwork[0].size), jpg);
    EXPECT_EQ(t->name, nullptr) << "fetching artwork reads nothing else";
    MP4TagsFree(t);
    MP4Close(h);
    modify([](const MP4Tags* t, MP4FileHandle) { EXPECT_TRUE(MP4TagsRemoveArtwork(t, 0)); });
    read([](const MP4Tags* t, MP4FileHandle) { EXPECT_EQ(t->artworkCount, 0u); });
}

TEST_F(Mp4Tags, MovieInfoFetchReadsOnlyItsFields) {
    modify([](const MP4Tags* t, MP4FileHandle) {
        MP4TagsSetName(t, "Heat");
        MP4TagsSetSortName(t, "Heat, The");
        MP4TagsSetArtist(t, "Someone");
        const uint32_t cnid = 42;
        const uint8_t hd = 1;
        MP4TagsSetContentID(t, &cnid);
        MP4TagsSetHDVideo(t, &hd);
    });
    MP4FileHandle h = MP4Read(path.c_str());
    const MP4Tags* t = MP4TagsAlloc();
    ASSERT_TRUE(MP4TagsFetchMovieInfo(t, h));
    EXPECT_EQ(str(t->name), "Heat");
    EXPECT_EQ(str(t->sortName), "Heat, The");
    EXPECT_EQ(t->artist, nullptr);
    expectValue<uint32_t>(t->contentID, 42, "contentID");
    expectValue<uint8_t>(t->hdVideo, 1, "hdVideo");
    MP4TagsFree(t);
    MP4Close(h);
}

namespace {

MP4ItmfItem* freeform(const char* mean, const char* name, const std::string& value) {
    MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
    item->mean = strdup(mean);
    item->name = strdup(name);
    MP4ItmfData& d = item->dataList.elements[0];
    d.typeCode = MP4_ITMF_BT_UTF8;
    d.valueSize = uint32_t(value.size());
    d.value = static_cast<uint8_t*>(std::malloc(value.size()));
    std::memcpy(d.value, value.data(), value.size());
    return item;
}

std::string valueOf(const MP4ItmfItem& item) {
    if (item.dataList.size == 0)
        return {};
    const MP4ItmfData& d = item.dataList.elements[0];
    return std::string(reinterpret_cast<const char*>(d.value), d.valueSize);
}

} // namespace

TEST_F(Mp4Tags, FreeformItemsAddFindRemoveAndSurviveTagStores) {
    MP4FileHandle h = MP4Modify(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    for (auto [mean, name, value] : {std::tuple{"com.apple.iTunes", "iTunEXTC", "mpaa|R|400|"},
                                     {"com.apple.iTunes", "iTunMOVI", "<plist/>"},
                                     {"com.oswenna.metadata", "MOVI", "<dict/>"}}) {
        MP4ItmfItem* item = freeform(mean, name, value);
        EXPECT_TRUE(MP4ItmfAddItem(h, item));
        MP4ItmfItemFree(item);
    }
    MP4Close(h);

    // A tag-set round trip must not disturb the freeform items.
    modify([](const MP4Tags* t, MP4FileHandle) { MP4TagsSetName(t, "Kept"); });

    h = MP4Modify(path.c_str());
    MP4ItmfItemList* all = MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", nullptr);
    ASSERT_TRUE(all);
    EXPECT_EQ(all->size, 2u);
    MP4ItmfItemListFree(all);
    MP4ItmfItemList* list = MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", "iTunEXTC");
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size, 1u);
    EXPECT_EQ(std::string(list->elements[0].code), "----");
    EXPECT_EQ(std::string(list->elements[0].mean), "com.apple.iTunes");
    EXPECT_EQ(std::string(list->elements[0].name), "iTunEXTC");
    EXPECT_EQ(list->elements[0].dataList.elements[0].typeCode, MP4_ITMF_BT_UTF8);
    EXPECT_EQ(valueOf(list->elements[0]), "mpaa|R|400|");
    EXPECT_TRUE(MP4ItmfRemoveItem(h, &list->elements[0]));
    EXPECT_FALSE(MP4ItmfRemoveItem(h, &list->elements[0])) << "already gone";
    MP4ItmfItemListFree(list);
    MP4ItmfItemList* none = MP4ItmfGetItemsByMeaning(h, "com.nobody", nullptr);
    ASSERT_TRUE(none);
    EXPECT_EQ(none->size, 0u);
    MP4ItmfItemListFree(none);
    MP4Close(h);

    h = MP4Read(path.c_str());
    MP4ItmfItemList* left = MP4ItmfGetItemsByMeaning(h, "com.apple.iTunes", "iTunEXTC");
    EXPECT_EQ(left->size, 0u);
    MP4ItmfItemListFree(left);
    MP4ItmfItemList* movi = MP4ItmfGetItemsByMeaning(h, "com.oswenna.metadata", "MOVI");
    ASSERT_EQ(movi->size, 1u);
    EXPECT_EQ(valueOf(movi->elements[0]), "<dict/>");
    MP4ItmfItemListFree(movi);
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    EXPECT_EQ(str(t->name), "Kept");
    MP4TagsFree(t);
    // A read-only handle refuses changes.
    MP4ItmfItem* item = freeform("a", "b", "c");
    EXPECT_FALSE(MP4ItmfAddItem(h, item));
    MP4ItmfItemFree(item);
    MP4Close(h);
}

TEST_F(Mp4Tags, ReadOnlyHandlesAndBadArgumentsFailCleanly) {
    MP4FileHandle h = MP4Read(path.c_str());
    ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    MP4TagsSetName(t, "nope");
    EXPECT_FALSE(MP4TagsStore(t, h));
    MP4TagsFree(t);
    MP4Close(h);
    EXPECT_FALSE(MP4TagsFetch(nullptr, h));
    EXPECT_FALSE(MP4TagsStore(nullptr, nullptr));
    EXPECT_EQ(MP4ItmfGetItems(nullptr), nullptr);
    MP4Close(MP4_INVALID_FILE_HANDLE);
    MP4TagsFree(nullptr);
    const QByteArray before = readAll(QString::fromStdString(path));
    h = MP4Modify(path.c_str());
    MP4Close(h); // nothing changed: nothing written
    EXPECT_EQ(readAll(QString::fromStdString(path)), before);
}
