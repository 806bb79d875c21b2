#pragma once

// Small pieces both muxer programs use on files and track boxes.

#include "mp4/Box.h"

#include <cstddef>
#include <cstdint>
#include <unistd.h>

namespace muxer {

// Closes the descriptor it holds when it goes.
struct FdCloser {
    int fd = -1;
    ~FdCloser() {
        if (fd >= 0)
            ::close(fd);
    }
};

// Whole reads and writes at an offset, across interruptions. A read that
// meets the end of the file fails with EIO (the file shrank under us).
bool preadAll(int fd, uint8_t* p, size_t n, int64_t at);
bool pwriteAll(int fd, const uint8_t* p, size_t n, int64_t at);

// A track's id from its header, 0 when it has none.
uint32_t trackIdOf(const tarnwick::mp4::Box* trak);
// The handler type of a handler box, 0 for none.
uint32_t handlerType(const tarnwick::mp4::Box* hdlr);

} // namespace muxer
