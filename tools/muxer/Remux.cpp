#include "Remux.h"

#include "FileBoxes.h"
#include "Progress.h"
#include "Sink.h"
#include "VideoIndex.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace muxer {

namespace {

// Packets are written in runs of this many seconds per track, so the file
// has few, large chunks (small sample tables, few seeks for a player).
constexpr double kChunkSeconds = 0.5;
// Queued packets beyond this are written at once, whatever their time.
constexpr size_t kMaxQueuedBytes = 256u << 20;
// Packets read ahead while looking for missing decoder configuration.
constexpr int kMaxPreroll = 600;

// libavformat's own messages would be taken for progress phases by the
// reader of our standard error, so they are kept and quoted on failure.
std::mutex g_logLock;
std::string g_log;

void logCallback(void*, int level, const char* fmt, va_list args) {
    if (level > AV_LOG_ERROR)
        return;
    char line[1024];
    std::vsnprintf(line, sizeof line, fmt, args);
    std::lock_guard lock(g_logLock);
    g_log += line;
    if (g_log.size() > 4096)
        g_log.erase(0, g_log.size() - 4096);
}

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

std::string lastLogLine() {
    std::lock_guard lock(g_logLock);
    std::string s = g_log;
    while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
        s.pop_back();
    const size_t nl = s.find_last_of('\n');
    return nl == std::string::npos ? s : s.substr(nl + 1);
}

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
               const std::function<bool(AVFormatContext*)>& beforeProbe = {}) {
    AVFormatContext* c = nullptr;
    // "file:" keeps a colon in a file name from being read as a protocol.
    int rc = avformat_open_input(&c, ("file:" + path).c_str(), nullptr, nullptr);
    if (rc < 0) {
        *error = std::string("cannot open the ") + role + " " + path + ": " + avError(rc);
        return false;
    }
    ctx->reset(c);
    // The hook may leave the probe for later.
    if (beforeProbe && !beforeProbe(c))
        return true;
    rc = avformat_find_stream_info(c, nullptr);
    if (rc < 0) {
        *error = std::string("cannot read the ") + role + " " + path + ": " + avError(rc);
        return false;
    }
    return true;
}

bool isPicture(const AVStream* s) {
    return s->disposition & AV_DISPOSITION_ATTACHED_PIC;
}

AVStream* pickVideo(AVFormatContext* c) {
    AVStream* best = nullptr;
    for (unsigned i = 0; i < c->nb_streams; ++i) {
        AVStream* s = c->streams[i];
        if (s->codecpar->codec_type != AVMEDIA_TYPE_VIDEO || isPicture(s))
            continue;
        if (!best || ((s->disposition & AV_DISPOSITION_DEFAULT) &&
                      !(best->disposition & AV_DISPOSITION_DEFAULT)))
            best = s;
    }
    return best;
}

// Chapter tracks turn into chapters when read; their own stream is discarded.
bool isChapterTrack(const AVStream* s) {
    return s->discard == AVDISCARD_ALL;
}

int64_t startOf(const AVStream* s, const AVFormatContext* c) {
    if (s->start_time != AV_NOPTS_VALUE)
        return s->start_time;
    if (c->start_time != AV_NOPTS_VALUE)
        return av_rescale_q(c->start_time, AV_TIME_BASE_Q, s->time_base);
    return 0;
}

double durationSeconds(const AVStream* s, const AVFormatContext* c) {
    if (s->duration > 0)
        return double(s->duration) * av_q2d(s->time_base);
    if (c->duration > 0)
        return double(c->duration) / AV_TIME_BASE;
    return 0;
}

const AVOutputFormat* chooseFormat(const std::string& hint, const std::vector<AVCodecID>& codecs) {
    const AVOutputFormat* f = av_guess_format(nullptr, hint.c_str(), nullptr);
    const AVOutputFormat* mp4 = av_guess_format("mp4", nullptr, nullptr);
    if (!f || (std::strcmp(f->name, "ipod") != 0 && std::strcmp(f->name, "mov") != 0 &&
               std::strcmp(f->name, "mp4") != 0))
        return mp4;
    // The iPod flavour takes fewer codecs; the plain MP4 one takes the rest.
    for (AVCodecID id : codecs)
        if (avformat_query_codec(f, id, FF_COMPLIANCE_NORMAL) != 1)
            return mp4;
    return f;
}

// A codec tag the container knows is kept ("hvc1" from an MP4 source);
// otherwise the muxer picks one. HEVC with its parameter sets in the
// configuration record is marked "hvc1", the form Apple players want.
uint32_t outputTag(const AVOutputFormat* f, const AVCodecParameters* p) {
    if (p->codec_tag && av_codec_get_id(f->codec_tag, p->codec_tag) == p->codec_id)
        return p->codec_tag;
    if (p->codec_id == AV_CODEC_ID_HEVC && p->extradata_size > 0 && p->extradata[0] == 1)
        return MKTAG('h', 'v', 'c', '1');
    return 0;
}

// Annex B video (MPEG-TS) may come without its decoder configuration; it is
// taken from the first packets that carry it, which are kept for writing.
bool findExtradata(Input& in, AVStream* video, std::string* error) {
    const AVCodecID id = video->codecpar->codec_id;
    if (video->codecpar->extradata_size > 0 || (id != AV_CODEC_ID_H264 && id != AV_CODEC_ID_HEVC))
        return true;
    const AVBitStreamFilter* filter = av_bsf_get_by_name("extract_extradata");
    AVBSFContext* bsf = nullptr;
    if (!filter || av_bsf_alloc(filter, &bsf) < 0)
        return true;
    std::unique_ptr<AVBSFContext, void (*)(AVBSFContext*)> hold(
        bsf, [](AVBSFContext* b) { av_bsf_free(&b); });
    avcodec_parameters_copy(bsf->par_in, video->codecpar);
    bsf->time_base_in = video->time_base;
    if (av_bsf_init(bsf) < 0)
        return true;
    PacketPtr out(av_packet_alloc());
    for (int n = 0; n < kMaxPreroll; ++n) {
        PacketPtr pkt(av_packet_alloc());
        const int rc = av_read_frame(in.ctx, pkt.get());
        if (rc < 0)
            break;
        if (pkt->stream_index == video->index) {
            PacketPtr copy(av_packet_clone(pkt.get()));
            if (copy && av_bsf_send_packet(bsf, copy.get()) >= 0) {
                while (av_bsf_receive_packet(bsf, out.get()) >= 0) {
                    size_t size = 0;
                    const uint8_t* data =
                        av_packet_get_side_data(out.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
                    if (data && size > 0 && video->codecpar->extradata_size == 0) {
                        video->codecpar->extradata =
                            static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
                        std::memcpy(video->codecpar->extradata, data, size);
                        video->codecpar->extradata_size = int(size);
                    }
                    av_packet_unref(out.get());
                }
            }
        }
        in.preroll.push_back(std::move(pkt));
        if (video->codecpar->extradata_size > 0)
            return true;
    }
    *error = "the video stream carries no decoder configuration (no sequence parameter set "
             "found in its first packets)";
    return false;
}

// The first presentation time of the video: the smallest among its first
// packets (with B-frames the first packet is not the first picture). The
// stream's own start time is not used: Matroska files often report 0 there.
int64_t firstPicture(Input& in, const AVStream* video) {
    const size_t want = size_t(std::clamp(video->codecpar->video_delay, 0, 16)) + 16;
    if (in.index) {
        int64_t best = INT64_MAX;
        for (size_t i = 0; i < want && i < in.index->samples.size(); ++i)
            best = std::min(best, in.index->samples[i].pts);
        return best;
    }
    size_t seen = 0;
    auto consider = [&](const AVPacket* p, int64_t* best) {
        if (p->stream_index != video->index)
            return;
        ++seen;
        if (p->pts != AV_NOPTS_VALUE && (*best == AV_NOPTS_VALUE || p->pts < *best))
            *best = p->pts;
    };
    int64_t best = AV_NOPTS_VALUE;
    for (const auto& p : in.preroll)
        consider(p.get(), &best);
    while (seen < want && in.preroll.size() < size_t(kMaxPreroll)) {
        PacketPtr pkt(av_packet_alloc());
        if (av_read_frame(in.ctx, pkt.get()) < 0)
            break;
        consider(pkt.get(), &best);
        in.preroll.push_back(std::move(pkt));
    }
    return best != AV_NOPTS_VALUE ? best : startOf(video, in.ctx);
}

// The video source's pictures indexed from its container when they can be
// copied as they are (length-prefixed H.264/HEVC in Matroska or MP4).
bool indexVideo(const std::string& path, int fd, const AVFormatContext* ctx, const AVStream* video,
                VideoIndex* index, std::string* why) {
    const AVCodecParameters* p = video->codecpar;
    if ((p->codec_id != AV_CODEC_ID_H264 && p->codec_id != AV_CODEC_ID_HEVC) ||
        p->extradata_size < 7 || p->extradata[0] != 1) {
        *why = "the video is not length-prefixed H.264 or HEVC";
        return false;
    }
    const std::string format = ctx->iformat->name;
    bool ok = false;
    if (fd < 0)
        *why = std::strerror(errno);
    else if (format.find("matroska") != std::string::npos)
        ok = indexMatroska(fd, std::vector<uint8_t>(p->extradata, p->extradata + p->extradata_size),
                           index, why);
    else if (format.find("mov") != std::string::npos || format.find("mp4") != std::string::npos)
        ok = indexIsoMedia(path, uint32_t(video->id), index, why);
    else
        *why = "the container is read by the demuxer only";
    if (!ok)
        return false;
    AVRational tb{0, 1};
    av_reduce(&tb.num, &tb.den, index->timeBaseNum, index->timeBaseDen, INT_MAX);
    if (av_cmp_q(tb, video->time_base) != 0) {
        *why = "the track's time base is not the demuxer's";
        return false;
    }
    return true;
}

// A picture's length when the container gives none: one frame at the
// stream's frame rate, rounded down, as the demuxer fills it in.
int64_t frameDuration(const AVStream* st) {
    int64_t num = 0, den = 0;
    if (st->r_frame_rate.num > 0 && st->r_frame_rate.den > 0) {
        num = st->r_frame_rate.den;
        den = st->r_frame_rate.num;
    } else if (int64_t(st->time_base.num) * 1000 > st->time_base.den) {
        num = st->time_base.num;
        den = st->time_base.den;
    }
    if (num <= 0 || den <= 0 || st->time_base.num <= 0)
        return 0;
    return av_rescale_rnd(1, num * st->time_base.den, den * st->time_base.num, AV_ROUND_DOWN);
}

// MP4 decode times as the demuxer has them (its edit list handling moves
// the time line), checked sample for sample against its own index; packet
// lengths as it gives them: the distance to the next picture, none at all
// with composition offsets.
bool alignWithDemuxer(VideoIndex* index, AVStream* video, std::string* why) {
    auto& samples = index->samples;
    if (avformat_index_get_entries_count(video) != int64_t(samples.size())) {
        *why = "the demuxer shows another number of pictures";
        return false;
    }
    int64_t shift = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const AVIndexEntry* e = avformat_index_get_entry(video, int(i));
        IndexedSample& s = samples[i];
        if (e && i == 0)
            shift = e->timestamp - s.dts;
        if (!e || e->pos != s.offset || uint32_t(e->size) != s.size ||
            (e->flags & AVINDEX_DISCARD_FRAME) || bool(e->flags & AVINDEX_KEYFRAME) != s.key ||
            e->timestamp - s.dts != shift) {
            *why = "the demuxer's index differs at picture " + std::to_string(i);
            return false;
        }
        s.dts += shift;
        s.pts += shift;
    }
    for (size_t i = 0; i < samples.size(); ++i) {
        IndexedSample& s = samples[i];
        const int64_t next = i + 1 < samples.size() ? samples[i + 1].dts : video->duration;
        s.duration = !index->hasCompositionOffsets && next != AV_NOPTS_VALUE && next >= s.dts
                         ? next - s.dts
                         : 0;
    }
    return true;
}

int readPacket(Input& in, AVPacket* pkt) {
    if (in.index) {
        if (in.next >= in.index->samples.size())
            return AVERROR_EOF;
        const IndexedSample& s = in.index->samples[in.next++];
        pkt->buf = av_buffer_ref(in.placeholder);
        if (!pkt->buf)
            return AVERROR(ENOMEM);
        pkt->data = pkt->buf->data;
        pkt->size = int(s.size);
        pkt->pts = s.pts;
        pkt->dts = in.index->hasDecodeTimes ? s.dts : AV_NOPTS_VALUE;
        pkt->duration = s.duration > 0 ? s.duration : in.frameDuration;
        pkt->flags = s.key ? AV_PKT_FLAG_KEY : 0;
        pkt->pos = s.offset;
        pkt->stream_index = in.streamIndex;
        return 0;
    }
    if (!in.preroll.empty()) {
        av_packet_move_ref(pkt, in.preroll.front().get());
        in.preroll.pop_front();
        return 0;
    }
    return av_read_frame(in.ctx, pkt);
}

// The media data box holds the bytes left before aligned pictures too: its
// size grows by them, to 64 bits over the `wide` box before it if need be.
bool growMediaData(const std::string& path, const Layout& layout, std::string* error) {
    FdCloser fd{::open(path.c_str(), O_RDWR | O_CLOEXEC)};
    auto be = [](const uint8_t* p, int n) {
        uint64_t v = 0;
        for (int i = 0; i < n; ++i)
            v = (v << 8) | p[i];
        return v;
    };
    auto put = [](uint8_t* p, int n, uint64_t v) {
        for (int i = n - 1; i >= 0; --i, v >>= 8)
            p[i] = uint8_t(v);
    };
    auto write = [&](const uint8_t* p, size_t n, int64_t at) {
        if (::pwrite(fd.fd, p, n, off_t(at)) == ssize_t(n))
            return true;
        *error = "cannot write the output file " + path + ": " + std::strerror(errno);
        return false;
    };
    // Everything before the media data is where the muxer put it.
    int64_t at = 0, before = -1;
    for (int boxes = 0; fd.fd >= 0 && boxes < 64; ++boxes) {
        uint8_t h[16];
        if (::pread(fd.fd, h, 16, off_t(at)) != 16)
            break;
        uint64_t size = be(h, 4);
        const bool wide = size == 1;
        if (wide)
            size = be(h + 8, 8);
        if (std::memcmp(h + 4, "mdat", 4) == 0) {
            const int64_t logicalEnd = at + int64_t(size);
            const uint64_t grown = uint64_t(placeInFile(layout, logicalEnd) - at);
            if (wide) {
                put(h + 8, 8, grown);
                return write(h + 8, 8, at + 8);
            }
            if (grown <= UINT32_MAX) {
                put(h, 4, grown);
                return write(h, 4, at);
            }
            // The muxer leaves a `wide` box before a 32-bit header for this.
            uint8_t w[16];
            if (before < 0 || ::pread(fd.fd, w, 8, off_t(before)) != 8 ||
                std::memcmp(w, "\0\0\0\x08wide", 8) != 0)
                break;
            put(w, 4, 1);
            std::memcpy(w + 4, "mdat", 4);
            put(w + 8, 8, grown + 8);
            return write(w, 16, before);
        }
        if (size < 8)
            break;
        before = at;
        at += int64_t(size);
    }
    *error = "cannot find the media data in the output file " + path;
    return false;
}

// Upper bound of the sample tables the muxer will write, from what was written.
uint64_t moovBound(const std::deque<OutStream>& streams, const AVFormatContext* oc) {
    uint64_t n = 8192;
    for (const auto& s : streams)
        n += 4096 + s.samples * 20 + s.keyframes * 4 + (s.chunks + s.bytes / (1u << 20) + 1) * 20;
    for (unsigned i = 0; i < oc->nb_chapters; ++i) {
        const AVDictionaryEntry* t = av_dict_get(oc->chapters[i]->metadata, "title", nullptr, 0);
        n += 96 + 2 * (t ? std::strlen(t->value) : 0);
    }
    return n;
}

} // namespace

bool remux(const RemuxRequest& request, RemuxResult* result, Progress& progress,
           std::string* error) {
    av_log_set_callback(logCallback);

    FdCloser videoFd{::open(request.videoPath.c_str(), O_RDONLY | O_CLOEXEC)};
    VideoIndex index;
    int indexedStream = -1;
    std::string indexProblem = "it is demuxed as asked";
    // The index is made from what the container's header says; then the
    // probe needs no more than the first picture for what it adds (pixel
    // format, aspect ratio), instead of decoding several large ones.
    // When every picture's time and length come from the blocks, the probe
    // runs beside the copy: what it adds only goes into the movie header,
    // which is written last.
    bool probeLater = false;
    auto limitProbe = [&](AVFormatContext* c) {
        const IndexedSample& first = index.samples.front();
        if (first.key)
            c->probesize = std::max<int64_t>(first.offset + first.size, 1 << 16);
        return true;
    };
    auto indexFirst = [&](AVFormatContext* c) {
        const AVStream* v = request.index == IndexMode::Off ? nullptr : pickVideo(c);
        if (!v || !indexVideo(request.videoPath, videoFd.fd, c, v, &index, &indexProblem))
            return true;
        indexedStream = v->index;
        // Matroska's header has the frame rate; MP4's is measured by the probe.
        if (index.hasDecodeTimes)
            return true;
        limitProbe(c);
        probeLater = c->duration > 0 && v->avg_frame_rate.num > 0 &&
                     std::all_of(index.samples.begin(), index.samples.end(),
                                 [](const IndexedSample& s) { return s.duration > 0; });
        return !probeLater;
    };

    InputPtr videoCtx, sourceCtx;
    if (!openInput(request.videoPath, "video source", &videoCtx, error, indexFirst) ||
        !openInput(request.sourcePath, "converted file", &sourceCtx, error))
        return false;

    InputPtr probedCtx;
    std::string probeError;
    bool probeOk = true;
    std::jthread probe;
    if (probeLater) {
        probe = std::jthread([&] {
            probeOk =
                openInput(request.videoPath, "video source", &probedCtx, &probeError, limitProbe);
        });
    }

    Input inputs[2];
    inputs[0].ctx = videoCtx.get();
    inputs[1].ctx = sourceCtx.get();
    for (Input& in : inputs)
        in.map.assign(in.ctx->nb_streams, -1);

    AVStream* video = pickVideo(videoCtx.get());
    if (!video) {
        *error = "the video source " + request.videoPath + " has no video stream";
        return false;
    }
    if (video->codecpar->codec_id == AV_CODEC_ID_NONE) {
        *error = "the video stream of " + request.videoPath + " is in an unknown format";
        return false;
    }
    AVStream* standby = pickVideo(sourceCtx.get());
    if (probeLater && video->duration == AV_NOPTS_VALUE)
        video->duration = av_rescale_q(videoCtx->duration, AV_TIME_BASE_Q, video->time_base);

    std::deque<OutStream> streams;
    streams.emplace_back();
    streams.back().in = video;
    streams.back().input = 0;
    for (unsigned i = 0; i < sourceCtx->nb_streams; ++i) {
        AVStream* s = sourceCtx->streams[i];
        const AVMediaType type = s->codecpar->codec_type;
        if (type == AVMEDIA_TYPE_VIDEO || isChapterTrack(s) || isPicture(s) ||
            (type != AVMEDIA_TYPE_AUDIO && type != AVMEDIA_TYPE_SUBTITLE))
            continue;
        streams.emplace_back();
        streams.back().in = s;
        streams.back().input = 1;
    }
    for (unsigned i = 0; i < videoCtx->nb_streams; ++i)
        if (videoCtx->streams[i] != video)
            videoCtx->streams[i]->discard = AVDISCARD_ALL;

    std::unique_ptr<AVBufferRef, void (*)(AVBufferRef*)> placeholder(
        nullptr, [](AVBufferRef* b) { av_buffer_unref(&b); });
    if (request.index != IndexMode::Off) {
        if (indexedStream == video->index && index.hasDecodeTimes &&
            !alignWithDemuxer(&index, video, &indexProblem))
            indexedStream = -1;
        if (indexedStream == video->index) {
            // Zeros the muxer takes for the pictures' bytes; never written.
            placeholder.reset(av_buffer_allocz(int(index.maxSize) + AV_INPUT_BUFFER_PADDING_SIZE));
            if (!placeholder) {
                *error = "out of memory";
                return false;
            }
            inputs[0].index = &index;
            inputs[0].placeholder = placeholder.get();
            inputs[0].streamIndex = video->index;
            inputs[0].frameDuration = frameDuration(video);
            // Decode times guessed from presentation times need the whole
            // reordering depth; the probe may have seen too few pictures.
            video->codecpar->video_delay =
                std::max(video->codecpar->video_delay, reorderDepth(index));
        } else if (request.index == IndexMode::Required) {
            *error =
                "the video source " + request.videoPath + " cannot be indexed: " + indexProblem;
            return false;
        }
    }

    if (!inputs[0].index && !findExtradata(inputs[0], video, error))
        return false;

    std::vector<AVCodecID> codecs;
    for (const auto& s : streams)
        codecs.push_back(s.in->codecpar->codec_id);
    const AVOutputFormat* format = chooseFormat(request.formatHint, codecs);

    AVFormatContext* rawOut = nullptr;
    int rc = avformat_alloc_output_context2(&rawOut, format, nullptr, request.outputPath.c_str());
    if (rc < 0) {
        *error = "cannot set up the output: " + avError(rc);
        return false;
    }
    OutputPtr oc(rawOut);

    // The stand-by video and the source video mark the same instant: the
    // source's video moves onto the stand-by video's start, the stand-by
    // file's own time line (audio, subtitles, chapters) stays as it is.
    const int64_t videoStart = firstPicture(inputs[0], video);
    const int64_t standbyStart = standby ? av_rescale_q(startOf(standby, sourceCtx.get()),
                                                        standby->time_base, video->time_base)
                                         : 0;

    result->sourceTrackIds.clear();
    for (size_t k = 0; k < streams.size(); ++k) {
        OutStream& s = streams[k];
        AVStream* o = avformat_new_stream(oc.get(), nullptr);
        if (!o || avcodec_parameters_copy(o->codecpar, s.in->codecpar) < 0) {
            *error = "out of memory";
            return false;
        }
        o->codecpar->codec_tag = outputTag(format, s.in->codecpar);
        o->time_base = s.in->time_base;
        o->avg_frame_rate = s.in->avg_frame_rate;
        o->sample_aspect_ratio = s.in->sample_aspect_ratio;
        o->disposition = s.in->disposition & ~AV_DISPOSITION_ATTACHED_PIC;
        if (const AVDictionaryEntry* lang = av_dict_get(s.in->metadata, "language", nullptr, 0))
            av_dict_set(&o->metadata, "language", lang->value, 0);
        s.out = o;
        s.guess.setDelay(s.in->codecpar->video_delay);
        s.offset = s.input == 0 ? standbyStart - videoStart : 0;
        inputs[s.input].map[size_t(s.in->index)] = int(k);
        if (s.input == 0)
            result->sourceTrackIds.push_back(standby ? standby->id : 0);
        else
            result->sourceTrackIds.push_back(s.in->id);
    }

    // Chapters come from the stand-by file, on its time line.
    if (sourceCtx->nb_chapters > 0) {
        oc->chapters =
            static_cast<AVChapter**>(av_calloc(sourceCtx->nb_chapters, sizeof(AVChapter*)));
        for (unsigned i = 0; oc->chapters && i < sourceCtx->nb_chapters; ++i) {
            const AVChapter* c = sourceCtx->chapters[i];
            AVChapter* copy = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
            if (!copy)
                break;
            copy->id = c->id;
            copy->time_base = c->time_base;
            copy->start = c->start;
            copy->end = c->end;
            av_dict_copy(&copy->metadata, c->metadata, 0);
            oc->chapters[oc->nb_chapters++] = copy;
        }
    }

    // Room for moov in front of the media data, from the expected sample
    // count; checked against the real count before the end is written.
    uint64_t reserve = 0;
    if (request.moovInFront) {
        const double seconds = durationSeconds(video, videoCtx.get());
        AVRational rate =
            video->avg_frame_rate.num > 0 ? video->avg_frame_rate : video->r_frame_rate;
        const double fps = rate.num > 0 && rate.den > 0 ? std::min(av_q2d(rate), 240.0) : 60.0;
        const uint64_t frames =
            video->nb_frames > 0 ? uint64_t(video->nb_frames) : uint64_t(seconds * fps * 1.02) + 64;
        const uint64_t chunks = uint64_t(seconds / kChunkSeconds + 2) * streams.size();
        int64_t sourceMoov = 0;
        const int64_t sourceSize = avio_size(sourceCtx->pb);
        // The stand-by file is small: its whole size bounds its sample tables and tags.
        sourceMoov = sourceSize > 0 ? std::min<int64_t>(sourceSize, 64 << 20) : (1 << 20);
        const double estimate = 16384.0 + frames * 24.0 + chunks * 24.0 +
                                double(request.extraMoovBytes) + double(sourceMoov) / 4;
        reserve = uint64_t(estimate * 1.25) + 65536;
        if (request.forcedReserve >= 0)
            reserve = uint64_t(request.forcedReserve);
        reserve = std::min<uint64_t>((reserve + 4095) & ~uint64_t(4095), INT32_MAX);
    }
    result->reserved = reserve;

    Sink sink;
    if (!sink.open(request.outputPath, videoFd.fd, error))
        return false;
    sink.alignCopiesFrom(kAlignFrom);
    oc->pb = sink.io();
    oc->flags |= AVFMT_FLAG_CUSTOM_IO;
    AVDictionary* options = nullptr;
    if (reserve > 0)
        av_dict_set_int(&options, "moov_size", int64_t(reserve), 0);
    rc = avformat_write_header(oc.get(), &options);
    av_dict_free(&options);
    if (rc < 0) {
        *error = "cannot start the output file: " + avError(rc);
        const std::string why = lastLogLine();
        if (!why.empty())
            *error += " (" + why + ")";
        return false;
    }

    const int64_t videoSize = avio_size(videoCtx->pb);
    size_t queuedBytes = 0;
    double chunkEnd = -1e300;
    bool first = true;

    // Subtitles go first in each run: the muxer fills a subtitle track's
    // gaps with empty samples whenever another track's packet passes its end.
    std::vector<OutStream*> writeOrder;
    for (OutStream& s : streams)
        if (s.in->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE)
            writeOrder.push_back(&s);
    for (OutStream& s : streams)
        if (s.in->codecpar->codec_type != AVMEDIA_TYPE_SUBTITLE)
            writeOrder.push_back(&s);

    auto writeQueued = [&](double until, bool all) -> bool {
        for (OutStream* stream : writeOrder) {
            OutStream& s = *stream;
            bool wrote = false;
            while (!s.queue.empty()) {
                AVPacket* p = s.queue.front().get();
                const double t = double(p->dts) * av_q2d(s.out->time_base);
                if (!all && t >= until)
                    break;
                ++s.samples;
                s.bytes += uint64_t(p->size);
                if (p->flags & AV_PKT_FLAG_KEY)
                    ++s.keyframes;
                queuedBytes -= size_t(p->size);
                if (s.input == 0 && inputs[0].index) {
                    sink.expect(p->data, size_t(p->size), p->pos);
                } else if (s.input == 0 && s.verbatimMisses < kMaxVerbatimMisses) {
                    const int64_t at = verbatimOffset(videoFd.fd, p->pos, p->data, size_t(p->size),
                                                      &s.verbatimHint);
                    if (at >= 0) {
                        s.verbatimMisses = 0;
                        sink.expect(p->data, size_t(p->size), at);
                    } else if (p->size >= 64) {
                        ++s.verbatimMisses;
                    }
                }
                const int w = av_write_frame(oc.get(), p);
                sink.expect(nullptr, 0, -1);
                s.queue.pop_front();
                if (w < 0) {
                    *error = "cannot write the output file: " + avError(w);
                    const std::string why = lastLogLine();
                    if (!why.empty())
                        *error += " (" + why + ")";
                    return false;
                }
                wrote = true;
            }
            if (wrote)
                ++s.chunks;
        }
        return true;
    };

    PacketPtr pkt(av_packet_alloc());
    for (;;) {
        Input* in = nullptr;
        for (Input& candidate : inputs)
            if (!candidate.eof && (!in || candidate.last < in->last))
                in = &candidate;
        if (!in)
            break;
        rc = readPacket(*in, pkt.get());
        if (rc == AVERROR_EOF || (rc < 0 && avio_feof(in->ctx->pb))) {
            in->eof = true;
        } else if (rc < 0) {
            *error = std::string("cannot read ") +
                     (in == &inputs[0] ? request.videoPath : request.sourcePath) + ": " +
                     avError(rc);
            return false;
        } else {
            const int k = in->map[size_t(pkt->stream_index)];
            if (k < 0) {
                av_packet_unref(pkt.get());
                continue;
            }
            OutStream& s = streams[size_t(k)];
            if (pkt->dts == AV_NOPTS_VALUE && pkt->pts != AV_NOPTS_VALUE)
                pkt->dts = s.guess.next(pkt->pts, pkt->duration);
            if (pkt->pts != AV_NOPTS_VALUE)
                pkt->pts += s.offset;
            if (pkt->dts != AV_NOPTS_VALUE)
                pkt->dts += s.offset;
            av_packet_rescale_ts(pkt.get(), s.in->time_base, s.out->time_base);
            if (pkt->dts == AV_NOPTS_VALUE)
                pkt->dts = s.lastDts == AV_NOPTS_VALUE
                               ? 0
                               : s.lastDts + std::max<int64_t>(pkt->duration, 1);
            // The muxer takes strictly rising decode times, never after presentation.
            if (s.lastDts != AV_NOPTS_VALUE && pkt->dts <= s.lastDts)
                pkt->dts = s.lastDts + 1;
            if (pkt->pts == AV_NOPTS_VALUE || pkt->pts < pkt->dts)
                pkt->pts = pkt->dts;
            s.lastDts = pkt->dts;
            pkt->stream_index = k;
            const double t = double(pkt->dts) * av_q2d(s.out->time_base);
            in->last = std::max(in->last, t);
            if (first) {
                chunkEnd = t + kChunkSeconds;
                first = false;
            }
            queuedBytes += size_t(pkt->size);
            s.queue.emplace_back(av_packet_alloc());
            av_packet_move_ref(s.queue.back().get(), pkt.get());
            if (s.input == 0)
                ++result->videoPackets;
        }
        // A run is written once every input has read past its end.
        for (;;) {
            bool ready = !first;
            bool allDone = true;
            for (const Input& i : inputs) {
                allDone = allDone && i.eof;
                if (!i.eof && i.last < chunkEnd)
                    ready = false;
            }
            if (allDone || queuedBytes > kMaxQueuedBytes) {
                if (!writeQueued(0, true))
                    return false;
                break;
            }
            if (!ready)
                break;
            if (!writeQueued(chunkEnd, false))
                return false;
            chunkEnd += kChunkSeconds;
        }
        if (videoSize > 0 && in == &inputs[0]) {
            const int64_t at =
                in->index ? in->index->samples[in->next - 1].offset : avio_tell(videoCtx->pb);
            progress.update(100.0 * double(at) / double(videoSize));
        }
    }
    if (!writeQueued(0, true))
        return false;

    if (probe.joinable()) {
        probe.join();
        if (!probeOk) {
            *error = probeError;
            return false;
        }
        const AVStream* probed = size_t(video->index) < probedCtx->nb_streams
                                     ? probedCtx->streams[video->index]
                                     : nullptr;
        if (!probed || probed->codecpar->codec_id != video->codecpar->codec_id) {
            *error = "the video source " + request.videoPath + " changed while it was read";
            return false;
        }
        AVStream* out = streams.front().out;
        const uint32_t tag = out->codecpar->codec_tag;
        if (avcodec_parameters_copy(out->codecpar, probed->codecpar) < 0) {
            *error = "out of memory";
            return false;
        }
        out->codecpar->codec_tag = tag;
        out->sample_aspect_ratio = probed->sample_aspect_ratio;
        out->avg_frame_rate = probed->avg_frame_rate;
    }

    // Too little room reserved (a wrong duration in the source): the muxer
    // would write moov over the media data, so it goes to the end instead.
    const uint64_t bound = moovBound(streams, oc.get()) + request.extraMoovBytes;
    result->reserveFits = reserve > 0 && bound + 8 <= reserve;
    if (reserve > 0 && !result->reserveFits)
        av_opt_set_int(oc->priv_data, "moov_size", 0, 0);

    rc = av_write_trailer(oc.get());
    if (rc < 0) {
        *error = "cannot finish the output file: " + avError(rc);
        const std::string why = lastLogLine();
        if (!why.empty())
            *error += " (" + why + ")";
        return false;
    }
    oc->pb = nullptr;
    if (!sink.close(error))
        return false;
    if (reserve > 0 && !result->reserveFits) {
        // The unused reservation is still a hole after ftyp: make it a free box.
        const int fd = ::open(request.outputPath.c_str(), O_RDWR | O_CLOEXEC);
        uint8_t head[8];
        bool ok = fd >= 0 && ::pread(fd, head, 4, 0) == 4;
        if (ok) {
            const uint64_t ftypSize = (uint64_t(head[0]) << 24) | (uint64_t(head[1]) << 16) |
                                      (uint64_t(head[2]) << 8) | uint64_t(head[3]);
            const uint32_t n = uint32_t(reserve);
            const uint8_t box[8] = {uint8_t(n >> 24),
                                    uint8_t(n >> 16),
                                    uint8_t(n >> 8),
                                    uint8_t(n),
                                    'f',
                                    'r',
                                    'e',
                                    'e'};
            ok = ::pwrite(fd, box, 8, off_t(ftypSize)) == 8;
        }
        if (fd >= 0)
            ::close(fd);
        if (!ok) {
            *error = "cannot write the output file " + request.outputPath;
            return false;
        }
    }
    result->layout = sink.layout();
    if (!result->layout.empty() && !growMediaData(request.outputPath, result->layout, error))
        return false;
    return true;
}

} // namespace muxer
