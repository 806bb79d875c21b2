// Files of the MP4 file API; tracks and chapters are in Mp4Tracks.cpp and
// Mp4Chapters.cpp.

#include "mp4/Handle.h"

#include <QLoggingCategory>

#include <algorithm>
#include <cstdlib>
#include <cstring>

Q_LOGGING_CATEGORY(lcMp4, "tarnwick.mp4")

using namespace tarnwick::mp4;

namespace tarnwick::mp4 {

MP4TrackId trackIdOf(const Box* trak) {
    const Box* tkhd = trak ? trak->child(fourcc("tkhd")) : nullptr;
    if (!tkhd)
        return MP4_INVALID_TRACK_ID;
    const bool v1 = readBE(tkhd->data(), 0, 1) == 1;
    return MP4TrackId(readBE(tkhd->data(), v1 ? 20 : 12, 4));
}

std::vector<Box*> Handle::traks() const {
    return file->moov()->childrenOfType(fourcc("trak"));
}

Box* Handle::trak(MP4TrackId id) const {
    if (id == MP4_INVALID_TRACK_ID)
        return nullptr;
    for (Box* t : traks())
        if (trackIdOf(t) == id)
            return t;
    return nullptr;
}

} // namespace tarnwick::mp4

namespace {

thread_local std::string lastError;

Handle* openHandle(const char* fileName, bool writable, bool syncedWrites = true) {
    lastError.clear();
    if (!fileName) {
        lastError = "no file name";
        qCWarning(lcMp4) << "MP4 open: no file name";
        return nullptr;
    }
    auto file = File::open(fileName, writable, &lastError);
    if (!file) {
        qCInfo(lcMp4).noquote() << "MP4 open failed:" << QString::fromStdString(lastError);
        return nullptr;
    }
    file->setSyncedWrites(syncedWrites);
    auto* h = new Handle;
    h->file = std::move(file);
    return h;
}

} // namespace

// --- files ------------------------------------------------------------------

MP4FileHandle MP4Read(const char* fileName) {
    return openHandle(fileName, false);
}

MP4FileHandle MP4Modify(const char* fileName, uint32_t flags) {
    return openHandle(fileName, true, !(flags & MP4_MODIFY_FRESH_OUTPUT));
}

bool MP4Close(MP4FileHandle hFile, uint32_t) {
    Handle* h = Handle::from(hFile);
    lastError.clear();
    if (!h)
        return true;
    bool ok = true;
    if (h->file->writable() && h->file->dirty()) {
        ok = h->file->commit(&lastError);
        if (!ok)
            qCWarning(lcMp4).noquote() << "MP4 write failed:" << QString::fromStdString(lastError);
    }
    delete h; // the lock of a Modify handle goes only now
    return ok;
}

const char* MP4GetLastError() {
    return lastError.c_str();
}

bool MP4Optimize(const char* fileName, const char* newFileName) {
    lastError.clear();
    if (!fileName)
        return false;
    if (!optimize(fileName, newFileName ? newFileName : "", &lastError)) {
        qCWarning(lcMp4).noquote() << "MP4 optimize failed:" << QString::fromStdString(lastError);
        return false;
    }
    return true;
}

MP4Duration MP4GetDuration(MP4FileHandle hFile) {
    Handle* h = Handle::from(hFile);
    const Box* mvhd = h ? h->file->moov()->child(fourcc("mvhd")) : nullptr;
    if (!mvhd)
        return MP4_INVALID_DURATION;
    const bool v1 = readBE(mvhd->data(), 0, 1) == 1;
    return readBE(mvhd->data(), v1 ? 24 : 16, v1 ? 8 : 4);
}

uint32_t MP4GetTimeScale(MP4FileHandle hFile) {
    Handle* h = Handle::from(hFile);
    const Box* mvhd = h ? h->file->moov()->child(fourcc("mvhd")) : nullptr;
    if (!mvhd)
        return 0;
    const bool v1 = readBE(mvhd->data(), 0, 1) == 1;
    return uint32_t(readBE(mvhd->data(), v1 ? 20 : 12, 4));
}

bool MP4HaveAtom(MP4FileHandle hFile, const char* atomName) {
    Handle* h = Handle::from(hFile);
    if (!h || !atomName)
        return false;
    std::string_view path(atomName);
    if (path == "moov")
        return true;
    if (path.starts_with("moov."))
        path.remove_prefix(5);
    return h->file->moov()->find(path) != nullptr;
}
