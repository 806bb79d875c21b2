#pragma once

// One MP4 file on disk: its top-level box list, its `moov` tree in memory,
// and the crash-safe write of a changed `moov`. Media data is never read or
// rewritten here.

#include "mp4/Box.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarnwick::mp4 {

struct TopLevelBox {
    uint32_t type = 0;
    uint64_t offset = 0;
    uint64_t size = 0;  // as laid out in the file (a size-0 box reaches the end of the file)
    int headerSize = 8; // 8, or 16 with a 64-bit size
    bool toEnd = false; // size field 0
    bool truncated = false;
    uint64_t end() const { return offset + size; }
};

// Called between the steps of a write ("region", "chunk", "synced", "moov",
// "old-freed", "trimmed") so tests can stop a writer at every stage.
using WriteStepHook = std::function<void(const char* step)>;
void setWriteStepHook(WriteStepHook hook);

// How long opening for modification waits for another writer of the same
// file to finish before it gives up (10 s unless a test says otherwise).
void setLockWait(int milliseconds);

struct WriteStats {
    uint64_t bytesWritten = 0;
    bool appended = false; // new moov went to the end of the file rather than into free space
};

class File {
public:
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // nullptr with a message in *error when the file is missing or not a usable MP4.
    // Writable opens hold an exclusive advisory lock on the file until the
    // File is destroyed, refuse files whose structure they cannot vouch for,
    // and turn every moov but the live one into free space.
    static std::unique_ptr<File> open(const std::string& path, bool writable, std::string* error);

    const std::string& path() const { return m_path; }
    bool writable() const { return m_writable; }
    uint64_t fileSize() const { return m_fileSize; }
    const std::vector<TopLevelBox>& topLevel() const { return m_top; }
    const TopLevelBox* topLevelMoov() const;
    const TopLevelBox* topLevelBox(uint32_t type) const;

    Box* moov() const { return m_moov.get(); }
    void setDirty() { m_dirty = true; }
    // Off: the moov write is ordered but not synced (for fresh output files).
    void setSyncedWrites(bool on) { m_syncedWrites = on; }
    bool dirty() const { return m_dirty; }

    // Reads bytes outside moov (sample data for chapter titles).
    bool readAt(uint64_t offset, void* buffer, size_t n) const;

    // Writes moov back when it changed: into free space when a region fits,
    // else appended; the old moov becomes `free`. Never touches media data.
    // When any step fails the bytes written so far are put back, so the file
    // is as it was before, and *error says why.
    bool commit(std::string* error, WriteStats* stats = nullptr);

private:
    File() = default;
    bool lock(std::string* error);
    bool scanTopLevel(std::string* error);
    bool loadMoov(std::string* error);
    bool repairMoovs(std::string* error);
    std::string structureProblem() const;
    bool writeAll(uint64_t offset, const uint8_t* p, size_t n, WriteStats* stats, bool chunked);
    bool sync();
    bool rollBack();

    // What a commit overwrote, to put back when a later step fails.
    struct Saved {
        uint64_t offset;
        Bytes bytes;
    };

    std::string m_path;
    int m_fd = -1;
    bool m_writable = false;
    bool m_dirty = false;
    bool m_syncedWrites = true;
    uint64_t m_fileSize = 0;
    std::vector<TopLevelBox> m_top;
    std::unique_ptr<Box> m_moov;
    uint64_t m_moovOffset = 0;
    std::string m_moovProblem; // damage found while parsing the live moov
    Bytes m_moovOriginal;
    bool m_journaling = false;
    uint64_t m_sizeBefore = 0;
    std::vector<Saved> m_journal;
};

// Rewrites `path` with ftyp, moov and free padding ahead of the media data,
// moving chunk offsets along; the result goes to a temporary file beside
// `target` (or `path`) and is renamed over it.
bool optimize(const std::string& path, const std::string& target, std::string* error);

// Padding left after moov by optimize, so that later tag writes fit in place.
uint64_t optimizePadding(uint64_t moovSize);

} // namespace tarnwick::mp4
