#include "metadata/MDB_MovieMetadata.h"

MDB_MovieMetadata::MDB_MovieMetadata() = default;

MDB_MovieMetadata::MDB_MovieMetadata(const KeyedArchive& coder) : MDB_Metadata(coder) {}

MDB_MovieMetadata::~MDB_MovieMetadata() = default;
