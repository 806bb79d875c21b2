#pragma once

// What the track and chapter functions of the MP4 file API both read of a
// track: its media header and its sample tables.

#include "mp4/Box.h"
#include "mp4/mp4.h"

namespace tarnwick::mp4 {

struct MdhdFields {
    uint32_t timeScale = 0;
    uint64_t duration = 0;
    size_t languageOffset = 0;
    bool ok = false;
};

MdhdFields mdhd(const Box* trak);

// Sample sizes from stsz (or compact stz2); 0 when out of range.
uint32_t sampleCount(const Box* trak);
uint32_t sampleSize(const Box* trak, MP4SampleId id);
MP4Duration sampleDuration(const Box* trak, MP4SampleId id);
// File offset of a sample, through stsc and the chunk offset table.
bool sampleOffset(const Box* trak, MP4SampleId id, uint64_t* offset);

} // namespace tarnwick::mp4
