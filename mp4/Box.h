#pragma once

// The box tree of an ISO base media file: boxes read into memory, edited,
// and serialised back. Only the `moov` subtree is ever held this way; media
// data stays on disk.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwick::mp4 {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t fourcc(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
           (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}
uint32_t fourcc(std::string_view s); // 0 unless exactly four bytes
std::string fourccString(uint32_t type);

// Big-endian field access; reads past the end answer 0.
uint64_t readBE(const uint8_t* p, size_t avail, size_t offset, int width);
inline uint64_t readBE(const Bytes& b, size_t offset, int width) {
    return readBE(b.data(), b.size(), offset, width);
}
void writeBE(Bytes& b, size_t offset, int width, uint64_t value); // grows b when needed
void appendBE(Bytes& b, int width, uint64_t value);

class Box {
public:
    explicit Box(uint32_t type) : m_type(type) {}

    uint32_t type() const { return m_type; }
    std::string typeName() const { return fourccString(m_type); }

    // A container keeps its fixed fields (version/flags, sample entry fields)
    // in data() and its boxes in children(); a leaf keeps its whole payload in data().
    bool isContainer() const { return m_container; }
    void setContainer(bool c) { m_container = c; }
    Bytes& data() { return m_data; }
    const Bytes& data() const { return m_data; }

    const std::vector<std::unique_ptr<Box>>& children() const { return m_children; }
    Box* parent() const { return m_parent; }

    // First (or index-th) child of that type.
    Box* child(uint32_t type, size_t index = 0) const;
    std::vector<Box*> childrenOfType(uint32_t type) const;
    // Dotted path below this box, e.g. "mdia.minf.stbl"; "name[1]" picks the second.
    Box* find(std::string_view path) const;

    Box* append(std::unique_ptr<Box> b);
    Box* insert(size_t position, std::unique_ptr<Box> b);
    // The existing child of that type, or a new container appended at the end.
    Box* obtain(uint32_t type, size_t prefixBytes = 0);
    bool remove(const Box* b);
    void removeAll(uint32_t type);
    size_t indexOf(const Box* b) const;

    uint64_t size() const;
    void serialize(Bytes& out) const;

    // Where the box was read from (0/0 for new boxes) and whether it used a 64-bit header.
    uint64_t fileOffset() const { return m_fileOffset; }
    void setFileOffset(uint64_t o) { m_fileOffset = o; }
    bool largeHeader() const { return m_largeHeader; }
    void setLargeHeader(bool l) { m_largeHeader = l; }

    // Parses one box tree from memory; nullptr when the bytes are not a box.
    // parentType decides how boxes whose layout depends on their place are read.
    // A container that must hold only boxes but does not (a child of size 0,
    // a bad 64-bit size, a child running past its parent) is kept as opaque
    // bytes, and the first such damage is described in *problem.
    static std::unique_ptr<Box> parse(const uint8_t* p, size_t avail, size_t* consumed,
                                      uint32_t parentType = 0, int depth = 0,
                                      std::string* problem = nullptr);

private:
    void parseChildren(const uint8_t* p, size_t n, int depth, bool strict, std::string* problem);
    uint64_t contentSize() const;
    bool needsLargeHeader(uint64_t content) const;

    uint32_t m_type;
    bool m_container = false;
    bool m_largeHeader = false;
    uint64_t m_fileOffset = 0;
    Bytes m_data;
    Bytes m_trailer; // bytes after the last child that are not a box (QuickTime's zero terminator)
    std::vector<std::unique_ptr<Box>> m_children;
    Box* m_parent = nullptr;
};

// Number of bytes of fixed fields in front of the children of a container box,
// or -1 when that type is read as a leaf. `payload` lets version-dependent
// layouts (QuickTime sound description v1/v2, QuickTime-style `meta`) decide.
int containerPrefix(uint32_t type, uint32_t parentType, const uint8_t* payload, size_t n);

} // namespace tarnwick::mp4
