#pragma once

// The media pass: the video stream of the video source and every audio and
// subtitle stream of the stand-by file, packets copied into a new MP4 file.

#include "Sink.h"

#include <cstdint>
#include <string>
#include <vector>

namespace muxer {

// Whether the video source's pictures are found from its container's index
// (copied without being read) or demuxed.
enum class IndexMode {
    Auto,    // the index where the container allows, else demuxed
    Off,     // always demuxed
    Required // fail when the index cannot be used
};

struct RemuxRequest {
    std::string videoPath;  // V: whose video stream is passed through
    std::string sourcePath; // T: the encoder's output (audio, subtitles, chapters)
    std::string outputPath; // where the new file is written (a temporary name)
    std::string formatHint; // file name whose extension picks the MP4 flavour
    bool moovInFront = false;
    uint64_t extraMoovBytes = 0; // what the metadata copy will add to moov afterwards
    int64_t forcedReserve = -1;  // moov space to reserve, overriding the estimate
    IndexMode index = IndexMode::Auto;
};

struct RemuxResult {
    // For each output stream, the track ID it came from in the stand-by file
    // (for the video stream: the stand-by video track), 0 when none.
    std::vector<int> sourceTrackIds;
    uint64_t reserved = 0;     // moov space reserved ahead of the media data
    bool reserveFits = false;  // moov went into that space
    uint64_t videoPackets = 0; // packets of the video source written
    Layout layout;             // where the muxer's chunk offsets lie in the file
};

class Progress;

// False with a message in *error; the output file may then hold anything.
bool remux(const RemuxRequest& request, RemuxResult* result, Progress& progress,
           std::string* error);

} // namespace muxer
