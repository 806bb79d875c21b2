#include "Remux.h"

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
        // The container's aspect wins over the stream's, as players show it;
        // the MP4 muxer refuses the two when they differ.
        if (o->sample_aspect_ratio.num > 0)
            o->codecpar->sample_aspect_ratio = o->sample_aspect_ratio;
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
        if (out->sample_aspect_ratio.num > 0)
            out->codecpar->sample_aspect_ratio = out->sample_aspect_ratio;
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
