#pragma once

// Everything the converted file says about the movie, carried over into the
// new file's moov: the whole item list (cover art and freeform items
// included), the other movie-level user data, and per track the language,
// name, handler and the track header's presentation fields.

#include "Sink.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnwick::mp4 {
class File;
}

namespace muxer {

// Bytes the copy adds to a moov that has none of it.
uint64_t metadataSize(const tarnwick::mp4::File& source);

// `sourceTrackIds[k]` is the track of `source` that output stream k (track
// ID k + 1 in `outputPath`) came from, 0 for none. The new moov goes where
// the old one was when it fits there (with the free space after it), else
// to the end of the file; *moovFirst tells whether it lies before the media.
// The chunk offsets are moved to where `layout` says the media lies.
bool copyMetadata(const tarnwick::mp4::File& source, const std::string& outputPath,
                  const std::vector<int>& sourceTrackIds, const Layout& layout, bool* moovFirst,
                  std::string* error);

} // namespace muxer
