#pragma once

// What an MP4FileHandle points at, shared by the API's source files.

#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <map>
#include <string>

namespace tarnwick::mp4 {

struct Handle {
    std::unique_ptr<File> file;
    std::map<MP4TrackId, std::string> typeNames; // storage behind MP4GetTrackType
    std::map<MP4TrackId, std::string> codingNames;
    // Item identities handed out in MP4ItmfItem::__handle.
    std::map<uintptr_t, Box*> items;
    uintptr_t nextItemId = 1;

    static Handle* from(MP4FileHandle h) { return static_cast<Handle*>(h); }

    Box* trak(MP4TrackId id) const;
    std::vector<Box*> traks() const;
    // moov.udta.meta.ilst, created when `create` is set.
    Box* ilst(bool create);
    // Removes an item of the list and forgets any identity given out for it.
    void removeItem(Box* item);
    uintptr_t itemId(Box* item);
};

MP4TrackId trackIdOf(const Box* trak);
// The data boxes of an item of the list: type code, locale, value.
struct ItemData {
    uint32_t typeField = 0; // type-set byte and 24-bit type code
    uint32_t locale = 0;
    Bytes value;
};
std::vector<ItemData> itemData(const Box* item);
std::unique_ptr<Box> dataBox(uint32_t typeField, const Bytes& value, uint32_t locale = 0);

} // namespace tarnwick::mp4
