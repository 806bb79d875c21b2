#include "MatroskaReader.h"
#include "VideoIndex.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>

// Matroska and WebM: the video track's pictures from its clusters, and what a
// new MP4 track needs of it from the track list.
namespace muxer {

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
            // Pixels, centimetres, inches or a bare ratio: each gives the
            // picture's shape (ffmpeg writes the ratio form); 4 is unknown.
            if (displayUnit <= 3 && displayWidth > 0 && displayHeight > 0 && track->width > 0 &&
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

} // namespace muxer
