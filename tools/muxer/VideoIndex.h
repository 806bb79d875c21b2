#pragma once

// Where each picture of the source's video track lies in the file, with its
// times, found from the container's own structures without reading the
// pictures. The muxer then copies the pictures file to file. Anything these
// readers cannot map onto unchanged samples (laced or compressed blocks,
// edit lists that drop pictures, several sample descriptions) is refused,
// and the caller demuxes the ordinary way.

#include <cstdint>
#include <string>
#include <vector>

namespace muxer {

struct IndexedSample {
    int64_t offset = 0; // of the picture's bytes in the file
    uint32_t size = 0;
    bool key = false;
    int64_t pts = 0;
    int64_t dts = 0;      // equal to pts when the container stores presentation times only
    int64_t duration = 0; // 0 when the container gives none
};

struct VideoIndex {
    std::vector<IndexedSample> samples; // in decode (file) order
    bool hasDecodeTimes = false;        // false: Matroska, presentation times only
    bool hasCompositionOffsets = false; // MP4 with a ctts table
    uint32_t maxSize = 0;
    // Time base of pts/dts/duration: numerator/denominator seconds.
    int64_t timeBaseNum = 1, timeBaseDen = 1;
};

// The video track with that CodecPrivate in the Matroska/WebM file open as
// `fd`. False with the reason in *why when there is no single such track or
// its blocks cannot be taken as they are.
bool indexMatroska(int fd, const std::vector<uint8_t>& config, VideoIndex* index, std::string* why);

// The track with that track ID in the MP4/M4V/MOV file at `path`, from its
// sample tables.
bool indexIsoMedia(const std::string& path, uint32_t trackId, VideoIndex* index, std::string* why);

} // namespace muxer
