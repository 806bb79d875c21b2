#pragma once

// Reading Matroska's EBML elements: the element IDs the indexers need, a
// windowed file reader, elements held in memory, the track list and block
// headers.

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace muxer {

// --- Matroska -------------------------------------------------------------

constexpr uint32_t kEbml = 0x1A45DFA3;
constexpr uint32_t kSegment = 0x18538067;
constexpr uint32_t kSeekHead = 0x114D9B74;
constexpr uint32_t kInfo = 0x1549A966;
constexpr uint32_t kTracks = 0x1654AE6B;
constexpr uint32_t kCluster = 0x1F43B675;
constexpr uint32_t kCues = 0x1C53BB6B;
constexpr uint32_t kAttachments = 0x1941A469;
constexpr uint32_t kChapters = 0x1043A770;
constexpr uint32_t kTags = 0x1254C367;
constexpr uint32_t kTimestampScale = 0x2AD7B1;
constexpr uint32_t kTrackEntry = 0xAE;
constexpr uint32_t kTrackNumber = 0xD7;
constexpr uint32_t kCodecId = 0x86;
constexpr uint32_t kTrackType = 0x83;
constexpr uint32_t kCodecPrivate = 0x63A2;
constexpr uint32_t kDefaultDuration = 0x23E383;
constexpr uint32_t kTrackTimestampScale = 0x23314F;
constexpr uint32_t kCodecDelay = 0x56AA;
constexpr uint32_t kContentEncodings = 0x6D80;
constexpr uint32_t kTimestamp = 0xE7;
constexpr uint32_t kSimpleBlock = 0xA3;
constexpr uint32_t kBlockGroup = 0xA0;
constexpr uint32_t kBlock = 0xA1;
constexpr uint32_t kBlockDuration = 0x9B;
constexpr uint32_t kReferenceBlock = 0xFB;
constexpr uint32_t kEncryptedBlock = 0xAF;
constexpr uint64_t kUnknownSize = ~uint64_t(0);

// Header elements read whole; a track list beyond this is not a movie's.
constexpr uint64_t kMaxHeaderElement = 64u << 20;

bool isTopLevel(uint32_t id);

// Small reads through a window: block headers are a dozen bytes apart from
// the next audio block, but a picture apart from the next picture.
class Reader {
public:
    Reader(int fd, int64_t size) : m_fd(fd), m_size(size) {}
    int64_t size() const { return m_size; }

    // [pos, pos + n) or nullptr past the end of the file.
    const uint8_t* at(int64_t pos, size_t n) {
        if (pos < 0 || pos + int64_t(n) > m_size)
            return nullptr;
        if (pos < m_start || pos + int64_t(n) > m_start + int64_t(m_fill)) {
            const size_t want = std::max(n, kRead);
            if (m_buffer.size() < want)
                m_buffer.resize(want);
            size_t got = 0;
            while (got < want) {
                const ssize_t r =
                    ::pread(m_fd, m_buffer.data() + got, want - got, off_t(pos + int64_t(got)));
                if (r < 0 && errno == EINTR)
                    continue;
                if (r <= 0)
                    break;
                got += size_t(r);
            }
            m_start = pos;
            m_fill = got;
            if (got < n)
                return nullptr;
        }
        return m_buffer.data() + (pos - m_start);
    }

    // An element ID (marker bits kept) at pos; its length in *len.
    bool id(int64_t pos, uint32_t* value, int* len) {
        const uint8_t* p = at(pos, 1);
        if (!p || p[0] == 0)
            return false;
        const int n = __builtin_clz(uint32_t(p[0])) - 23;
        if (n > 4 || !(p = at(pos, size_t(n))))
            return false;
        uint32_t v = 0;
        for (int i = 0; i < n; ++i)
            v = (v << 8) | p[i];
        *value = v;
        *len = n;
        return true;
    }

    // A variable-length number (marker bit removed); kUnknownSize when all ones.
    bool vint(int64_t pos, uint64_t* value, int* len) {
        const uint8_t* p = at(pos, 1);
        if (!p || p[0] == 0)
            return false;
        const int n = __builtin_clz(uint32_t(p[0])) - 23;
        if (!(p = at(pos, size_t(n))))
            return false;
        uint64_t v = p[0] & (0xFFu >> n);
        bool ones = v == (0xFFu >> n);
        for (int i = 1; i < n; ++i) {
            v = (v << 8) | p[i];
            ones = ones && p[i] == 0xFF;
        }
        *value = ones ? kUnknownSize : v;
        *len = n;
        return true;
    }

private:
    static constexpr size_t kRead = 4096;
    int m_fd;
    int64_t m_size;
    std::vector<uint8_t> m_buffer;
    int64_t m_start = 0;
    size_t m_fill = 0;
};

struct Element {
    uint32_t id = 0;
    int64_t data = 0;  // where its content starts
    uint64_t size = 0; // kUnknownSize for "until the parent's next sibling"
    int64_t end() const { return size == kUnknownSize ? INT64_MAX : data + int64_t(size); }
};

bool element(Reader& r, int64_t pos, Element* e);

// Children of an element held in memory.
struct Span {
    const uint8_t* p;
    size_t n;
};

bool memVint(Span s, size_t pos, uint64_t* value, int* len, bool keepMarker);

template <typename F> bool forEachChild(Span s, F&& f) {
    size_t pos = 0;
    while (pos < s.n) {
        uint64_t id = 0, size = 0;
        int a = 0, b = 0;
        if (!memVint(s, pos, &id, &a, true) || !memVint(s, pos + size_t(a), &size, &b, false))
            return false;
        pos += size_t(a + b);
        if (size > s.n - pos)
            return false;
        if (!f(uint32_t(id), Span{s.p + pos, size_t(size)}))
            return false;
        pos += size_t(size);
    }
    return true;
}

uint64_t memUint(Span s);

double memFloat(Span s);

struct TrackInfo {
    bool found = false;
    uint64_t number = 0;
    bool usable = true;
    std::string why;
    uint64_t defaultDuration = 0; // nanoseconds
};

bool readWhole(Reader& r, const Element& e, std::vector<uint8_t>* out);

// The video track whose decoder configuration is `config`; the demuxer's
// streams do not tell their track numbers, so it must be the only one.
void parseTracks(Span tracks, const std::vector<uint8_t>& config, TrackInfo* info);

// The block's header (track, relative time, flags) at the start of its content.
struct BlockHeader {
    uint64_t track = 0;
    int16_t time = 0;
    uint8_t flags = 0;
    int length = 0;
};

bool blockHeader(Reader& r, const Element& e, BlockHeader* h);

} // namespace muxer
