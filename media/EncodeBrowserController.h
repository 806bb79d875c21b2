#pragma once

#include "core/AMShellWrapper.h"
#include "lookup/MDB_TheMovieDb.h"
#include "media/MDI_Media.h"

#include <QFileInfo>
#include <QHash>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class SearchPanelController;
class QTimer;

Q_DECLARE_METATYPE(std::shared_ptr<MDI_Media>)

// What the encode browser asks its owner whenever the user has to see or
// decide something. Every operation has a default, as a delegate may answer
// only some of them: the defaults are what a front end without that panel
// gets.
class EncodeBrowserDelegate {
public:
    virtual ~EncodeBrowserDelegate() = default;

    // A scan session started or ended (isScanning() tells which).
    virtual void scanStateChange() {}
    // The destination folder bookmark does not resolve: let the user choose a
    // folder (stored under "Destination Path Bookmark"). False when the
    // delegate cannot ask; the folder is then resolved without asking again.
    virtual bool setPreferences() { return false; }
    // Disc instructions, shown modally; the panel itself keeps its "hide"
    // check box under "Hide Bluray Instructions" / "Hide DVD Instructions".
    virtual void showBlurayInstructions() {}
    virtual void showDvdInstructions() {}
    // The no-hits question, answered modally: the delegate presses
    // panel.searchBtn() (with panel.setNewName()) or panel.skipBtn().
    // Without an answer the item is skipped.
    virtual void runSearchPanel(SearchPanelController& panel);
    // An item failed its scan; its message is in warnings() (the refusal
    // and no-valid-title messages among them).
    virtual void scanFailed(const std::shared_ptr<MDI_Media>& item) { Q_UNUSED(item); }
    // An item is matched (or skipped) and ready.
    virtual void itemReady(const std::shared_ptr<MDI_Media>& item) { Q_UNUSED(item); }
    // Something the user must be told that belongs to no item.
    virtual void showAlert(const QString& message) { Q_UNUSED(message); }
};

// The browser's view of one source: what a cell shows.
struct EncodeBrowserCell {
    enum class Icon { None, Added, Scanning, Working, Error, Done };

    QString path;
    QString title;
    qint64 scanTitle = 0;
    QString image; // local file shown as the cell's picture; empty for none
    Icon icon = Icon::Added;
};

// The encode browser without its view: the sources the user added, the scan
// session that runs the encoder tool over them one at a time, and the search
// and match that follows each scan. Display state is exposed as properties;
// modal questions go to the delegate. Lives on the main thread.
class EncodeBrowserController : public QObject,
                                public AMShellWrapperController,
                                public MDB_TheMovieDbDelegate {
    Q_OBJECT
    Q_PROPERTY(QString scanTitle READ scanTitle NOTIFY scanTitleChanged)
    Q_PROPERTY(bool scanTitleVisible READ scanTitleVisible NOTIFY scanTitleChanged)
    Q_PROPERTY(QString scanStatus READ scanStatus NOTIFY scanStatusChanged)
    Q_PROPERTY(bool scanStatusVisible READ scanStatusVisible NOTIFY scanStatusChanged)
    Q_PROPERTY(bool scanProgress READ scanProgress NOTIFY scanProgressChanged)
    Q_PROPERTY(int scanProgressValue READ scanProgressValue NOTIFY scanProgressChanged)
    Q_PROPERTY(int scanProgressMaximum READ scanProgressMaximum NOTIFY scanProgressChanged)
    Q_PROPERTY(bool vidImageVisible READ vidImageVisible NOTIFY vidImageVisibleChanged)
    Q_PROPERTY(bool isScanning READ isScanning NOTIFY isScanningChanged)
    Q_PROPERTY(int count READ count NOTIFY reloaded)

public:
    using Icon = EncodeBrowserCell::Icon;

    // The items live in `list`, by default the shared encode list (the
    // processing queue).
    explicit EncodeBrowserController(std::shared_ptr<MediaItemList> list = nullptr,
                                     QObject* parent = nullptr);
    ~EncodeBrowserController() override;

    void setBrowserDelegate(EncodeBrowserDelegate* delegate) { m_browserDelegate = delegate; }
    EncodeBrowserDelegate* browserDelegate() const { return m_browserDelegate; }
    // The items live in this list (shared with the owner that passed it in).
    std::shared_ptr<MediaItemList> itemList() const { return m_movieList; }

    // --- sources -------------------------------------------------------------
    // `loadFiles:titles:`: `titles` empty or parallel to `files`. Unreadable
    // paths and bundle folders are skipped; the rest become items and the
    // scan session starts. Answers how many were added.
    int loadFiles(const QStringList& files, const QList<qint64>& titles = {});
    // One source with its title number (the load panel's way in).
    int loadMovie(const QString& path, qint64 title) { return loadFiles({path}, {title}); }
    void updateDatasource();

    const MediaItemList& movieList() const { return *m_movieList; }
    const QList<EncodeBrowserCell>& images() const { return m_images; }
    int count() const { return int(m_movieList->size()); }
    std::shared_ptr<MDI_Media> workMovie() const { return m_workMovie; }

    // --- scan session ----------------------------------------------------------
    void initiateScan();
    // False when the encoder tool cannot be run; the item then waits again.
    bool startScanning(const std::shared_ptr<MDI_Media>& item);
    void stopScanning();
    void suspendProcess();
    void resumeProcess();
    bool isScanning() const { return m_isScanning; }
    // The session's decode step: parse, disc instructions, main title.
    void decodeScanString(const QString& text, MDI_Media& item);
    // Refresh every cell's icon from its item's status.
    void statusUpdate();

    // Process-runner controller.
    void processStarted(AMShellWrapper* runner) override;
    void stdOutput(const QString& text) override;
    void stdError(const QString& text) override;
    void processFinished(AMShellWrapper* runner, int status) override;
    void processLaunchException(const QString& failure) override;

    // The encoder tool's arguments for scanning an item, tool path first.
    static QStringList scanArguments(const QString& toolPath, const MDI_Media& item);
    static Icon statusIcon(qint32 status);
    // The DVD library that makes the instructions unnecessary, when installed.
    static bool hasDvdLibrary();

    // --- search and match --------------------------------------------------------
    void searchComplete(std::vector<std::unique_ptr<MDB_Metadata>> results) override;
    void queryComplete(MDB_Metadata* metadata) override;
    // A hit the user picked in the results panel for the first selected item
    // (or the given one): replaces the item's metadata and queries it.
    void metadataSearchUpdate(qint64 row);
    void metadataSearchUpdate(const std::shared_ptr<MDI_Media>& item, qint64 row);
    // The hit at `index` (0-based, in the order of the item's last search)
    // picked by hand, as in the results panel. False when the item is not in
    // this browser or its last search has no such hit.
    virtual bool pickSearchHit(const std::shared_ptr<MDI_Media>& item, qint64 index);
    // The movie with the database id `tmdbID` picked by hand for the item
    // instead of a search. An item still waiting or being scanned is matched
    // so after its scan; a ready one at once. False for an id that is not a
    // positive number, an item not in this browser, one that failed its scan,
    // or one being looked up right now (or while another item is). An id the
    // database does not know ends as a failed lookup.
    bool pickMovieID(const std::shared_ptr<MDI_Media>& item, const QString& tmdbID);
    // The editor changed the first selected cell's poster or title.
    void metadataViewUpdate(const QString& imagePath);
    void metadataNameUpdate(const QString& name);

    // --- selection -------------------------------------------------------------
    void setSelection(const QList<int>& rows);
    const QList<int>& selection() const { return m_selection; }
    // The selected rows in ascending order.
    QList<int> getSelected() const;
    void selectAll();
    // Removes the items of `rows` (any order, duplicates and rows out of range
    // ignored). An item being scanned or looked up is stopped first and the
    // session goes on with the next waiting item.
    void clearIndexes(const QList<int>& rows);
    void clearSelected() { clearIndexes(getSelected()); }
    void clearAll();
    std::shared_ptr<MDI_Media> firstSelectedItem() const;

    // Whether the browser's view is on screen (the spinner runs only then).
    void setViewVisible(bool visible) { m_viewVisible = visible; }

    // --- display state ---------------------------------------------------------
    const QString& scanTitle() const { return m_scanTitle; }
    bool scanTitleVisible() const { return m_scanTitleVisible; }
    const QString& scanStatus() const { return m_scanStatus; }
    bool scanStatusVisible() const { return m_scanStatusVisible; }
    bool scanProgress() const { return m_scanProgress; }
    int scanProgressValue() const { return m_scanProgressValue; }
    int scanProgressMaximum() const { return m_scanProgressMaximum; }
    bool vidImageVisible() const { return m_vidImageVisible; }

    static const char* const kDrmWarning;
    // The warning of an item whose scan ran past "Scan Time Limit"; %1 is
    // the limit as text.
    static const char* const kScanTimeLimitWarning;

signals:
    void scanTitleChanged();
    void scanStatusChanged();
    void scanProgressChanged();
    void vidImageVisibleChanged();
    void isScanningChanged();
    // The browser's cells changed (reloadData).
    void reloaded();
    // One item's cell or information changed.
    void itemUpdated(int row);

protected:
    // --- the steps another browser does its own way --------------------------
    // Whether a path given to loadFiles() becomes an item.
    virtual bool acceptsSource(const QFileInfo& info) const;
    // The name a new cell shows.
    virtual QString displayName(const QFileInfo& info) const;
    // The item for one imported cell; `askedForFolder` lets a batch ask the
    // delegate one question at most.
    virtual std::shared_ptr<MDI_Media> makeItem(const EncodeBrowserCell& cell,
                                                bool& askedForFolder);
    // A valid item after its scan with "Skip Tagging" on.
    virtual void skipLookup(const std::shared_ptr<MDI_Media>& item);
    // The name typed into the no-hits question, before the search again.
    virtual void renameItem(MDI_Media& item, const QString& name);
    // The information panel's tab named in the selection notification.
    virtual int selectionTab() const { return 0; }
    // Drops what the item holds that a movie picked by hand must not keep.
    virtual void prepareHandPick(MDI_Media& item) { Q_UNUSED(item); }

    // --- pieces of the match for those steps ---------------------------------
    // Rating, genre and sort name of the fetched record, HD flag, foreign
    // subtitle search.
    void applyQueryRecord(MDI_Media& item, const MDB_Metadata& record);
    // The record's first poster (when `poster`) and, when it has backdrops,
    // a random one or the plain one: what comes over the network is fetched
    // off the main thread so the window keeps going. `done` runs on the main
    // thread once they are in the item (at once when nothing is fetched),
    // unless the item has left the list or a newer fetch for it began.
    void fetchArtwork(const std::shared_ptr<MDI_Media>& item, bool poster,
                      std::function<void()> done);
    // A random backdrop of the record's, or the plain one, when it has any
    // (fetched here, on the calling thread).
    void applyBackdrop(MDI_Media& item);
    // Drops the item's pending fetch, if any.
    void cancelArtwork(const MDI_Media* item);
    bool artworkPending() const { return !m_artworkFetches.isEmpty(); }
    // The cell shows the record's name (or `title` when given) and the first
    // local thumbnail.
    void updateCell(MDI_Media& item, const QString& title = QString());
    // Ends the work on the current item (ready when its status is 8) and goes
    // on with the next waiting one.
    void finishWorkItem(const std::shared_ptr<MDI_Media>& item, bool showFinishedName = false);
    void queryDatabase(MDI_Media& item);
    bool viewVisible() const { return m_viewVisible; }
    void setWorkMovie(const std::shared_ptr<MDI_Media>& item) { m_workMovie = item; }

    void setScanTitle(const QString& title, bool visible = true);
    void setScanStatus(const QString& status, bool visible = true);
    void setScanProgress(bool animating);
    void setProgressValue(int value, int maximum);
    void setVidImageVisible(bool visible);
    void setScanning(bool scanning);
    void hideProgress();
    void scanStateChange();
    void reloadData();
    int rowOf(const MDI_Media* item) const;
    std::shared_ptr<MDI_Media> firstWaitingItem() const;
    // The chain: the next waiting item is started from the event loop, so
    // the callback that ends the previous one returns first.
    void scanNextLater(const std::shared_ptr<MDI_Media>& item);
    // `showFinishedName`: the scan title keeps the finished item's name until
    // the next scan starts.
    void advance(bool showFinishedName = false);
    void applyProcessingSwitches(MDI_Media& item);
    MDB_TheMovieDb& movieDB(const MDI_Media& item);
    void searchDatabase(MDI_Media& item);
    // The search after a scan, or the query of the id picked for the item.
    void lookUp(const std::shared_ptr<MDI_Media>& item);
    // Keeps the failure of the item's last search or query (its client's
    // lastError) as the item's lookup error and warning, once.
    void noteLookupError(MDI_Media& item);

private:
    QHash<const MDI_Media*, QObject*> m_artworkFetches;
    EncodeBrowserDelegate* m_browserDelegate = nullptr;
    std::shared_ptr<MediaItemList> m_movieList;
    QList<EncodeBrowserCell> m_images;
    QList<EncodeBrowserCell> m_importedImages;
    QList<int> m_selection;
    std::shared_ptr<MDI_Media> m_workMovie;
    std::unique_ptr<AMShellWrapper> m_shellWrapper;
    // Ends a scan that runs past "Scan Time Limit".
    QTimer* m_scanTimer = nullptr;
    bool m_scanTimedOut = false;
    QString m_scanStr;
    bool m_isScanning = false;
    bool m_viewVisible = true;
    std::unique_ptr<SearchPanelController> m_searchPanel;
    // Each item's own database client, made at its first lookup (a client
    // fetches the configuration when made, so items that are never looked up
    // never reach the database).
    std::map<const MDI_Media*, std::unique_ptr<MDB_TheMovieDb>> m_movieDBs;
    // Ids picked by hand for items whose scan has not ended yet.
    std::map<const MDI_Media*, QString> m_pickedIDs;

    QString m_scanTitle;
    bool m_scanTitleVisible = false;
    QString m_scanStatus;
    bool m_scanStatusVisible = false;
    bool m_scanProgress = false;
    int m_scanProgressValue = 0;
    int m_scanProgressMaximum = 0;
    bool m_vidImageVisible = false;
};
