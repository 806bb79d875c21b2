#include "RemuxStreams.h"

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

// libavformat's own messages would be taken for progress phases by the
// reader of our standard error, so they are kept and quoted on failure.
std::mutex g_logLock;

std::string g_log;

} // namespace

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

bool openInput(const std::string& path, const char* role, InputPtr* ctx, std::string* error,
               const std::function<bool(AVFormatContext*)>& beforeProbe) {
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

uint32_t outputTag(const AVOutputFormat* f, const AVCodecParameters* p) {
    if (p->codec_tag && av_codec_get_id(f->codec_tag, p->codec_tag) == p->codec_id)
        return p->codec_tag;
    if (p->codec_id == AV_CODEC_ID_HEVC && p->extradata_size > 0 && p->extradata[0] == 1)
        return MKTAG('h', 'v', 'c', '1');
    return 0;
}

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

} // namespace muxer
