#include "metadata/MDB_MovieMetadata.h"

MDB_MovieMetadata::MDB_MovieMetadata() = default;

MDB_MovieMetadata::MDB_MovieMetadata(const KeyedArchive& coder) : MDB_Metadata(coder) {}

MDB_MovieMetadata::MDB_MovieMetadata(const QString& sourcePath, MP4FileHandle handle) {
    Q_UNUSED(sourcePath);
    readMetaDataFromFile(handle, false);
    initTags();
}

MDB_MovieMetadata::~MDB_MovieMetadata() = default;
