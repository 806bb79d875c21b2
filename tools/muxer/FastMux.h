#pragma once

// The pass-through without a demuxer. The converted file's movie header is
// kept whole (its audio, subtitle and chapter tracks, tags, track names and
// languages) with the stand-by video track turned into the source's: sample
// tables made from the source container's own index, the pictures copied
// file to file in long runs. Runs include the few bytes between pictures
// (block headers, small audio blocks), left unreferenced in the media data;
// each picture is addressed by its own chunk offset. The converted file's
// samples are interleaved with them every half second.
//
// libavformat cannot do this: its MP4 muxer takes every packet through
// memory and writes a movie header of its own, so neither file-to-file
// copies of the pictures nor the converted file's header kept whole fit its
// API (the demuxing path, Remux.cpp, is built on it).

#include <memory>
#include <string>

namespace tarnwick::mp4 {
class File;
}

namespace muxer {

class Progress;

struct FastMuxRequest {
    std::string videoPath;  // V: whose video stream is passed through
    std::string sourcePath; // T: the converted file
    std::string formatHint; // file name whose extension picks the file brand
    bool moovInFront = false;
};

class FastMux {
public:
    FastMux();
    ~FastMux();
    FastMux(const FastMux&) = delete;
    FastMux& operator=(const FastMux&) = delete;

    // False with the reason when these inputs need the demuxer; nothing has
    // been written then.
    bool prepare(const FastMuxRequest& request, const tarnwick::mp4::File& converted,
                 std::string* why);
    // Writes the new file at `path` (an existing empty file). False with a
    // message; the file may then hold anything.
    bool write(const std::string& path, Progress& progress, std::string* error);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace muxer
