// Search, match and artwork of the encode browser: the movie database side of
// each source, kept apart from scanning and selection.
#include "media/EncodeBrowserController.h"
#include "media/EncodeBrowserDetail.h"

#include <algorithm>
#include <functional>

#include "core/Bookmark.h"
#include "core/MDB_Utility.h"
#include "core/Notifications.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "lookup/SearchPanelController.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "metadata/Utility.h"

#include <QDir>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QPromise>
#include <QRegularExpression>
#include <QThreadPool>
#include <QTimer>

#include <cstdlib>

using namespace encode_browser;

// --- search and match --------------------------------------------------------------

MDB_TheMovieDb& EncodeBrowserController::movieDB(const MDI_Media& item) {
    std::unique_ptr<MDB_TheMovieDb>& client = m_movieDBs[&item];
    if (!client)
        client = std::make_unique<MDB_TheMovieDb>();
    return *client;
}

void EncodeBrowserController::searchDatabase(MDI_Media& item) {
    item.setLookupError(QString());
    movieDB(item).search(item.name(), item.languageRegion(), this);
}

void EncodeBrowserController::lookUp(const std::shared_ptr<MDI_Media>& item) {
    const auto pending = m_pickedIDs.find(item.get());
    if (pending == m_pickedIDs.end()) {
        item->setStatus(5);
        statusUpdate();
        setScanStatus(QStringLiteral("Searching..."));
        searchDatabase(*item);
        return;
    }
    const QString id = pending->second;
    m_pickedIDs.erase(pending);
    // Applied as a search hit picked by hand would be, with nothing but the
    // id in it; the query fills in the rest.
    MDB_MovieMetadata picked;
    picked.setTag(id, tag(TagName::TMDbID));
    prepareHandPick(*item);
    item->replaceMetadata(picked);
    item->setSearchList({});
    item->resetSearchIndex();
    item->setBypassMetadata(true);
    item->setLookupError(QString());
    item->setStatus(7);
    statusUpdate();
    setScanStatus(QStringLiteral("Querying..."));
    queryDatabase(*item);
}

void EncodeBrowserController::noteLookupError(MDI_Media& item) {
    if (!item.lookupError().isEmpty())
        return;
    const auto found = m_movieDBs.find(&item);
    if (found == m_movieDBs.end())
        return;
    const MDB_TheMovieDb::Error error = found->second->lastError();
    QString message = error.message();
    if (message.isEmpty())
        return;
    // Only a query asks for a movie by its id, so a 404 means the id.
    const QString id = item.getMetadata()->getTag(tag(TagName::TMDbID));
    if (error.failure == MDB_TheMovieDb::Failure::Rejected && error.httpStatus == 404 &&
        !id.isEmpty())
        message =
            QStringLiteral("the movie database has no movie with the id %1 (HTTP 404)").arg(id);
    item.setLookupError(message);
    item.setWarnings(QStringLiteral("Lookup failed: ") + message);
}

void EncodeBrowserController::queryDatabase(MDI_Media& item) {
    cancelArtwork(&item);
    // Filled in place by the query thread; nothing here touches the record
    // until queryComplete.
    movieDB(item).query(item.getMetadata(), item.languageRegion(), this);
}

void EncodeBrowserController::searchComplete(std::vector<std::unique_ptr<MDB_Metadata>> results) {
    std::shared_ptr<MDI_Media> item = m_workMovie;
    if (!item)
        return;
    if (!results.empty()) {
        item->setStatus(6);
        QList<std::shared_ptr<MDB_Metadata>> hits;
        for (std::unique_ptr<MDB_Metadata>& hit : results)
            hits.append(std::shared_ptr<MDB_Metadata>(std::move(hit)));
        item->setSearchList(hits);
        // The database's first hit is the match; there is no scoring of our own.
        std::shared_ptr<MDB_Metadata> hit = item->assignSearchResults(0);
        item->setStatus(7);
        statusUpdate();
        if (hit)
            item->copyMetadata(*hit);
        setScanTitle(item->name());
        setScanStatus(QStringLiteral("Querying..."));
        queryDatabase(*item);
        return;
    }

    // Nothing found, or nothing asked: a failure of the database is told
    // apart from "no match" (the item's warning says it; the panel shows it).
    noteLookupError(*item);
    if (!m_searchPanel)
        m_searchPanel = std::make_unique<SearchPanelController>();
    m_searchPanel->setSearchName(item->name());
    m_searchPanel->setLookupError(item->lookupError());
    m_searchPanel->setSkipSearch(false);
    if (m_browserDelegate)
        m_browserDelegate->runSearchPanel(*m_searchPanel);
    else
        m_searchPanel->skipBtn();
    if (m_workMovie != item) // the item went away while the question was open
        return;

    const QString newName = m_searchPanel->newName().trimmed();
    if (!m_searchPanel->skipSearch() && !newName.isEmpty()) {
        renameItem(*item, newName);
        const int row = rowOf(item.get());
        if (row >= 0) {
            m_images[row].title = newName;
            emit itemUpdated(row);
        }
        setScanTitle(item->name());
        setScanStatus(QStringLiteral("Searching..."));
        searchDatabase(*item);
        return;
    }

    item->setStatus(6);
    item->setStatus(7);
    queryComplete(item->getMetadata());
    // The session advances a second time here, after queryComplete's own
    // advance; the deferred start makes the repeat harmless.
    advance();
}

void EncodeBrowserController::renameItem(MDI_Media& item, const QString& name) {
    item.replaceNameInOutPath(name);
    item.setName(name);
}

void EncodeBrowserController::queryComplete(MDB_Metadata* metadata) {
    std::shared_ptr<MDI_Media> item = m_workMovie;
    if (!item || !metadata)
        return;

    noteLookupError(*item);
    item->copyMetadata(*metadata);
    applyQueryRecord(*item, *metadata);
    const bool poster = !item->getMetadata()->artworkFullsizeURLs().isEmpty();
    if (!poster)
        item->setArtworkFromBundle(QStringLiteral("MovieTicket"), QStringLiteral("png"));
    updateCell(*item);
    fetchArtwork(item, poster, [this, item] {
        if (m_workMovie != item)
            return;
        updateCell(*item);
        item->setStatus(8);
        finishWorkItem(item);
    });
}

void EncodeBrowserController::applyQueryRecord(MDI_Media& item, const MDB_Metadata& record) {
    item.setRating(item.languageRegion());
    const QString genres = record.getTag(tag(TagName::Genre));
    // Nothing maps an empty genre list, and asking for the database's genre
    // names would reach the network even when tagging is skipped.
    item.setTag(genres.isEmpty() ? QStringLiteral("Unknown") : Utility::assignGenre(genres),
                tag(TagName::Genre));
    item.setTag(MDB_Utility::assignSortName(record.getTag(tag(TagName::SortName))),
                tag(TagName::SortName));
    item.assignIfHD();
    item.setSearchForeign(setting(SettingsKey::BurnForeign));
}

void EncodeBrowserController::fetchArtwork(const std::shared_ptr<MDI_Media>& item, bool poster,
                                           std::function<void()> done) {
    cancelArtwork(item.get());
    MDB_Metadata* record = item->getMetadata();
    const QUrl posterURL = poster ? record->artworkFullsizeURLs().value(0) : QUrl();
    QUrl backdropURL;
    const QList<QUrl> backdrops = record->backdropFullsizeURLs();
    if (!backdrops.isEmpty()) {
        // A different backdrop each time a movie is matched.
        if (setting(SettingsKey::BackdropArt))
            backdropURL = backdrops.at(int(::random() % backdrops.size()));
        else
            item->setBackdropFromBundle(QStringLiteral("NoArtworkBackground"),
                                        QStringLiteral("png"));
    }
    if (posterURL.isEmpty() && backdropURL.isEmpty()) {
        done();
        return;
    }

    using Images = std::pair<MDB_Image, MDB_Image>;
    auto promise = std::make_shared<QPromise<Images>>();
    promise->start();
    auto* watcher = new QFutureWatcher<Images>(this);
    m_artworkFetches.insert(item.get(), watcher);
    connect(watcher, &QFutureWatcherBase::finished, this,
            [this, watcher, item, posterURL, backdropURL, done = std::move(done)] {
                m_artworkFetches.remove(item.get());
                watcher->deleteLater();
                if (rowOf(item.get()) < 0)
                    return; // removed while its images were on the way
                const Images images = watcher->result();
                if (!posterURL.isEmpty())
                    item->getMetadata()->setArtworkFromIndex(0, images.first);
                if (!backdropURL.isEmpty())
                    item->getMetadata()->setBackdropFromURL(backdropURL, images.second);
                done();
            });
    watcher->setFuture(promise->future());
    QThreadPool::globalInstance()->start([promise, posterURL, backdropURL] {
        Images images;
        if (!posterURL.isEmpty())
            images.first = MDB_Metadata::fetchImage(posterURL);
        if (!backdropURL.isEmpty())
            images.second = MDB_Metadata::fetchImage(backdropURL);
        promise->addResult(images);
        promise->finish();
    });
}

void EncodeBrowserController::applyBackdrop(MDI_Media& item) {
    const QList<QUrl> backdrops = item.getMetadata()->backdropFullsizeURLs();
    if (backdrops.isEmpty())
        return;
    if (setting(SettingsKey::BackdropArt))
        item.setBackdropFromURL(backdrops.at(int(::random() % backdrops.size())));
    else
        item.setBackdropFromBundle(QStringLiteral("NoArtworkBackground"), QStringLiteral("png"));
}

void EncodeBrowserController::cancelArtwork(const MDI_Media* item) {
    // Deleting the watcher drops its result; the fetch itself ends on its own.
    if (QObject* watcher = m_artworkFetches.take(item)) {
        watcher->disconnect(this);
        watcher->deleteLater();
    }
}

void EncodeBrowserController::updateCell(MDI_Media& item, const QString& title) {
    const int row = rowOf(&item);
    if (row < 0 || row >= m_images.size())
        return;
    m_images[row].title = title.isNull() ? item.getMetadata()->getTag(tag(TagName::Name)) : title;
    const QList<QUrl>& thumbnails = item.getThumbnails();
    m_images[row].image = thumbnails.isEmpty() ? resourceImage(QStringLiteral("MovieTicket"))
                                               : thumbnails.first().toLocalFile();
    emit itemUpdated(row);
}

void EncodeBrowserController::finishWorkItem(const std::shared_ptr<MDI_Media>& item,
                                             bool showFinishedName) {
    statusUpdate();
    setScanning(false);
    if (m_browserDelegate && item->status() == 8)
        m_browserDelegate->itemReady(item);
    advance(showFinishedName);
}

void EncodeBrowserController::metadataSearchUpdate(qint64 row) {
    metadataSearchUpdate(firstSelectedItem(), row);
}

void EncodeBrowserController::metadataSearchUpdate(const std::shared_ptr<MDI_Media>& item,
                                                   qint64 row) {
    if (!item || row < 0)
        return;
    std::shared_ptr<MDB_Metadata> hit = item->assignSearchResults(quint64(row));
    if (!hit)
        return;
    item->setStatus(7);
    item->replaceMetadata(*hit);
    statusUpdate();
    setScanTitle(item->name());
    setScanStatus(QStringLiteral("Querying..."));
    if (m_viewVisible) {
        setScanProgress(true);
        setVidImageVisible(true);
    }
    // One work item at a time: a pick made while another item is scanned or
    // looked up waits at status 7.
    if (!m_isScanning || m_workMovie == item) {
        m_workMovie = item;
        setScanning(true);
        queryDatabase(*item);
    }
}

bool EncodeBrowserController::pickSearchHit(const std::shared_ptr<MDI_Media>& item, qint64 index) {
    if (!item || index < 0 || index >= item->searchList().size() || rowOf(item.get()) < 0)
        return false;
    metadataSearchUpdate(item, index);
    return true;
}

bool EncodeBrowserController::pickMovieID(const std::shared_ptr<MDI_Media>& item,
                                          const QString& tmdbID) {
    const QString id = tmdbID.trimmed();
    bool number = false;
    if (!item || id.toULongLong(&number) == 0 || !number || rowOf(item.get()) < 0)
        return false;
    const qint32 status = item->status();
    // Waiting, or being scanned: the lookup after the scan takes the id.
    const bool waiting = status >= 2 && status <= 4;
    const bool ready = status == 6 || status == 8 || status == 12;
    if (!waiting && (!ready || m_isScanning))
        return false;
    m_pickedIDs[item.get()] = QString::number(id.toULongLong());
    if (waiting)
        return true;
    m_workMovie = item;
    setScanning(true);
    setScanTitle(item->name());
    if (m_viewVisible) {
        setScanProgress(true);
        setVidImageVisible(true);
    }
    lookUp(item);
    return true;
}

void EncodeBrowserController::metadataViewUpdate(const QString& imagePath) {
    if (m_selection.isEmpty() || m_selection.first() >= m_images.size())
        return;
    m_images[m_selection.first()].image = imagePath;
    emit itemUpdated(m_selection.first());
    reloadData();
}

void EncodeBrowserController::metadataNameUpdate(const QString& name) {
    if (m_selection.isEmpty() || m_selection.first() >= m_images.size())
        return;
    m_images[m_selection.first()].title = name;
    emit itemUpdated(m_selection.first());
    reloadData();
}

void EncodeBrowserController::advance(bool showFinishedName) {
    if (std::shared_ptr<MDI_Media> next = firstWaitingItem()) {
        setScanTitle(showFinishedName && m_workMovie ? m_workMovie->name() : next->name());
        setScanStatus(QStringLiteral("Scanning..."));
        scanNextLater(next);
        return;
    }
    m_workMovie.reset();
    hideProgress();
    statusUpdate();
    scanStateChange();
}

void EncodeBrowserController::scanNextLater(const std::shared_ptr<MDI_Media>& item) {
    std::weak_ptr<MDI_Media> weak = item;
    QMetaObject::invokeMethod(
        this,
        [this, weak] {
            std::shared_ptr<MDI_Media> next = weak.lock();
            // Another start may have come first (the skip path advances twice).
            if (next && !m_isScanning && next->status() == 2 && rowOf(next.get()) >= 0)
                startScanning(next);
        },
        Qt::QueuedConnection);
}
