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

namespace {

const QString kEncoderName = QStringLiteral("Tarnwick_Pro_Encoder");

// Folders that are opened as one document elsewhere (applications, plug-ins):
// not sources, unlike plain disc folders.
bool isPackage(const QFileInfo& info) {
    static const QStringList suffixes = {"app", "bundle", "framework", "plugin", "kext", "pkg"};
    return info.isDir() && suffixes.contains(info.suffix(), Qt::CaseInsensitive);
}

} // namespace

const char* const EncodeBrowserController::kDrmWarning =
    "Our apologies, but this media appears to be from a copyrighted or DRM protected Volume or "
    "file format and Tarnwick will not process it.";

const char* const EncodeBrowserController::kScanTimeLimitWarning =
    "The scan was stopped after %1 without finishing (the \"Scan Time Limit\" setting). The "
    "source may be damaged or unreadable.";

namespace {

QString durationText(qint64 seconds) {
    if (seconds % 60 == 0)
        return seconds == 60 ? QStringLiteral("1 minute")
                             : QStringLiteral("%1 minutes").arg(seconds / 60);
    return seconds == 1 ? QStringLiteral("1 second") : QStringLiteral("%1 seconds").arg(seconds);
}

} // namespace

void EncodeBrowserDelegate::runSearchPanel(SearchPanelController& panel) {
    panel.skipBtn();
}

EncodeBrowserController::EncodeBrowserController(std::shared_ptr<MediaItemList> list,
                                                 QObject* parent)
    : QObject(parent), m_movieList(std::move(list)) {
    if (!m_movieList) {
        EncodeList::setInstance();
        m_movieList = EncodeList::instance();
    }
}

EncodeBrowserController::~EncodeBrowserController() {
    // Clients cancel as they go, so no lookup reports to a dead browser; the
    // runner kills a scan still running without a callback.
    m_movieDBs.clear();
    m_shellWrapper.reset();
}

// --- sources -------------------------------------------------------------------

int EncodeBrowserController::loadFiles(const QStringList& files, const QList<qint64>& titles) {
    int added = 0;
    for (qsizetype i = 0; i < files.size(); ++i) {
        const QFileInfo info(files.at(i));
        if (!acceptsSource(info))
            continue;
        EncodeBrowserCell cell;
        cell.path = info.absoluteFilePath();
        cell.title = displayName(info);
        cell.scanTitle = i < titles.size() ? titles.at(i) : 0;
        m_importedImages.append(cell);
        ++added;
    }
    updateDatasource();
    return added;
}

bool EncodeBrowserController::acceptsSource(const QFileInfo& info) const {
    return info.exists() && !isPackage(info);
}

QString EncodeBrowserController::displayName(const QFileInfo& info) const {
    // completeBaseName keeps "Movie.2019" of "Movie.2019.mkv"; a disc folder
    // has no extension to lose.
    const QString base = info.isDir() ? info.fileName() : info.completeBaseName();
    // Trimmed: a name cut before "(2019)" would otherwise end the output
    // file's name with a blank.
    return MDB_Utility::ExtractName(base).trimmed();
}

std::shared_ptr<MDI_Media> EncodeBrowserController::makeItem(const EncodeBrowserCell& cell,
                                                             bool& askedForFolder) {
    UserDefaults& defaults = UserDefaults::standard();
    const QString bookmarkKey = QString::fromLatin1(SettingsKey::DestinationPathBookmark);
    auto movie = std::make_shared<MDI_Movie>();
    QString folder = Bookmark::resolve(defaults.dataForKey(bookmarkKey));
    // Asked once per batch: a user who declines is not asked for every file.
    if (folder.isEmpty() && !askedForFolder && m_browserDelegate) {
        askedForFolder = true;
        if (m_browserDelegate->setPreferences())
            folder = Bookmark::resolve(defaults.dataForKey(bookmarkKey));
    }
    movie->setName(cell.title);
    const QString fileName = cell.title + QStringLiteral(".m4v");
    movie->setOutPath(folder.isEmpty() ? fileName : QDir(folder).filePath(fileName));
    movie->setPrimaryDevice(defaults.stringForKey(QString::fromLatin1(SettingsKey::PrimaryDevice)));
    movie->setSecondaryDevice(
        defaults.stringForKey(QString::fromLatin1(SettingsKey::SecondaryDevice)));
    movie->setInPath(cell.path);
    movie->setScanTitle(cell.scanTitle);
    movie->setMainTitle(0);
    movie->setLanguageRegion(
        defaults.stringForKey(QString::fromLatin1(SettingsKey::LanguageRegion)));
    return movie;
}

void EncodeBrowserController::updateDatasource() {
    bool asked = false;
    for (const EncodeBrowserCell& cell : std::as_const(m_importedImages)) {
        std::shared_ptr<MDI_Media> item = makeItem(cell, asked);
        if (!item)
            continue;
        m_movieList->append(item);
        m_images.append(cell);
    }
    m_importedImages.clear();
    reloadData();
    initiateScan();
}

// --- scan session ----------------------------------------------------------------

void EncodeBrowserController::initiateScan() {
    if (m_isScanning)
        return;
    if (std::shared_ptr<MDI_Media> item = firstWaitingItem())
        startScanning(item);
}

QStringList EncodeBrowserController::scanArguments(const QString& toolPath, const MDI_Media& item) {
    QStringList args = {toolPath, QStringLiteral("-i"), item.inPath(), QStringLiteral("-t"),
                        QString::number(item.scanTitle())};
    // Title 0 scans every title; a single title needs --scan or the tool
    // would go on to encode it.
    if (item.scanTitle() != 0)
        args << QStringLiteral("--scan");
    args << QStringLiteral("--use-opencl");
    return args;
}

bool EncodeBrowserController::startScanning(const std::shared_ptr<MDI_Media>& item) {
    if (!item)
        return false;
    m_scanStr.clear();
    setScanning(true);
    m_workMovie = item;

    const QString tool = Resources::auxiliaryExecutable(kEncoderName);
    const QFileInfo toolInfo(tool);
    if (tool.isEmpty() || !toolInfo.isFile() || !toolInfo.isExecutable()) {
        // As if the runner could not be made: the item waits and the chain stops.
        m_shellWrapper.reset();
        item->setStatus(2);
        reloadData();
        statusUpdate();
        setScanning(false);
        hideProgress();
        if (m_browserDelegate)
            m_browserDelegate->showAlert(QStringLiteral("The encoder tool %1 was not found in %2.")
                                             .arg(kEncoderName, Resources::libexecDir()));
        scanStateChange();
        return false;
    }

    m_shellWrapper =
        std::make_unique<AMShellWrapper>(this, QStringLiteral("./"), scanArguments(tool, *item));
    item->setStatus(3);
    statusUpdate();
    m_shellWrapper->setOutputStringEncoding(AMShellWrapper::ASCIIStringEncoding);
    m_scanTimedOut = false;
    m_shellWrapper->startProcess();
    // A damaged disc can keep a scan busy for ever.
    const qint64 limit =
        UserDefaults::standard().integerForKey(QString::fromLatin1(SettingsKey::ScanTimeLimit));
    if (limit > 0) {
        if (!m_scanTimer) {
            m_scanTimer = new QTimer(this);
            m_scanTimer->setSingleShot(true);
            connect(m_scanTimer, &QTimer::timeout, this, [this] {
                if (m_shellWrapper && m_shellWrapper->isRunning()) {
                    m_scanTimedOut = true;
                    m_shellWrapper->stopProcess();
                }
            });
        }
        m_scanTimer->start(int(std::min<qint64>(limit, 24 * 3600) * 1000));
    }
    if (m_viewVisible)
        setScanProgress(true);
    setProgressValue(0, 0);
    setVidImageVisible(true);
    setScanTitle(item->name());
    setScanStatus(QStringLiteral("Scanning..."));
    reloadData();
    scanStateChange();
    return true;
}

void EncodeBrowserController::stopScanning() {
    if (!m_workMovie || m_workMovie->status() != 3)
        return;
    if (m_scanTimer)
        m_scanTimer->stop();
    if (m_shellWrapper)
        m_shellWrapper->stopProcess();
    setScanning(false);
    m_workMovie->setStatus(2);
    reloadData();
    statusUpdate();
    hideProgress();
    scanStateChange();
}

void EncodeBrowserController::suspendProcess() {
    if (m_shellWrapper)
        m_shellWrapper->suspendProcess();
}

void EncodeBrowserController::resumeProcess() {
    if (m_shellWrapper)
        m_shellWrapper->resumeProcess();
}

void EncodeBrowserController::processStarted(AMShellWrapper* runner) {
    Q_UNUSED(runner);
}

void EncodeBrowserController::stdOutput(const QString& text) {
    Q_UNUSED(text); // the report comes on standard error
}

void EncodeBrowserController::stdError(const QString& text) {
    m_scanStr += text;
    const qsizetype at = text.indexOf(QLatin1String("Scanning title"));
    if (at >= 0) {
        qsizetype end = text.indexOf(QLatin1String(", preview"), at);
        if (end < 0) {
            end = text.indexOf(QLatin1Char('\n'), at);
            if (end < 0)
                end = text.size();
        }
        const QString line = text.mid(at, end - at).trimmed();
        if (!line.isEmpty()) {
            setScanStatus(line);
            static const QRegularExpression counter(QStringLiteral("(\\d+) of (\\d+)"));
            const QRegularExpressionMatch m = counter.match(line);
            if (m.hasMatch())
                setProgressValue(m.captured(1).toInt(), m.captured(2).toInt());
        }
        return;
    }
    if (m_workMovie && text.indexOf(QLatin1String("invalid title")) > 0)
        m_workMovie->setStatus(0);
}

void EncodeBrowserController::processFinished(AMShellWrapper* runner, int status) {
    Q_UNUSED(status); // the report decides, not the exit status
    if (!m_shellWrapper || runner != m_shellWrapper.get() || !m_workMovie)
        return;
    std::shared_ptr<MDI_Media> item = m_workMovie;
    if (m_scanTimer)
        m_scanTimer->stop();
    if (item->status() == 2) // stopped by the user
        return;

    if (m_scanTimedOut) {
        m_scanTimedOut = false;
        item->setStatus(0);
        const qint64 limit =
            UserDefaults::standard().integerForKey(QString::fromLatin1(SettingsKey::ScanTimeLimit));
        item->setWarnings(QString::fromLatin1(kScanTimeLimitWarning).arg(durationText(limit)));
        statusUpdate();
    } else if (item->status() == 0) {
        item->setWarnings(QString::fromLatin1(MDI_Utility::kNoValidTitle));
        statusUpdate();
    } else if (item->status() == 1) {
        item->setStatus(0);
        item->setWarnings(QString::fromLatin1(kDrmWarning));
        statusUpdate();
    } else {
        item->setStatus(4);
        decodeScanString(m_scanStr, *item);
    }
    m_scanStr.clear();

    const bool skipTagging = setting(SettingsKey::SkipTagging);
    if (item->isValid() && !skipTagging) {
        applyProcessingSwitches(*item);
        setScanTitle(item->name());
        lookUp(item);
    } else if (!item->isValid()) {
        setScanning(false);
        if (m_browserDelegate)
            m_browserDelegate->scanFailed(item);
        if (std::shared_ptr<MDI_Media> next = firstWaitingItem()) {
            setScanTitle(m_workMovie->name());
            setScanStatus(QStringLiteral("Scanning..."));
            scanNextLater(next);
        } else {
            hideProgress();
            scanStateChange();
        }
    } else {
        applyProcessingSwitches(*item);
        skipLookup(item);
    }
}

void EncodeBrowserController::skipLookup(const std::shared_ptr<MDI_Media>& item) {
    queryComplete(item->getMetadata());
}

void EncodeBrowserController::processLaunchException(const QString& failure) {
    Q_UNUSED(failure);
}

void EncodeBrowserController::decodeScanString(const QString& text, MDI_Media& item) {
    const bool decoded = MDI_Utility::decodeScanString(text, item);
    if (m_browserDelegate) {
        if (item.sourceType() == 3 && !setting(SettingsKey::HideBlurayInstructions))
            m_browserDelegate->showBlurayInstructions();
        else if (item.sourceType() == 2 && !setting(SettingsKey::HideDVDInstructions) &&
                 !hasDvdLibrary())
            m_browserDelegate->showDvdInstructions();
    }
    if (decoded) {
        if (auto* movie = dynamic_cast<MDI_Movie*>(&item))
            movie->autoFindMainTitle();
        else
            item.determineMainTitle();
    } else {
        statusUpdate();
    }
}

bool EncodeBrowserController::hasDvdLibrary() {
    static const QStringList folders = {"/usr/lib",
                                        "/usr/lib/x86_64-linux-gnu",
                                        "/usr/lib/aarch64-linux-gnu",
                                        "/lib",
                                        "/lib/x86_64-linux-gnu",
                                        "/lib/aarch64-linux-gnu",
                                        "/usr/local/lib",
                                        "/usr/lib64",
                                        "/lib64"};
    for (const QString& folder : folders) {
        if (QFileInfo::exists(folder + QStringLiteral("/libdvdcss.so.2")))
            return true;
    }
    return false;
}

void EncodeBrowserController::applyProcessingSwitches(MDI_Media& item) {
    // Exclusive-or on purpose: with the setting on, a combed (telecined)
    // title is encoded without the filter, and the other way round.
    item.setDecomb(item.decomb() != setting(SettingsKey::Decomb));
    item.setDenoise(setting(SettingsKey::Denoise));
    item.setDetelecine(item.detelecine() != setting(SettingsKey::Detelecine));
    item.setDeblock(setting(SettingsKey::Deblock));
    item.setPassthruVideo(setting(SettingsKey::PassthruVideo));
}

EncodeBrowserController::Icon EncodeBrowserController::statusIcon(qint32 status) {
    if (status == 2)
        return Icon::Added;
    if (status >= 3 && status <= 7)
        return Icon::Scanning;
    if (status >= 9 && status <= 17)
        return Icon::Working;
    if (status == 0 || status == 18)
        return Icon::Error;
    if (status == 19)
        return Icon::Done;
    return Icon::None;
}

void EncodeBrowserController::statusUpdate() {
    for (qsizetype i = 0; i < m_images.size() && i < m_movieList->size(); ++i)
        m_images[i].icon = statusIcon(m_movieList->at(i)->status());
    reloadData();
}

// --- selection ---------------------------------------------------------------------

void EncodeBrowserController::setSelection(const QList<int>& rows) {
    m_selection.clear();
    for (int row : rows) {
        if (row >= 0 && row < m_movieList->size() && !m_selection.contains(row))
            m_selection.append(row);
    }
    QVariantMap userInfo;
    if (std::shared_ptr<MDI_Media> item = firstSelectedItem()) {
        applyBackdrop(*item);
        userInfo.insert(QStringLiteral("movie"), QVariant::fromValue(item));
        userInfo.insert(QStringLiteral("tab"), selectionTab());
        userInfo.insert(QStringLiteral("count"), int(m_selection.size()));
    }
    NotificationCenter::defaultCenter().post(
        QString::fromLatin1(NotificationName::SelectionChanged), userInfo);
}

QList<int> EncodeBrowserController::getSelected() const {
    QList<int> rows = m_selection;
    std::sort(rows.begin(), rows.end());
    return rows;
}

void EncodeBrowserController::selectAll() {
    QList<int> rows;
    for (int row = 0; row < m_movieList->size(); ++row)
        rows.append(row);
    setSelection(rows);
}

void EncodeBrowserController::clearAll() {
    QList<int> rows;
    for (int row = 0; row < m_movieList->size(); ++row)
        rows.append(row);
    clearIndexes(rows);
}

void EncodeBrowserController::clearIndexes(const QList<int>& rows) {
    QList<int> doomed;
    for (int row : rows) {
        if (row >= 0 && row < m_movieList->size() && !doomed.contains(row))
            doomed.append(row);
    }
    if (doomed.isEmpty())
        return;
    // From the back, so the rows still to go keep their positions.
    std::sort(doomed.begin(), doomed.end(), std::greater<int>());
    bool workRemoved = false;
    for (int row : std::as_const(doomed)) {
        const std::shared_ptr<MDI_Media> item = m_movieList->at(row);
        if (item == m_workMovie && m_isScanning) {
            workRemoved = true;
            // The runner is dropped without a callback; a lookup in flight is
            // cancelled with its client below.
            m_shellWrapper.reset();
            m_scanStr.clear();
        }
        m_movieDBs.erase(item.get());
        m_pickedIDs.erase(item.get());
        m_movieList->removeAt(row);
        if (row < m_images.size())
            m_images.removeAt(row);
    }
    m_selection.clear();
    if (workRemoved) {
        m_workMovie.reset();
        setScanning(false);
    }
    reloadData();
    statusUpdate();
    if (workRemoved) {
        if (std::shared_ptr<MDI_Media> next = firstWaitingItem()) {
            setScanTitle(next->name());
            setScanStatus(QStringLiteral("Scanning..."));
            scanNextLater(next);
        } else {
            hideProgress();
            scanStateChange();
        }
    }
    NotificationCenter::defaultCenter().post(
        QString::fromLatin1(NotificationName::SelectionChanged), QVariantMap());
}

std::shared_ptr<MDI_Media> EncodeBrowserController::firstSelectedItem() const {
    if (m_selection.isEmpty() || m_selection.first() >= m_movieList->size())
        return nullptr;
    return m_movieList->at(m_selection.first());
}

// --- display state -------------------------------------------------------------------

void EncodeBrowserController::setScanTitle(const QString& title, bool visible) {
    if (title == m_scanTitle && visible == m_scanTitleVisible)
        return;
    m_scanTitle = title;
    m_scanTitleVisible = visible;
    emit scanTitleChanged();
}

void EncodeBrowserController::setScanStatus(const QString& status, bool visible) {
    if (status == m_scanStatus && visible == m_scanStatusVisible)
        return;
    m_scanStatus = status;
    m_scanStatusVisible = visible;
    emit scanStatusChanged();
}

void EncodeBrowserController::setScanProgress(bool animating) {
    if (animating == m_scanProgress)
        return;
    m_scanProgress = animating;
    emit scanProgressChanged();
}

void EncodeBrowserController::setProgressValue(int value, int maximum) {
    if (value == m_scanProgressValue && maximum == m_scanProgressMaximum)
        return;
    m_scanProgressValue = value;
    m_scanProgressMaximum = maximum;
    emit scanProgressChanged();
}

void EncodeBrowserController::setVidImageVisible(bool visible) {
    if (visible == m_vidImageVisible)
        return;
    m_vidImageVisible = visible;
    emit vidImageVisibleChanged();
}

void EncodeBrowserController::setScanning(bool scanning) {
    if (scanning == m_isScanning)
        return;
    m_isScanning = scanning;
    emit isScanningChanged();
}

void EncodeBrowserController::hideProgress() {
    setScanTitle(m_scanTitle, false);
    setScanStatus(m_scanStatus, false);
    setScanProgress(false);
    setVidImageVisible(false);
}

void EncodeBrowserController::scanStateChange() {
    if (m_browserDelegate)
        m_browserDelegate->scanStateChange();
}

void EncodeBrowserController::reloadData() {
    emit reloaded();
}

int EncodeBrowserController::rowOf(const MDI_Media* item) const {
    for (qsizetype i = 0; i < m_movieList->size(); ++i) {
        if (m_movieList->at(i).get() == item)
            return int(i);
    }
    return -1;
}

std::shared_ptr<MDI_Media> EncodeBrowserController::firstWaitingItem() const {
    for (const std::shared_ptr<MDI_Media>& item : *m_movieList) {
        if (item->status() == 2)
            return item;
    }
    return nullptr;
}
