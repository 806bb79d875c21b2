#pragma once

#include "media/MDI_Media.h"

// A movie source: the media item that is looked up in the movie database
// after its scan.
class MDI_Movie : public MDI_Media {
public:
    MDI_Movie() = default;

    // Longest title, the earlier one on equal durations; 0 when every
    // duration is 0.
    void autoFindMainTitle();

    // Merge / replace a record from the movie database into the item's record,
    // then give `record` its "contentID" from the "ContentID Source" setting.
    // copyMetadata() also copies the poster thumbnails into the scratch folder.
    void copyMetadata(MDB_Metadata& record) override;
    void replaceMetadata(MDB_Metadata& record) override;

private:
    static void assignContentID(MDB_Metadata& record);
};
