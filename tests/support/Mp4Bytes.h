#pragma once

// MP4 boxes built from bytes, for tests of the box reader that need no
// sample media (they also run under AddressSanitizer).

#include "mp4/Box.h"

#include <initializer_list>
#include <string>

namespace mp4bytes {

using tarnwick::mp4::Bytes;

inline Bytes box(const char* type, const Bytes& payload) {
    Bytes b;
    tarnwick::mp4::appendBE(b, 4, payload.size() + 8);
    tarnwick::mp4::appendBE(b, 4, tarnwick::mp4::fourcc(std::string_view(type, 4)));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline Bytes zeros(size_t n) {
    return Bytes(n, 0);
}

inline Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

} // namespace mp4bytes
