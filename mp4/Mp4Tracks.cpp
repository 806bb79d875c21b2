// Tracks and track properties of the MP4 file API.

#include "mp4/Handle.h"
#include "mp4/SampleTables.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace tarnwick::mp4;

namespace {

Box* trakOf(MP4FileHandle hFile, MP4TrackId trackId) {
    Handle* h = Handle::from(hFile);
    return h ? h->trak(trackId) : nullptr;
}

std::string handlerType(const Box* trak) {
    const Box* hdlr = trak->find("mdia.hdlr");
    if (!hdlr || hdlr->data().size() < 12)
        return {};
    return fourccString(uint32_t(readBE(hdlr->data(), 8, 4)));
}

Box* sampleEntry(const Box* trak) {
    const Box* stsd = trak->find("mdia.minf.stbl.stsd");
    if (!stsd || stsd->children().empty())
        return nullptr;
    return stsd->children().front().get();
}

Box* findBox(Box* b, uint32_t type) {
    if (b->type() == type)
        return b;
    for (const auto& c : b->children())
        if (Box* r = findBox(c.get(), type))
            return r;
    return nullptr;
}

// Reads an expandable descriptor header; answers false when it runs past n.
bool descriptor(const Bytes& d, size_t& pos, uint8_t& tag, size_t& len) {
    if (pos >= d.size())
        return false;
    tag = d[pos++];
    len = 0;
    for (int i = 0; i < 4; ++i) {
        if (pos >= d.size())
            return false;
        const uint8_t b = d[pos++];
        len = (len << 7) | (b & 0x7f);
        if (!(b & 0x80))
            break;
    }
    return len <= d.size() - pos;
}

struct DecoderConfig {
    uint8_t objectType = 0;
    Bytes specificInfo;
    bool found = false;
};

DecoderConfig decoderConfig(const Box* trak) {
    DecoderConfig out;
    Box* entry = sampleEntry(trak);
    Box* esds = entry ? findBox(entry, fourcc("esds")) : nullptr;
    if (!esds)
        return out;
    const Bytes& d = esds->data();
    size_t pos = 4; // version and flags
    uint8_t tag = 0;
    size_t len = 0;
    if (!descriptor(d, pos, tag, len) || tag != 0x03)
        return out;
    const size_t esEnd = pos + len;
    if (pos + 3 > esEnd)
        return out;
    const uint8_t flags = d[pos + 2];
    pos += 3;
    if (flags & 0x80)
        pos += 2;
    if (flags & 0x40) {
        if (pos >= esEnd)
            return out;
        pos += 1 + d[pos];
    }
    if (flags & 0x20)
        pos += 2;
    while (pos < esEnd && descriptor(d, pos, tag, len)) {
        if (tag != 0x04) {
            pos += len;
            continue;
        }
        if (len < 13)
            return out;
        out.objectType = d[pos];
        out.found = true;
        const size_t dcEnd = pos + len;
        pos += 13;
        while (pos < dcEnd && descriptor(d, pos, tag, len)) {
            if (tag == 0x05) {
                out.specificInfo.assign(d.begin() + pos, d.begin() + pos + len);
                break;
            }
            pos += len;
        }
        break;
    }
    return out;
}

} // namespace

namespace tarnwick::mp4 {

MdhdFields mdhd(const Box* trak) {
    MdhdFields f;
    const Box* b = trak ? trak->find("mdia.mdhd") : nullptr;
    if (!b)
        return f;
    const bool v1 = readBE(b->data(), 0, 1) == 1;
    const size_t need = v1 ? 34 : 22;
    if (b->data().size() < need)
        return f;
    f.timeScale = uint32_t(readBE(b->data(), v1 ? 20 : 12, 4));
    f.duration = readBE(b->data(), v1 ? 24 : 16, v1 ? 8 : 4);
    f.languageOffset = v1 ? 32 : 20;
    f.ok = true;
    return f;
}

// Sample sizes from stsz (or compact stz2); 0 when out of range.
uint32_t sampleCount(const Box* trak) {
    if (const Box* stsz = trak->find("mdia.minf.stbl.stsz"))
        return uint32_t(readBE(stsz->data(), 8, 4));
    if (const Box* stz2 = trak->find("mdia.minf.stbl.stz2"))
        return uint32_t(readBE(stz2->data(), 8, 4));
    return 0;
}

uint32_t sampleSize(const Box* trak, MP4SampleId id) {
    if (id == 0 || id > sampleCount(trak))
        return 0;
    if (const Box* stsz = trak->find("mdia.minf.stbl.stsz")) {
        const uint32_t fixed = uint32_t(readBE(stsz->data(), 4, 4));
        if (fixed)
            return fixed;
        return uint32_t(readBE(stsz->data(), 12 + size_t(id - 1) * 4, 4));
    }
    if (const Box* stz2 = trak->find("mdia.minf.stbl.stz2")) {
        const int field = int(readBE(stz2->data(), 7, 1));
        const size_t i = id - 1;
        if (field == 4) {
            const uint8_t b = uint8_t(readBE(stz2->data(), 12 + i / 2, 1));
            return (i % 2 == 0) ? b >> 4 : b & 0x0f;
        }
        if (field == 8 || field == 16)
            return uint32_t(readBE(stz2->data(), 12 + i * (field / 8), field / 8));
    }
    return 0;
}

MP4Duration sampleDuration(const Box* trak, MP4SampleId id) {
    const Box* stts = trak->find("mdia.minf.stbl.stts");
    if (!stts || id == 0)
        return MP4_INVALID_DURATION;
    const uint64_t entries = readBE(stts->data(), 4, 4);
    uint64_t first = 1;
    for (uint64_t e = 0; e < entries; ++e) {
        const uint64_t count = readBE(stts->data(), 8 + e * 8, 4);
        const uint64_t delta = readBE(stts->data(), 12 + e * 8, 4);
        if (8 + e * 8 + 8 > stts->data().size())
            break;
        if (id < first + count)
            return delta;
        first += count;
    }
    return MP4_INVALID_DURATION;
}

// File offset of a sample, through stsc and the chunk offset table.
bool sampleOffset(const Box* trak, MP4SampleId id, uint64_t* offset) {
    const Box* stbl = trak->find("mdia.minf.stbl");
    const Box* stsc = stbl ? stbl->child(fourcc("stsc")) : nullptr;
    const Box* stco = stbl ? stbl->child(fourcc("stco")) : nullptr;
    const Box* co64 = stbl ? stbl->child(fourcc("co64")) : nullptr;
    const Box* table = stco ? stco : co64;
    if (!stsc || !table || id == 0)
        return false;
    const int width = stco ? 4 : 8;
    const uint64_t chunks = readBE(table->data(), 4, 4);
    const uint64_t entries = readBE(stsc->data(), 4, 4);
    uint64_t sample = 1;
    for (uint64_t e = 0; e < entries; ++e) {
        const uint64_t firstChunk = readBE(stsc->data(), 8 + e * 12, 4);
        const uint64_t perChunk = readBE(stsc->data(), 12 + e * 12, 4);
        const uint64_t nextFirst =
            e + 1 < entries ? readBE(stsc->data(), 8 + (e + 1) * 12, 4) : chunks + 1;
        // Chapter tracks keep a sample or a few per chunk; thousands means damage.
        if (firstChunk == 0 || perChunk == 0 || perChunk > 4096 || nextFirst < firstChunk)
            return false;
        const uint64_t span = (nextFirst - firstChunk) * perChunk;
        if (id < sample + span) {
            const uint64_t chunk = firstChunk + (id - sample) / perChunk;
            const uint64_t firstInChunk = sample + ((id - sample) / perChunk) * perChunk;
            if (chunk > chunks)
                return false;
            uint64_t off = readBE(table->data(), 8 + (chunk - 1) * width, width);
            for (uint64_t s = firstInChunk; s < id; ++s)
                off += sampleSize(trak, MP4SampleId(s));
            *offset = off;
            return true;
        }
        sample += span;
    }
    return false;
}

} // namespace tarnwick::mp4

namespace {

// Integer fields by box type and name: byte offset and width within the box's
// fixed fields (full boxes count their version and flags).
struct Field {
    const char* box;
    const char* name;
    size_t offset;
    int width;
};

constexpr Field kAudioEntryFields[] = {
    {"", "dataReferenceIndex", 6, 2}, {"", "soundVersion", 8, 2}, {"", "channels", 16, 2},
    {"", "sampleSize", 18, 2},        {"", "packetSize", 22, 2},  {"", "timeScale", 24, 2},
};
constexpr Field kVisualEntryFields[] = {
    {"", "dataReferenceIndex", 6, 2}, {"", "width", 24, 2}, {"", "height", 26, 2},
    {"", "frameCount", 40, 2},        {"", "depth", 74, 2},
};
constexpr Field kBoxFields[] = {
    {"stsd", "entryCount", 4, 4}, {"stsz", "sampleSize", 4, 4},  {"stsz", "sampleCount", 8, 4},
    {"stts", "entryCount", 4, 4}, {"stsc", "entryCount", 4, 4},  {"stco", "entryCount", 4, 4},
    {"co64", "entryCount", 4, 4}, {"hdlr", "handlerType", 8, 4}, {"dref", "entryCount", 4, 4},
};

bool integerProperty(const Box* trak, const std::string& prop, uint64_t* value) {
    const size_t dot = prop.rfind('.');
    if (dot == std::string::npos)
        return false;
    const Box* box = trak->find(prop.substr(0, dot));
    const std::string name = prop.substr(dot + 1);
    if (!box)
        return false;
    const Bytes& d = box->data();
    auto field = [&](size_t offset, int width) {
        if (offset + width > d.size())
            return false;
        *value = readBE(d, offset, width);
        return true;
    };
    const uint32_t t = box->type();
    const Box* parent = box->parent();
    const bool inStsd = parent && parent->type() == fourcc("stsd");
    if (name == "version" && !inStsd)
        return field(0, 1);
    if (name == "flags" && !inStsd)
        return field(1, 3);
    if (t == fourcc("dac3")) {
        if (d.size() < 3)
            return false;
        const uint32_t bits = uint32_t(d[0]) << 16 | uint32_t(d[1]) << 8 | d[2];
        auto take = [&](int shift, int width) {
            *value = (bits >> shift) & ((1u << width) - 1);
            return true;
        };
        if (name == "fscod")
            return take(22, 2);
        if (name == "bsid")
            return take(17, 5);
        if (name == "bsmod")
            return take(14, 3);
        if (name == "acmod")
            return take(11, 3);
        if (name == "lfeon")
            return take(10, 1);
        if (name == "bit_rate_code")
            return take(5, 5);
        return false;
    }
    if (inStsd) {
        const int prefix = containerPrefix(t, fourcc("stsd"), d.data(), d.size());
        if (prefix >= 28 && prefix != 78) {
            for (const auto& f : kAudioEntryFields)
                if (name == f.name)
                    return field(f.offset, f.width);
        } else if (prefix == 78) {
            for (const auto& f : kVisualEntryFields)
                if (name == f.name)
                    return field(f.offset, f.width);
        }
        return false;
    }
    if (t == fourcc("tkhd") || t == fourcc("mdhd") || t == fourcc("mvhd")) {
        const bool v1 = readBE(d, 0, 1) == 1;
        if (t == fourcc("tkhd")) {
            if (name == "trackId")
                return field(v1 ? 20 : 12, 4);
            if (name == "duration")
                return field(v1 ? 28 : 20, v1 ? 8 : 4);
            if (name == "width")
                return field(v1 ? 88 : 76, 2);
            if (name == "height")
                return field(v1 ? 92 : 80, 2);
            return false;
        }
        if (name == "timeScale")
            return field(v1 ? 20 : 12, 4);
        if (name == "duration")
            return field(v1 ? 24 : 16, v1 ? 8 : 4);
        if (t == fourcc("mdhd") && name == "language")
            return field(v1 ? 32 : 20, 2);
        return false;
    }
    for (const auto& f : kBoxFields)
        if (t == fourcc(f.box) && name == f.name)
            return field(f.offset, f.width);
    return false;
}

} // namespace

// --- tracks -----------------------------------------------------------------

static bool trackMatches(const Box* trak, const char* type, uint8_t subType) {
    if (!type)
        return true;
    if (handlerType(trak) != type)
        return false;
    return subType == 0 || decoderConfig(trak).objectType == subType;
}

uint32_t MP4GetNumberOfTracks(MP4FileHandle hFile, const char* type, uint8_t subType) {
    Handle* h = Handle::from(hFile);
    if (!h)
        return 0;
    uint32_t n = 0;
    for (const Box* t : h->traks())
        n += trackMatches(t, type, subType) ? 1 : 0;
    return n;
}

MP4TrackId MP4FindTrackId(MP4FileHandle hFile, uint16_t index, const char* type, uint8_t subType) {
    Handle* h = Handle::from(hFile);
    if (!h)
        return MP4_INVALID_TRACK_ID;
    uint32_t seen = 0;
    for (const Box* t : h->traks()) {
        if (!trackMatches(t, type, subType))
            continue;
        if (seen++ == index)
            return trackIdOf(t);
    }
    return MP4_INVALID_TRACK_ID;
}

uint16_t MP4FindTrackIndex(MP4FileHandle hFile, MP4TrackId trackId) {
    Handle* h = Handle::from(hFile);
    if (!h)
        return 0xffff;
    uint16_t i = 0;
    for (const Box* t : h->traks()) {
        if (trackIdOf(t) == trackId)
            return i;
        ++i;
    }
    return 0xffff;
}

const char* MP4GetTrackType(MP4FileHandle hFile, MP4TrackId trackId) {
    Box* trak = trakOf(hFile, trackId);
    if (!trak)
        return nullptr;
    std::string& s = Handle::from(hFile)->typeNames[trackId];
    s = handlerType(trak);
    return s.empty() ? nullptr : s.c_str();
}

const char* MP4GetTrackMediaDataName(MP4FileHandle hFile, MP4TrackId trackId) {
    Box* trak = trakOf(hFile, trackId);
    Box* entry = trak ? sampleEntry(trak) : nullptr;
    if (!entry)
        return nullptr;
    std::string& s = Handle::from(hFile)->codingNames[trackId];
    s = entry->typeName();
    return s.c_str();
}

bool MP4GetTrackLanguage(MP4FileHandle hFile, MP4TrackId trackId, char* code) {
    Box* trak = trakOf(hFile, trackId);
    const MdhdFields f = mdhd(trak);
    if (!f.ok || !code)
        return false;
    const uint16_t packed = uint16_t(readBE(trak->find("mdia.mdhd")->data(), f.languageOffset, 2));
    for (int i = 0; i < 3; ++i)
        code[i] = char(((packed >> (10 - 5 * i)) & 0x1f) + 0x60);
    code[3] = '\0';
    return true;
}

bool MP4SetTrackLanguage(MP4FileHandle hFile, MP4TrackId trackId, const char* code) {
    Box* trak = trakOf(hFile, trackId);
    const MdhdFields f = mdhd(trak);
    if (!f.ok || !code || std::strlen(code) != 3 || !Handle::from(hFile)->file->writable())
        return false;
    uint16_t packed = 0;
    for (int i = 0; i < 3; ++i) {
        const char c = char(code[i] | 0x20); // ISO 639-2/T codes are lower case
        if (c < 'a' || c > 'z')
            return false;
        packed = uint16_t(packed | ((c - 0x60) << (10 - 5 * i)));
    }
    writeBE(trak->find("mdia.mdhd")->data(), f.languageOffset, 2, packed);
    Handle::from(hFile)->file->setDirty();
    return true;
}

bool MP4GetTrackName(MP4FileHandle hFile, MP4TrackId trackId, char** name) {
    Box* trak = trakOf(hFile, trackId);
    const Box* box = trak ? trak->find("udta.name") : nullptr;
    if (!box || !name)
        return false;
    const Bytes& d = box->data();
    const size_t len = std::find(d.begin(), d.end(), 0) - d.begin();
    *name = static_cast<char*>(std::malloc(len + 1));
    std::memcpy(*name, d.data(), len);
    (*name)[len] = '\0';
    return true;
}

bool MP4SetTrackName(MP4FileHandle hFile, MP4TrackId trackId, const char* name) {
    Box* trak = trakOf(hFile, trackId);
    if (!trak || !Handle::from(hFile)->file->writable())
        return false;
    // The handler name is where most demuxers look for a track title.
    if (Box* hdlr = trak->find("mdia.hdlr"); hdlr && hdlr->data().size() >= 24) {
        hdlr->data().resize(24);
        const char* text = name ? name : "";
        hdlr->data().insert(hdlr->data().end(), text, text + std::strlen(text) + 1);
    }
    Box* udta = trak->obtain(fourcc("udta"));
    udta->removeAll(fourcc("name"));
    if (name && *name) {
        auto box = std::make_unique<Box>(fourcc("name"));
        box->data().assign(name, name + std::strlen(name));
        udta->append(std::move(box));
    } else if (udta->children().empty()) {
        trak->remove(udta);
    }
    Handle::from(hFile)->file->setDirty();
    return true;
}

uint8_t MP4GetTrackEsdsObjectTypeId(MP4FileHandle hFile, MP4TrackId trackId) {
    Box* trak = trakOf(hFile, trackId);
    return trak ? decoderConfig(trak).objectType : MP4_INVALID_AUDIO_TYPE;
}

bool MP4GetTrackESConfiguration(MP4FileHandle hFile, MP4TrackId trackId, uint8_t** ppConfig,
                                uint32_t* pConfigSize) {
    if (ppConfig)
        *ppConfig = nullptr;
    if (pConfigSize)
        *pConfigSize = 0;
    Box* trak = trakOf(hFile, trackId);
    if (!trak || !ppConfig || !pConfigSize)
        return false;
    const DecoderConfig c = decoderConfig(trak);
    if (!c.found)
        return false;
    if (!c.specificInfo.empty()) {
        *ppConfig = static_cast<uint8_t*>(std::malloc(c.specificInfo.size()));
        std::memcpy(*ppConfig, c.specificInfo.data(), c.specificInfo.size());
        *pConfigSize = uint32_t(c.specificInfo.size());
    }
    return true;
}

uint32_t MP4GetTrackTimeScale(MP4FileHandle hFile, MP4TrackId trackId) {
    return mdhd(trakOf(hFile, trackId)).timeScale;
}

MP4Duration MP4GetTrackDuration(MP4FileHandle hFile, MP4TrackId trackId) {
    const MdhdFields f = mdhd(trakOf(hFile, trackId));
    return f.ok ? f.duration : MP4_INVALID_DURATION;
}

MP4SampleId MP4GetTrackNumberOfSamples(MP4FileHandle hFile, MP4TrackId trackId) {
    Box* trak = trakOf(hFile, trackId);
    return trak ? sampleCount(trak) : 0;
}

uint32_t MP4GetSampleSize(MP4FileHandle hFile, MP4TrackId trackId, MP4SampleId sampleId) {
    Box* trak = trakOf(hFile, trackId);
    return trak ? sampleSize(trak, sampleId) : 0;
}

MP4Duration MP4GetSampleDuration(MP4FileHandle hFile, MP4TrackId trackId, MP4SampleId sampleId) {
    Box* trak = trakOf(hFile, trackId);
    return trak ? sampleDuration(trak, sampleId) : MP4_INVALID_DURATION;
}

bool MP4HaveTrackAtom(MP4FileHandle hFile, MP4TrackId trackId, const char* atomName) {
    Box* trak = trakOf(hFile, trackId);
    return trak && atomName && *atomName && trak->find(atomName) != nullptr;
}

bool MP4GetTrackIntegerProperty(MP4FileHandle hFile, MP4TrackId trackId, const char* propName,
                                uint64_t* retvalue) {
    Box* trak = trakOf(hFile, trackId);
    uint64_t v = 0;
    if (!trak || !propName || !integerProperty(trak, propName, &v))
        return false;
    if (retvalue)
        *retvalue = v;
    return true;
}
