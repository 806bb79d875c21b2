#include "metadata/MDB_Artwork.h"

#include "metadata/MDB_Metadata.h"

std::optional<MDB_Artwork> MDB_Artwork::readArtworkFromFile(const QUrl& url) {
    const MDB_Image image = MDB_Metadata::readImageFromFile(url);
    if (image.isNull())
        return std::nullopt;
    MDB_Artwork art;
    art.artwork = image;
    return art;
}
