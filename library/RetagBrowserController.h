#pragma once

#include "media/EncodeBrowserController.h"

#include <QString>

#include <memory>

// The retag browser asks its owner the same questions as the encode browser.
using RetagBrowserDelegate = EncodeBrowserDelegate;

// The browser of the retag function, without its view: existing movie files
// are scanned, looked up and matched like the encode browser's sources, and
// their tags are then written back into the same files. Nothing is converted.
//
// It differs from the encode browser in the item each file becomes (retagged
// in place, its own tags read back after the match), in a no-hits rename that
// touches only the item, in skipping the lookup by reading the file's tags,
// and in the hit a user picks by hand (`tagSearchUpdate`), which the file's
// tags never override.
class RetagBrowserController : public EncodeBrowserController {
    Q_OBJECT

public:
    // The items live in `list`, by default the shared retag list.
    explicit RetagBrowserController(std::shared_ptr<MediaItemList> list = nullptr,
                                    QObject* parent = nullptr);
    ~RetagBrowserController() override;

    // The output name of a file retagged in place: its extension's text is
    // replaced by "m4v" wherever it occurs in the name; without an extension
    // ".m4v" is appended.
    static QString outputFileName(const QString& fileName);

    void queryComplete(MDB_Metadata* metadata) override;

    // A hit the user picked in the results panel for the first selected item
    // (or the given one). The item is queried at once, and the file's own
    // tags are not read back over the choice.
    void tagSearchUpdate(qint64 row);
    void tagSearchUpdate(const std::shared_ptr<MDI_Media>& item, qint64 row);
    // The hit picked by hand through tagSearchUpdate; like searchByHand it
    // replaces all of the file's own tags and its cover. False also while
    // the item is being looked up.
    bool pickSearchHit(const std::shared_ptr<MDI_Media>& item, qint64 index) override;
    // A title the user typed for one item (the command line's --search): the
    // item is searched under it and the first hit counts as picked by hand,
    // so it replaces the file's own tags (`bypassMetadata`) as a hit picked
    // in the results panel does. An item still waiting or being scanned is
    // searched so after its scan; a ready one at once. False for an empty
    // title, an item not in this browser, or one that failed its scan or is
    // being looked up right now (or while another item is).
    bool searchByHand(const std::shared_ptr<MDI_Media>& item, const QString& title);
    // The editor changed the first selected cell's poster.
    void tagViewUpdate(const QString& imagePath) { metadataViewUpdate(imagePath); }

    // The tag editor's save: writes the item's metadata into its own file.
    // False, with the message in `error`, when the file is read-only, missing
    // or not a movie file; the file is then left as it was.
    bool saveItem(const std::shared_ptr<MDI_Media>& item, QString* error = nullptr);
    // The tag editor's reset: back to the fetched record and the file's own
    // tags, then through scan, search and query again. False for an item that
    // is being scanned or looked up right now.
    bool resetItem(const std::shared_ptr<MDI_Media>& item);

    static const char* const kReadOnlyFile;

protected:
    bool acceptsSource(const QFileInfo& info) const override;
    QString displayName(const QFileInfo& info) const override;
    std::shared_ptr<MDI_Media> makeItem(const EncodeBrowserCell& cell,
                                        bool& askedForFolder) override;
    void skipLookup(const std::shared_ptr<MDI_Media>& item) override;
    void renameItem(MDI_Media& item, const QString& name) override;
    int selectionTab() const override { return 1; }
    // The file's own tags: a merge would keep those the pick does not set.
    void prepareHandPick(MDI_Media& item) override;

private:
    // The item whose record a query filled; the work item when none is.
    std::shared_ptr<MDI_Media> itemForRecord(const MDB_Metadata* metadata) const;
    // An empty extra value for every tag switched on.
    static void resetExtraTags(MDI_Media& item);
};
