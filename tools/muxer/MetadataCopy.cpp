#include "MetadataCopy.h"

#include "FileBoxes.h"
#include "mp4/Mp4File.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using tarnwick::mp4::appendBE;
using tarnwick::mp4::Box;
using tarnwick::mp4::Bytes;
using tarnwick::mp4::File;
using tarnwick::mp4::fourcc;
using tarnwick::mp4::readBE;
using tarnwick::mp4::TopLevelBox;
using tarnwick::mp4::writeBE;

namespace muxer {

namespace {

// Presentation fields at the end of a track header: layer, alternate group,
// volume, matrix, width and height (with the reserved bytes before them).
constexpr size_t kTkhdTail = 60;
constexpr uint16_t kUndetermined = 0x55c4; // "und" packed as in mdhd

std::unique_ptr<Box> clone(const Box& box, uint32_t parentType) {
    Bytes bytes;
    box.serialize(bytes);
    size_t used = 0;
    return Box::parse(bytes.data(), bytes.size(), &used, parentType);
}

Box* trackById(const Box* moov, uint32_t id) {
    for (Box* trak : moov->childrenOfType(fourcc("trak")))
        if (trackIdOf(trak) == id)
            return trak;
    return nullptr;
}

size_t languageOffset(const Box* mdhd) {
    return mdhd->data()[0] == 1 ? 32 : 20;
}

void copyTrack(const Box& from, Box& to, bool video) {
    // Track header: enabled/in-movie flags, and for the converted tracks
    // their group, volume and placement (subtitle boxes are sized by the encoder).
    const Box* tkhdFrom = from.child(fourcc("tkhd"));
    Box* tkhdTo = to.child(fourcc("tkhd"));
    if (tkhdFrom && tkhdTo && tkhdFrom->data().size() >= 4 + kTkhdTail &&
        tkhdTo->data().size() >= 4 + kTkhdTail) {
        Bytes& d = tkhdTo->data();
        std::memcpy(d.data() + 1, tkhdFrom->data().data() + 1, 3);
        if (!video)
            std::memcpy(d.data() + d.size() - kTkhdTail,
                        tkhdFrom->data().data() + tkhdFrom->data().size() - kTkhdTail, kTkhdTail);
    }

    const Box* mdhdFrom = from.find("mdia.mdhd");
    Box* mdhdTo = to.find("mdia.mdhd");
    if (mdhdFrom && mdhdTo && mdhdFrom->data().size() >= 34 && mdhdTo->data().size() >= 34) {
        const size_t a = languageOffset(mdhdFrom), b = languageOffset(mdhdTo);
        const uint16_t lang = uint16_t(readBE(mdhdFrom->data(), a, 2));
        // The stand-by video's language is the encoder's guess; the source's own wins.
        if (!video || lang != kUndetermined)
            std::memcpy(mdhdTo->data().data() + b, mdhdFrom->data().data() + a, 2);
    }

    const Box* hdlrFrom = from.find("mdia.hdlr");
    Box* mdiaTo = to.child(fourcc("mdia"));
    Box* hdlrTo = to.find("mdia.hdlr");
    if (hdlrFrom && hdlrTo && handlerType(hdlrFrom) == handlerType(hdlrTo)) {
        const size_t at = mdiaTo->indexOf(hdlrTo);
        mdiaTo->remove(hdlrTo);
        mdiaTo->insert(at, clone(*hdlrFrom, fourcc("mdia")));
    }

    // Track user data: the track name and whatever else the encoder put there.
    if (const Box* udta = from.child(fourcc("udta"))) {
        to.removeAll(fourcc("udta"));
        to.append(clone(*udta, fourcc("trak")));
    }
}

std::string sysError(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

Bytes header32(uint64_t size, const char (&type)[5]) {
    Bytes h;
    tarnwick::mp4::appendBE(h, 4, size);
    tarnwick::mp4::appendBE(h, 4, fourcc(type));
    return h;
}

bool isFree(uint32_t t) {
    return t == fourcc("free") || t == fourcc("skip");
}

} // namespace

uint64_t metadataSize(const File& source) {
    uint64_t n = 0;
    const Box* moov = source.moov();
    if (const Box* udta = moov->child(fourcc("udta")))
        n += udta->size();
    for (const Box* trak : moov->childrenOfType(fourcc("trak"))) {
        if (const Box* udta = trak->child(fourcc("udta")))
            n += udta->size();
        if (const Box* hdlr = trak->find("mdia.hdlr"))
            n += hdlr->size();
    }
    return n;
}

// Sample tables that point where the media really lies. A picture the
// writer moved on (see Layout) no longer follows the one before it, so it
// starts a chunk of its own; 32-bit chunk offsets that no longer suffice
// become 64-bit ones.
void relocateSamples(Box* stbl, const Layout& layout) {
    Box* stsz = stbl->child(fourcc("stsz"));
    Box* stsc = stbl->child(fourcc("stsc"));
    Box* co64 = stbl->child(fourcc("co64"));
    Box* stco = co64 ? co64 : stbl->child(fourcc("stco"));
    if (!stsz || !stsc || !stco || stsz->data().size() < 12 || stsc->data().size() < 8 ||
        stco->data().size() < 8)
        return;
    const Bytes& sz = stsz->data();
    const Bytes& sc = stsc->data();
    const Bytes& co = stco->data();
    const int width = co64 ? 8 : 4;
    const uint64_t uniform = readBE(sz, 4, 4);
    const uint64_t samples = readBE(sz, 8, 4);
    const uint64_t runs = std::min<uint64_t>(readBE(sc, 4, 4), (sc.size() - 8) / 12);
    const uint64_t chunks = std::min<uint64_t>(readBE(co, 4, 4), (co.size() - 8) / width);
    if (uniform == 0 && (sz.size() - 12) / 4 < samples)
        return;

    struct Chunk {
        uint64_t offset;
        uint32_t count;
        uint32_t description;
    };
    std::vector<Chunk> out;
    uint64_t sample = 0;
    for (uint64_t run = 0; run < runs; ++run) {
        const uint64_t first = readBE(sc, 8 + run * 12, 4);
        const uint64_t perChunk = readBE(sc, 8 + run * 12 + 4, 4);
        const uint32_t description = uint32_t(readBE(sc, 8 + run * 12 + 8, 4));
        const uint64_t next = run + 1 < runs ? readBE(sc, 8 + (run + 1) * 12, 4) : chunks + 1;
        for (uint64_t chunk = first; chunk >= 1 && chunk < next && chunk <= chunks; ++chunk) {
            int64_t at = int64_t(readBE(co, 8 + (chunk - 1) * width, width));
            int64_t expected = -1;
            for (uint64_t k = 0; k < perChunk && sample < samples; ++k, ++sample) {
                const int64_t size = int64_t(uniform ? uniform : readBE(sz, 12 + sample * 4, 4));
                const int64_t placed = placeInFile(layout, at);
                if (placed != expected)
                    out.push_back({uint64_t(placed), 0, description});
                ++out.back().count;
                expected = placed + size;
                at += size;
            }
        }
    }

    Bytes newStsc(sc.begin(), sc.begin() + 8);
    uint32_t entries = 0;
    for (size_t i = 0; i < out.size(); ++i) {
        if (i > 0 && out[i].count == out[i - 1].count &&
            out[i].description == out[i - 1].description)
            continue;
        appendBE(newStsc, 4, i + 1);
        appendBE(newStsc, 4, out[i].count);
        appendBE(newStsc, 4, out[i].description);
        ++entries;
    }
    writeBE(newStsc, 4, 4, entries);
    stsc->data() = std::move(newStsc);

    const bool wide =
        std::any_of(out.begin(), out.end(), [](const Chunk& c) { return c.offset > UINT32_MAX; });
    Bytes offsets(co.begin(), co.begin() + 4);
    appendBE(offsets, 4, out.size());
    for (const Chunk& c : out)
        appendBE(offsets, wide || co64 ? 8 : 4, c.offset);
    if (wide && !co64) {
        auto replacement = std::make_unique<Box>(fourcc("co64"));
        replacement->data() = std::move(offsets);
        stbl->insert(stbl->indexOf(stco), std::move(replacement));
        stbl->remove(stco);
    } else {
        stco->data() = std::move(offsets);
    }
}

bool copyMetadata(const File& source, const std::string& outputPath,
                  const std::vector<int>& sourceTrackIds, const Layout& layout, bool* moovFirst,
                  std::string* error) {
    std::string why;
    std::unique_ptr<File> out = File::open(outputPath, false, &why);
    if (!out) {
        *error = "the new file cannot be read back: " + why;
        return false;
    }
    Box* moov = out->moov();
    const Box* from = source.moov();

    // The movie's user data: the converted file's item list replaces the
    // muxer's own; other boxes of the same kind are replaced one by one.
    Box* udta = moov->child(fourcc("udta"));
    if (udta)
        udta->removeAll(fourcc("meta"));
    if (const Box* fromUdta = from->child(fourcc("udta"))) {
        udta = moov->obtain(fourcc("udta"));
        for (const auto& c : fromUdta->children()) {
            udta->removeAll(c->type());
            udta->append(clone(*c, fourcc("udta")));
        }
    }
    if (udta && udta->children().empty())
        moov->remove(udta);

    for (size_t k = 0; k < sourceTrackIds.size(); ++k) {
        if (sourceTrackIds[k] <= 0)
            continue;
        const Box* fromTrak = trackById(from, uint32_t(sourceTrackIds[k]));
        Box* toTrak = trackById(moov, uint32_t(k + 1));
        if (fromTrak && toTrak)
            copyTrack(*fromTrak, *toTrak, k == 0);
    }

    if (!layout.empty())
        for (Box* trak : moov->childrenOfType(fourcc("trak")))
            if (Box* stbl = trak->find("mdia.minf.stbl"))
                relocateSamples(stbl, layout);

    Bytes bytes;
    moov->serialize(bytes);
    const uint64_t n = bytes.size();

    // Where the muxer's moov is, and the free space right after it.
    const auto& top = out->topLevel();
    size_t at = top.size();
    for (size_t i = 0; i < top.size(); ++i)
        if (top[i].type == fourcc("moov")) {
            at = i;
            break;
        }
    if (at == top.size()) {
        *error = "the new file has no movie header";
        return false;
    }
    const uint64_t start = top[at].offset;
    uint64_t room = top[at].size;
    size_t next = at + 1;
    while (next < top.size() && isFree(top[next].type))
        room += top[next++].size;
    const bool last = next == top.size();
    uint64_t mdatOffset = UINT64_MAX;
    for (const TopLevelBox& b : top)
        if (b.type == fourcc("mdat"))
            mdatOffset = std::min(mdatOffset, b.offset);
    const uint64_t fileSize = out->fileSize();
    out.reset();

    const int fd = ::open(outputPath.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        *error = sysError(outputPath);
        return false;
    }
    bool ok = true;
    uint64_t placed = start;
    if (last) {
        ok = pwriteAll(fd, bytes.data(), bytes.size(), int64_t(start)) &&
             ::ftruncate(fd, off_t(start + n)) == 0;
    } else if (room == n || room >= n + 8) {
        ok = pwriteAll(fd, bytes.data(), bytes.size(), int64_t(start));
        if (ok && room > n) {
            const Bytes pad = header32(room - n, "free");
            ok = pwriteAll(fd, pad.data(), pad.size(), int64_t(start + n));
        }
    } else {
        // No room in front: the old moov becomes free space, the new one goes last.
        placed = fileSize;
        const Bytes freeType = {'f', 'r', 'e', 'e'};
        ok = pwriteAll(fd, bytes.data(), bytes.size(), int64_t(fileSize)) &&
             pwriteAll(fd, freeType.data(), 4, int64_t(start + 4));
    }
    if (!ok) {
        *error = sysError(outputPath);
        ::close(fd);
        return false;
    }
    ::close(fd);
    *moovFirst = placed < mdatOffset;
    return true;
}

} // namespace muxer
