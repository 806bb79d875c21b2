#include "mp4/Box.h"

#include <algorithm>
#include <charconv>

namespace tarnwick::mp4 {

namespace {

// Deep enough for any real file; guards against crafted self-similar nesting.
constexpr int kMaxDepth = 32;

bool isAudioSampleEntry(uint32_t t) {
    switch (t) {
    case fourcc("mp4a"):
    case fourcc("ac-3"):
    case fourcc("ec-3"):
    case fourcc("alac"):
    case fourcc("enca"):
    case fourcc("Opus"):
    case fourcc("fLaC"):
    case fourcc("samr"):
    case fourcc("twos"):
    case fourcc("sowt"):
    case fourcc("lpcm"):
    case fourcc("ipcm"):
    case fourcc(".mp3"):
        return true;
    default:
        return false;
    }
}

bool isVisualSampleEntry(uint32_t t) {
    switch (t) {
    case fourcc("avc1"):
    case fourcc("avc3"):
    case fourcc("hvc1"):
    case fourcc("hev1"):
    case fourcc("mp4v"):
    case fourcc("encv"):
    case fourcc("av01"):
    case fourcc("vp09"):
    case fourcc("dvh1"):
    case fourcc("dvhe"):
    case fourcc("jpeg"):
    case fourcc("mjp2"):
        return true;
    default:
        return false;
    }
}

// Boxes whose payload is nothing but boxes (after their fixed fields); bytes
// there that are not a box mean damage, not a layout we do not know.
bool holdsOnlyBoxes(uint32_t type, uint32_t parentType) {
    if (parentType == fourcc("ilst"))
        return true;
    switch (type) {
    case fourcc("moov"):
    case fourcc("trak"):
    case fourcc("mdia"):
    case fourcc("minf"):
    case fourcc("stbl"):
    case fourcc("dinf"):
    case fourcc("edts"):
    case fourcc("mvex"):
    case fourcc("tref"):
    case fourcc("udta"):
    case fourcc("meta"):
    case fourcc("ilst"):
        return true;
    default:
        return false;
    }
}

// Why the bytes at p are not one box within avail bytes.
std::string sizeProblem(const uint8_t* p, size_t avail, int depth) {
    const uint64_t size = readBE(p, avail, 0, 4);
    std::string what = "'" + fourccString(uint32_t(readBE(p, avail, 4, 4))) + "' box ";
    if (avail < 8)
        return "a torn box header";
    if (size == 0 && depth > 0)
        return what + "of size 0";
    if (size == 1 && (avail < 16 || readBE(p, avail, 8, 8) < 16 || readBE(p, avail, 8, 8) > avail))
        return what + "with a bad 64-bit size";
    if (size > 1 && size < 8)
        return what + "of size " + std::to_string(size);
    return what + "running past its parent";
}

} // namespace

uint32_t fourcc(std::string_view s) {
    if (s.size() != 4)
        return 0;
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
           (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}

std::string fourccString(uint32_t type) {
    std::string s(4, ' ');
    for (int i = 0; i < 4; ++i)
        s[i] = char((type >> (24 - 8 * i)) & 0xff);
    return s;
}

uint64_t readBE(const uint8_t* p, size_t avail, size_t offset, int width) {
    if (offset > avail || avail - offset < size_t(width))
        return 0;
    uint64_t v = 0;
    for (int i = 0; i < width; ++i)
        v = (v << 8) | p[offset + i];
    return v;
}

void writeBE(Bytes& b, size_t offset, int width, uint64_t value) {
    if (b.size() < offset + width)
        b.resize(offset + width, 0);
    for (int i = width - 1; i >= 0; --i) {
        b[offset + i] = uint8_t(value & 0xff);
        value >>= 8;
    }
}

void appendBE(Bytes& b, int width, uint64_t value) {
    writeBE(b, b.size(), width, value);
}

int containerPrefix(uint32_t type, uint32_t parentType, const uint8_t* payload, size_t n) {
    if (parentType == fourcc("ilst"))
        return 0; // every item of the metadata list holds mean/name/data boxes
    if (parentType == fourcc("stsd")) {
        if (isAudioSampleEntry(type)) {
            // QuickTime sound descriptions grow with their version field.
            const uint64_t version = readBE(payload, n, 8, 2);
            return version == 1 ? 44 : version == 2 ? 64 : 28;
        }
        if (isVisualSampleEntry(type))
            return 78;
        return -1;
    }
    switch (type) {
    case fourcc("moov"):
    case fourcc("trak"):
    case fourcc("mdia"):
    case fourcc("minf"):
    case fourcc("stbl"):
    case fourcc("dinf"):
    case fourcc("udta"):
    case fourcc("edts"):
    case fourcc("mvex"):
    case fourcc("ilst"):
    case fourcc("tref"):
    case fourcc("sinf"):
    case fourcc("schi"):
    case fourcc("moof"):
    case fourcc("traf"):
        return 0;
    case fourcc("meta"):
        // ISO `meta` is a full box; QuickTime's starts right away with its handler.
        if (readBE(payload, n, 4, 4) == fourcc("hdlr"))
            return 0;
        return 4;
    case fourcc("stsd"):
        return 8;
    default:
        return -1;
    }
}

std::unique_ptr<Box> Box::parse(const uint8_t* p, size_t avail, size_t* consumed,
                                uint32_t parentType, int depth, std::string* problem) {
    if (avail < 8)
        return nullptr;
    uint64_t size = readBE(p, avail, 0, 4);
    const uint32_t type = uint32_t(readBE(p, avail, 4, 4));
    size_t header = 8;
    bool large = false;
    if (size == 1) {
        if (avail < 16)
            return nullptr;
        size = readBE(p, avail, 8, 8);
        header = 16;
        large = true;
    } else if (size == 0) {
        // "To the end of the file" only means something at the top level.
        if (depth > 0)
            return nullptr;
        size = avail;
    }
    if (size < header || size > avail)
        return nullptr;
    auto box = std::make_unique<Box>(type);
    box->m_largeHeader = large;
    const uint8_t* payload = p + header;
    const size_t n = size_t(size - header);
    const int prefix = depth < kMaxDepth ? containerPrefix(type, parentType, payload, n) : -1;
    const bool strict = holdsOnlyBoxes(type, parentType);
    if (prefix >= 0 && size_t(prefix) <= n) {
        box->m_data.assign(payload, payload + prefix);
        box->parseChildren(payload + prefix, n - prefix, depth + 1, strict, problem);
    } else {
        if (strict && problem && problem->empty())
            *problem = "'" + fourccString(type) + "' box " +
                       (prefix < 0 ? "nested too deeply" : "too short for its fields");
        box->m_data.assign(payload, payload + n);
    }
    if (consumed)
        *consumed = size_t(size);
    return box;
}

void Box::parseChildren(const uint8_t* p, size_t n, int depth, bool strict, std::string* problem) {
    std::vector<std::unique_ptr<Box>> kids;
    size_t pos = 0;
    while (n - pos >= 8) {
        size_t used = 0;
        auto kid = parse(p + pos, n - pos, &used, m_type, depth, problem);
        if (!kid) {
            if (strict && problem && problem->empty())
                *problem =
                    sizeProblem(p + pos, n - pos, depth) + " inside '" + fourccString(m_type) + "'";
            // Not a sequence of boxes after all: keep the bytes untouched.
            m_data.insert(m_data.end(), p, p + n);
            return;
        }
        kids.push_back(std::move(kid));
        pos += used;
    }
    m_container = true;
    for (auto& k : kids)
        append(std::move(k));
    m_trailer.assign(p + pos, p + n);
}

Box* Box::child(uint32_t type, size_t index) const {
    for (const auto& c : m_children)
        if (c->m_type == type && index-- == 0)
            return c.get();
    return nullptr;
}

std::vector<Box*> Box::childrenOfType(uint32_t type) const {
    std::vector<Box*> out;
    for (const auto& c : m_children)
        if (c->m_type == type)
            out.push_back(c.get());
    return out;
}

Box* Box::find(std::string_view path) const {
    const Box* cur = this;
    while (!path.empty() && cur) {
        const size_t dot = path.find('.');
        std::string_view part = path.substr(0, dot);
        path = dot == std::string_view::npos ? std::string_view() : path.substr(dot + 1);
        size_t index = 0;
        if (const size_t br = part.find('['); br != std::string_view::npos) {
            const auto close = part.find(']', br);
            if (close == std::string_view::npos)
                return nullptr;
            auto num = part.substr(br + 1, close - br - 1);
            if (std::from_chars(num.data(), num.data() + num.size(), index).ec != std::errc())
                return nullptr;
            part = part.substr(0, br);
        }
        const uint32_t t = fourcc(part);
        if (!t)
            return nullptr;
        cur = cur->child(t, index);
    }
    return const_cast<Box*>(cur);
}

Box* Box::append(std::unique_ptr<Box> b) {
    return insert(m_children.size(), std::move(b));
}

Box* Box::insert(size_t position, std::unique_ptr<Box> b) {
    m_container = true;
    b->m_parent = this;
    position = std::min(position, m_children.size());
    m_children.insert(m_children.begin() + position, std::move(b));
    return m_children[position].get();
}

Box* Box::obtain(uint32_t type, size_t prefixBytes) {
    if (Box* c = child(type))
        return c;
    auto b = std::make_unique<Box>(type);
    b->m_container = true;
    b->m_data.assign(prefixBytes, 0);
    return append(std::move(b));
}

bool Box::remove(const Box* b) {
    for (auto it = m_children.begin(); it != m_children.end(); ++it) {
        if (it->get() == b) {
            m_children.erase(it);
            return true;
        }
    }
    return false;
}

void Box::removeAll(uint32_t type) {
    std::erase_if(m_children, [type](const auto& c) { return c->m_type == type; });
}

size_t Box::indexOf(const Box* b) const {
    for (size_t i = 0; i < m_children.size(); ++i)
        if (m_children[i].get() == b)
            return i;
    return m_children.size();
}

uint64_t Box::contentSize() const {
    uint64_t s = m_data.size() + m_trailer.size();
    for (const auto& c : m_children)
        s += c->size();
    return s;
}

bool Box::needsLargeHeader(uint64_t content) const {
    return m_largeHeader || content + 8 > 0xffffffffULL;
}

uint64_t Box::size() const {
    const uint64_t s = contentSize();
    return s + (needsLargeHeader(s) ? 16 : 8);
}

void Box::serialize(Bytes& out) const {
    const uint64_t content = contentSize();
    const uint64_t total = content + (needsLargeHeader(content) ? 16 : 8);
    if (needsLargeHeader(content)) {
        appendBE(out, 4, 1);
        appendBE(out, 4, m_type);
        appendBE(out, 8, total);
    } else {
        appendBE(out, 4, total);
        appendBE(out, 4, m_type);
    }
    out.insert(out.end(), m_data.begin(), m_data.end());
    for (const auto& c : m_children)
        c->serialize(out);
    out.insert(out.end(), m_trailer.begin(), m_trailer.end());
}

} // namespace tarnwick::mp4
