#include "mp4/Mp4File.h"

#include "mp4/FileIo.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The crash-safe write of a changed moov: in place or appended, journalled
// so that a failure rolls the file back.
namespace tarnwick::mp4 {

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

} // namespace tarnwick::mp4
