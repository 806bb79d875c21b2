#include "MetadataCopy.h"

#include "mp4/Mp4File.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using tarnwick::mp4::Box;
using tarnwick::mp4::Bytes;
using tarnwick::mp4::File;
using tarnwick::mp4::fourcc;
using tarnwick::mp4::readBE;
using tarnwick::mp4::TopLevelBox;

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

uint32_t trackIdOf(const Box* trak) {
    const Box* tkhd = trak->child(fourcc("tkhd"));
    if (!tkhd || tkhd->data().empty())
        return 0;
    return uint32_t(readBE(tkhd->data(), tkhd->data()[0] == 1 ? 20 : 12, 4));
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

uint32_t handlerType(const Box* hdlr) {
    return hdlr ? uint32_t(readBE(hdlr->data(), 8, 4)) : 0;
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

bool pwriteAll(int fd, uint64_t offset, const uint8_t* p, size_t n) {
    while (n > 0) {
        const ssize_t w = ::pwrite(fd, p, n, off_t(offset));
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += w;
        n -= size_t(w);
        offset += uint64_t(w);
    }
    return true;
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

bool copyMetadata(const File& source, const std::string& outputPath,
                  const std::vector<int>& sourceTrackIds, bool* moovFirst, std::string* error) {
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
        ok = pwriteAll(fd, start, bytes.data(), bytes.size()) &&
             ::ftruncate(fd, off_t(start + n)) == 0;
    } else if (room == n || room >= n + 8) {
        ok = pwriteAll(fd, start, bytes.data(), bytes.size());
        if (ok && room > n) {
            const Bytes pad = header32(room - n, "free");
            ok = pwriteAll(fd, start + n, pad.data(), pad.size());
        }
    } else {
        // No room in front: the old moov becomes free space, the new one goes last.
        placed = fileSize;
        const Bytes freeType = {'f', 'r', 'e', 'e'};
        ok = pwriteAll(fd, fileSize, bytes.data(), bytes.size()) &&
             pwriteAll(fd, start + 4, freeType.data(), 4);
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
