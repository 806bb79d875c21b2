#pragma once

// Where the muxer writes: a file descriptor behind a libavformat I/O context.
// Packet data found verbatim in the source file is copied file to file by
// the kernel instead of written from memory; on large files the page-cache
// path of plain writes is what a pass-through spends its time on.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct AVIOContext;

namespace muxer {

// Where the muxer's byte positions lie in the file. A large picture copied
// from the source starts at the same place within a page as it does there
// (the kernel copies whole pages much faster than shifted ones), so a few
// unused bytes are left in the media data before it. Each entry: from this
// position (as the muxer counts) on, this many bytes further into the file.
struct Shift {
    int64_t from = 0;
    int64_t by = 0;
};
using Layout = std::vector<Shift>;
int64_t placeInFile(const Layout& layout, int64_t position);

class Sink {
public:
    Sink() = default;
    ~Sink();
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    // sourceFd: the file packet data may be copied from (-1 for none).
    bool open(const std::string& path, int sourceFd, std::string* error);
    AVIOContext* io() const { return m_io; }

    // The next write of exactly this buffer is taken from the source at that
    // offset (the buffer's own bytes are never written then).
    void expect(const uint8_t* data, size_t size, int64_t sourceOffset);
    // Flushes and closes; false with a message when anything failed to reach the file.
    bool close(std::string* error);

    uint64_t copiedBytes() const { return m_copied; }
    // Copies of at least this many bytes are page-aligned with the source (0: none).
    void alignCopiesFrom(size_t size) { m_alignFrom = size; }
    const Layout& layout() const { return m_layout; }

private:
    static int writeCallback(void* opaque, uint8_t* buf, int size);
    static int64_t seekCallback(void* opaque, int64_t offset, int whence);
    bool writeAt(const uint8_t* buf, size_t size);
    bool copyAt(int64_t from, size_t size);
    bool flushPending(); // the gathered writes and the copy not yet made
    bool flushCopy();
    bool pwriteAll(const uint8_t* buf, size_t size, int64_t at);

    int m_fd = -1;
    int m_source = -1;
    AVIOContext* m_io = nullptr;
    int64_t m_pos = 0;
    int64_t m_end = 0;
    int m_errno = 0;
    const uint8_t* m_expectData = nullptr;
    size_t m_expectSize = 0;
    int64_t m_expectOffset = -1;
    uint64_t m_copied = 0;
    bool m_copyWorks = true;
    std::vector<uint8_t> m_pending; // small writes not yet passed on
    int64_t m_pendingAt = 0;
    int64_t m_copyFrom = 0, m_copyTo = 0; // the copy not yet made
    size_t m_copyLength = 0;
    size_t m_alignFrom = 0;
    Layout m_layout;
};

// Where the packet's bytes lie verbatim in the file of `fd`, or -1. The
// demuxer's position points at the container's block, a few header bytes
// before the data; `hint` carries the last distance found between calls.
int64_t verbatimOffset(int fd, int64_t blockPos, const uint8_t* data, size_t size, int* hint);

} // namespace muxer
