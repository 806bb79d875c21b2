#include "MatroskaReader.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace muxer {

bool isTopLevel(uint32_t id) {
    switch (id) {
    case kSeekHead:
    case kInfo:
    case kTracks:
    case kCluster:
    case kCues:
    case kAttachments:
    case kChapters:
    case kTags:
    case kSegment:
    case kEbml:
        return true;
    default:
        return false;
    }
}

bool element(Reader& r, int64_t pos, Element* e) {
    int a = 0, b = 0;
    if (!r.id(pos, &e->id, &a) || !r.vint(pos + a, &e->size, &b))
        return false;
    e->data = pos + a + b;
    return true;
}

bool memVint(Span s, size_t pos, uint64_t* value, int* len, bool keepMarker) {
    if (pos >= s.n || s.p[pos] == 0)
        return false;
    const int n = __builtin_clz(uint32_t(s.p[pos])) - 23;
    if (pos + size_t(n) > s.n)
        return false;
    uint64_t v = keepMarker ? s.p[pos] : (s.p[pos] & (0xFFu >> n));
    for (int i = 1; i < n; ++i)
        v = (v << 8) | s.p[pos + size_t(i)];
    *value = v;
    *len = n;
    return true;
}

uint64_t memUint(Span s) {
    uint64_t v = 0;
    for (size_t i = 0; i < s.n && i < 8; ++i)
        v = (v << 8) | s.p[i];
    return v;
}

double memFloat(Span s) {
    if (s.n == 4) {
        const uint32_t bits = uint32_t(memUint(s));
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
    if (s.n == 8) {
        const uint64_t bits = memUint(s);
        double d;
        std::memcpy(&d, &bits, 8);
        return d;
    }
    return s.n == 0 ? 0.0 : -1.0;
}

bool readWhole(Reader& r, const Element& e, std::vector<uint8_t>* out) {
    if (e.size == kUnknownSize || e.size > kMaxHeaderElement)
        return false;
    out->resize(size_t(e.size));
    size_t done = 0;
    while (done < out->size()) {
        const size_t n = std::min<size_t>(out->size() - done, 1u << 20);
        const uint8_t* p = r.at(e.data + int64_t(done), n);
        if (!p)
            return false;
        std::memcpy(out->data() + done, p, n);
        done += n;
    }
    return true;
}

void parseTracks(Span tracks, const std::vector<uint8_t>& config, TrackInfo* info) {
    int matches = 0;
    forEachChild(tracks, [&](uint32_t id, Span entry) {
        if (id != kTrackEntry)
            return true;
        uint64_t num = 0, type = 0;
        bool same = false;
        forEachChild(entry, [&](uint32_t cid, Span v) {
            if (cid == kTrackNumber)
                num = memUint(v);
            else if (cid == kTrackType)
                type = memUint(v);
            else if (cid == kCodecPrivate)
                same = v.n == config.size() && std::memcmp(v.p, config.data(), v.n) == 0;
            return true;
        });
        if (type != 1 || !same)
            return true;
        if (++matches > 1) {
            info->usable = false;
            info->why = "more than one video track like the chosen one";
            return false;
        }
        info->found = true;
        info->number = num;
        forEachChild(entry, [&](uint32_t cid, Span v) {
            if (cid == kContentEncodings) {
                info->usable = false;
                info->why = "the video track's blocks are compressed or encrypted";
            } else if (cid == kDefaultDuration) {
                info->defaultDuration = memUint(v);
            } else if (cid == kTrackTimestampScale && memFloat(v) != 1.0) {
                info->usable = false;
                info->why = "the video track has its own time scale";
            } else if (cid == kCodecDelay && memUint(v) != 0) {
                info->usable = false;
                info->why = "the video track has a codec delay";
            } else if (cid == kCodecId) {
                const std::string codec(reinterpret_cast<const char*>(v.p), v.n);
                if (codec.rfind("V_MPEG4/ISO/AVC", 0) != 0 &&
                    codec.rfind("V_MPEGH/ISO/HEVC", 0) != 0) {
                    info->usable = false;
                    info->why = "the video track's codec " + codec + " is not indexed";
                }
            }
            return true;
        });
        return true;
    });
}

bool blockHeader(Reader& r, const Element& e, BlockHeader* h) {
    int n = 0;
    if (e.size == kUnknownSize || !r.vint(e.data, &h->track, &n) || e.size < uint64_t(n) + 3)
        return false;
    const uint8_t* p = r.at(e.data + n, 3);
    if (!p)
        return false;
    h->time = int16_t(uint16_t((p[0] << 8) | p[1]));
    h->flags = p[2];
    h->length = n + 3;
    return true;
}

} // namespace muxer
