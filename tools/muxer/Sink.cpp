#include "Sink.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace muxer {

namespace {

constexpr int kBufferSize = 1 << 20;
constexpr size_t kPendingSize = 1u << 20;
constexpr size_t kMaxCopyRun = 1u << 30;
constexpr int64_t kPage = 4096;
// Block headers (element ID, size, track number, time code, flags) are short.
constexpr int kMaxHeader = 48;
constexpr size_t kProbe = 16;

bool same(int fd, int64_t offset, const uint8_t* data) {
    uint8_t buf[kProbe];
    return ::pread(fd, buf, kProbe, off_t(offset)) == ssize_t(kProbe) &&
           std::memcmp(buf, data, kProbe) == 0;
}

} // namespace

int64_t verbatimOffset(int fd, int64_t blockPos, const uint8_t* data, size_t size, int* hint) {
    if (fd < 0 || blockPos < 0 || size < 4 * kProbe)
        return -1;
    auto matches = [&](int delta) {
        const int64_t at = blockPos + delta;
        return same(fd, at, data) && same(fd, at + int64_t(size / 2), data + size / 2) &&
               same(fd, at + int64_t(size - kProbe), data + size - kProbe);
    };
    if (*hint >= 0 && matches(*hint))
        return blockPos + *hint;
    for (int delta = 0; delta <= kMaxHeader; ++delta) {
        if (delta != *hint && matches(delta)) {
            *hint = delta;
            return blockPos + delta;
        }
    }
    return -1;
}

int64_t placeInFile(const Layout& layout, int64_t position) {
    auto after = std::upper_bound(layout.begin(), layout.end(), position,
                                  [](int64_t p, const Shift& s) { return p < s.from; });
    return after == layout.begin() ? position : position + std::prev(after)->by;
}

Sink::~Sink() {
    if (m_io) {
        av_freep(&m_io->buffer);
        avio_context_free(&m_io);
    }
    if (m_fd >= 0)
        ::close(m_fd);
}

bool Sink::open(const std::string& path, int sourceFd, std::string* error) {
    // No O_TRUNC: the file is new and empty, and truncating it would have
    // ext4 flush all of it on close (its guard for files rewritten in place).
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (m_fd < 0) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    m_source = sourceFd;
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
    m_io = buffer ? avio_alloc_context(buffer, kBufferSize, 1, this, nullptr, writeCallback,
                                       seekCallback)
                  : nullptr;
    if (!m_io) {
        av_free(buffer);
        *error = "out of memory";
        return false;
    }
    // Large writes skip the buffer, so packet data arrives here as the packet's own memory.
    m_io->direct = 1;
    return true;
}

void Sink::expect(const uint8_t* data, size_t size, int64_t sourceOffset) {
    m_expectData = data;
    m_expectSize = size;
    m_expectOffset = sourceOffset;
}

bool Sink::pwriteAll(const uint8_t* buf, size_t size, int64_t at) {
    while (size > 0) {
        const ssize_t n = ::pwrite(m_fd, buf, size, off_t(at));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            m_errno = errno;
            return false;
        }
        buf += n;
        size -= size_t(n);
        at += n;
    }
    return true;
}

bool Sink::writeAt(const uint8_t* buf, size_t size) {
    if (!flushCopy())
        return false;
    // Box headers and audio packets come a few hundred bytes at a time:
    // gathered into one write.
    if (!m_pending.empty() && m_pendingAt + int64_t(m_pending.size()) != m_pos && !flushPending())
        return false;
    if (m_pending.size() + size <= kPendingSize) {
        if (m_pending.empty())
            m_pendingAt = m_pos;
        m_pending.insert(m_pending.end(), buf, buf + size);
        m_pos += int64_t(size);
        return true;
    }
    if (!flushPending() || !pwriteAll(buf, size, placeInFile(m_layout, m_pos)))
        return false;
    m_pos += int64_t(size);
    return true;
}

bool Sink::copyAt(int64_t from, size_t size) {
    if (!m_pending.empty() && !flushPending())
        return false;
    int64_t to = placeInFile(m_layout, m_pos);
    if (m_alignFrom > 0 && size >= m_alignFrom &&
        (m_layout.empty() || m_pos > m_layout.back().from)) {
        const int64_t gap = ((from - to) % kPage + kPage) % kPage;
        if (gap > 0) {
            if (!flushCopy())
                return false;
            m_layout.push_back({m_pos, to + gap - m_pos});
            to += gap;
        }
    }
    // Pictures that follow each other in both files (MP4 chunks) go in one call.
    if (m_copyLength > 0 && m_copyFrom + int64_t(m_copyLength) == from &&
        m_copyTo + int64_t(m_copyLength) == to && m_copyLength + size <= kMaxCopyRun) {
        m_copyLength += size;
        m_pos += int64_t(size);
        return true;
    }
    if (!flushCopy())
        return false;
    m_copyFrom = from;
    m_copyTo = to;
    m_copyLength = size;
    m_pos += int64_t(size);
    return true;
}

bool Sink::flushCopy() {
    if (m_copyLength == 0)
        return true;
    loff_t in = m_copyFrom, out = m_copyTo;
    size_t size = m_copyLength;
    m_copyLength = 0;
    while (size > 0 && m_copyWorks) {
        const ssize_t n = ::copy_file_range(m_source, &in, m_fd, &out, size, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            // Not between these files (other file systems on old kernels):
            // through memory from here on.
            if (n < 0 && errno != EXDEV && errno != EOPNOTSUPP && errno != ENOSYS &&
                errno != EINVAL) {
                m_errno = errno;
                return false;
            }
            m_copyWorks = false;
            break;
        }
        size -= size_t(n);
        m_copied += uint64_t(n);
    }
    std::vector<uint8_t> bounce;
    while (size > 0) {
        bounce.resize(std::min<size_t>(size, kBufferSize));
        const ssize_t n = ::pread(m_source, bounce.data(), bounce.size(), off_t(in));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            m_errno = n < 0 ? errno : EIO; // the source shrank under us
            return false;
        }
        if (!pwriteAll(bounce.data(), size_t(n), out))
            return false;
        in += n;
        out += n;
        size -= size_t(n);
    }
    return true;
}

bool Sink::flushPending() {
    if (!flushCopy())
        return false;
    if (m_pending.empty())
        return true;
    const bool ok =
        pwriteAll(m_pending.data(), m_pending.size(), placeInFile(m_layout, m_pendingAt));
    m_pending.clear();
    return ok;
}

int Sink::writeCallback(void* opaque, uint8_t* buf, int size) {
    auto* self = static_cast<Sink*>(opaque);
    if (size <= 0)
        return 0;
    bool ok;
    if (buf == self->m_expectData && size_t(size) == self->m_expectSize &&
        self->m_expectOffset >= 0) {
        ok = self->copyAt(self->m_expectOffset, size_t(size));
    } else {
        ok = self->writeAt(buf, size_t(size));
    }
    self->m_expectData = nullptr;
    self->m_end = std::max(self->m_end, self->m_pos);
    return ok ? size : AVERROR(self->m_errno ? self->m_errno : EIO);
}

int64_t Sink::seekCallback(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<Sink*>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE:
        return self->m_end;
    case SEEK_SET:
        if (!self->flushPending())
            return AVERROR(self->m_errno);
        self->m_pos = offset;
        break;
    case SEEK_CUR:
        if (!self->flushPending())
            return AVERROR(self->m_errno);
        self->m_pos += offset;
        break;
    case SEEK_END:
        if (!self->flushPending())
            return AVERROR(self->m_errno);
        self->m_pos = self->m_end + offset;
        break;
    default:
        return AVERROR(EINVAL);
    }
    return self->m_pos;
}

bool Sink::close(std::string* error) {
    avio_flush(m_io);
    flushPending(); // a failure is in m_errno
    const int ioError = m_io->error;
    av_freep(&m_io->buffer);
    avio_context_free(&m_io);
    const int rc = ::close(m_fd);
    m_fd = -1;
    if (ioError < 0 || m_errno != 0 || rc != 0) {
        *error = std::string("cannot write the output file: ") +
                 std::strerror(m_errno ? m_errno : (rc != 0 ? errno : EIO));
        return false;
    }
    return true;
}

} // namespace muxer
