#include "mp4/Mp4File.h"

#include "mp4/FileIo.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include <QElapsedTimer>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarnwick::mp4 {

void setWriteStepHook(WriteStepHook hook) {
    stepHook() = std::move(hook);
}

void setLockWait(int milliseconds) {
    lockWaitMs() = milliseconds;
}

File::~File() {
    if (m_fd >= 0)
        ::close(m_fd); // also releases the lock
}

std::unique_ptr<File> File::open(const std::string& path, bool writable, std::string* error) {
    std::unique_ptr<File> f(new File);
    f->m_path = path;
    f->m_writable = writable;
    f->m_fd = ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (f->m_fd < 0) {
        if (error)
            *error = sysError(path.c_str());
        return nullptr;
    }
    struct stat st {};
    if (::fstat(f->m_fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (error)
            *error = path + ": not a regular file";
        return nullptr;
    }
    // The layout is read only once no other writer can change it.
    if (writable && !f->lock(error))
        return nullptr;
    std::string problem;
    if (f->scanTopLevel(&problem) && f->loadMoov(&problem)) {
        if (!writable)
            return f;
        problem = f->structureProblem();
        if (problem.empty())
            return f->repairMoovs(error) ? std::move(f) : nullptr;
    } else if (!writable) {
        if (error)
            *error = problem;
        return nullptr;
    } else if (problem.compare(0, path.size() + 2, path + ": ") == 0) {
        problem.erase(0, path.size() + 2);
    }
    // What we cannot vouch for, we do not write to.
    if (error)
        *error = path + ": not a valid MP4 file (" + problem + "); left unchanged";
    return nullptr;
}

bool File::lock(std::string* error) {
    return lockExclusive(m_fd, m_path, error);
}

// The live moov: of several (a write interrupted between its two steps leaves
// two), the last that parses completely, as that is the one a write put last.
bool File::loadMoov(std::string* error) {
    m_moov.reset();
    m_moovProblem.clear();
    std::string firstError;
    for (auto it = m_top.rbegin(); it != m_top.rend(); ++it) {
        const TopLevelBox& b = *it;
        if (b.type != fourcc("moov"))
            continue;
        std::string why;
        if (b.size > kMaxMoov) {
            why = "moov box too large";
        } else {
            Bytes raw(size_t(b.size));
            if (!preadAll(m_fd, b.offset, raw.data(), raw.size())) {
                if (error)
                    *error = sysError(m_path.c_str());
                return false;
            }
            size_t used = 0;
            std::string problem;
            auto moov = Box::parse(raw.data(), raw.size(), &used, 0, 0, &problem);
            if (!moov || !moov->isContainer()) {
                why = "unreadable moov box" + (problem.empty() ? "" : " (" + problem + ")");
            } else if (!problem.empty() && m_moov) {
                why = problem; // keep looking for a complete one
            } else {
                const bool complete = problem.empty();
                m_moov = std::move(moov);
                m_moovOffset = b.offset;
                m_moovProblem = problem;
                m_moovOriginal = std::move(raw);
                if (complete)
                    return true;
                continue;
            }
        }
        if (firstError.empty())
            firstError = why;
    }
    if (m_moov)
        return true;
    if (error)
        *error = m_path + ": " + (firstError.empty() ? "no moov box" : firstError);
    return false;
}

// Why writing into this file could harm it: structure we could not parse,
// a moov that swallows the rest of the file, or media data where a write
// would land (inside moov or free space).
std::string File::structureProblem() const {
    if (!m_moovProblem.empty())
        return m_moovProblem;
    // A moov "to the end of the file" is fine as the real last box; one that
    // swallowed boxes of the top level would free them along with itself.
    if (topLevelMoov()->toEnd) {
        for (const auto& c : m_moov->children()) {
            switch (c->type()) {
            case fourcc("mdat"):
            case fourcc("moov"):
            case fourcc("ftyp"):
            case fourcc("moof"):
            case fourcc("mfra"):
                return "moov box of size 0 holding the '" + c->typeName() + "' box";
            default:
                break;
            }
        }
    }
    std::vector<const Box*> stack = {m_moov.get()};
    while (!stack.empty()) {
        const Box* b = stack.back();
        stack.pop_back();
        for (const auto& c : b->children())
            stack.push_back(c.get());
        if (b->type() != fourcc("stco") && b->type() != fourcc("co64"))
            continue;
        const int width = b->type() == fourcc("co64") ? 8 : 4;
        const Bytes& d = b->data();
        const uint64_t count = readBE(d, 4, 4);
        if (d.size() < 8 || (d.size() - 8) / width < count)
            return "chunk offset table shorter than its count";
        for (uint64_t i = 0; i < count; ++i) {
            const uint64_t off = readBE(d, size_t(8 + i * width), width);
            auto it =
                std::upper_bound(m_top.begin(), m_top.end(), off,
                                 [](uint64_t v, const TopLevelBox& t) { return v < t.offset; });
            if (it == m_top.begin() || off >= (it - 1)->end())
                return "media data at offset " + std::to_string(off) + " past the end of the file";
            const uint32_t holder = (it - 1)->type;
            if (holder == fourcc("moov") || holder == fourcc("ftyp") || isFree(holder))
                return "media data at offset " + std::to_string(off) + " overlaps the '" +
                       fourccString(holder) + "' box";
        }
    }
    return {};
}

// Turns every moov but the live one into free space, so that all readers
// agree on the tags and later writes cannot revive a stale one.
bool File::repairMoovs(std::string* error) {
    bool changed = false;
    const Bytes freeType = {'f', 'r', 'e', 'e'};
    for (const auto& b : m_top) {
        if (b.type != fourcc("moov") || b.offset == m_moovOffset)
            continue;
        if (!pwriteAll(m_fd, b.offset + 4, freeType.data(), 4)) {
            if (error)
                *error = sysError(m_path.c_str());
            return false;
        }
        changed = true;
    }
    if (!changed)
        return true;
    if (!sync()) {
        if (error)
            *error = sysError(m_path.c_str());
        return false;
    }
    step("repaired");
    return scanTopLevel(error);
}

bool File::scanTopLevel(std::string* error) {
    struct stat st {};
    if (::fstat(m_fd, &st) != 0) {
        if (error)
            *error = sysError(m_path.c_str());
        return false;
    }
    m_fileSize = uint64_t(st.st_size);
    m_top.clear();
    uint64_t pos = 0;
    while (pos < m_fileSize) {
        const uint64_t left = m_fileSize - pos;
        if (left < 8)
            break; // a torn header at the very end; nothing follows it
        uint8_t h[16];
        if (!preadAll(m_fd, pos, h, 8)) {
            if (error)
                *error = sysError(m_path.c_str());
            return false;
        }
        TopLevelBox b;
        b.offset = pos;
        b.type = uint32_t(readBE(h, 8, 4, 4));
        uint64_t size = readBE(h, 8, 0, 4);
        if (!plausibleType(b.type)) {
            if (error)
                *error =
                    m_path + ": not an MP4 file (bad box at offset " + std::to_string(pos) + ")";
            return false;
        }
        if (size == 1) {
            if (left < 16 || !preadAll(m_fd, pos + 8, h + 8, 8)) {
                if (error)
                    *error = m_path + ": truncated box header";
                return false;
            }
            size = readBE(h, 16, 8, 8);
            b.headerSize = 16;
        } else if (size == 0) {
            size = left;
            b.toEnd = true;
        }
        if (size < uint64_t(b.headerSize)) {
            if (error)
                *error = m_path + ": bad box size at offset " + std::to_string(pos);
            return false;
        }
        if (size > left) {
            // Only padding may run past the end (a torn append of ours); anything else is damage.
            if (!isFree(b.type)) {
                if (error)
                    *error = m_path + ": truncated file (" + fourccString(b.type) +
                             " box ends past the end)";
                return false;
            }
            size = left;
            b.truncated = true;
        }
        b.size = size;
        m_top.push_back(b);
        pos += size;
    }
    if (m_top.empty()) {
        if (error)
            *error = m_path + ": empty file";
        return false;
    }
    return true;
}

const TopLevelBox* File::topLevelBox(uint32_t type) const {
    for (const auto& b : m_top)
        if (b.type == type)
            return &b;
    return nullptr;
}

const TopLevelBox* File::topLevelMoov() const {
    for (const auto& b : m_top)
        if (b.type == fourcc("moov") && b.offset == m_moovOffset)
            return &b;
    return nullptr;
}

bool File::readAt(uint64_t offset, void* buffer, size_t n) const {
    if (offset > m_fileSize || m_fileSize - offset < n)
        return false;
    return preadAll(m_fd, offset, buffer, n);
}

} // namespace tarnwick::mp4
