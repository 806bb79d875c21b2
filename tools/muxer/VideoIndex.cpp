#include "VideoIndex.h"

#include "mp4/Mp4File.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>

namespace muxer {

// --- MP4 family -------------------------------------------------------------

namespace {

using tarnwick::mp4::Box;
using tarnwick::mp4::Bytes;
using tarnwick::mp4::fourcc;
using tarnwick::mp4::readBE;

// Entry count of a full box whose table starts after version/flags and
// `skip` further bytes, checked against the box's length.
bool table(const Box* b, size_t skip, size_t entrySize, uint64_t* count) {
    if (!b || b->data().size() < 8 + skip)
        return false;
    *count = readBE(b->data(), 4 + skip, 4);
    return (b->data().size() - 8 - skip) / entrySize >= *count;
}

} // namespace

bool indexIsoMedia(const std::string& path, uint32_t trackId, VideoIndex* index, std::string* why) {
    index->samples.clear();
    index->hasDecodeTimes = true;
    index->hasCompositionOffsets = false;
    index->maxSize = 0;
    auto file = tarnwick::mp4::File::open(path, false, why);
    if (!file)
        return false;
    const Box* moov = file->moov();
    if (moov->child(fourcc("mvex"))) {
        *why = "a fragmented file";
        return false;
    }
    const Box* trak = nullptr;
    for (const Box* t : moov->childrenOfType(fourcc("trak"))) {
        const Box* tkhd = t->child(fourcc("tkhd"));
        if (tkhd && !tkhd->data().empty() &&
            readBE(tkhd->data(), tkhd->data()[0] == 1 ? 20 : 12, 4) == trackId)
            trak = t;
    }
    if (!trak) {
        *why = "no such track";
        return false;
    }
    const Box* mvhd = moov->child(fourcc("mvhd"));
    const Box* mdhd = trak->find("mdia.mdhd");
    const Box* stbl = trak->find("mdia.minf.stbl");
    if (!mvhd || !mdhd || !stbl || mvhd->data().empty() || mdhd->data().empty()) {
        *why = "incomplete track";
        return false;
    }
    const uint64_t movieScale = readBE(mvhd->data(), mvhd->data()[0] == 1 ? 20 : 12, 4);
    const uint64_t mediaScale = readBE(mdhd->data(), mdhd->data()[0] == 1 ? 20 : 12, 4);
    if (movieScale == 0 || mediaScale == 0) {
        *why = "no time scale";
        return false;
    }
    for (const char* t : {"stz2", "stps", "sdtp", "sbgp", "subs"})
        if (stbl->child(fourcc(std::string_view(t, 4)))) {
            *why = std::string("a ") + t + " table";
            return false;
        }
    const Box* stsd = stbl->child(fourcc("stsd"));
    if (!stsd || stsd->children().size() != 1) {
        *why = "not exactly one sample description";
        return false;
    }

    const Box* stsz = stbl->child(fourcc("stsz"));
    const Box* stco = stbl->child(fourcc("stco"));
    const Box* co64 = stbl->child(fourcc("co64"));
    const Box* stsc = stbl->child(fourcc("stsc"));
    const Box* stts = stbl->child(fourcc("stts"));
    const Box* ctts = stbl->child(fourcc("ctts"));
    const Box* stss = stbl->child(fourcc("stss"));
    uint64_t samples = 0, chunks = 0, runs = 0, times = 0, offsets = 0, syncs = 0;
    if (!stsz || stsz->data().size() < 12) {
        *why = "no sample sizes";
        return false;
    }
    const uint64_t uniform = readBE(stsz->data(), 4, 4);
    samples = readBE(stsz->data(), 8, 4);
    if ((uniform == 0 && !table(stsz, 4, 4, &samples)) || samples == 0) {
        *why = "bad sample sizes";
        return false;
    }
    const bool wide = co64 != nullptr;
    if (!(wide ? table(co64, 0, 8, &chunks) : table(stco, 0, 4, &chunks)) ||
        !table(stsc, 0, 12, &runs) || !table(stts, 0, 8, &times) ||
        (ctts && !table(ctts, 0, 8, &offsets)) || (stss && !table(stss, 0, 4, &syncs))) {
        *why = "bad sample tables";
        return false;
    }

    std::vector<IndexedSample>& out = index->samples;
    out.resize(size_t(samples));
    const Bytes& sz = stsz->data();
    const Bytes& co = (wide ? co64 : stco)->data();
    const Bytes& sc = stsc->data();
    // Offsets: chunk by chunk, the samples of a chunk back to back.
    uint64_t sample = 0;
    for (uint64_t run = 0; run < runs && sample < samples; ++run) {
        const uint64_t first = readBE(sc, 8 + run * 12, 4);
        const uint64_t perChunk = readBE(sc, 8 + run * 12 + 4, 4);
        const uint64_t description = readBE(sc, 8 + run * 12 + 8, 4);
        const uint64_t next = run + 1 < runs ? readBE(sc, 8 + (run + 1) * 12, 4) : chunks + 1;
        if (first == 0 || next <= first || next > chunks + 1 || description != 1 || perChunk == 0) {
            *why = "bad sample-to-chunk table";
            out.clear();
            return false;
        }
        for (uint64_t chunk = first; chunk < next && sample < samples; ++chunk) {
            int64_t at = int64_t(wide ? readBE(co, 8 + (chunk - 1) * 8, 8)
                                      : readBE(co, 8 + (chunk - 1) * 4, 4));
            for (uint64_t k = 0; k < perChunk && sample < samples; ++k, ++sample) {
                const uint64_t size = uniform ? uniform : readBE(sz, 12 + sample * 4, 4);
                IndexedSample& s = out[size_t(sample)];
                s.offset = at;
                s.size = uint32_t(size);
                at += int64_t(size);
                if (at > int64_t(file->fileSize())) {
                    *why = "samples beyond the end of the file";
                    out.clear();
                    return false;
                }
                index->maxSize = std::max(index->maxSize, s.size);
            }
        }
    }
    if (sample != samples) {
        *why = "fewer chunks than samples";
        out.clear();
        return false;
    }

    // Times: decode times from durations, presentation times from offsets.
    const Bytes& tt = stts->data();
    sample = 0;
    int64_t dts = 0;
    for (uint64_t e = 0; e < times && sample < samples; ++e) {
        const uint64_t count = readBE(tt, 8 + e * 8, 4);
        const int64_t delta = int64_t(readBE(tt, 8 + e * 8 + 4, 4));
        if (delta > INT32_MAX) {
            *why = "a negative sample duration";
            out.clear();
            return false;
        }
        for (uint64_t k = 0; k < count && sample < samples; ++k, ++sample) {
            out[size_t(sample)].dts = out[size_t(sample)].pts = dts;
            out[size_t(sample)].duration = delta;
            dts += delta;
        }
    }
    if (sample != samples) {
        *why = "fewer durations than samples";
        out.clear();
        return false;
    }
    if (ctts) {
        index->hasCompositionOffsets = true;
        const Bytes& ct = ctts->data();
        sample = 0;
        for (uint64_t e = 0; e < offsets && sample < samples; ++e) {
            const uint64_t count = readBE(ct, 8 + e * 8, 4);
            const int64_t shift = int32_t(uint32_t(readBE(ct, 8 + e * 8 + 4, 4)));
            if (shift < 0) {
                // The demuxer shifts decode times for these; not followed here.
                *why = "negative composition offsets";
                out.clear();
                return false;
            }
            for (uint64_t k = 0; k < count && sample < samples; ++k, ++sample)
                out[size_t(sample)].pts += shift;
        }
    }
    if (stss) {
        for (uint64_t e = 0; e < syncs; ++e) {
            const uint64_t n = readBE(stss->data(), 8 + e * 4, 4);
            if (n >= 1 && n <= samples)
                out[size_t(n - 1)].key = true;
        }
    } else {
        for (IndexedSample& s : out)
            s.key = true;
    }

    // An edit list that only moves the time line (empty edits, then one edit
    // showing every picture) changes no sample; others would drop or repeat.
    if (const Box* elst = trak->find("edts.elst")) {
        const Bytes& el = elst->data();
        const bool v1 = !el.empty() && el[0] == 1;
        const size_t entry = v1 ? 20 : 12;
        uint64_t count = 0;
        if (!table(elst, 0, entry, &count)) {
            *why = "bad edit list";
            out.clear();
            return false;
        }
        int kept = 0;
        for (uint64_t e = 0; e < count; ++e) {
            const size_t at = 8 + size_t(e) * entry;
            const uint64_t duration = readBE(el, at, v1 ? 8 : 4);
            const int64_t mediaTime = v1 ? int64_t(readBE(el, at + 8, 8))
                                         : int64_t(int32_t(uint32_t(readBE(el, at + 4, 4))));
            const uint64_t rate = readBE(el, at + (v1 ? 16 : 8), 4);
            if (mediaTime == -1 && kept == 0)
                continue;
            if (++kept > 1 || rate != 0x10000 || duration == 0 || mediaTime < 0) {
                *why = "an edit list that cuts the video";
                out.clear();
                return false;
            }
            const int64_t end =
                mediaTime +
                int64_t((__int128(duration) * mediaScale + movieScale / 2) / movieScale);
            for (const IndexedSample& s : out)
                if (s.pts < mediaTime || s.pts >= end) {
                    *why = "an edit list that cuts the video";
                    out.clear();
                    return false;
                }
        }
    }
    index->timeBaseNum = 1;
    index->timeBaseDen = int64_t(mediaScale);
    return true;
}

bool describeIsoMediaVideo(const std::string& path, VideoTrack* track, std::string* why) {
    auto file = tarnwick::mp4::File::open(path, false, why);
    if (!file)
        return false;
    const Box* video = nullptr;
    for (const Box* t : file->moov()->childrenOfType(fourcc("trak"))) {
        const Box* hdlr = t->find("mdia.hdlr");
        if (hdlr && readBE(hdlr->data(), 8, 4) == fourcc("vide")) {
            if (video) {
                *why = "more than one video track";
                return false;
            }
            video = t;
        }
    }
    const Box* tkhd = video ? video->child(fourcc("tkhd")) : nullptr;
    const Box* mdhd = video ? video->find("mdia.mdhd") : nullptr;
    const Box* stsd = video ? video->find("mdia.minf.stbl.stsd") : nullptr;
    if (!tkhd || !mdhd || !stsd || tkhd->data().size() < 84 || mdhd->data().size() < 24) {
        *why = "no usable video track";
        return false;
    }
    const Box* entry = stsd->children().size() == 1 ? stsd->children()[0].get() : nullptr;
    const uint32_t type = entry ? entry->type() : 0;
    const bool avc = type == fourcc("avc1") || type == fourcc("avc3");
    const bool hevc = type == fourcc("hvc1") || type == fourcc("hev1");
    const Box* config = avc    ? entry->child(fourcc("avcC"))
                        : hevc ? entry->child(fourcc("hvcC"))
                               : nullptr;
    if (!config || config->data().size() < 7 || config->data()[0] != 1 ||
        entry->data().size() < 78) {
        *why = "the video is not length-prefixed H.264 or HEVC";
        return false;
    }
    const Bytes& t = tkhd->data();
    track->hevc = hevc;
    track->config = config->data();
    track->sampleEntry.clear();
    entry->serialize(track->sampleEntry);
    track->trackId = uint32_t(readBE(t, t[0] == 1 ? 20 : 12, 4));
    track->width = uint32_t(readBE(entry->data(), 24, 2));
    track->height = uint32_t(readBE(entry->data(), 26, 2));
    track->matrix.assign(t.end() - 44, t.end() - 8);
    track->displayWidth = uint32_t(readBE(t, t.size() - 8, 4));
    track->displayHeight = uint32_t(readBE(t, t.size() - 4, 4));
    track->language = uint16_t(readBE(mdhd->data(), mdhd->data()[0] == 1 ? 32 : 20, 2));
    return true;
}

int reorderDepth(const VideoIndex& index) {
    std::vector<int64_t> sorted;
    sorted.reserve(index.samples.size());
    for (const IndexedSample& s : index.samples)
        sorted.push_back(s.pts);
    std::sort(sorted.begin(), sorted.end());
    int64_t depth = 0;
    for (size_t i = 0; i < index.samples.size(); ++i) {
        const auto rank = std::lower_bound(sorted.begin(), sorted.end(), index.samples[i].pts);
        depth = std::max<int64_t>(depth, int64_t(i) - (rank - sorted.begin()));
    }
    return int(std::min<int64_t>(depth, 16));
}

void DecodeTimes::setDelay(int delay) {
    m_buffer.assign(size_t(std::clamp(delay, 0, 16)) + 1, kNone);
}

int64_t DecodeTimes::next(int64_t pts, int64_t duration) {
    const size_t delay = m_buffer.size() - 1;
    m_buffer[0] = pts;
    for (size_t i = 1; i <= delay && m_buffer[i] == kNone; ++i)
        m_buffer[i] = pts + (int64_t(i) - int64_t(delay) - 1) * std::max<int64_t>(duration, 1);
    for (size_t i = 0; i < delay && m_buffer[i] > m_buffer[i + 1]; ++i)
        std::swap(m_buffer[i], m_buffer[i + 1]);
    return m_buffer[0];
}

} // namespace muxer
