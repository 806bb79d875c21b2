#include "FileBoxes.h"

#include <cerrno>
#include <unistd.h>

using tarnwick::mp4::Box;
using tarnwick::mp4::fourcc;
using tarnwick::mp4::readBE;

namespace muxer {

bool preadAll(int fd, uint8_t* p, size_t n, int64_t at) {
    while (n > 0) {
        const ssize_t r = ::pread(fd, p, n, off_t(at));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            if (r == 0)
                errno = EIO;
            return false;
        }
        p += r;
        n -= size_t(r);
        at += r;
    }
    return true;
}

bool pwriteAll(int fd, const uint8_t* p, size_t n, int64_t at) {
    while (n > 0) {
        const ssize_t w = ::pwrite(fd, p, n, off_t(at));
        if (w < 0 && errno == EINTR)
            continue;
        if (w < 0)
            return false;
        p += w;
        n -= size_t(w);
        at += w;
    }
    return true;
}

uint32_t trackIdOf(const Box* trak) {
    const Box* tkhd = trak->child(fourcc("tkhd"));
    if (!tkhd || tkhd->data().empty())
        return 0;
    return uint32_t(readBE(tkhd->data(), tkhd->data()[0] == 1 ? 20 : 12, 4));
}

uint32_t handlerType(const Box* hdlr) {
    return hdlr ? uint32_t(readBE(hdlr->data(), 8, 4)) : 0;
}

} // namespace muxer
