// iTunes metadata: the tag set (MP4Tags), kept in moov.udta.meta.ilst.

#include "mp4/Handle.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>

using namespace tarnwick::mp4;

namespace {

constexpr uint32_t kUtf8 = 1;
constexpr uint32_t kInteger = 21;
constexpr uint32_t kImplicit = 0;

// Storage behind the pointers of one MP4Tags.
struct TagStore {
    std::map<uint32_t, std::string> text;
    std::map<uint32_t, uint64_t> numbers; // keyed by item code
    std::map<uint32_t, uint8_t> u8;
    std::map<uint32_t, uint16_t> u16;
    std::map<uint32_t, uint32_t> u32;
    MP4TagTrack track{};
    MP4TagDisk disk{};
    std::deque<Bytes> artData;
    std::vector<MP4TagArtwork> art;
};

TagStore* storeOf(const MP4Tags* tags) {
    return static_cast<TagStore*>(tags->__handle);
}
MP4Tags* mut(const MP4Tags* tags) {
    return const_cast<MP4Tags*>(tags);
}

struct TextItem {
    uint32_t code;
    const char* MP4Tags::*field;
};

constexpr uint32_t C(const char (&s)[5]) {
    return fourcc(s);
}
constexpr uint32_t kCopyrightSign(const char (&s)[4]) {
    return (0xa9u << 24) | (uint32_t(uint8_t(s[0])) << 16) | (uint32_t(uint8_t(s[1])) << 8) |
           uint32_t(uint8_t(s[2]));
}

const TextItem kTextItems[] = {
    {kCopyrightSign("nam"), &MP4Tags::name},
    {kCopyrightSign("ART"), &MP4Tags::artist},
    {C("aART"), &MP4Tags::albumArtist},
    {kCopyrightSign("alb"), &MP4Tags::album},
    {kCopyrightSign("grp"), &MP4Tags::grouping},
    {kCopyrightSign("wrt"), &MP4Tags::composer},
    {kCopyrightSign("cmt"), &MP4Tags::comments},
    {kCopyrightSign("gen"), &MP4Tags::genre},
    {kCopyrightSign("day"), &MP4Tags::releaseDate},
    {C("tvsh"), &MP4Tags::tvShow},
    {C("tvnn"), &MP4Tags::tvNetwork},
    {C("tven"), &MP4Tags::tvEpisodeID},
    {C("desc"), &MP4Tags::description},
    {C("ldes"), &MP4Tags::longDescription},
    {C("sdes"), &MP4Tags::seriesDescription},
    {kCopyrightSign("lyr"), &MP4Tags::lyrics},
    {C("sonm"), &MP4Tags::sortName},
    {C("soar"), &MP4Tags::sortArtist},
    {C("soaa"), &MP4Tags::sortAlbumArtist},
    {C("soal"), &MP4Tags::sortAlbum},
    {C("soco"), &MP4Tags::sortComposer},
    {C("sosn"), &MP4Tags::sortTVShow},
    {C("cprt"), &MP4Tags::copyright},
    {kCopyrightSign("too"), &MP4Tags::encodingTool},
    {kCopyrightSign("enc"), &MP4Tags::encodedBy},
    {C("purd"), &MP4Tags::purchaseDate},
    {C("keyw"), &MP4Tags::keywords},
    {C("catg"), &MP4Tags::category},
    {C("apID"), &MP4Tags::iTunesAccount},
    {C("xid "), &MP4Tags::xid},
};

struct U8Item {
    uint32_t code;
    const uint8_t* MP4Tags::*field;
};
const U8Item kU8Items[] = {
    {C("cpil"), &MP4Tags::compilation},       {C("pcst"), &MP4Tags::podcast},
    {C("hdvd"), &MP4Tags::hdVideo},           {C("stik"), &MP4Tags::mediaType},
    {C("rtng"), &MP4Tags::contentRating},     {C("pgap"), &MP4Tags::gapless},
    {C("akID"), &MP4Tags::iTunesAccountType},
};

struct U16Item {
    uint32_t code;
    const uint16_t* MP4Tags::*field;
    uint32_t typeCode;
};
const U16Item kU16Items[] = {
    {C("gnre"), &MP4Tags::genreType, kImplicit},
    {C("tmpo"), &MP4Tags::tempo, kInteger},
};

struct U32Item {
    uint32_t code;
    const uint32_t* MP4Tags::*field;
};
const U32Item kU32Items[] = {
    {C("tvsn"), &MP4Tags::tvSeason},      {C("tves"), &MP4Tags::tvEpisode},
    {C("sfID"), &MP4Tags::iTunesCountry}, {C("cnID"), &MP4Tags::contentID},
    {C("atID"), &MP4Tags::artistID},      {C("geID"), &MP4Tags::genreID},
    {C("cmID"), &MP4Tags::composerID},
};

constexpr uint32_t kPlaylistID = C("plID");
constexpr uint32_t kTrack = C("trkn");
constexpr uint32_t kDisk = C("disk");
constexpr uint32_t kCover = C("covr");

// --- setters working on the store -------------------------------------------

void setText(const MP4Tags* tags, const char* MP4Tags::*field, uint32_t code, const char* value) {
    if (!value) {
        mut(tags)->*field = nullptr;
        return;
    }
    std::string& s = storeOf(tags)->text[code];
    s = value; // copy first: value may point into s itself
    mut(tags)->*field = s.c_str();
}

template <typename T, typename Map>
void setNumber(const MP4Tags* tags, const T* MP4Tags::*field, Map& storage, uint32_t code,
               const T* value) {
    if (!value) {
        mut(tags)->*field = nullptr;
        return;
    }
    T& slot = storage[code];
    slot = *value;
    mut(tags)->*field = &slot;
}

void setU8(const MP4Tags* tags, uint32_t code, const uint8_t* v) {
    for (const auto& i : kU8Items)
        if (i.code == code)
            setNumber(tags, i.field, storeOf(tags)->u8, code, v);
}
void setU16(const MP4Tags* tags, uint32_t code, const uint16_t* v) {
    for (const auto& i : kU16Items)
        if (i.code == code)
            setNumber(tags, i.field, storeOf(tags)->u16, code, v);
}
void setU32(const MP4Tags* tags, uint32_t code, const uint32_t* v) {
    for (const auto& i : kU32Items)
        if (i.code == code)
            setNumber(tags, i.field, storeOf(tags)->u32, code, v);
}
void setTextByCode(const MP4Tags* tags, uint32_t code, const char* v) {
    for (const auto& i : kTextItems)
        if (i.code == code)
            setText(tags, i.field, code, v);
}

void refreshArtwork(const MP4Tags* tags) {
    TagStore* s = storeOf(tags);
    mut(tags)->artwork = s->art.empty() ? nullptr : s->art.data();
    mut(tags)->artworkCount = uint32_t(s->art.size());
}

MP4TagArtwork makeArtwork(TagStore* s, const void* data, uint32_t size, MP4TagArtworkType type) {
    s->artData.emplace_back(static_cast<const uint8_t*>(data),
                            static_cast<const uint8_t*>(data) + size);
    return MP4TagArtwork{s->artData.back().data(), size, type};
}

MP4TagArtworkType artworkType(uint32_t typeCode, const Bytes& v) {
    switch (typeCode) {
    case 13:
        return MP4_ART_JPEG;
    case 14:
        return MP4_ART_PNG;
    case 27:
        return MP4_ART_BMP;
    case 12:
        return MP4_ART_GIF;
    default:
        break;
    }
    // Untyped art: tell it by its signature.
    if (v.size() >= 8 && v[0] == 0x89 && v[1] == 'P' && v[2] == 'N' && v[3] == 'G')
        return MP4_ART_PNG;
    if (v.size() >= 3 && v[0] == 0xff && v[1] == 0xd8 && v[2] == 0xff)
        return MP4_ART_JPEG;
    if (v.size() >= 2 && v[0] == 'B' && v[1] == 'M')
        return MP4_ART_BMP;
    if (v.size() >= 3 && v[0] == 'G' && v[1] == 'I' && v[2] == 'F')
        return MP4_ART_GIF;
    return MP4_ART_UNDEFINED;
}

uint32_t artworkTypeCode(MP4TagArtworkType t) {
    switch (t) {
    case MP4_ART_JPEG:
        return 13;
    case MP4_ART_PNG:
        return 14;
    case MP4_ART_BMP:
        return 27;
    case MP4_ART_GIF:
        return 12;
    default:
        return 0;
    }
}

uint64_t bigEndianValue(const Bytes& v) {
    uint64_t n = 0;
    for (size_t i = 0; i < v.size() && i < 8; ++i)
        n = (n << 8) | v[i];
    return n;
}

// Reads one item of the list into the tag set; `only` limits which codes count.
void fetchItem(const MP4Tags* tags, const Box* item, const std::vector<uint32_t>* only) {
    const uint32_t code = item->type();
    if (only && std::find(only->begin(), only->end(), code) == only->end())
        return;
    const auto values = itemData(item);
    if (values.empty())
        return;
    const Bytes& v = values.front().value;
    for (const auto& i : kTextItems) {
        if (i.code == code) {
            const std::string s(v.begin(), v.end());
            setText(tags, i.field, code, s.c_str());
            return;
        }
    }
    for (const auto& i : kU8Items) {
        if (i.code == code) {
            const uint8_t n = uint8_t(bigEndianValue(v));
            setNumber(tags, i.field, storeOf(tags)->u8, code, &n);
            return;
        }
    }
    for (const auto& i : kU16Items) {
        if (i.code == code && !v.empty()) {
            const uint16_t n = uint16_t(bigEndianValue(v));
            setNumber(tags, i.field, storeOf(tags)->u16, code, &n);
            return;
        }
    }
    for (const auto& i : kU32Items) {
        if (i.code == code && !v.empty()) {
            const uint32_t n = uint32_t(bigEndianValue(v));
            setNumber(tags, i.field, storeOf(tags)->u32, code, &n);
            return;
        }
    }
    if (code == kPlaylistID && !v.empty()) {
        const uint64_t n = bigEndianValue(v);
        MP4TagsSetPlaylistID(tags, &n);
    } else if (code == kTrack && v.size() >= 6) {
        const MP4TagTrack t{uint16_t(readBE(v, 2, 2)), uint16_t(readBE(v, 4, 2))};
        MP4TagsSetTrack(tags, &t);
    } else if (code == kDisk && v.size() >= 6) {
        const MP4TagDisk d{uint16_t(readBE(v, 2, 2)), uint16_t(readBE(v, 4, 2))};
        MP4TagsSetDisk(tags, &d);
    }
}

void fetchArtwork(const MP4Tags* tags, const Box* list, size_t limit) {
    TagStore* s = storeOf(tags);
    s->art.clear();
    s->artData.clear();
    for (const Box* covr : list->childrenOfType(kCover)) {
        for (const auto& d : itemData(covr)) {
            if (s->art.size() >= limit)
                break;
            s->art.push_back(makeArtwork(s, d.value.data(), uint32_t(d.value.size()),
                                         artworkType(d.typeField & 0xffffff, d.value)));
        }
    }
    refreshArtwork(tags);
}

void clearFields(const MP4Tags* tags) {
    void* handle = tags->__handle;
    std::memset(mut(tags), 0, sizeof(MP4Tags));
    mut(tags)->__handle = handle;
    TagStore* s = storeOf(tags);
    *s = TagStore();
}

// Puts a single-value item with that code into the list: the first existing
// one is rewritten in place (keeping the order), duplicates go.
void putItem(Handle* h, Box* list, uint32_t code, uint32_t typeCode, const Bytes& value) {
    std::vector<Box*> existing = list->childrenOfType(code);
    Box* item = nullptr;
    if (!existing.empty()) {
        item = existing.front();
        for (size_t i = 1; i < existing.size(); ++i)
            h->removeItem(existing[i]);
        item->removeAll(fourcc("data"));
    } else {
        auto b = std::make_unique<Box>(code);
        b->setContainer(true);
        item = list->append(std::move(b));
    }
    item->append(dataBox(typeCode, value));
}

void dropItems(Handle* h, Box* list, uint32_t code) {
    for (Box* b : list->childrenOfType(code))
        h->removeItem(b);
}

Bytes beBytes(uint64_t v, int width) {
    Bytes b;
    appendBE(b, width, v);
    return b;
}

} // namespace

// --- tag set ----------------------------------------------------------------

const MP4Tags* MP4TagsAlloc() {
    auto* tags = static_cast<MP4Tags*>(std::calloc(1, sizeof(MP4Tags)));
    tags->__handle = new TagStore;
    return tags;
}

void MP4TagsFree(const MP4Tags* tags) {
    if (!tags)
        return;
    delete storeOf(tags);
    std::free(mut(tags));
}

bool MP4TagsFetch(const MP4Tags* tags, MP4FileHandle hFile) {
    Handle* h = Handle::from(hFile);
    if (!tags || !h)
        return false;
    clearFields(tags);
    const Box* list = h->ilst(false);
    if (!list)
        return true;
    for (const auto& item : list->children())
        fetchItem(tags, item.get(), nullptr);
    fetchArtwork(tags, list, SIZE_MAX);
    return true;
}

bool MP4TagsFetchMovieInfo(const MP4Tags* tags, MP4FileHandle hFile) {
    Handle* h = Handle::from(hFile);
    if (!tags || !h)
        return false;
    clearFields(tags);
    const Box* list = h->ilst(false);
    if (!list)
        return true;
    static const std::vector<uint32_t> codes = {
        kCopyrightSign("nam"), C("sonm"), kCopyrightSign("gen"), C("gnre"), C("cnID"), C("hdvd")};
    for (const auto& item : list->children())
        fetchItem(tags, item.get(), &codes);
    return true;
}

bool MP4TagsFetchArtwork(const MP4Tags* tags, MP4FileHandle hFile) {
    Handle* h = Handle::from(hFile);
    if (!tags || !h)
        return false;
    const Box* list = h->ilst(false);
    if (!list) {
        storeOf(tags)->art.clear();
        refreshArtwork(tags);
        return true;
    }
    fetchArtwork(tags, list, 1);
    return true;
}

bool MP4TagsStore(const MP4Tags* tags, MP4FileHandle hFile) {
    Handle* h = Handle::from(hFile);
    if (!tags || !h || !h->file->writable())
        return false;
    Box* list = h->ilst(true);
    for (const auto& i : kTextItems) {
        const char* v = tags->*i.field;
        if (v)
            putItem(h, list, i.code, kUtf8, Bytes(v, v + std::strlen(v)));
        else
            dropItems(h, list, i.code);
    }
    for (const auto& i : kU8Items) {
        if (const uint8_t* v = tags->*i.field)
            putItem(h, list, i.code, kInteger, beBytes(*v, 1));
        else
            dropItems(h, list, i.code);
    }
    for (const auto& i : kU16Items) {
        if (const uint16_t* v = tags->*i.field)
            putItem(h, list, i.code, i.typeCode, beBytes(*v, 2));
        else
            dropItems(h, list, i.code);
    }
    for (const auto& i : kU32Items) {
        if (const uint32_t* v = tags->*i.field)
            putItem(h, list, i.code, kInteger, beBytes(*v, 4));
        else
            dropItems(h, list, i.code);
    }
    if (tags->playlistID)
        putItem(h, list, kPlaylistID, kInteger, beBytes(*tags->playlistID, 8));
    else
        dropItems(h, list, kPlaylistID);
    if (tags->track) {
        Bytes v = beBytes(0, 2);
        appendBE(v, 2, tags->track->index);
        appendBE(v, 2, tags->track->total);
        appendBE(v, 2, 0);
        putItem(h, list, kTrack, kImplicit, v);
    } else {
        dropItems(h, list, kTrack);
    }
    if (tags->disk) {
        Bytes v = beBytes(0, 2);
        appendBE(v, 2, tags->disk->index);
        appendBE(v, 2, tags->disk->total);
        putItem(h, list, kDisk, kImplicit, v);
    } else {
        dropItems(h, list, kDisk);
    }
    if (tags->artworkCount > 0 && tags->artwork) {
        putItem(h, list, kCover, 0, {});
        Box* covr = list->child(kCover);
        covr->removeAll(fourcc("data"));
        for (uint32_t i = 0; i < tags->artworkCount; ++i) {
            const MP4TagArtwork& a = tags->artwork[i];
            const auto* p = static_cast<const uint8_t*>(a.data);
            covr->append(dataBox(artworkTypeCode(a.type), Bytes(p, p + a.size)));
        }
    } else {
        dropItems(h, list, kCover);
    }
    h->file->setDirty();
    return true;
}

bool MP4TagsAddArtwork(const MP4Tags* tags, const MP4TagArtwork* art) {
    if (!tags || !art || (!art->data && art->size))
        return false;
    TagStore* s = storeOf(tags);
    s->art.push_back(makeArtwork(s, art->data, art->size, art->type));
    refreshArtwork(tags);
    return true;
}

bool MP4TagsSetArtwork(const MP4Tags* tags, uint32_t index, const MP4TagArtwork* art) {
    if (!tags || !art || index >= storeOf(tags)->art.size() || (!art->data && art->size))
        return false;
    TagStore* s = storeOf(tags);
    s->art[index] = makeArtwork(s, art->data, art->size, art->type);
    refreshArtwork(tags);
    return true;
}

bool MP4TagsRemoveArtwork(const MP4Tags* tags, uint32_t index) {
    if (!tags || index >= storeOf(tags)->art.size())
        return false;
    TagStore* s = storeOf(tags);
    s->art.erase(s->art.begin() + index);
    refreshArtwork(tags);
    return true;
}

#define TEXT_SETTER(fn, code)                                                                      \
    bool fn(const MP4Tags* tags, const char* value) {                                              \
        if (!tags)                                                                                 \
            return false;                                                                          \
        setTextByCode(tags, code, value);                                                          \
        return true;                                                                               \
    }
#define NUMBER_SETTER(fn, setter, type, code)                                                      \
    bool fn(const MP4Tags* tags, const type* value) {                                              \
        if (!tags)                                                                                 \
            return false;                                                                          \
        setter(tags, code, value);                                                                 \
        return true;                                                                               \
    }

TEXT_SETTER(MP4TagsSetName, kCopyrightSign("nam"))
TEXT_SETTER(MP4TagsSetArtist, kCopyrightSign("ART"))
TEXT_SETTER(MP4TagsSetAlbumArtist, C("aART"))
TEXT_SETTER(MP4TagsSetAlbum, kCopyrightSign("alb"))
TEXT_SETTER(MP4TagsSetGrouping, kCopyrightSign("grp"))
TEXT_SETTER(MP4TagsSetComposer, kCopyrightSign("wrt"))
TEXT_SETTER(MP4TagsSetComments, kCopyrightSign("cmt"))
TEXT_SETTER(MP4TagsSetGenre, kCopyrightSign("gen"))
TEXT_SETTER(MP4TagsSetReleaseDate, kCopyrightSign("day"))
TEXT_SETTER(MP4TagsSetTVShow, C("tvsh"))
TEXT_SETTER(MP4TagsSetTVNetwork, C("tvnn"))
TEXT_SETTER(MP4TagsSetTVEpisodeID, C("tven"))
TEXT_SETTER(MP4TagsSetDescription, C("desc"))
TEXT_SETTER(MP4TagsSetLongDescription, C("ldes"))
TEXT_SETTER(MP4TagsSetSeriesDescription, C("sdes"))
TEXT_SETTER(MP4TagsSetLyrics, kCopyrightSign("lyr"))
TEXT_SETTER(MP4TagsSetSortName, C("sonm"))
TEXT_SETTER(MP4TagsSetSortArtist, C("soar"))
TEXT_SETTER(MP4TagsSetSortAlbumArtist, C("soaa"))
TEXT_SETTER(MP4TagsSetSortAlbum, C("soal"))
TEXT_SETTER(MP4TagsSetSortComposer, C("soco"))
TEXT_SETTER(MP4TagsSetSortTVShow, C("sosn"))
TEXT_SETTER(MP4TagsSetCopyright, C("cprt"))
TEXT_SETTER(MP4TagsSetEncodingTool, kCopyrightSign("too"))
TEXT_SETTER(MP4TagsSetEncodedBy, kCopyrightSign("enc"))
TEXT_SETTER(MP4TagsSetPurchaseDate, C("purd"))
TEXT_SETTER(MP4TagsSetKeywords, C("keyw"))
TEXT_SETTER(MP4TagsSetCategory, C("catg"))
TEXT_SETTER(MP4TagsSetITunesAccount, C("apID"))
TEXT_SETTER(MP4TagsSetXID, C("xid "))

NUMBER_SETTER(MP4TagsSetCompilation, setU8, uint8_t, C("cpil"))
NUMBER_SETTER(MP4TagsSetPodcast, setU8, uint8_t, C("pcst"))
NUMBER_SETTER(MP4TagsSetHDVideo, setU8, uint8_t, C("hdvd"))
NUMBER_SETTER(MP4TagsSetMediaType, setU8, uint8_t, C("stik"))
NUMBER_SETTER(MP4TagsSetContentRating, setU8, uint8_t, C("rtng"))
NUMBER_SETTER(MP4TagsSetGapless, setU8, uint8_t, C("pgap"))
NUMBER_SETTER(MP4TagsSetITunesAccountType, setU8, uint8_t, C("akID"))
NUMBER_SETTER(MP4TagsSetGenreType, setU16, uint16_t, C("gnre"))
NUMBER_SETTER(MP4TagsSetTempo, setU16, uint16_t, C("tmpo"))
NUMBER_SETTER(MP4TagsSetTVSeason, setU32, uint32_t, C("tvsn"))
NUMBER_SETTER(MP4TagsSetTVEpisode, setU32, uint32_t, C("tves"))
NUMBER_SETTER(MP4TagsSetITunesCountry, setU32, uint32_t, C("sfID"))
NUMBER_SETTER(MP4TagsSetContentID, setU32, uint32_t, C("cnID"))
NUMBER_SETTER(MP4TagsSetArtistID, setU32, uint32_t, C("atID"))
NUMBER_SETTER(MP4TagsSetGenreID, setU32, uint32_t, C("geID"))
NUMBER_SETTER(MP4TagsSetComposerID, setU32, uint32_t, C("cmID"))

bool MP4TagsSetPlaylistID(const MP4Tags* tags, const uint64_t* value) {
    if (!tags)
        return false;
    if (!value) {
        mut(tags)->playlistID = nullptr;
        return true;
    }
    uint64_t& slot = storeOf(tags)->numbers[kPlaylistID];
    slot = *value;
    mut(tags)->playlistID = &slot;
    return true;
}

bool MP4TagsSetTrack(const MP4Tags* tags, const MP4TagTrack* value) {
    if (!tags)
        return false;
    if (!value) {
        mut(tags)->track = nullptr;
        return true;
    }
    storeOf(tags)->track = *value;
    mut(tags)->track = &storeOf(tags)->track;
    return true;
}

bool MP4TagsSetDisk(const MP4Tags* tags, const MP4TagDisk* value) {
    if (!tags)
        return false;
    if (!value) {
        mut(tags)->disk = nullptr;
        return true;
    }
    storeOf(tags)->disk = *value;
    mut(tags)->disk = &storeOf(tags)->disk;
    return true;
}
