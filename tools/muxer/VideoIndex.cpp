#include "VideoIndex.h"

#include "mp4/Mp4File.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>

namespace muxer {

namespace {

// --- Matroska -------------------------------------------------------------

constexpr uint32_t kEbml = 0x1A45DFA3;
constexpr uint32_t kSegment = 0x18538067;
constexpr uint32_t kSeekHead = 0x114D9B74;
constexpr uint32_t kInfo = 0x1549A966;
constexpr uint32_t kTracks = 0x1654AE6B;
constexpr uint32_t kCluster = 0x1F43B675;
constexpr uint32_t kCues = 0x1C53BB6B;
constexpr uint32_t kAttachments = 0x1941A469;
constexpr uint32_t kChapters = 0x1043A770;
constexpr uint32_t kTags = 0x1254C367;
constexpr uint32_t kTimestampScale = 0x2AD7B1;
constexpr uint32_t kTrackEntry = 0xAE;
constexpr uint32_t kTrackNumber = 0xD7;
constexpr uint32_t kCodecId = 0x86;
constexpr uint32_t kTrackType = 0x83;
constexpr uint32_t kCodecPrivate = 0x63A2;
constexpr uint32_t kDefaultDuration = 0x23E383;
constexpr uint32_t kTrackTimestampScale = 0x23314F;
constexpr uint32_t kCodecDelay = 0x56AA;
constexpr uint32_t kContentEncodings = 0x6D80;
constexpr uint32_t kTimestamp = 0xE7;
constexpr uint32_t kSimpleBlock = 0xA3;
constexpr uint32_t kBlockGroup = 0xA0;
constexpr uint32_t kBlock = 0xA1;
constexpr uint32_t kBlockDuration = 0x9B;
constexpr uint32_t kReferenceBlock = 0xFB;
constexpr uint32_t kEncryptedBlock = 0xAF;

constexpr uint64_t kUnknownSize = ~uint64_t(0);
// Header elements read whole; a track list beyond this is not a movie's.
constexpr uint64_t kMaxHeaderElement = 64u << 20;

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

// Small reads through a window: block headers are a dozen bytes apart from
// the next audio block, but a picture apart from the next picture.
class Reader {
public:
    Reader(int fd, int64_t size) : m_fd(fd), m_size(size) {}
    int64_t size() const { return m_size; }

    // [pos, pos + n) or nullptr past the end of the file.
    const uint8_t* at(int64_t pos, size_t n) {
        if (pos < 0 || pos + int64_t(n) > m_size)
            return nullptr;
        if (pos < m_start || pos + int64_t(n) > m_start + int64_t(m_fill)) {
            const size_t want = std::max(n, kRead);
            if (m_buffer.size() < want)
                m_buffer.resize(want);
            size_t got = 0;
            while (got < want) {
                const ssize_t r =
                    ::pread(m_fd, m_buffer.data() + got, want - got, off_t(pos + int64_t(got)));
                if (r < 0 && errno == EINTR)
                    continue;
                if (r <= 0)
                    break;
                got += size_t(r);
            }
            m_start = pos;
            m_fill = got;
            if (got < n)
                return nullptr;
        }
        return m_buffer.data() + (pos - m_start);
    }

    // An element ID (marker bits kept) at pos; its length in *len.
    bool id(int64_t pos, uint32_t* value, int* len) {
        const uint8_t* p = at(pos, 1);
        if (!p || p[0] == 0)
            return false;
        const int n = __builtin_clz(uint32_t(p[0])) - 23;
        if (n > 4 || !(p = at(pos, size_t(n))))
            return false;
        uint32_t v = 0;
        for (int i = 0; i < n; ++i)
            v = (v << 8) | p[i];
        *value = v;
        *len = n;
        return true;
    }

    // A variable-length number (marker bit removed); kUnknownSize when all ones.
    bool vint(int64_t pos, uint64_t* value, int* len) {
        const uint8_t* p = at(pos, 1);
        if (!p || p[0] == 0)
            return false;
        const int n = __builtin_clz(uint32_t(p[0])) - 23;
        if (!(p = at(pos, size_t(n))))
            return false;
        uint64_t v = p[0] & (0xFFu >> n);
        bool ones = v == (0xFFu >> n);
        for (int i = 1; i < n; ++i) {
            v = (v << 8) | p[i];
            ones = ones && p[i] == 0xFF;
        }
        *value = ones ? kUnknownSize : v;
        *len = n;
        return true;
    }

private:
    static constexpr size_t kRead = 4096;
    int m_fd;
    int64_t m_size;
    std::vector<uint8_t> m_buffer;
    int64_t m_start = 0;
    size_t m_fill = 0;
};

struct Element {
    uint32_t id = 0;
    int64_t data = 0;  // where its content starts
    uint64_t size = 0; // kUnknownSize for "until the parent's next sibling"
    int64_t end() const { return size == kUnknownSize ? INT64_MAX : data + int64_t(size); }
};

bool element(Reader& r, int64_t pos, Element* e) {
    int a = 0, b = 0;
    if (!r.id(pos, &e->id, &a) || !r.vint(pos + a, &e->size, &b))
        return false;
    e->data = pos + a + b;
    return true;
}

// Children of an element held in memory.
struct Span {
    const uint8_t* p;
    size_t n;
};

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

template <typename F> bool forEachChild(Span s, F&& f) {
    size_t pos = 0;
    while (pos < s.n) {
        uint64_t id = 0, size = 0;
        int a = 0, b = 0;
        if (!memVint(s, pos, &id, &a, true) || !memVint(s, pos + size_t(a), &size, &b, false))
            return false;
        pos += size_t(a + b);
        if (size > s.n - pos)
            return false;
        if (!f(uint32_t(id), Span{s.p + pos, size_t(size)}))
            return false;
        pos += size_t(size);
    }
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

struct TrackInfo {
    bool found = false;
    uint64_t number = 0;
    bool usable = true;
    std::string why;
    uint64_t defaultDuration = 0; // nanoseconds
};

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

// The video track whose decoder configuration is `config`; the demuxer's
// streams do not tell their track numbers, so it must be the only one.
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

// The block's header (track, relative time, flags) at the start of its content.
struct BlockHeader {
    uint64_t track = 0;
    int16_t time = 0;
    uint8_t flags = 0;
    int length = 0;
};

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

} // namespace

bool indexMatroska(int fd, const std::vector<uint8_t>& config, VideoIndex* index,
                   std::string* why) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        *why = std::strerror(errno);
        return false;
    }
    Reader r(fd, int64_t(st.st_size));
    index->samples.clear();
    index->hasDecodeTimes = false;
    index->maxSize = 0;

    Element e;
    int64_t pos = 0;
    if (!element(r, pos, &e) || e.id != kEbml || e.size == kUnknownSize) {
        *why = "no EBML header";
        return false;
    }
    pos = e.end();
    for (;;) {
        if (!element(r, pos, &e)) {
            *why = "no segment";
            return false;
        }
        if (e.id == kSegment)
            break;
        if (e.size == kUnknownSize) {
            *why = "an element of unknown size before the segment";
            return false;
        }
        pos = e.end();
    }
    const int64_t segmentEnd = std::min<int64_t>(e.end(), r.size());

    uint64_t timestampScale = 1000000;
    TrackInfo track;
    std::vector<uint8_t> whole;
    auto refuse = [&](const std::string& reason) {
        *why = reason;
        index->samples.clear();
        return false;
    };

    pos = e.data;
    while (pos < segmentEnd) {
        Element top;
        if (!element(r, pos, &top)) {
            if (!index->samples.empty())
                break; // a file cut short: what is there is used, as the demuxer would
            return refuse("unreadable element at " + std::to_string(pos));
        }
        if (top.id == kInfo || top.id == kTracks) {
            if (!readWhole(r, top, &whole))
                return refuse("unreadable segment header");
            const Span s{whole.data(), whole.size()};
            if (top.id == kInfo) {
                forEachChild(s, [&](uint32_t id, Span v) {
                    if (id == kTimestampScale)
                        timestampScale = memUint(v);
                    return true;
                });
            } else {
                parseTracks(s, config, &track);
            }
            pos = top.end();
            continue;
        }
        if (top.id != kCluster) {
            if (top.size == kUnknownSize)
                return refuse("an element of unknown size in the segment");
            pos = top.end();
            continue;
        }
        if (!track.usable)
            return refuse(track.why);
        if (!track.found)
            return refuse("blocks before the track list");
        if (timestampScale == 0)
            return refuse("no time scale");

        // The cluster's children; one of unknown size ends where the next
        // top-level element starts.
        const int64_t clusterEnd = std::min(top.end(), segmentEnd);
        int64_t clusterTime = -1;
        pos = top.data;
        while (pos < clusterEnd) {
            Element c;
            if (!element(r, pos, &c))
                break;
            if (top.size == kUnknownSize && isTopLevel(c.id))
                break;
            if (c.size == kUnknownSize)
                return refuse("a block of unknown size");
            if (c.end() > r.size()) {
                pos = r.size(); // the last block is cut short: left out, as the demuxer does
                break;
            }
            if (c.id == kTimestamp) {
                const uint8_t* p = c.size <= 8 ? r.at(c.data, size_t(c.size)) : nullptr;
                if (!p)
                    return refuse("unreadable cluster time");
                clusterTime = int64_t(memUint(Span{p, size_t(c.size)}));
            } else if (c.id == kEncryptedBlock) {
                return refuse("encrypted blocks");
            } else if (c.id == kSimpleBlock || c.id == kBlockGroup) {
                BlockHeader h;
                Element block = c;
                bool ours = false, hasReference = false;
                uint64_t blockDuration = 0;
                if (c.id == kSimpleBlock) {
                    if (!blockHeader(r, c, &h))
                        return refuse("unreadable block header");
                    ours = h.track == track.number;
                } else {
                    bool haveBlock = false;
                    for (int64_t g = c.data; g < c.end();) {
                        Element ge;
                        if (!element(r, g, &ge) || ge.size == kUnknownSize || ge.end() > c.end())
                            return refuse("unreadable block group");
                        if (ge.id == kBlock) {
                            if (!blockHeader(r, ge, &h))
                                return refuse("unreadable block header");
                            block = ge;
                            haveBlock = true;
                        } else if (ge.id == kReferenceBlock) {
                            hasReference = true;
                        } else if (ge.id == kBlockDuration && ge.size <= 8) {
                            const uint8_t* p = r.at(ge.data, size_t(ge.size));
                            if (!p)
                                return refuse("unreadable block duration");
                            blockDuration = memUint(Span{p, size_t(ge.size)});
                        }
                        g = ge.end();
                    }
                    ours = haveBlock && h.track == track.number;
                }
                if (ours) {
                    if (h.flags & 0x06)
                        return refuse("laced video blocks");
                    if (clusterTime < 0)
                        return refuse("a block before its cluster's time");
                    const int64_t pts = clusterTime + h.time;
                    if (pts < 0)
                        return refuse("a negative block time");
                    IndexedSample s;
                    s.offset = block.data + h.length;
                    s.size = uint32_t(block.size - uint64_t(h.length));
                    if (block.size - uint64_t(h.length) > UINT32_MAX)
                        return refuse("a block too large");
                    s.key = c.id == kSimpleBlock ? (h.flags & 0x80) != 0 : !hasReference;
                    s.pts = s.dts = pts;
                    s.duration = blockDuration > 0
                                     ? int64_t(blockDuration)
                                     : int64_t(track.defaultDuration / timestampScale);
                    index->maxSize = std::max(index->maxSize, s.size);
                    index->samples.push_back(s);
                }
            }
            pos = c.end();
        }
        if (top.size != kUnknownSize)
            pos = clusterEnd;
    }
    if (!track.found)
        return refuse("no such track");
    if (index->samples.empty())
        return refuse("no video blocks");
    index->timeBaseNum = int64_t(timestampScale);
    index->timeBaseDen = 1000000000;
    return true;
}

namespace {

constexpr uint32_t kLanguage = 0x22B59C;
constexpr uint32_t kVideo = 0xE0;
constexpr uint32_t kPixelWidth = 0xB0;
constexpr uint32_t kPixelHeight = 0xBA;
constexpr uint32_t kDisplayWidth = 0x54B0;
constexpr uint32_t kDisplayHeight = 0x54BA;
constexpr uint32_t kDisplayUnit = 0x54B2;
constexpr uint32_t kPixelCrops[] = {0x54AA, 0x54BB, 0x54CC, 0x54DD};

// "und" for anything but a three-letter code.
uint16_t packLanguage(const std::string& code) {
    if (code.size() != 3 ||
        !std::all_of(code.begin(), code.end(), [](char c) { return c >= 'a' && c <= 'z'; }))
        return 0x55c4;
    return uint16_t(((code[0] - 0x60) << 10) | ((code[1] - 0x60) << 5) | (code[2] - 0x60));
}

// num/den with both terms at most `max`, nearest to the exact ratio.
void reduceRatio(uint64_t num, uint64_t den, uint32_t max, uint32_t* outNum, uint32_t* outDen) {
    const uint64_t g = std::gcd(num, den);
    num /= g;
    den /= g;
    if (num <= max && den <= max) {
        *outNum = uint32_t(num);
        *outDen = uint32_t(den);
        return;
    }
    const double ratio = double(num) / double(den);
    double best = 1e300;
    for (uint32_t d = 1; d <= max; ++d) {
        const double n = std::round(ratio * d);
        if (n < 1 || n > max)
            continue;
        if (std::fabs(n / d - ratio) < best) {
            best = std::fabs(n / d - ratio);
            *outNum = uint32_t(n);
            *outDen = d;
        }
    }
}

} // namespace

bool describeMatroskaVideo(int fd, VideoTrack* track, std::string* why) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        *why = std::strerror(errno);
        return false;
    }
    Reader r(fd, int64_t(st.st_size));
    Element e;
    if (!element(r, 0, &e) || e.id != kEbml || e.size == kUnknownSize) {
        *why = "no EBML header";
        return false;
    }
    int64_t pos = e.end();
    while (element(r, pos, &e) && e.id != kSegment && e.size != kUnknownSize)
        pos = e.end();
    if (e.id != kSegment) {
        *why = "no segment";
        return false;
    }
    const int64_t segmentEnd = std::min<int64_t>(e.end(), r.size());
    std::vector<uint8_t> whole;
    for (pos = e.data; pos < segmentEnd;) {
        Element top;
        if (!element(r, pos, &top) || top.id == kCluster || top.size == kUnknownSize)
            break;
        if (top.id != kTracks) {
            pos = top.end();
            continue;
        }
        if (!readWhole(r, top, &whole))
            break;
        int videos = 0;
        bool usable = true;
        forEachChild(Span{whole.data(), whole.size()}, [&](uint32_t id, Span entry) {
            if (id != kTrackEntry)
                return true;
            uint64_t type = 0;
            forEachChild(entry, [&](uint32_t cid, Span v) {
                if (cid == kTrackType)
                    type = memUint(v);
                return true;
            });
            if (type != 1)
                return true;
            ++videos;
            std::string codec, language = "eng";
            uint64_t displayWidth = 0, displayHeight = 0, displayUnit = 0;
            track->config.clear();
            forEachChild(entry, [&](uint32_t cid, Span v) {
                if (cid == kCodecId)
                    codec.assign(reinterpret_cast<const char*>(v.p), v.n);
                else if (cid == kCodecPrivate)
                    track->config.assign(v.p, v.p + v.n);
                else if (cid == kDefaultDuration)
                    track->defaultDuration = int64_t(memUint(v));
                else if (cid == kLanguage)
                    language.assign(reinterpret_cast<const char*>(v.p),
                                    strnlen(reinterpret_cast<const char*>(v.p), v.n));
                else if (cid == kVideo)
                    forEachChild(v, [&](uint32_t vid, Span x) {
                        if (vid == kPixelWidth)
                            track->width = uint32_t(memUint(x));
                        else if (vid == kPixelHeight)
                            track->height = uint32_t(memUint(x));
                        else if (vid == kDisplayWidth)
                            displayWidth = memUint(x);
                        else if (vid == kDisplayHeight)
                            displayHeight = memUint(x);
                        else if (vid == kDisplayUnit)
                            displayUnit = memUint(x);
                        else if (std::find(std::begin(kPixelCrops), std::end(kPixelCrops), vid) !=
                                     std::end(kPixelCrops) &&
                                 memUint(x) != 0)
                            usable = false;
                        return true;
                    });
                return true;
            });
            if (codec.rfind("V_MPEG4/ISO/AVC", 0) == 0)
                track->hevc = false;
            else if (codec.rfind("V_MPEGH/ISO/HEVC", 0) == 0)
                track->hevc = true;
            else
                usable = false;
            track->language = language == "und" ? 0x55c4 : packLanguage(language);
            track->sarNum = track->sarDen = 0;
            if (displayUnit == 0 && displayWidth > 0 && displayHeight > 0 && track->width > 0 &&
                track->height > 0)
                reduceRatio(uint64_t(track->height) * displayWidth,
                            uint64_t(track->width) * displayHeight, 255, &track->sarNum,
                            &track->sarDen);
            return true;
        });
        if (videos != 1) {
            *why = videos == 0 ? "no video track" : "more than one video track";
            return false;
        }
        if (!usable || track->width == 0 || track->height == 0 || track->config.size() < 7 ||
            track->config[0] != 1) {
            *why = "the video track is not length-prefixed H.264 or HEVC shown as coded";
            return false;
        }
        return true;
    }
    *why = "no track list before the first cluster";
    return false;
}

// --- MP4 family -------------------------------------------------------------

namespace {

using tarnwick::mp4::Box;
using tarnwick::mp4::Bytes;
using tarnwick::mp4::fourcc;
using tarnwick::mp4::readBE;

// Entry count of a full box whose table starts after version/flags and
// `skip` further bytes, checked against the box's length.
bool table(const Box* b, size_t skip, size_t entrySize, uint64_t* count) {
    if (!b || b->data().size() < 8 + skip)
        return false;
    *count = readBE(b->data(), 4 + skip, 4);
    return (b->data().size() - 8 - skip) / entrySize >= *count;
}

} // namespace

bool indexIsoMedia(const std::string& path, uint32_t trackId, VideoIndex* index, std::string* why) {
    index->samples.clear();
    index->hasDecodeTimes = true;
    index->hasCompositionOffsets = false;
    index->maxSize = 0;
    auto file = tarnwick::mp4::File::open(path, false, why);
    if (!file)
        return false;
    const Box* moov = file->moov();
    if (moov->child(fourcc("mvex"))) {
        *why = "a fragmented file";
        return false;
    }
    const Box* trak = nullptr;
    for (const Box* t : moov->childrenOfType(fourcc("trak"))) {
        const Box* tkhd = t->child(fourcc("tkhd"));
        if (tkhd && !tkhd->data().empty() &&
            readBE(tkhd->data(), tkhd->data()[0] == 1 ? 20 : 12, 4) == trackId)
            trak = t;
    }
    if (!trak) {
        *why = "no such track";
        return false;
    }
    const Box* mvhd = moov->child(fourcc("mvhd"));
    const Box* mdhd = trak->find("mdia.mdhd");
    const Box* stbl = trak->find("mdia.minf.stbl");
    if (!mvhd || !mdhd || !stbl || mvhd->data().empty() || mdhd->data().empty()) {
        *why = "incomplete track";
        return false;
    }
    const uint64_t movieScale = readBE(mvhd->data(), mvhd->data()[0] == 1 ? 20 : 12, 4);
    const uint64_t mediaScale = readBE(mdhd->data(), mdhd->data()[0] == 1 ? 20 : 12, 4);
    if (movieScale == 0 || mediaScale == 0) {
        *why = "no time scale";
        return false;
    }
    for (const char* t : {"stz2", "stps", "sdtp", "sbgp", "subs"})
        if (stbl->child(fourcc(std::string_view(t, 4)))) {
            *why = std::string("a ") + t + " table";
            return false;
        }
    const Box* stsd = stbl->child(fourcc("stsd"));
    if (!stsd || stsd->children().size() != 1) {
        *why = "not exactly one sample description";
        return false;
    }

    const Box* stsz = stbl->child(fourcc("stsz"));
    const Box* stco = stbl->child(fourcc("stco"));
    const Box* co64 = stbl->child(fourcc("co64"));
    const Box* stsc = stbl->child(fourcc("stsc"));
    const Box* stts = stbl->child(fourcc("stts"));
    const Box* ctts = stbl->child(fourcc("ctts"));
    const Box* stss = stbl->child(fourcc("stss"));
    uint64_t samples = 0, chunks = 0, runs = 0, times = 0, offsets = 0, syncs = 0;
    if (!stsz || stsz->data().size() < 12) {
        *why = "no sample sizes";
        return false;
    }
    const uint64_t uniform = readBE(stsz->data(), 4, 4);
    samples = readBE(stsz->data(), 8, 4);
    if ((uniform == 0 && !table(stsz, 4, 4, &samples)) || samples == 0) {
        *why = "bad sample sizes";
        return false;
    }
    const bool wide = co64 != nullptr;
    if (!(wide ? table(co64, 0, 8, &chunks) : table(stco, 0, 4, &chunks)) ||
        !table(stsc, 0, 12, &runs) || !table(stts, 0, 8, &times) ||
        (ctts && !table(ctts, 0, 8, &offsets)) || (stss && !table(stss, 0, 4, &syncs))) {
        *why = "bad sample tables";
        return false;
    }

    std::vector<IndexedSample>& out = index->samples;
    out.resize(size_t(samples));
    const Bytes& sz = stsz->data();
    const Bytes& co = (wide ? co64 : stco)->data();
    const Bytes& sc = stsc->data();
    // Offsets: chunk by chunk, the samples of a chunk back to back.
    uint64_t sample = 0;
    for (uint64_t run = 0; run < runs && sample < samples; ++run) {
        const uint64_t first = readBE(sc, 8 + run * 12, 4);
        const uint64_t perChunk = readBE(sc, 8 + run * 12 + 4, 4);
        const uint64_t description = readBE(sc, 8 + run * 12 + 8, 4);
        const uint64_t next = run + 1 < runs ? readBE(sc, 8 + (run + 1) * 12, 4) : chunks + 1;
        if (first == 0 || next <= first || next > chunks + 1 || description != 1 || perChunk == 0) {
            *why = "bad sample-to-chunk table";
            out.clear();
            return false;
        }
        for (uint64_t chunk = first; chunk < next && sample < samples; ++chunk) {
            int64_t at = int64_t(wide ? readBE(co, 8 + (chunk - 1) * 8, 8)
                                      : readBE(co, 8 + (chunk - 1) * 4, 4));
            for (uint64_t k = 0; k < perChunk && sample < samples; ++k, ++sample) {
                const uint64_t size = uniform ? uniform : readBE(sz, 12 + sample * 4, 4);
                IndexedSample& s = out[size_t(sample)];
                s.offset = at;
                s.size = uint32_t(size);
                at += int64_t(size);
                if (at > int64_t(file->fileSize())) {
                    *why = "samples beyond the end of the file";
                    out.clear();
                    return false;
                }
                index->maxSize = std::max(index->maxSize, s.size);
            }
        }
    }
    if (sample != samples) {
        *why = "fewer chunks than samples";
        out.clear();
        return false;
    }

    // Times: decode times from durations, presentation times from offsets.
    const Bytes& tt = stts->data();
    sample = 0;
    int64_t dts = 0;
    for (uint64_t e = 0; e < times && sample < samples; ++e) {
        const uint64_t count = readBE(tt, 8 + e * 8, 4);
        const int64_t delta = int64_t(readBE(tt, 8 + e * 8 + 4, 4));
        if (delta > INT32_MAX) {
            *why = "a negative sample duration";
            out.clear();
            return false;
        }
        for (uint64_t k = 0; k < count && sample < samples; ++k, ++sample) {
            out[size_t(sample)].dts = out[size_t(sample)].pts = dts;
            out[size_t(sample)].duration = delta;
            dts += delta;
        }
    }
    if (sample != samples) {
        *why = "fewer durations than samples";
        out.clear();
        return false;
    }
    if (ctts) {
        index->hasCompositionOffsets = true;
        const Bytes& ct = ctts->data();
        sample = 0;
        for (uint64_t e = 0; e < offsets && sample < samples; ++e) {
            const uint64_t count = readBE(ct, 8 + e * 8, 4);
            const int64_t shift = int32_t(uint32_t(readBE(ct, 8 + e * 8 + 4, 4)));
            if (shift < 0) {
                // The demuxer shifts decode times for these; not followed here.
                *why = "negative composition offsets";
                out.clear();
                return false;
            }
            for (uint64_t k = 0; k < count && sample < samples; ++k, ++sample)
                out[size_t(sample)].pts += shift;
        }
    }
    if (stss) {
        for (uint64_t e = 0; e < syncs; ++e) {
            const uint64_t n = readBE(stss->data(), 8 + e * 4, 4);
            if (n >= 1 && n <= samples)
                out[size_t(n - 1)].key = true;
        }
    } else {
        for (IndexedSample& s : out)
            s.key = true;
    }

    // An edit list that only moves the time line (empty edits, then one edit
    // showing every picture) changes no sample; others would drop or repeat.
    if (const Box* elst = trak->find("edts.elst")) {
        const Bytes& el = elst->data();
        const bool v1 = !el.empty() && el[0] == 1;
        const size_t entry = v1 ? 20 : 12;
        uint64_t count = 0;
        if (!table(elst, 0, entry, &count)) {
            *why = "bad edit list";
            out.clear();
            return false;
        }
        int kept = 0;
        for (uint64_t e = 0; e < count; ++e) {
            const size_t at = 8 + size_t(e) * entry;
            const uint64_t duration = readBE(el, at, v1 ? 8 : 4);
            const int64_t mediaTime = v1 ? int64_t(readBE(el, at + 8, 8))
                                         : int64_t(int32_t(uint32_t(readBE(el, at + 4, 4))));
            const uint64_t rate = readBE(el, at + (v1 ? 16 : 8), 4);
            if (mediaTime == -1 && kept == 0)
                continue;
            if (++kept > 1 || rate != 0x10000 || duration == 0 || mediaTime < 0) {
                *why = "an edit list that cuts the video";
                out.clear();
                return false;
            }
            const int64_t end =
                mediaTime +
                int64_t((__int128(duration) * mediaScale + movieScale / 2) / movieScale);
            for (const IndexedSample& s : out)
                if (s.pts < mediaTime || s.pts >= end) {
                    *why = "an edit list that cuts the video";
                    out.clear();
                    return false;
                }
        }
    }
    index->timeBaseNum = 1;
    index->timeBaseDen = int64_t(mediaScale);
    return true;
}

bool describeIsoMediaVideo(const std::string& path, VideoTrack* track, std::string* why) {
    auto file = tarnwick::mp4::File::open(path, false, why);
    if (!file)
        return false;
    const Box* video = nullptr;
    for (const Box* t : file->moov()->childrenOfType(fourcc("trak"))) {
        const Box* hdlr = t->find("mdia.hdlr");
        if (hdlr && readBE(hdlr->data(), 8, 4) == fourcc("vide")) {
            if (video) {
                *why = "more than one video track";
                return false;
            }
            video = t;
        }
    }
    const Box* tkhd = video ? video->child(fourcc("tkhd")) : nullptr;
    const Box* mdhd = video ? video->find("mdia.mdhd") : nullptr;
    const Box* stsd = video ? video->find("mdia.minf.stbl.stsd") : nullptr;
    if (!tkhd || !mdhd || !stsd || tkhd->data().size() < 84 || mdhd->data().size() < 24) {
        *why = "no usable video track";
        return false;
    }
    const Box* entry = stsd->children().size() == 1 ? stsd->children()[0].get() : nullptr;
    const uint32_t type = entry ? entry->type() : 0;
    const bool avc = type == fourcc("avc1") || type == fourcc("avc3");
    const bool hevc = type == fourcc("hvc1") || type == fourcc("hev1");
    const Box* config = avc    ? entry->child(fourcc("avcC"))
                        : hevc ? entry->child(fourcc("hvcC"))
                               : nullptr;
    if (!config || config->data().size() < 7 || config->data()[0] != 1 ||
        entry->data().size() < 78) {
        *why = "the video is not length-prefixed H.264 or HEVC";
        return false;
    }
    const Bytes& t = tkhd->data();
    track->hevc = hevc;
    track->config = config->data();
    track->sampleEntry.clear();
    entry->serialize(track->sampleEntry);
    track->trackId = uint32_t(readBE(t, t[0] == 1 ? 20 : 12, 4));
    track->width = uint32_t(readBE(entry->data(), 24, 2));
    track->height = uint32_t(readBE(entry->data(), 26, 2));
    track->matrix.assign(t.end() - 44, t.end() - 8);
    track->displayWidth = uint32_t(readBE(t, t.size() - 8, 4));
    track->displayHeight = uint32_t(readBE(t, t.size() - 4, 4));
    track->language = uint16_t(readBE(mdhd->data(), mdhd->data()[0] == 1 ? 32 : 20, 2));
    return true;
}

int reorderDepth(const VideoIndex& index) {
    std::vector<int64_t> sorted;
    sorted.reserve(index.samples.size());
    for (const IndexedSample& s : index.samples)
        sorted.push_back(s.pts);
    std::sort(sorted.begin(), sorted.end());
    int64_t depth = 0;
    for (size_t i = 0; i < index.samples.size(); ++i) {
        const auto rank = std::lower_bound(sorted.begin(), sorted.end(), index.samples[i].pts);
        depth = std::max<int64_t>(depth, int64_t(i) - (rank - sorted.begin()));
    }
    return int(std::min<int64_t>(depth, 16));
}

void DecodeTimes::setDelay(int delay) {
    m_buffer.assign(size_t(std::clamp(delay, 0, 16)) + 1, kNone);
}

int64_t DecodeTimes::next(int64_t pts, int64_t duration) {
    const size_t delay = m_buffer.size() - 1;
    m_buffer[0] = pts;
    for (size_t i = 1; i <= delay && m_buffer[i] == kNone; ++i)
        m_buffer[i] = pts + (int64_t(i) - int64_t(delay) - 1) * std::max<int64_t>(duration, 1);
    for (size_t i = 0; i < delay && m_buffer[i] > m_buffer[i + 1]; ++i)
        std::swap(m_buffer[i], m_buffer[i + 1]);
    return m_buffer[0];
}

} // namespace muxer
