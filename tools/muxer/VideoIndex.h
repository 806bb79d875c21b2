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

// What a new MP4 video track needs of the source's only video track, read
// from the container's header alone (no decoder involved).
struct VideoTrack {
    bool hevc = false;
    std::vector<uint8_t> config;      // avcC / hvcC record (Matroska CodecPrivate)
    std::vector<uint8_t> sampleEntry; // MP4 sources: the sample description entry, whole
    uint32_t trackId = 0;             // MP4 sources
    uint32_t width = 0, height = 0;   // coded picture
    uint32_t sarNum = 0, sarDen = 0;  // pixel aspect the container states; 0 when none
    uint32_t displayWidth = 0;        // MP4 sources: track header width and height, 16.16
    uint32_t displayHeight = 0;
    std::vector<uint8_t> matrix; // MP4 sources: the track header's 36-byte matrix
    uint16_t language = 0x55c4;  // packed ISO 639-2 as in mdhd ("und")
    int64_t defaultDuration = 0; // Matroska: nanoseconds, 0 when not stated
};

// False with the reason when the file has no single length-prefixed H.264 or
// HEVC video track these readers take as it is.
bool describeMatroskaVideo(int fd, VideoTrack* track, std::string* why);
bool describeIsoMediaVideo(const std::string& path, VideoTrack* track, std::string* why);

// How far decode order runs ahead of presentation order: the fewest
// pictures a decoder holds back, so decode times never pass presentation.
int reorderDepth(const VideoIndex& index);

// Decode times for pictures that carry only a presentation time
// (Matroska): the smallest of the last `delay`+1 presentation times, as a
// reordering decoder would release them.
class DecodeTimes {
public:
    static constexpr int64_t kNone = INT64_MIN;
    void setDelay(int delay);
    int64_t next(int64_t pts, int64_t duration);

private:
    std::vector<int64_t> m_buffer{kNone};
};

} // namespace muxer
