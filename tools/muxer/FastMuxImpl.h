#pragma once

// What the fast path's steps share: its tuning, small box helpers and the
// state of one mux.

#include "FastMux.h"
#include "FileBoxes.h"
#include "VideoIndex.h"

#include "mp4/Mp4File.h"

#include <cmath>
#include <cstring>

using tarnwick::mp4::appendBE;
using tarnwick::mp4::Box;
using tarnwick::mp4::Bytes;
using tarnwick::mp4::File;
using tarnwick::mp4::fourcc;
using tarnwick::mp4::readBE;
using tarnwick::mp4::writeBE;

namespace muxer {

// The converted file's samples go in between the pictures this often.
constexpr double kInterleaveSeconds = 0.5;
// Bytes between two pictures copied along with them rather than skipped:
// at most this many at a time, and at most 1/kGapShare of the pictures'
// bytes in a run, so a source with large audio or subtitle tracks does not
// bloat the result.
constexpr int64_t kMaxGap = 64 << 10;
constexpr int64_t kGapShare = 16;
constexpr int64_t kMaxRun = int64_t(1) << 30;
// Runs from this size on start where they start within a page in the
// source: the kernel copies whole pages much faster than shifted ones.
constexpr int64_t kAlignFrom = 256 << 10;
constexpr int64_t kPage = 4096;
// One copy call at most this long, so progress keeps moving.
constexpr size_t kCopyStep = 64u << 20;
constexpr uint16_t kUndetermined = 0x55c4;

// Of a movie or media header.
inline uint64_t timescaleOf(const Box* header) {
    if (!header || header->data().empty())
        return 0;
    return readBE(header->data(), header->data()[0] == 1 ? 20 : 12, 4);
}

inline uint32_t handlerOf(const Box* trak) {
    return handlerType(trak->find("mdia.hdlr"));
}

inline bool isEnabled(const Box* trak) {
    const Box* tkhd = trak->child(fourcc("tkhd"));
    return tkhd && tkhd->data().size() >= 4 && (tkhd->data()[3] & 1);
}

// Tracks of the converted file that the result keeps: what the demuxing
// path takes as audio or subtitles, and chapter text.
inline bool isKept(uint32_t handler) {
    return handler == fourcc("soun") || handler == fourcc("sbtl") || handler == fourcc("subt") ||
           handler == fourcc("text") || handler == fourcc("clcp");
}

inline std::unique_ptr<Box> box(const char (&type)[5], const Bytes& payload, uint32_t parentType) {
    Bytes raw;
    appendBE(raw, 4, payload.size() + 8);
    appendBE(raw, 4, fourcc(type));
    raw.insert(raw.end(), payload.begin(), payload.end());
    size_t used = 0;
    return Box::parse(raw.data(), raw.size(), &used, parentType);
}

inline Bytes fullBoxHeader(int version) {
    return Bytes{uint8_t(version), 0, 0, 0};
}

inline int64_t rescale(int64_t v, int64_t num, int64_t den) {
    const __int128 x = __int128(v) * num;
    return int64_t(x >= 0 ? (x + den / 2) / den : -((-x + den / 2) / den));
}

inline bool sysFail(std::string* error, const std::string& what) {
    *error = what + ": " + std::strerror(errno);
    return false;
}

// Presentation of the stand-by video's first picture on the movie's time
// line, in seconds: where the source's first picture goes.
inline double standbyStart(const Box* standby, uint64_t movieScale) {
    const Box* elst = standby->find("edts.elst");
    if (!elst) {
        // No edits: the first picture shows at its composition offset.
        const Box* mdhd = standby->find("mdia.mdhd");
        const Box* ctts = standby->find("mdia.minf.stbl.ctts");
        const uint64_t scale = timescaleOf(mdhd);
        if (!ctts || scale == 0 || readBE(ctts->data(), 4, 4) == 0)
            return 0;
        return double(int32_t(uint32_t(readBE(ctts->data(), 12, 4)))) / double(scale);
    }
    const Bytes& el = elst->data();
    const bool v1 = !el.empty() && el[0] == 1;
    const size_t entry = v1 ? 20 : 12;
    const uint64_t count = readBE(el, 4, 4);
    uint64_t empty = 0;
    for (uint64_t e = 0; e < count && 8 + (e + 1) * entry <= el.size(); ++e) {
        const size_t at = 8 + size_t(e) * entry;
        const int64_t mediaTime =
            v1 ? int64_t(readBE(el, at + 8, 8)) : int64_t(int32_t(uint32_t(readBE(el, at + 4, 4))));
        if (mediaTime != -1)
            break;
        empty += readBE(el, at, v1 ? 8 : 4);
    }
    return movieScale ? double(empty) / double(movieScale) : 0;
}

struct FastMux::Impl {
    FastMuxRequest request;
    FdCloser video, source;

    // The video track: pictures in decode order, their times in `timescale`.
    VideoTrack track;
    VideoIndex index;
    int64_t timescale = 0;
    std::vector<int64_t> dts, cts, durations;
    std::vector<int64_t> where; // of each picture in the result, from the media start

    // The converted file's kept tracks: their chunks and where each lands.
    struct Chunk {
        int64_t from = 0;
        int64_t size = 0;
        double time = 0;
        int64_t to = 0;
    };
    std::vector<Chunk> chunks;
    std::vector<Box*> keptTables; // chunk offset table of each kept track, in moov
    std::vector<std::vector<size_t>> keptChunks;

    // What is written into the media data, in order.
    struct Piece {
        bool fromVideo = true;
        int64_t from = 0, to = 0, size = 0; // fromVideo: a copy of the source
        size_t first = 0, last = 0;         // else: chunks[first, last) gathered
    };
    std::vector<Piece> pieces;
    int64_t mediaSize = 0;

    std::unique_ptr<Box> moov;
    Box* videoTrak = nullptr;
    Bytes ftyp;
    int64_t mediaStart = 0; // of the media data's first byte in the file
    int64_t moovAt = 0, freeSize = 0;

    bool indexVideo(std::string* why);
    bool videoTimes(const File& converted, const Box* standby, std::string* why);
    bool keepTracks(const File& converted, const Box* standby, std::string* why);
    void plan();
    void buildVideoTrack(bool wide);
    void placeChunks(bool wide);
    Bytes serializeMoov() const;
};

} // namespace muxer
