#include "FastMuxImpl.h"

#include <algorithm>
#include <numeric>

// The new video track's boxes: sample tables from the index, the sample
// description and headers from the source's track.
namespace muxer {

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

} // namespace muxer
