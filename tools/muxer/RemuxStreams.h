#pragma once

// The pieces of a remux around its main loop: libavformat inputs and
// outputs, picking and describing streams, reading packets (from the demuxer
// or from the video index) and growing the media data in place.

#include "FileBoxes.h"
#include "Sink.h"
#include "VideoIndex.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdarg>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace muxer {

// Packets are written in runs of this many seconds per track, so the file
// has few, large chunks (small sample tables, few seeks for a player).
constexpr double kChunkSeconds = 0.5;

// Queued packets beyond this are written at once, whatever their time.
constexpr size_t kMaxQueuedBytes = 256u << 20;

// Packets read ahead while looking for missing decoder configuration.
constexpr int kMaxPreroll = 600;

void logCallback(void*, int level, const char* fmt, va_list args);

std::string avError(int code);

std::string lastLogLine();

struct InputCloser {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};

using InputPtr = std::unique_ptr<AVFormatContext, InputCloser>;

struct OutputCloser {
    void operator()(AVFormatContext* c) const {
        if (c->pb && !(c->flags & AVFMT_FLAG_CUSTOM_IO))
            avio_closep(&c->pb);
        avformat_free_context(c);
    }
};

using OutputPtr = std::unique_ptr<AVFormatContext, OutputCloser>;

struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};

using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

struct OutStream {
    AVStream* in = nullptr;
    AVStream* out = nullptr;
    int input = 0;      // 0 video source, 1 stand-by file
    int64_t offset = 0; // added to the input's time stamps (input time base)
    DecodeTimes guess;
    int64_t lastDts = AV_NOPTS_VALUE; // output time base
    std::deque<PacketPtr> queue;
    uint64_t samples = 0, keyframes = 0, chunks = 0, bytes = 0;
    int verbatimHint = -1;  // block header length last found in the source
    int verbatimMisses = 0; // packets not found verbatim in a row
};

// Pictures from this size on are page-aligned with the source when copied;
// at most a page less one is left unused before each (well under 2 %).
constexpr size_t kAlignFrom = 256u << 10;

// Packets not found as they are in the source (Annex B, laced or
// compressed blocks) after this many tries are written from memory.
constexpr int kMaxVerbatimMisses = 32;

struct Input {
    AVFormatContext* ctx = nullptr;
    // Video source pictures found without demuxing them: packets are made
    // from this index, their data a placeholder the sink never writes.
    const VideoIndex* index = nullptr;
    size_t next = 0;
    int streamIndex = -1;
    int64_t frameDuration = 0;
    AVBufferRef* placeholder = nullptr;
    std::vector<int> map; // input stream index -> output stream, -1 unused
    std::deque<PacketPtr> preroll;
    bool eof = false;
    double last = -1e300; // seconds of the latest packet read
};

bool openInput(const std::string& path, const char* role, InputPtr* ctx, std::string* error,
               const std::function<bool(AVFormatContext*)>& beforeProbe = {});

bool isPicture(const AVStream* s);

AVStream* pickVideo(AVFormatContext* c);

// Chapter tracks turn into chapters when read; their own stream is discarded.
bool isChapterTrack(const AVStream* s);

int64_t startOf(const AVStream* s, const AVFormatContext* c);

double durationSeconds(const AVStream* s, const AVFormatContext* c);

const AVOutputFormat* chooseFormat(const std::string& hint, const std::vector<AVCodecID>& codecs);

// A codec tag the container knows is kept ("hvc1" from an MP4 source);
// otherwise the muxer picks one. HEVC with its parameter sets in the
// configuration record is marked "hvc1", the form Apple players want.
uint32_t outputTag(const AVOutputFormat* f, const AVCodecParameters* p);

// Annex B video (MPEG-TS) may come without its decoder configuration; it is
// taken from the first packets that carry it, which are kept for writing.
bool findExtradata(Input& in, AVStream* video, std::string* error);

// The first presentation time of the video: the smallest among its first
// packets (with B-frames the first packet is not the first picture). The
// stream's own start time is not used: Matroska files often report 0 there.
int64_t firstPicture(Input& in, const AVStream* video);

// The video source's pictures indexed from its container when they can be
// copied as they are (length-prefixed H.264/HEVC in Matroska or MP4).
bool indexVideo(const std::string& path, int fd, const AVFormatContext* ctx, const AVStream* video,
                VideoIndex* index, std::string* why);

// A picture's length when the container gives none: one frame at the
// stream's frame rate, rounded down, as the demuxer fills it in.
int64_t frameDuration(const AVStream* st);

// MP4 decode times as the demuxer has them (its edit list handling moves
// the time line), checked sample for sample against its own index; packet
// lengths as it gives them: the distance to the next picture, none at all
// with composition offsets.
bool alignWithDemuxer(VideoIndex* index, AVStream* video, std::string* why);

int readPacket(Input& in, AVPacket* pkt);

// The media data box holds the bytes left before aligned pictures too: its
// size grows by them, to 64 bits over the `wide` box before it if need be.
bool growMediaData(const std::string& path, const Layout& layout, std::string* error);

// Upper bound of the sample tables the muxer will write, from what was written.
uint64_t moovBound(const std::deque<OutStream>& streams, const AVFormatContext* oc);

} // namespace muxer
