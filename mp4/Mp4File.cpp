#include "mp4/Mp4File.h"

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

namespace {

WriteStepHook& stepHook() {
    static WriteStepHook hook;
    return hook;
}

void step(const char* name) {
    if (stepHook())
        stepHook()(name);
}

// A moov bigger than this is not a real file's; refuse rather than allocate.
constexpr uint64_t kMaxMoov = 1ULL << 30;
// Writes are split so a kill can land between chunks (and tests can see it).
constexpr size_t kChunk = 256 * 1024;

bool isFree(uint32_t t) {
    return t == fourcc("free") || t == fourcc("skip");
}

bool plausibleType(uint32_t t) {
    for (int i = 0; i < 4; ++i) {
        const uint8_t c = uint8_t(t >> (24 - 8 * i));
        if (c < 0x20 || c > 0x7e) {
            if (c != 0xa9) // the copyright sign of QuickTime's user-data types
                return false;
        }
    }
    return true;
}

std::string sysError(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

bool preadAll(int fd, uint64_t offset, void* buffer, size_t n) {
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

bool pwriteAll(int fd, uint64_t offset, const void* buffer, size_t n) {
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

Bytes header32(uint64_t size, uint32_t type) {
    Bytes h;
    appendBE(h, 4, size);
    appendBE(h, 4, type);
    return h;
}

} // namespace

void setWriteStepHook(WriteStepHook hook) {
    stepHook() = std::move(hook);
}

namespace {
int& lockWaitMs() {
    static int ms = 10000;
    return ms;
}

// Takes the writers' lock on fd (open on path), waiting a bounded time. A
// writer that replaced the file meanwhile (a rename over it) leaves us
// holding the lock of a file no longer under this name: fd is then reopened.
bool lockExclusive(int& fd, const std::string& path, std::string* error) {
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

} // namespace

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

bool File::writeAll(uint64_t offset, const uint8_t* p, size_t n, WriteStats* stats, bool chunked) {
    if (m_journaling && offset < m_sizeBefore) {
        Saved saved{offset, Bytes(size_t(std::min<uint64_t>(n, m_sizeBefore - offset)))};
        if (!preadAll(m_fd, offset, saved.bytes.data(), saved.bytes.size()))
            return false;
        m_journal.push_back(std::move(saved));
    }
    while (n > 0) {
        const size_t len = chunked ? std::min(n, kChunk) : n;
        if (!pwriteAll(m_fd, offset, p, len))
            return false;
        if (stats)
            stats->bytesWritten += len;
        offset += len;
        p += len;
        n -= len;
        if (chunked && n > 0)
            step("chunk");
    }
    return true;
}

bool File::sync() {
    if (!m_syncedWrites)
        return true;
    step("fdatasync");
    // Filesystems that cannot sync (some network and FUSE mounts) still get
    // the ordered writes; only a real I/O error stops the write.
    return ::fdatasync(m_fd) == 0 || errno == EINVAL || errno == ENOTSUP;
}

bool File::rollBack() {
    bool ok = true;
    struct stat st {};
    if (::fstat(m_fd, &st) != 0 || uint64_t(st.st_size) != m_sizeBefore)
        ok = ::ftruncate(m_fd, off_t(m_sizeBefore)) == 0;
    for (auto it = m_journal.rbegin(); it != m_journal.rend(); ++it) {
        // Only blocks that differ go back: one never written needs no new
        // space, which a full disk may not have.
        Bytes now(it->bytes.size());
        if (!preadAll(m_fd, it->offset, now.data(), now.size())) {
            ok = false;
            continue;
        }
        for (size_t at = 0; at < now.size(); at += 4096) {
            const size_t len = std::min<size_t>(4096, now.size() - at);
            if (std::memcmp(now.data() + at, it->bytes.data() + at, len) != 0)
                ok = pwriteAll(m_fd, it->offset + at, it->bytes.data() + at, len) && ok;
        }
    }
    if (m_syncedWrites && ::fdatasync(m_fd) != 0 && errno != EINVAL && errno != ENOTSUP)
        ok = false;
    m_journal.clear();
    m_journaling = false;
    return ok;
}

bool File::commit(std::string* error, WriteStats* stats) {
    auto fail = [&](const std::string& what) {
        std::string message = what.empty() ? sysError(m_path.c_str()) : m_path + ": " + what;
        if (m_journaling && !rollBack())
            message += " (and the file could not be put back as it was)";
        if (error)
            *error = message;
        return false;
    };
    if (!m_writable)
        return fail("opened read-only");
    Bytes moov;
    m_moov->serialize(moov);
    if (moov == m_moovOriginal) {
        m_dirty = false;
        return true;
    }
    const TopLevelBox* live = topLevelMoov();
    if (!live)
        return fail("no moov box");
    struct stat st {};
    if (::fstat(m_fd, &st) != 0)
        return fail({});
    // Writers that take no lock may have changed it; our layout is stale then.
    if (uint64_t(st.st_size) != m_fileSize)
        return fail("the file changed while it was open; left unchanged");
    const TopLevelBox old = *live;
    const uint64_t n = moov.size();
    std::vector<TopLevelBox> stale;
    for (const auto& b : m_top)
        if (b.type == fourcc("moov") && b.offset != old.offset)
            stale.push_back(b);

    // Candidate places: runs of free boxes (not before ftyp), then the end of the file.
    struct Region {
        uint64_t start = 0, size = 0;
        size_t boxes = 0;
        bool damaged = false;     // holds a box without a size or running past the end
        bool plainHeader = false; // one free box with an 8-byte header covering the region
    };
    std::vector<Region> regions;
    const TopLevelBox* ftyp = topLevelBox(fourcc("ftyp"));
    const uint64_t earliest = ftyp ? ftyp->end() : 0;
    for (size_t i = 0; i < m_top.size();) {
        if (!isFree(m_top[i].type) || m_top[i].offset < earliest) {
            ++i;
            continue;
        }
        Region r;
        r.start = m_top[i].offset;
        r.plainHeader = m_top[i].headerSize == 8;
        size_t j = i;
        while (j < m_top.size() && isFree(m_top[j].type)) {
            r.size += m_top[j].size;
            r.damaged = r.damaged || m_top[j].toEnd || m_top[j].truncated;
            ++r.boxes;
            ++j;
        }
        r.plainHeader = r.plainHeader && r.boxes == 1;
        regions.push_back(r);
        i = j;
    }
    const Region* chosen = nullptr;
    for (const auto& r : regions) {
        // The header written at the region's start must not straddle a page,
        // or a kill could tear its size field.
        const bool fits = r.size == n || r.size >= n + 8;
        if (fits && !r.damaged && r.size <= 0xffffffffULL && r.start % 4096 <= 4088) {
            chosen = &r;
            break;
        }
    }

    // Everything overwritten from here on is kept, to be put back on failure.
    m_journal.clear();
    m_journaling = true;
    m_sizeBefore = m_fileSize;
    // Free space this write leaves behind, which the trim below may drop.
    std::vector<std::pair<uint64_t, uint64_t>> owned = {{old.offset, old.end()}};
    for (const auto& b : stale)
        owned.emplace_back(b.offset, b.end());

    if (!chosen) {
        // Append: the new moov is written as `free` after the last box and
        // only turned into `moov` once it is on disk.
        const TopLevelBox& last = m_top.back();
        const uint64_t start = last.end(); // a torn header (< 8 bytes) after it is overwritten
        if (last.toEnd || last.truncated) {
            // A box without a size, or running past the end, would swallow
            // what we append: give it its real size.
            Bytes h;
            uint64_t at = last.offset;
            if (last.headerSize == 16) {
                appendBE(h, 8, last.size);
                at += 8;
            } else if (last.size <= 0xffffffffULL) {
                appendBE(h, 4, last.size);
            } else {
                return fail("last box has no explicit size and is too large to fix");
            }
            if (!writeAll(at, h.data(), h.size(), stats, false) || !sync())
                return fail({});
            step("sized");
        }
        writeBE(moov, 4, 4, fourcc("free"));
        if (!writeAll(start, moov.data(), moov.size(), stats, true) || !sync())
            return fail({});
        step("synced");
        const Bytes type = {'m', 'o', 'o', 'v'};
        if (!writeAll(start + 4, type.data(), 4, stats, false) || !sync())
            return fail({});
        step("moov");
        m_moovOffset = start;
        if (stats)
            stats->appended = true;
    } else {
        const Region r = *chosen;
        if (!r.plainHeader) {
            // Merge the run into one free box so everything inside it is invisible.
            const Bytes h = header32(r.size, fourcc("free"));
            if (!writeAll(r.start, h.data(), 8, stats, false) || !sync())
                return fail({});
            step("region");
        }
        if (r.size > n) {
            const Bytes h = header32(r.size - n, fourcc("free"));
            if (!writeAll(r.start + n, h.data(), 8, stats, false))
                return fail({});
            owned.emplace_back(r.start + n, r.start + r.size);
        }
        if (!writeAll(r.start + 8, moov.data() + 8, moov.size() - 8, stats, true) || !sync())
            return fail({});
        step("synced");
        // One 8-byte write: the region becomes the moov (a torn write leaves
        // either a smaller free box or a moov that ends in free padding).
        if (!writeAll(r.start, moov.data(), 8, stats, false) || !sync())
            return fail({});
        step("moov");
        m_moovOffset = r.start;
    }

    // From here the new moov is live for readers that take the first moov
    // (when it lies before the old one) or the old one stays first until freed.
    // Moovs left behind by an interrupted write go first, while the old moov
    // still hides them, so none of them can ever become the first one.
    const Bytes freeType = {'f', 'r', 'e', 'e'};
    for (const auto& b : stale)
        if (!writeAll(b.offset + 4, freeType.data(), 4, stats, false))
            return fail({});
    if (!stale.empty()) {
        if (!sync())
            return fail({});
        step("stale-freed");
    }
    // No sync after this or the trim: either state the disk may hold after a
    // crash plays with the old or the new tags, and the next write's first
    // sync flushes it anyway.
    if (!writeAll(old.offset + 4, freeType.data(), 4, stats, false))
        return fail({});
    step("old-freed");
    m_journaling = false;
    m_journal.clear();
    m_moovOriginal = std::move(moov);
    writeBE(m_moovOriginal, 4, 4, fourcc("moov"));
    m_dirty = false;

    if (!scanTopLevel(error))
        return false;
    // Padding at the end of the file is worthless (the end can always grow),
    // but only what this write freed is ours to drop: anything else there
    // belongs to someone we do not know about.
    auto isOwned = [&](const TopLevelBox& b) {
        for (const auto& [from, to] : owned)
            if (b.offset >= from && b.end() <= to)
                return true;
        return false;
    };
    size_t k = m_top.size();
    while (k > 0 && isFree(m_top[k - 1].type) && !m_top[k - 1].truncated && isOwned(m_top[k - 1]))
        --k;
    if (k < m_top.size() && k > 0 && ::ftruncate(m_fd, off_t(m_top[k].offset)) == 0) {
        step("trimmed");
        if (!scanTopLevel(error))
            return false;
    }
    return true;
}

uint64_t optimizePadding(uint64_t moovSize) {
    // Room for a whole new moov, since a crash-safe in-place write needs the
    // old one intact until the new one is complete, plus slack for growth.
    return moovSize + 512 * 1024;
}

namespace {

void collectOffsetTables(Box* b, std::vector<Box*>& out) {
    if (b->type() == fourcc("stco") || b->type() == fourcc("co64")) {
        out.push_back(b);
        return;
    }
    for (const auto& c : b->children())
        collectOffsetTables(c.get(), out);
}

std::vector<uint64_t> readOffsets(const Box* b) {
    const int width = b->type() == fourcc("co64") ? 8 : 4;
    const uint64_t count = readBE(b->data(), 4, 4);
    std::vector<uint64_t> out;
    const size_t avail = b->data().size() >= 8 ? (b->data().size() - 8) / width : 0;
    const size_t n = size_t(std::min<uint64_t>(count, avail));
    out.reserve(n);
    for (size_t i = 0; i < n; ++i)
        out.push_back(readBE(b->data(), 8 + i * width, width));
    return out;
}

void writeOffsets(Box* b, const std::vector<uint64_t>& values, bool wide) {
    Bytes& d = b->data();
    Bytes nd(d.begin(), d.begin() + std::min<size_t>(4, d.size()));
    nd.resize(4, 0);
    appendBE(nd, 4, values.size());
    for (uint64_t v : values)
        appendBE(nd, wide ? 8 : 4, v);
    d = std::move(nd);
}

bool copyRange(int in, uint64_t from, int out, uint64_t to, uint64_t n) {
    while (n > 0) {
        loff_t a = loff_t(from), b = loff_t(to);
        const ssize_t r =
            ::copy_file_range(in, &a, out, &b, size_t(std::min<uint64_t>(n, 1ULL << 30)), 0);
        if (r <= 0)
            break;
        from += uint64_t(r);
        to += uint64_t(r);
        n -= uint64_t(r);
    }
    Bytes buf(std::min<uint64_t>(n, 4 << 20));
    while (n > 0) {
        const size_t len = size_t(std::min<uint64_t>(n, buf.size()));
        if (!preadAll(in, from, buf.data(), len) || !pwriteAll(out, to, buf.data(), len))
            return false;
        from += len;
        to += len;
        n -= len;
    }
    return true;
}

} // namespace

bool optimize(const std::string& path, const std::string& target, std::string* error) {
    // Replacing the file in place: a tag write during the copy would be lost
    // by the rename, so writers wait for it.
    int guard = -1;
    if (target.empty() || target == path) {
        guard = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (guard < 0 || !lockExclusive(guard, path, error)) {
            if (guard < 0 && error)
                *error = sysError(path.c_str());
            if (guard >= 0)
                ::close(guard);
            return false;
        }
    }
    struct Unlock {
        int& fd;
        ~Unlock() {
            if (fd >= 0)
                ::close(fd);
        }
    } unlock{guard};
    auto file = File::open(path, false, error);
    if (!file)
        return false;
    auto fail = [&](const std::string& what) {
        if (error)
            *error = what;
        return false;
    };
    const uint32_t ftypType = fourcc("ftyp");
    std::vector<TopLevelBox> keep;
    const TopLevelBox* ftyp = nullptr;
    for (const auto& b : file->topLevel()) {
        if (b.type == fourcc("moof") || b.type == fourcc("mvex"))
            return fail(path + ": fragmented files cannot be optimized");
        if (b.type == ftypType && !ftyp) {
            ftyp = &b;
            continue;
        }
        if (b.type == fourcc("moov") || isFree(b.type))
            continue;
        if (b.truncated)
            return fail(path + ": truncated file");
        keep.push_back(b);
    }
    if (file->moov()->child(fourcc("mvex")))
        return fail(path + ": fragmented files cannot be optimized");

    Box* moov = file->moov();
    std::vector<Box*> tables;
    collectOffsetTables(moov, tables);
    std::vector<std::vector<uint64_t>> original;
    for (Box* t : tables)
        original.push_back(readOffsets(t));

    std::vector<uint64_t> newOffsets(keep.size());
    uint64_t moovSize = 0, padding = 0;
    for (int round = 0; round < 4; ++round) {
        moovSize = moov->size();
        padding = optimizePadding(moovSize);
        uint64_t pos = (ftyp ? ftyp->size : 0) + moovSize + padding;
        for (size_t i = 0; i < keep.size(); ++i) {
            newOffsets[i] = pos;
            pos += keep[i].size;
        }
        bool grew = false;
        for (size_t t = 0; t < tables.size(); ++t) {
            std::vector<uint64_t> moved;
            moved.reserve(original[t].size());
            bool wide = tables[t]->type() == fourcc("co64");
            for (uint64_t off : original[t]) {
                auto it =
                    std::upper_bound(keep.begin(), keep.end(), off,
                                     [](uint64_t v, const TopLevelBox& b) { return v < b.offset; });
                if (it == keep.begin() || off >= (it - 1)->end())
                    return fail(path + ": chunk offset " + std::to_string(off) +
                                " lies outside the media data");
                const size_t idx = size_t(it - keep.begin()) - 1;
                const uint64_t v = off - keep[idx].offset + newOffsets[idx];
                if (v > 0xffffffffULL && !wide) {
                    wide = true;
                    grew = true;
                }
                moved.push_back(v);
            }
            if (wide && tables[t]->type() == fourcc("stco")) {
                // Swap the 32-bit table for a 64-bit one in place.
                auto replacement = std::make_unique<Box>(fourcc("co64"));
                Box* parent = tables[t]->parent();
                const size_t at = parent->indexOf(tables[t]);
                parent->remove(tables[t]);
                tables[t] = parent->insert(at, std::move(replacement));
            }
            writeOffsets(tables[t], moved, wide);
        }
        if (!grew && moov->size() == moovSize)
            break;
    }
    if (moov->size() != moovSize)
        return fail(path + ": could not settle the new layout");

    const std::string dest = target.empty() ? path : target;
    const size_t slash = dest.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : dest.substr(0, slash);
    const std::string base = slash == std::string::npos ? dest : dest.substr(slash + 1);
    std::string tmp = dir + "/." + base + ".optimize-XXXXXX";
    const int out = ::mkostemp(tmp.data(), O_CLOEXEC);
    if (out < 0)
        return fail(sysError(tmp.c_str()));
    auto abandon = [&](const std::string& what) {
        ::close(out);
        ::unlink(tmp.c_str());
        return fail(what);
    };
    int in = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return abandon(sysError(path.c_str()));
    uint64_t pos = 0;
    bool ok = true;
    if (ftyp) {
        ok = copyRange(in, ftyp->offset, out, 0, ftyp->size);
        pos = ftyp->size;
    }
    Bytes head;
    moov->serialize(head);
    Bytes pad = header32(padding, fourcc("free"));
    pad.resize(size_t(padding), 0);
    head.insert(head.end(), pad.begin(), pad.end());
    ok = ok && pwriteAll(out, pos, head.data(), head.size());
    for (size_t i = 0; ok && i < keep.size(); ++i)
        ok = copyRange(in, keep[i].offset, out, newOffsets[i], keep[i].size);
    struct stat st {};
    if (ok && ::fstat(in, &st) == 0)
        ::fchmod(out, st.st_mode & 07777);
    ::close(in);
    if (!ok || ::fsync(out) != 0)
        return abandon(sysError(tmp.c_str()));
    ::close(out);
    if (::rename(tmp.c_str(), dest.c_str()) != 0) {
        const std::string msg = sysError(dest.c_str());
        ::unlink(tmp.c_str());
        return fail(msg);
    }
    const int d = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (d >= 0) {
        ::fsync(d);
        ::close(d);
    }
    return true;
}

} // namespace tarnwick::mp4
