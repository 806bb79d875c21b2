#pragma once

#include "core/MDB_Image.h"

#include <QUrl>

#include <optional>

// A movie file's cover art, read on its own for the library browsers.
class MDB_Artwork {
public:
    // The file's first cover art; none when the file cannot be opened or has
    // no (decodable) cover art.
    static std::optional<MDB_Artwork> readArtworkFromFile(const QUrl& url);

    MDB_Image artwork;
};
