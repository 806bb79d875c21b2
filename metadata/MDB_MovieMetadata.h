#pragma once

#include "metadata/MDB_Metadata.h"

// The record of a movie; a type of its own so that lookups and file reads can
// tell a movie's record from a generic one. It adds no fields.
class MDB_MovieMetadata : public MDB_Metadata {
public:
    MDB_MovieMetadata();
    explicit MDB_MovieMetadata(const KeyedArchive& coder);
    // Reads the tags of an open file, then sets the initial tags again: what
    // the file had under those names is reset on purpose, and the path is not
    // kept.
    MDB_MovieMetadata(const QString& sourcePath, MP4FileHandle handle);
    ~MDB_MovieMetadata() override;

    MDB_MovieMetadata(MDB_MovieMetadata&&) = default;
    MDB_MovieMetadata& operator=(MDB_MovieMetadata&&) = default;
};
