#include "mp4/Mp4File.h"

#include "mp4/FileIo.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Optimising: a new file with moov ahead of the media data, renamed over
// the old one.
namespace tarnwick::mp4 {

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
