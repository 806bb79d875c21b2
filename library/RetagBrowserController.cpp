#include "library/RetagBrowserController.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/MDI_Movie.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"

#include <QFile>
#include <QFileInfo>

namespace {

QString tag(const char* name) {
    return QString::fromLatin1(name);
}

// Folders opened as one document elsewhere (applications, plug-ins).
bool isPackage(const QFileInfo& info) {
    static const QStringList suffixes = {"app", "bundle", "framework", "plugin", "kext", "pkg"};
    return info.isDir() && suffixes.contains(info.suffix(), Qt::CaseInsensitive);
}

} // namespace

const char* const RetagBrowserController::kReadOnlyFile =
    "The movie file is read-only, so its tags were not written.";

RetagBrowserController::RetagBrowserController(std::shared_ptr<MediaItemList> list,
                                               QObject* parent)
    : EncodeBrowserController(list ? std::move(list) : [] {
          TagList::setInstance();
          return TagList::instance();
      }(),
                              parent) {}

RetagBrowserController::~RetagBrowserController() = default;

QString RetagBrowserController::outputFileName(const QString& fileName) {
    const qsizetype dot = fileName.lastIndexOf(QLatin1Char('.'));
    // A leading dot starts a hidden file's name, not an extension.
    const QString extension = dot > 0 ? fileName.mid(dot + 1) : QString();
    if (extension.isEmpty())
        return fileName + QStringLiteral(".m4v");
    // Every occurrence, not only the extension: "Removals.mov" becomes
    // "Rem4vals.m4v". Items have always been named this way.
    QString out = fileName;
    out.replace(extension, QStringLiteral("m4v"));
    return out;
}

// --- sources ---------------------------------------------------------------------

bool RetagBrowserController::acceptsSource(const QFileInfo& info) const {
    // No existence or extension filter: a file that is no movie fails its scan
    // with the scan's message.
    return !isPackage(info);
}

QString RetagBrowserController::displayName(const QFileInfo& info) const {
    return info.isDir() ? info.fileName() : info.completeBaseName();
}

std::shared_ptr<MDI_Media> RetagBrowserController::makeItem(const EncodeBrowserCell& cell,
                                                            bool& askedForFolder) {
    Q_UNUSED(askedForFolder); // retagged in place: no destination folder
    UserDefaults& defaults = UserDefaults::standard();
    auto movie = std::make_shared<MDI_Movie>();
    const QString out = outputFileName(QFileInfo(cell.path).fileName());
    movie->setName(out.left(out.lastIndexOf(QLatin1Char('.'))));
    movie->setPrimaryDevice(defaults.stringForKey(QString::fromLatin1(SettingsKey::PrimaryDevice)));
    movie->setSecondaryDevice(
        defaults.stringForKey(QString::fromLatin1(SettingsKey::SecondaryDevice)));
    movie->setLanguageRegion(
        defaults.stringForKey(QString::fromLatin1(SettingsKey::LanguageRegion)));
    movie->setInPath(cell.path);
    movie->setOutPath(cell.path);
    movie->setScanTitle(cell.scanTitle);
    movie->setMainTitle(0);
    movie->setReadMetadata(true);
    return movie;
}

// --- search and match --------------------------------------------------------------

void RetagBrowserController::resetExtraTags(MDI_Media& item) {
    OrderedDictionary<QString, QString> extra;
    for (const auto& [name, on] : item.tagStates()) {
        if (on)
            extra.insert(name, QString(QLatin1String("")));
    }
    item.setExtraTags(extra);
}

void RetagBrowserController::skipLookup(const std::shared_ptr<MDI_Media>& item) {
    item->readMetadataFromFile(false);
    resetExtraTags(*item);
    if (item->status() != 0) {
        const QString name = item->getTag(tag(TagName::Name));
        updateCell(*item, name.isEmpty() ? item->name() : name);
        item->setStatus(8);
    }
    finishWorkItem(item);
}

void RetagBrowserController::renameItem(MDI_Media& item, const QString& name) {
    item.setName(name); // the file keeps its name
}

std::shared_ptr<MDI_Media>
RetagBrowserController::itemForRecord(const MDB_Metadata* metadata) const {
    for (const std::shared_ptr<MDI_Media>& item : movieList()) {
        if (item->metaData() == metadata)
            return item;
    }
    return workMovie();
}

void RetagBrowserController::queryComplete(MDB_Metadata* metadata) {
    std::shared_ptr<MDI_Media> item = itemForRecord(metadata);
    if (!item || !metadata)
        return;
    noteLookupError(*item);

    // The query fills the item's own record; what it fetched is kept aside
    // before the file's tags are read over it, so the fetched values win.
    std::unique_ptr<MDB_Metadata> kept;
    MDB_Metadata* fetched = metadata;
    if (!item->readMetadata() && !item->bypassMetadata()) {
        if (metadata == item->metaData()) {
            kept = metadata->copyWithZone();
            kept->setTagsDict(metadata->tagsDict());
            fetched = kept.get();
        }
        item->readMetadataFromFile(false);
    }
    resetExtraTags(*item);
    item->copyMetadata(*fetched);
    item->copyToQueryMetadata(*fetched);
    applyQueryRecord(*item, *fetched);
    // What the file already holds is applied last, unless the user picked
    // the hit by hand.
    if (item->readMetadata() && !item->bypassMetadata())
        item->readMetadataFromFile(false);
    item->setReadMetadata(false);
    item->setBypassMetadata(false);

    // The file's own cover stays.
    const bool poster = !item->hasPoster() && item->numberOfPosters() > 0;
    if (!item->hasPoster() && !poster)
        item->setArtworkFromBundle(QStringLiteral("MovieTicket"), QStringLiteral("png"));
    fetchArtwork(item, poster, [this, item] {
        if (item->status() != 0) {
            updateCell(*item);
            item->setStatus(8);
        }
        if (item == workMovie()) {
            finishWorkItem(item, true);
        } else {
            // A pick made while another file was being scanned: that session
            // goes on undisturbed.
            statusUpdate();
            if (browserDelegate() && item->status() == 8)
                browserDelegate()->itemReady(item);
        }
    });
}

void RetagBrowserController::tagSearchUpdate(qint64 row) {
    tagSearchUpdate(firstSelectedItem(), row);
}

void RetagBrowserController::tagSearchUpdate(const std::shared_ptr<MDI_Media>& item, qint64 row) {
    if (!item || row < 0 || rowOf(item.get()) < 0)
        return;
    std::shared_ptr<MDB_Metadata> hit = item->assignSearchResults(quint64(row));
    if (!hit)
        return;
    item->setStatus(7);
    item->replaceMetadata(*hit);
    item->setBypassMetadata(true);
    statusUpdate();
    // Queried at once, also while another file is scanned; that file stays
    // the session's work item (and keeps the progress display), and the
    // answer finds this item by its record.
    if (!isScanning() || item == workMovie()) {
        setWorkMovie(item);
        setScanning(true);
        setScanTitle(item->name());
        setScanStatus(QStringLiteral("Querying..."));
        if (viewVisible()) {
            setScanProgress(true);
            setVidImageVisible(true);
        }
    }
    queryDatabase(*item);
}

bool RetagBrowserController::pickSearchHit(const std::shared_ptr<MDI_Media>& item, qint64 index) {
    if (!item || index < 0 || index >= item->searchList().size() || rowOf(item.get()) < 0)
        return false;
    // A query in flight fills the item's record, which must stay.
    if (isScanning() && item == workMovie())
        return false;
    prepareHandPick(*item);
    tagSearchUpdate(item, index);
    return true;
}

void RetagBrowserController::prepareHandPick(MDI_Media& item) {
    item.setMetaData(std::make_unique<MDB_MovieMetadata>());
}

bool RetagBrowserController::searchByHand(const std::shared_ptr<MDI_Media>& item,
                                          const QString& title) {
    const QString name = title.trimmed();
    if (!item || name.isEmpty() || rowOf(item.get()) < 0)
        return false;
    const qint32 status = item->status();
    // Waiting, or being scanned: the search after the scan takes the name.
    const bool waiting = status >= 2 && status <= 4;
    // A search's answer goes to the session's work item, so a ready item is
    // searched only while no other is; a file that failed its scan has
    // nothing to tag.
    const bool ready = status == 6 || status == 8 || status == 12;
    if (!waiting && (!ready || isScanning()))
        return false;
    renameItem(*item, name);
    // What the item holds (the file's tags after an earlier lookup) gives way
    // to the new match, as replaceMetadata does for a hit picked by hand.
    prepareHandPick(*item);
    item->setSearchList({});
    item->resetSearchIndex();
    item->setBypassMetadata(true);
    if (waiting)
        return true; // the scan session searches it under the new name next
    item->setStatus(5);
    statusUpdate();
    setWorkMovie(item);
    setScanning(true);
    setScanTitle(item->name());
    setScanStatus(QStringLiteral("Searching..."));
    searchDatabase(*item);
    return true;
}

// --- writing back --------------------------------------------------------------------

bool RetagBrowserController::saveItem(const std::shared_ptr<MDI_Media>& item, QString* error) {
    auto fail = [&](const QString& message) {
        if (error)
            *error = message;
        return false;
    };
    if (!item)
        return fail(QStringLiteral("No movie to save."));
    const QString path = item->outPath();
    if (item->status() < 8)
        return fail(QStringLiteral("%1: the tags are not ready yet (the file is still being "
                                   "looked up, or its scan failed); nothing was written.")
                        .arg(path));
    const QFileInfo info(path);
    // Root may write anywhere; a file without any write permission is still
    // the user's way of saying "leave it alone".
    const bool anyWriteBit =
        info.permissions() & (QFile::WriteOwner | QFile::WriteGroup | QFile::WriteOther);
    if (info.isFile() && (!info.isWritable() || !anyWriteBit))
        return fail(QStringLiteral("%1: %2").arg(path, QString::fromLatin1(kReadOnlyFile)));

    item->writeMetadataToFile(false);
    statusUpdate();
    if (item->status() != 12)
        return fail(QStringLiteral("%1: %2").arg(path, item->warnings()));
    if (error)
        error->clear();
    return true;
}

bool RetagBrowserController::resetItem(const std::shared_ptr<MDI_Media>& item) {
    if (!item || rowOf(item.get()) < 0)
        return false;
    if (isScanning() && item == workMovie())
        return false;
    if (const MDB_Metadata* query = item->queryMetadata())
        item->setMetaData(query->copyWithZone());
    item->setWarnings(QString());
    item->readMetadataFromFile(false);
    const QString name = item->getTag(tag(TagName::Name));
    if (!name.isEmpty())
        item->setName(name);
    item->setSearchList({});
    item->resetSearchIndex();
    // Scanned afresh: the titles of the last scan would otherwise stay.
    item->RemoveTitles();
    item->setMainTitle(0);
    item->setStatus(2);
    statusUpdate();
    initiateScan();
    return true;
}
