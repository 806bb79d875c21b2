#include "FastMux.h"

#include "FastMuxImpl.h"

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

namespace muxer {

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
