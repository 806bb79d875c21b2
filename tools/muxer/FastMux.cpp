#include "FastMux.h"

#include "FileBoxes.h"
#include "Progress.h"
#include "VideoIndex.h"

#include "mp4/Mp4File.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <numeric>
#include <unistd.h>

using tarnwick::mp4::appendBE;
using tarnwick::mp4::Box;
using tarnwick::mp4::Bytes;
using tarnwick::mp4::File;
using tarnwick::mp4::fourcc;
using tarnwick::mp4::readBE;
using tarnwick::mp4::writeBE;

namespace muxer {

namespace {

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
uint64_t timescaleOf(const Box* header) {
    if (!header || header->data().empty())
        return 0;
    return readBE(header->data(), header->data()[0] == 1 ? 20 : 12, 4);
}

uint32_t handlerOf(const Box* trak) {
    return handlerType(trak->find("mdia.hdlr"));
}

bool isEnabled(const Box* trak) {
    const Box* tkhd = trak->child(fourcc("tkhd"));
    return tkhd && tkhd->data().size() >= 4 && (tkhd->data()[3] & 1);
}

// Tracks of the converted file that the result keeps: what the demuxing
// path takes as audio or subtitles, and chapter text.
bool isKept(uint32_t handler) {
    return handler == fourcc("soun") || handler == fourcc("sbtl") || handler == fourcc("subt") ||
           handler == fourcc("text") || handler == fourcc("clcp");
}

std::unique_ptr<Box> box(const char (&type)[5], const Bytes& payload, uint32_t parentType) {
    Bytes raw;
    appendBE(raw, 4, payload.size() + 8);
    appendBE(raw, 4, fourcc(type));
    raw.insert(raw.end(), payload.begin(), payload.end());
    size_t used = 0;
    return Box::parse(raw.data(), raw.size(), &used, parentType);
}

Bytes fullBoxHeader(int version) {
    return Bytes{uint8_t(version), 0, 0, 0};
}

int64_t rescale(int64_t v, int64_t num, int64_t den) {
    const __int128 x = __int128(v) * num;
    return int64_t(x >= 0 ? (x + den / 2) / den : -((-x + den / 2) / den));
}

bool sysFail(std::string* error, const std::string& what) {
    *error = what + ": " + std::strerror(errno);
    return false;
}

// Presentation of the stand-by video's first picture on the movie's time
// line, in seconds: where the source's first picture goes.
double standbyStart(const Box* standby, uint64_t movieScale) {
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

} // namespace

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

FastMux::FastMux() : d(std::make_unique<Impl>()) {}
FastMux::~FastMux() = default;

bool FastMux::Impl::indexVideo(std::string* why) {
    video.fd = ::open(request.videoPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (video.fd < 0) {
        *why = std::strerror(errno);
        return false;
    }
    uint8_t head[8] = {};
    if (::pread(video.fd, head, 8, 0) != 8) {
        *why = "too short a file";
        return false;
    }
    const uint32_t magic = uint32_t(readBE(head, 8, 0, 4));
    const uint32_t type = uint32_t(readBE(head, 8, 4, 4));
    if (magic == 0x1A45DFA3) {
        if (!describeMatroskaVideo(video.fd, &track, why) ||
            !indexMatroska(video.fd, track.config, &index, why))
            return false;
        for (const IndexedSample& s : index.samples)
            if (s.duration <= 0) {
                *why = "the video track states no picture length";
                return false;
            }
        return true;
    }
    if (type == fourcc("ftyp") || type == fourcc("moov") || type == fourcc("mdat") ||
        type == fourcc("free") || type == fourcc("wide") || type == fourcc("skip")) {
        return describeIsoMediaVideo(request.videoPath, &track, why) &&
               indexIsoMedia(request.videoPath, track.trackId, &index, why);
    }
    *why = "the container is read by the demuxer only";
    return false;
}

bool FastMux::Impl::videoTimes(const File& converted, const Box* standby, std::string* why) {
    // The track's time scale as the demuxing path's writer picks it: the
    // source's, doubled up to at least 10000 ticks a second.
    int64_t num = index.timeBaseNum, den = index.timeBaseDen;
    const int64_t g = std::gcd(num, den);
    num /= g;
    den /= g;
    int64_t scale = den, factor = num;
    while (scale < 10000) {
        scale *= 2;
        factor *= 2;
    }
    if (scale > INT32_MAX || num <= 0) {
        *why = "the video's time base does not fit a track";
        return false;
    }
    timescale = scale;

    const uint64_t movieScale = timescaleOf(converted.moov()->child(fourcc("mvhd")));
    if (movieScale == 0) {
        *why = "the converted file has no movie time scale";
        return false;
    }

    auto& samples = index.samples;
    const int delay = index.hasDecodeTimes ? 0 : reorderDepth(index);
    int64_t first = INT64_MAX;
    for (size_t i = 0; i < size_t(delay) + 16 && i < samples.size(); ++i)
        first = std::min(first, samples[i].pts);
    // The source's first picture takes the stand-by video's place.
    const int64_t start =
        int64_t(std::llround(standbyStart(standby, movieScale) * double(den) / double(num)));
    const int64_t offset = start - first;

    DecodeTimes guess;
    guess.setDelay(delay);
    const size_t n = samples.size();
    dts.resize(n);
    cts.resize(n);
    durations.resize(n);
    int64_t last = INT64_MIN;
    for (size_t i = 0; i < n; ++i) {
        const IndexedSample& s = samples[i];
        int64_t d = index.hasDecodeTimes ? s.dts : guess.next(s.pts, s.duration);
        int64_t p = (s.pts + offset) * factor;
        d = (d + offset) * factor;
        // Strictly rising decode times, never after presentation.
        if (last != INT64_MIN && d <= last)
            d = last + 1;
        if (p < d)
            p = d;
        last = d;
        dts[i] = d;
        cts[i] = p - d;
    }
    for (size_t i = 0; i + 1 < n; ++i)
        durations[i] = dts[i + 1] - dts[i];
    durations[n - 1] = std::max<int64_t>(samples[n - 1].duration * factor, 1);
    return true;
}

bool FastMux::Impl::keepTracks(const File& converted, const Box* standby, std::string* why) {
    const uint64_t movieScale = timescaleOf(moov->child(fourcc("mvhd")));
    for (Box* trak : moov->childrenOfType(fourcc("trak"))) {
        const uint32_t id = trackIdOf(trak);
        if (id == trackIdOf(standby)) {
            videoTrak = trak;
            continue;
        }
        if (!isKept(handlerOf(trak))) {
            // Nothing may point at a track that is left out.
            moov->remove(trak);
            for (Box* t : moov->childrenOfType(fourcc("trak")))
                if (Box* tref = t->child(fourcc("tref"))) {
                    for (const auto& ref : tref->children()) {
                        Bytes kept;
                        for (size_t at = 0; at + 4 <= ref->data().size(); at += 4)
                            if (readBE(ref->data(), at, 4) != id)
                                appendBE(kept, 4, readBE(ref->data(), at, 4));
                        ref->data() = kept;
                    }
                    std::vector<const Box*> empty;
                    for (const auto& ref : tref->children())
                        if (ref->data().empty())
                            empty.push_back(ref.get());
                    for (const Box* e : empty)
                        tref->remove(e);
                    if (tref->children().empty())
                        t->remove(tref);
                }
            continue;
        }

        Box* stbl = trak->find("mdia.minf.stbl");
        const Box* mdhd = trak->find("mdia.mdhd");
        Box* stsz = stbl ? stbl->child(fourcc("stsz")) : nullptr;
        Box* stsc = stbl ? stbl->child(fourcc("stsc")) : nullptr;
        Box* stts = stbl ? stbl->child(fourcc("stts")) : nullptr;
        Box* co64 = stbl ? stbl->child(fourcc("co64")) : nullptr;
        Box* stco = co64 ? co64 : stbl ? stbl->child(fourcc("stco")) : nullptr;
        if (!stsz || !stsc || !stts || !stco || !mdhd || mdhd->data().empty() ||
            stsz->data().size() < 12) {
            *why = "a converted track without sample tables";
            return false;
        }
        const uint64_t mediaScale = timescaleOf(mdhd);
        const Bytes& sz = stsz->data();
        const Bytes& sc = stsc->data();
        const Bytes& co = stco->data();
        const Bytes& tt = stts->data();
        const int width = co64 ? 8 : 4;
        const uint64_t uniform = readBE(sz, 4, 4);
        const uint64_t samples = readBE(sz, 8, 4);
        const uint64_t runs = readBE(sc, 4, 4);
        const uint64_t count = readBE(co, 4, 4);
        const uint64_t times = readBE(tt, 4, 4);
        if (mediaScale == 0 || (uniform == 0 && (sz.size() - 12) / 4 < samples) ||
            (sc.size() - 8) / 12 < runs || (co.size() - 8) / size_t(width) < count ||
            (tt.size() - 8) / 8 < times) {
            *why = "bad sample tables in the converted file";
            return false;
        }
        const double shift = standbyStart(trak, movieScale);
        const size_t kept = keptTables.size();
        keptTables.push_back(stco);
        keptChunks.emplace_back();
        uint64_t sample = 0, timeEntry = 0, leftInEntry = times ? readBE(tt, 8, 4) : 0;
        int64_t time = 0;
        for (uint64_t run = 0; run < runs; ++run) {
            const uint64_t firstChunk = readBE(sc, 8 + run * 12, 4);
            const uint64_t perChunk = readBE(sc, 8 + run * 12 + 4, 4);
            const uint64_t next = run + 1 < runs ? readBE(sc, 8 + (run + 1) * 12, 4) : count + 1;
            if (firstChunk == 0 || next <= firstChunk || next > count + 1) {
                *why = "bad sample-to-chunk table in the converted file";
                return false;
            }
            for (uint64_t c = firstChunk; c < next; ++c) {
                Chunk chunk;
                chunk.from = int64_t(readBE(co, 8 + (c - 1) * size_t(width), width));
                chunk.time = double(time) / double(mediaScale) + shift;
                for (uint64_t k = 0; k < perChunk && sample < samples; ++k, ++sample) {
                    chunk.size += int64_t(uniform ? uniform : readBE(sz, 12 + sample * 4, 4));
                    while (leftInEntry == 0 && timeEntry + 1 < times)
                        leftInEntry = readBE(tt, 8 + ++timeEntry * 8, 4);
                    time += int64_t(readBE(tt, 8 + timeEntry * 8 + 4, 4));
                    if (leftInEntry > 0)
                        --leftInEntry;
                }
                if (chunk.from < 0 || chunk.from + chunk.size > int64_t(converted.fileSize())) {
                    *why = "converted samples beyond the end of the file";
                    return false;
                }
                keptChunks[kept].push_back(chunks.size());
                chunks.push_back(chunk);
            }
        }
        if (sample != samples) {
            *why = "fewer chunks than samples in the converted file";
            return false;
        }
    }
    return true;
}

// Where everything goes, counted from the media data's first byte: runs
// of the source with the pictures in them, and between them the converted
// file's chunks due in the next half second.
void FastMux::Impl::plan() {
    std::vector<size_t> order(chunks.size());
    std::iota(order.begin(), order.end(), size_t(0));
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return chunks[a].time < chunks[b].time; });
    std::vector<Chunk> sorted;
    sorted.reserve(chunks.size());
    std::vector<size_t> placeOf(chunks.size());
    for (size_t i = 0; i < order.size(); ++i) {
        placeOf[order[i]] = i;
        sorted.push_back(chunks[order[i]]);
    }
    chunks = std::move(sorted);
    for (auto& list : keptChunks)
        for (size_t& c : list)
            c = placeOf[c];

    const auto& samples = index.samples;
    where.assign(samples.size(), 0);
    int64_t pos = 0;
    size_t nextChunk = 0;

    // The run being gathered: source bytes [runFrom, runEnd), pictures [runFirst, i).
    int64_t runFrom = -1, runEnd = -1, runPictures = 0, runGaps = 0;
    size_t runFirst = 0;
    auto closeRun = [&](size_t end) {
        if (runFrom < 0)
            return;
        const int64_t size = runEnd - runFrom;
        if (size >= kAlignFrom)
            pos += ((runFrom - pos) % kPage + kPage) % kPage;
        for (size_t k = runFirst; k < end; ++k)
            where[k] = pos + (samples[k].offset - runFrom);
        pieces.push_back({true, runFrom, pos, size, 0, 0});
        pos += size;
        runFrom = -1;
    };
    auto chunksUntil = [&](double until) {
        const size_t first = nextChunk;
        while (nextChunk < chunks.size() && chunks[nextChunk].time < until) {
            chunks[nextChunk].to = pos;
            pos += chunks[nextChunk].size;
            ++nextChunk;
        }
        if (nextChunk > first)
            pieces.push_back({false, 0, chunks[first].to, 0, first, nextChunk});
    };

    double windowEnd = -1e300;
    for (size_t i = 0; i < samples.size(); ++i) {
        const IndexedSample& s = samples[i];
        const double t = double(dts[i]) / double(timescale);
        if (t >= windowEnd) {
            closeRun(i);
            windowEnd = t + kInterleaveSeconds;
            chunksUntil(windowEnd);
        }
        const int64_t gap = s.offset - runEnd;
        if (runFrom >= 0 && gap >= 0 && gap <= kMaxGap &&
            (runGaps + gap) * kGapShare <= runPictures + s.size &&
            s.offset + s.size - runFrom <= kMaxRun) {
            runEnd = s.offset + s.size;
            runPictures += s.size;
            runGaps += gap;
            continue;
        }
        closeRun(i);
        runFrom = s.offset;
        runEnd = s.offset + s.size;
        runPictures = s.size;
        runGaps = 0;
        runFirst = i;
    }
    closeRun(samples.size());
    chunksUntil(1e300);
    mediaSize = pos;
}

void FastMux::Impl::buildVideoTrack(bool wide) {
    const auto& samples = index.samples;
    const size_t n = samples.size();
    const uint64_t movieScale = timescaleOf(moov->child(fourcc("mvhd")));

    // Presentation: from the first picture shown to the end of the last one.
    int64_t firstShown = INT64_MAX, lastEnd = INT64_MIN;
    for (size_t i = 0; i < n; ++i) {
        firstShown = std::min(firstShown, dts[i] + cts[i]);
        lastEnd = std::max(lastEnd, dts[i] + cts[i] + durations[i]);
    }
    const int64_t mediaDuration = dts[n - 1] - dts[0] + durations[n - 1];
    const int64_t delay = std::max<int64_t>(0, rescale(firstShown, int64_t(movieScale), timescale));
    const int64_t shown = rescale(lastEnd - firstShown, int64_t(movieScale), timescale);
    const int64_t trackDuration = delay + shown;

    // Edit list: the stand-by video's lead, then every picture. 64-bit
    // fields only where 32 bits do not do.
    const int64_t mediaTime = firstShown - dts[0];
    const bool elstV1 = trackDuration > INT32_MAX || mediaTime > INT32_MAX;
    const int w = elstV1 ? 8 : 4;
    Bytes elst = fullBoxHeader(elstV1);
    appendBE(elst, 4, delay > 0 ? 2 : 1);
    if (delay > 0) {
        appendBE(elst, w, uint64_t(delay));
        appendBE(elst, w, ~uint64_t(0));
        appendBE(elst, 4, 0x10000);
    }
    appendBE(elst, w, uint64_t(shown));
    appendBE(elst, w, uint64_t(mediaTime));
    appendBE(elst, 4, 0x10000);

    // Track header: the stand-by's own fields, the source's picture.
    Box* tkhd = videoTrak->child(fourcc("tkhd"));
    Bytes old = tkhd->data();
    const bool oldV1 = old[0] == 1;
    const uint64_t created = readBE(old, 4, oldV1 ? 8 : 4);
    const uint64_t modified = readBE(old, oldV1 ? 12 : 8, oldV1 ? 8 : 4);
    const bool tkhdV1 = created > UINT32_MAX || modified > UINT32_MAX || trackDuration > UINT32_MAX;
    const int tw = tkhdV1 ? 8 : 4;
    Bytes th = fullBoxHeader(tkhdV1);
    th[1] = old[1];
    th[2] = old[2];
    th[3] = old[3];
    appendBE(th, tw, created);
    appendBE(th, tw, modified);
    appendBE(th, 4, trackIdOf(videoTrak));
    appendBE(th, 4, 0);
    appendBE(th, tw, uint64_t(trackDuration));
    appendBE(th, 8, 0);
    appendBE(th, 2, 0); // layer
    appendBE(th, 2, 0); // alternate group
    appendBE(th, 2, 0); // volume
    appendBE(th, 2, 0);
    if (track.matrix.size() == 36) {
        th.insert(th.end(), track.matrix.begin(), track.matrix.end());
    } else {
        for (uint32_t v : {0x10000u, 0u, 0u, 0u, 0x10000u, 0u, 0u, 0u, 0x40000000u})
            appendBE(th, 4, v);
    }
    uint64_t displayWidth = uint64_t(track.width) << 16, displayHeight = uint64_t(track.height)
                                                                         << 16;
    if (track.displayWidth || track.displayHeight) {
        displayWidth = track.displayWidth;
        displayHeight = track.displayHeight;
    } else if (track.sarNum && track.sarDen && track.sarNum != track.sarDen) {
        const uint64_t w =
            uint64_t(rescale(int64_t(track.width) << 16, track.sarNum, track.sarDen));
        if (w > 0 && w <= UINT32_MAX)
            displayWidth = w;
    }
    appendBE(th, 4, displayWidth);
    appendBE(th, 4, displayHeight);
    tkhd->data() = std::move(th);

    videoTrak->removeAll(fourcc("edts"));
    auto edts = std::make_unique<Box>(fourcc("edts"));
    edts->setContainer(true);
    edts->append(box("elst", elst, fourcc("edts")));
    videoTrak->insert(videoTrak->indexOf(videoTrak->child(fourcc("tkhd"))) + 1, std::move(edts));

    // Media header: the stand-by's dates, the source's time scale and
    // language unless the stand-by names one.
    Box* mdhd = videoTrak->find("mdia.mdhd");
    old = mdhd->data();
    const bool mdV1 = old[0] == 1;
    const uint16_t standbyLanguage = uint16_t(readBE(old, mdV1 ? 32 : 20, 2));
    const uint64_t mdCreated = readBE(old, 4, mdV1 ? 8 : 4);
    const uint64_t mdModified = readBE(old, mdV1 ? 12 : 8, mdV1 ? 8 : 4);
    const bool mdhdV1 =
        mdCreated > UINT32_MAX || mdModified > UINT32_MAX || mediaDuration > UINT32_MAX;
    const int mw = mdhdV1 ? 8 : 4;
    Bytes mh = fullBoxHeader(mdhdV1);
    appendBE(mh, mw, mdCreated);
    appendBE(mh, mw, mdModified);
    appendBE(mh, 4, uint64_t(timescale));
    appendBE(mh, mw, uint64_t(mediaDuration));
    appendBE(mh, 2, standbyLanguage != kUndetermined ? standbyLanguage : track.language);
    appendBE(mh, 2, 0);
    mdhd->data() = std::move(mh);

    // Sample tables.
    Bytes stsd = fullBoxHeader(0);
    appendBE(stsd, 4, 1);
    if (!track.sampleEntry.empty()) {
        stsd.insert(stsd.end(), track.sampleEntry.begin(), track.sampleEntry.end());
    } else {
        Bytes entry(6, 0);
        appendBE(entry, 2, 1); // data reference
        entry.resize(entry.size() + 16, 0);
        appendBE(entry, 2, track.width);
        appendBE(entry, 2, track.height);
        appendBE(entry, 4, 0x00480000);
        appendBE(entry, 4, 0x00480000);
        appendBE(entry, 4, 0);
        appendBE(entry, 2, 1); // frames per sample
        entry.resize(entry.size() + 32, 0);
        appendBE(entry, 2, 0x18);
        appendBE(entry, 2, 0xFFFF);
        appendBE(entry, 4, track.config.size() + 8);
        appendBE(entry, 4, fourcc(track.hevc ? "hvcC" : "avcC"));
        entry.insert(entry.end(), track.config.begin(), track.config.end());
        if (track.sarNum && track.sarDen && track.sarNum != track.sarDen) {
            appendBE(entry, 4, 16);
            appendBE(entry, 4, fourcc("pasp"));
            appendBE(entry, 4, track.sarNum);
            appendBE(entry, 4, track.sarDen);
        }
        appendBE(stsd, 4, entry.size() + 8);
        appendBE(stsd, 4, fourcc(track.hevc ? "hvc1" : "avc1"));
        stsd.insert(stsd.end(), entry.begin(), entry.end());
    }

    Bytes stts = fullBoxHeader(0), ctts = fullBoxHeader(0), stss = fullBoxHeader(0);
    Bytes stsz = fullBoxHeader(0), stsc = fullBoxHeader(0), stco = fullBoxHeader(0);
    auto runLength = [](const std::vector<int64_t>& values, Bytes& out) {
        Bytes body;
        uint32_t entries = 0;
        for (size_t i = 0; i < values.size();) {
            size_t j = i;
            while (j < values.size() && values[j] == values[i])
                ++j;
            appendBE(body, 4, j - i);
            appendBE(body, 4, uint64_t(values[i]));
            ++entries;
            i = j;
        }
        appendBE(out, 4, entries);
        out.insert(out.end(), body.begin(), body.end());
    };
    runLength(durations, stts);
    const bool offsets = std::any_of(cts.begin(), cts.end(), [](int64_t c) { return c != 0; });
    if (offsets)
        runLength(cts, ctts);
    std::vector<uint32_t> keys;
    for (size_t i = 0; i < n; ++i)
        if (samples[i].key)
            keys.push_back(uint32_t(i + 1));
    appendBE(stss, 4, keys.size());
    for (uint32_t k : keys)
        appendBE(stss, 4, k);
    appendBE(stsz, 4, 0);
    appendBE(stsz, 4, n);
    for (const IndexedSample& s : samples)
        appendBE(stsz, 4, s.size);

    // A chunk for each stretch of pictures that follow each other here.
    std::vector<int64_t> chunkStarts;
    std::vector<uint32_t> perChunk;
    for (size_t i = 0; i < n; ++i) {
        if (i > 0 && where[i] == where[i - 1] + int64_t(samples[i - 1].size)) {
            ++perChunk.back();
            continue;
        }
        chunkStarts.push_back(mediaStart + where[i]);
        perChunk.push_back(1);
    }
    Bytes runs;
    uint32_t runCount = 0;
    for (size_t c = 0; c < perChunk.size(); ++c) {
        if (c > 0 && perChunk[c] == perChunk[c - 1])
            continue;
        appendBE(runs, 4, c + 1);
        appendBE(runs, 4, perChunk[c]);
        appendBE(runs, 4, 1);
        ++runCount;
    }
    appendBE(stsc, 4, runCount);
    stsc.insert(stsc.end(), runs.begin(), runs.end());
    appendBE(stco, 4, chunkStarts.size());
    for (int64_t at : chunkStarts)
        appendBE(stco, wide ? 8 : 4, uint64_t(at));

    const uint32_t stblType = fourcc("stbl");
    auto stbl = std::make_unique<Box>(stblType);
    stbl->setContainer(true);
    stbl->append(box("stsd", stsd, stblType));
    stbl->append(box("stts", stts, stblType));
    if (offsets)
        stbl->append(box("ctts", ctts, stblType));
    if (keys.size() < n)
        stbl->append(box("stss", stss, stblType));
    stbl->append(box("stsc", stsc, stblType));
    stbl->append(box("stsz", stsz, stblType));
    stbl->append(wide ? box("co64", stco, stblType) : box("stco", stco, stblType));
    Box* minf = videoTrak->find("mdia.minf");
    Box* oldStbl = minf->child(stblType);
    minf->insert(minf->indexOf(oldStbl), std::move(stbl));
    minf->remove(oldStbl);

    // The movie lasts as long as its longest track.
    Box* mv = moov->child(fourcc("mvhd"));
    uint64_t longest = 0;
    for (const Box* t : moov->childrenOfType(fourcc("trak"))) {
        const Box* h = t->child(fourcc("tkhd"));
        longest = std::max<uint64_t>(
            longest, readBE(h->data(), h->data()[0] == 1 ? 28 : 20, h->data()[0] == 1 ? 8 : 4));
    }
    const bool mvV1 = mv->data()[0] == 1;
    if (mvV1 || longest <= UINT32_MAX) {
        writeBE(mv->data(), mvV1 ? 24 : 16, mvV1 ? 8 : 4, longest);
    } else {
        Bytes& m = mv->data();
        Bytes v1 = fullBoxHeader(1);
        appendBE(v1, 8, readBE(m, 4, 4));
        appendBE(v1, 8, readBE(m, 8, 4));
        appendBE(v1, 4, readBE(m, 12, 4));
        appendBE(v1, 8, longest);
        v1.insert(v1.end(), m.begin() + 20, m.end());
        m = std::move(v1);
    }
}

// The converted tracks' chunk offsets, to where their chunks now lie.
void FastMux::Impl::placeChunks(bool wide) {
    for (size_t k = 0; k < keptTables.size(); ++k) {
        Box* table = keptTables[k];
        Bytes co = fullBoxHeader(0);
        appendBE(co, 4, keptChunks[k].size());
        for (size_t c : keptChunks[k])
            appendBE(co, wide ? 8 : 4, uint64_t(mediaStart + chunks[c].to));
        Box* stbl = table->parent();
        auto replacement = box(wide ? "co64" : "stco", co, fourcc("stbl"));
        keptTables[k] = replacement.get();
        stbl->insert(stbl->indexOf(table), std::move(replacement));
        stbl->remove(table);
    }
}

Bytes FastMux::Impl::serializeMoov() const {
    Bytes out;
    moov->serialize(out);
    return out;
}

bool FastMux::prepare(const FastMuxRequest& request, const File& converted, std::string* why) {
    Impl& m = *d;
    m.request = request;
    if (converted.moov()->child(fourcc("mvex"))) {
        *why = "the converted file is fragmented";
        return false;
    }
    // The stand-by video: the enabled video track, else the first one.
    const Box* standby = nullptr;
    for (const Box* trak : converted.moov()->childrenOfType(fourcc("trak")))
        if (handlerOf(trak) == fourcc("vide") &&
            (!standby || (isEnabled(trak) && !isEnabled(standby))))
            standby = trak;
    if (!standby || !standby->find("mdia.minf.stbl") || !standby->find("mdia.mdhd") ||
        !standby->child(fourcc("tkhd")) || standby->child(fourcc("tkhd"))->data().size() < 84) {
        *why = "the converted file has no stand-by video track";
        return false;
    }
    if (!m.indexVideo(why) || !m.videoTimes(converted, standby, why))
        return false;

    Bytes raw;
    converted.moov()->serialize(raw);
    size_t used = 0;
    m.moov = Box::parse(raw.data(), raw.size(), &used);
    if (!m.moov || !m.keepTracks(converted, standby, why))
        return false;
    m.source.fd = ::open(request.sourcePath.c_str(), O_RDONLY | O_CLOEXEC);
    if (m.source.fd < 0) {
        *why = std::strerror(errno);
        return false;
    }
    m.plan();

    // File brand by the name's extension, as the demuxing path's writer has it.
    const std::string& hint = request.formatHint;
    const size_t dot = hint.find_last_of('.');
    std::string ext = dot == std::string::npos ? "" : hint.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    std::vector<const char*> brands;
    if (ext == "m4v" && !m.track.hevc)
        brands = {"M4V ", "M4V ", "M4A ", "mp42", "isom"};
    else if (ext == "mov")
        brands = {"qt  ", "qt  "};
    else
        brands = {"isom", "isom", "iso2", m.track.hevc ? "mp41" : "avc1", "mp41"};
    m.ftyp.clear();
    appendBE(m.ftyp, 4, 8 + 4 * brands.size() + 4);
    appendBE(m.ftyp, 4, fourcc("ftyp"));
    appendBE(m.ftyp, 4, fourcc(std::string_view(brands[0], 4)));
    appendBE(m.ftyp, 4, 0x200);
    for (size_t i = 1; i < brands.size(); ++i)
        appendBE(m.ftyp, 4, fourcc(std::string_view(brands[i], 4)));

    // The header's size depends on the offsets' width only; the media data
    // starts on a page boundary, so runs aligned here are aligned in the file.
    m.buildVideoTrack(true);
    m.placeChunks(true);
    const int64_t wideMoov = int64_t(m.serializeMoov().size());
    const bool wide =
        int64_t(m.ftyp.size()) + 2 * wideMoov + (1 << 20) + m.mediaSize > INT64_C(0xFFFFFFFF);
    if (!wide) {
        m.buildVideoTrack(false);
        m.placeChunks(false);
    }
    const int64_t moovSize = int64_t(m.serializeMoov().size());
    auto pageUp = [](int64_t v) { return (v + kPage - 1) / kPage * kPage; };
    if (request.moovInFront) {
        // Room after the header for later tag writes to stay in place.
        m.moovAt = int64_t(m.ftyp.size());
        const int64_t headerEnd =
            m.moovAt + moovSize + int64_t(tarnwick::mp4::optimizePadding(uint64_t(moovSize))) + 16;
        m.mediaStart = pageUp(headerEnd);
        m.freeSize = m.mediaStart - 16 - m.moovAt - moovSize;
    } else {
        m.mediaStart = pageUp(int64_t(m.ftyp.size()) + 8 + 16);
        m.freeSize = m.mediaStart - 16 - int64_t(m.ftyp.size());
        m.moovAt = m.mediaStart + m.mediaSize;
    }
    m.buildVideoTrack(wide);
    m.placeChunks(wide);
    return true;
}

bool FastMux::write(const std::string& path, Progress& progress, std::string* error) {
    Impl& m = *d;
    // No O_TRUNC: the file is new and empty, and truncating it would have
    // ext4 flush all of it on close (its guard for files rewritten in place).
    FdCloser out{::open(path.c_str(), O_WRONLY | O_CLOEXEC)};
    const std::string writeFailed = "cannot write the output file " + path;
    if (out.fd < 0)
        return sysFail(error, writeFailed);

    Bytes head = m.ftyp;
    Bytes moov = m.serializeMoov();
    if (m.request.moovInFront)
        head.insert(head.end(), moov.begin(), moov.end());
    appendBE(head, 4, uint64_t(m.freeSize));
    appendBE(head, 4, fourcc("free"));
    const size_t freeEnd = head.size() - 8 + size_t(m.freeSize);
    const int64_t mdatAt = int64_t(freeEnd);
    if (!pwriteAll(out.fd, head.data(), head.size(), 0))
        return sysFail(error, writeFailed);
    Bytes mdat;
    appendBE(mdat, 4, 1);
    appendBE(mdat, 4, fourcc("mdat"));
    appendBE(mdat, 8, uint64_t(16 + m.mediaSize));
    if (!pwriteAll(out.fd, mdat.data(), mdat.size(), mdatAt))
        return sysFail(error, writeFailed);

    uint64_t total = 0, done = 0;
    for (const Impl::Piece& p : m.pieces)
        total += uint64_t(p.fromVideo ? p.size : 0);
    bool copyWorks = true;
    Bytes buffer, span;
    for (const Impl::Piece& p : m.pieces) {
        if (!p.fromVideo) {
            // The converted samples of half a second: read in one go where
            // they lie close together (interleaved with the stand-by
            // video's), written at once.
            int64_t lo = INT64_MAX, hi = 0, wanted = 0;
            for (size_t c = p.first; c < p.last; ++c) {
                lo = std::min(lo, m.chunks[c].from);
                hi = std::max(hi, m.chunks[c].from + m.chunks[c].size);
                wanted += m.chunks[c].size;
            }
            const bool together = hi - lo <= 2 * wanted + (64 << 10);
            if (together) {
                span.resize(size_t(hi - lo));
                if (!preadAll(m.source.fd, span.data(), span.size(), lo))
                    return sysFail(error, "cannot read " + m.request.sourcePath);
            }
            buffer.resize(size_t(wanted));
            size_t at = 0;
            for (size_t c = p.first; c < p.last; ++c) {
                const Impl::Chunk& chunk = m.chunks[c];
                if (together)
                    std::memcpy(buffer.data() + at, span.data() + (chunk.from - lo),
                                size_t(chunk.size));
                else if (!preadAll(m.source.fd, buffer.data() + at, size_t(chunk.size), chunk.from))
                    return sysFail(error, "cannot read " + m.request.sourcePath);
                at += size_t(chunk.size);
            }
            if (!pwriteAll(out.fd, buffer.data(), buffer.size(), m.mediaStart + p.to))
                return sysFail(error, writeFailed);
            continue;
        }
        loff_t in = p.from, to = m.mediaStart + p.to;
        size_t left = size_t(p.size);
        while (left > 0 && copyWorks) {
            const ssize_t n =
                ::copy_file_range(m.video.fd, &in, out.fd, &to, std::min(left, kCopyStep), 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                // Not between these files (other file systems on old
                // kernels): through memory from here on.
                if (n < 0 && errno != EXDEV && errno != EOPNOTSUPP && errno != ENOSYS &&
                    errno != EINVAL)
                    return sysFail(error, writeFailed);
                if (n == 0) {
                    errno = EIO;
                    return sysFail(error, "cannot read " + m.request.videoPath);
                }
                copyWorks = false;
                break;
            }
            left -= size_t(n);
            done += uint64_t(n);
            progress.update(100.0 * double(done) / double(total));
        }
        while (left > 0) {
            buffer.resize(std::min(left, size_t(8) << 20));
            if (!preadAll(m.video.fd, buffer.data(), buffer.size(), in))
                return sysFail(error, "cannot read " + m.request.videoPath);
            if (!pwriteAll(out.fd, buffer.data(), buffer.size(), to))
                return sysFail(error, writeFailed);
            in += int64_t(buffer.size());
            to += int64_t(buffer.size());
            left -= buffer.size();
            done += buffer.size();
            progress.update(100.0 * double(done) / double(total));
        }
    }
    if (!m.request.moovInFront && !pwriteAll(out.fd, moov.data(), moov.size(), m.moovAt))
        return sysFail(error, writeFailed);
    const int fd = out.fd;
    out.fd = -1;
    if (::close(fd) != 0)
        return sysFail(error, writeFailed);
    return true;
}

} // namespace muxer
