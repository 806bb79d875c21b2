#pragma once

// Helpers the MP4 file's reading, writing and optimising share: plain
// descriptor I/O that survives interruptions, the writers' lock and the
// write-step hook.

#include "mp4/Box.h"
#include "mp4/Mp4File.h"

#include <QElapsedTimer>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarnwick::mp4 {

inline WriteStepHook& stepHook() {
    static WriteStepHook hook;
    return hook;
}

inline void step(const char* name) {
    if (stepHook())
        stepHook()(name);
}

// A moov bigger than this is not a real file's; refuse rather than allocate.
constexpr uint64_t kMaxMoov = 1ULL << 30;
// Writes are split so a kill can land between chunks (and tests can see it).
constexpr size_t kChunk = 256 * 1024;

inline bool isFree(uint32_t t) {
    return t == fourcc("free") || t == fourcc("skip");
}

inline bool plausibleType(uint32_t t) {
    for (int i = 0; i < 4; ++i) {
        const uint8_t c = uint8_t(t >> (24 - 8 * i));
        if (c < 0x20 || c > 0x7e) {
            if (c != 0xa9) // the copyright sign of QuickTime's user-data types
                return false;
        }
    }
    return true;
}

inline std::string sysError(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

inline bool preadAll(int fd, uint64_t offset, void* buffer, size_t n) {
    auto* p = static_cast<uint8_t*>(buffer);
    while (n > 0) {
        const ssize_t r = ::pread(fd, p, n, off_t(offset));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        p += r;
        n -= size_t(r);
        offset += uint64_t(r);
    }
    return true;
}

inline bool pwriteAll(int fd, uint64_t offset, const void* buffer, size_t n) {
    auto* p = static_cast<const uint8_t*>(buffer);
    while (n > 0) {
        const ssize_t r = ::pwrite(fd, p, n, off_t(offset));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        p += r;
        n -= size_t(r);
        offset += uint64_t(r);
    }
    return true;
}

inline Bytes header32(uint64_t size, uint32_t type) {
    Bytes h;
    appendBE(h, 4, size);
    appendBE(h, 4, type);
    return h;
}

inline int& lockWaitMs() {
    static int ms = 10000;
    return ms;
}

// Takes the writers' lock on fd (open on path), waiting a bounded time. A
// writer that replaced the file meanwhile (a rename over it) leaves us
// holding the lock of a file no longer under this name: fd is then reopened.
inline bool lockExclusive(int& fd, const std::string& path, std::string* error) {
    QElapsedTimer waited;
    waited.start();
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            struct stat held {
            }, named{};
            if (::fstat(fd, &held) == 0 && ::stat(path.c_str(), &named) == 0 &&
                (held.st_ino != named.st_ino || held.st_dev != named.st_dev)) {
                const int fresh =
                    ::open(path.c_str(), (::fcntl(fd, F_GETFL) & O_ACCMODE) | O_CLOEXEC);
                if (fresh < 0) {
                    if (error)
                        *error = sysError(path.c_str());
                    return false;
                }
                ::close(fd);
                fd = fresh;
                continue;
            }
            return true;
        }
        if (errno == EINTR)
            continue;
        if (errno != EWOULDBLOCK)
            return true; // a file system without locks: nothing to wait for
        if (waited.elapsed() >= lockWaitMs()) {
            if (error) {
                const int ms = lockWaitMs();
                *error =
                    path + ": another program is writing to this file (gave up after " +
                    (ms % 1000 ? std::to_string(ms) + " ms" : std::to_string(ms / 1000) + " s") +
                    ")";
            }
            return false;
        }
        ::usleep(10000);
    }
}

} // namespace tarnwick::mp4
