#include "processing/AppDelegate.h"

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/Startup.h"
#include "core/UserDefaults.h"
#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "media/MDI_Media.h"
#include "processing/EncoderController.h"

#include <QFile>
#include <QVariant>

namespace {

QString key(const char* name) {
    return QString::fromLatin1(name);
}

} // namespace

const char* const AppDelegate::kEncoderMissing =
    "The encoder tool could not be started, so the movie was not converted. Reinstall Tarnwick "
    "(the tool Tarnwick_Pro_Encoder and the handbrake-cli package).";

const char* const AppDelegate::kRemoveQuestion =
    "\"%1\" is currently being converted, do you wish to stop encoding and remove movie?";

AppDelegate::AppDelegate(QObject* parent) : QObject(parent) {
    // The queue is the shared encode list: the encoder job walks the same
    // list the encode browser fills.
    EncodeList::setInstance();
    m_encodeController = std::make_unique<EncoderController>();
    m_encodeBrowseController = std::make_unique<EncodeBrowserController>(EncodeList::instance());
    TagList::setInstance();
    m_retagBrowseController = std::make_unique<RetagBrowserController>(TagList::instance());
    m_moviesBrowserController = std::make_unique<MoviesBrowserController>();
    m_encodeController->setStatusDelegate(this);
    m_encodeController->setEncoderDelegate(this);
    m_encodeBrowseController->setBrowserDelegate(this);
    setStoppedControls();
}

AppDelegate::~AppDelegate() {
    // The job reports to us and to the browser; stop it before either goes.
    if (m_encodeController) {
        m_encodeController->setEncoderDelegate(nullptr);
        m_encodeController->setStatusDelegate(nullptr);
        m_encodeController->stopEncoding();
    }
    m_encodeController.reset();
    m_encodeBrowseController.reset();
    m_retagBrowseController.reset();
    restoreTmpdir();
}

void AppDelegate::restoreTmpdir() {
    // The scratch folder goes at exit; later temporary files of this process
    // must not be made in a folder that is about to vanish.
    if (!m_tmpdirChanged)
        return;
    m_tmpdirChanged = false;
    if (m_savedTmpdir.isNull())
        qunsetenv("TMPDIR");
    else
        qputenv("TMPDIR", m_savedTmpdir);
}

void AppDelegate::setBrowserDelegate(EncodeBrowserDelegate* delegate) {
    m_frontBrowserDelegate = delegate;
    m_retagBrowseController->setBrowserDelegate(delegate);
}

void AppDelegate::setInformationController(InformationPanel* panel) {
    m_informationController = panel;
    m_encodeController->setInformationController(panel);
}

// --- lifecycle -------------------------------------------------------------------

void AppDelegate::applicationWillFinishLaunching() {
    // The tools' own scratch files (HandBrakeCLI leaves its folder behind when
    // it is stopped) go into ours, which goes at exit.
    const QString scratch = Startup::repairTempDirectory();
    if (!scratch.isEmpty()) {
        if (!m_tmpdirChanged)
            m_savedTmpdir = qgetenv("TMPDIR");
        m_tmpdirChanged = true;
        qputenv("TMPDIR", QFile::encodeName(scratch));
    }
    // Access to a bookmarked folder needs no grant here; resolving tells
    // whether it is still there, and one that is gone is skipped.
    UserDefaults& defaults = UserDefaults::standard();
    Bookmark::resolve(defaults.dataForKey(key(SettingsKey::DestinationPathBookmark)));
    Bookmark::resolve(defaults.dataForKey(key(SettingsKey::ITunesPathBookmark)));
    Startup::repairLanguageRegion();
    toggleFuncSegment(EncodeFunction);
    checkPresets();
    if (!defaults.boolForKey(key(SettingsKey::HideInstructions)) && m_panelDelegate)
        m_panelDelegate->showInstructions();
}

void AppDelegate::applicationWillTerminate() {
    Startup::cleanupAtExit();
    restoreTmpdir();
}

// --- the queue -------------------------------------------------------------------

bool AppDelegate::checkPresets() {
    if (!Startup::presetUpdateNeeded())
        return true;
    const bool ok =
        m_panelDelegate
            ? m_panelDelegate->runUpdateNotice(QString::fromLatin1(Startup::kUpdateNoticeTitle),
                                               QString::fromLatin1(Startup::kUpdateNoticeText))
            : AppPanelDelegate().runUpdateNotice({}, {});
    if (ok)
        Startup::acceptPresetUpdate();
    return ok;
}

bool AppDelegate::startProcessing() {
    if (!checkPresets())
        return false;
    if (m_paused)
        return false;
    m_paused = false;
    setProcessing(true);
    AppControls controls = m_controls;
    controls.pauseIcon = QStringLiteral("Aqua-Pause-icon");
    controls.pauseLabel = QStringLiteral("Pause");
    controls.pauseMenuChecked = false;
    controls.pauseMenuEnabled = true;
    controls.startEnabled = false;
    controls.startMenuEnabled = false;
    controls.pauseEnabled = true;
    controls.stopEnabled = true;
    controls.stopMenuEnabled = true;
    setControls(controls);

    startFirstReady();
    return true;
}

void AppDelegate::startFirstReady() {
    // Nothing ready yet is not a refusal: the controls stay started, and the
    // first movie that becomes ready starts the queue. A movie the encoder
    // tool cannot be started for fails, and the next one is tried.
    m_waitingForReady = false;
    bool tried = false;
    for (const std::shared_ptr<MDI_Media>& item : m_encodeBrowseController->movieList()) {
        if (!item || item->status() != 8)
            continue;
        tried = true;
        if (m_encodeController->startMovieEncoding(item))
            return;
        item->setStatus(0);
        item->setWarnings(QString::fromLatin1(kEncoderMissing));
        m_encodeBrowseController->statusUpdate();
    }
    if (tried)
        encodeComplete();
    else
        m_waitingForReady = true;
}

void AppDelegate::pauseProcessing() {
    if (!m_processing)
        return;
    AppControls controls = m_controls;
    if (!m_paused) {
        controls.pauseIcon = QStringLiteral("Aqua-Play-icon");
        controls.pauseLabel = QStringLiteral("Resume");
        controls.pauseMenuChecked = true;
        m_encodeController->suspendProcess();
    } else {
        controls.pauseIcon = QStringLiteral("Aqua-Pause-icon");
        controls.pauseLabel = QStringLiteral("Pause");
        controls.pauseMenuChecked = false;
        m_encodeController->resumeProcess();
    }
    m_paused = !m_paused;
    setControls(controls);
    if (!m_paused && m_waitingForReady)
        startFirstReady();
}

void AppDelegate::stopProcessing() {
    setProcessing(false);
    m_paused = false;
    setStoppedControls();
    m_encodeController->stopEncoding();
    m_encodeBrowseController->statusUpdate();
}

void AppDelegate::encodeComplete() {
    setProcessing(false);
    m_paused = false;
    setStoppedControls();
}

void AppDelegate::setStoppedControls() {
    // Stopped controls mean a queue that starts nothing by itself.
    m_waitingForReady = false;
    AppControls controls = m_controls;
    controls.pauseIcon = QStringLiteral("Aqua-Pause-icon");
    controls.pauseLabel = QStringLiteral("Pause");
    controls.pauseMenuChecked = false;
    controls.startEnabled = true;
    controls.startMenuEnabled = true;
    controls.pauseEnabled = false;
    controls.pauseMenuEnabled = false;
    controls.stopEnabled = false;
    controls.stopMenuEnabled = false;
    setControls(controls);
}

void AppDelegate::setControls(const AppControls& controls) {
    if (controls == m_controls)
        return;
    m_controls = controls;
    emit controlsChanged();
}

void AppDelegate::setProcessing(bool processing) {
    if (processing == m_processing)
        return;
    m_processing = processing;
    emit processingChanged(processing);
}

// --- browsers ----------------------------------------------------------------------

void AppDelegate::scanToggle() {
    if (!m_encodeBrowseController->isScanning())
        m_encodeBrowseController->initiateScan();
    else
        m_encodeBrowseController->stopScanning();
}

void AppDelegate::clearAll() {
    if (m_selectedFunction == RetagFunction)
        m_retagBrowseController->clearAll();
    if (m_selectedFunction != EncodeFunction)
        return;
    QList<int> rows;
    for (int row = 0; row < m_encodeBrowseController->count(); ++row)
        rows.append(row);
    removeFromEncodeList(rows);
}

void AppDelegate::clearSelected() {
    // Nothing is converted in place, so retag items go without a question.
    if (m_selectedFunction == RetagFunction)
        m_retagBrowseController->clearSelected();
    else if (m_selectedFunction == EncodeFunction)
        removeFromEncodeList(m_encodeBrowseController->getSelected());
}

void AppDelegate::removeFromEncodeList(const QList<int>& rows) {
    QList<int> remaining;
    const MediaItemList& list = m_encodeBrowseController->movieList();
    for (int row : rows) {
        if (row < 0 || row >= list.size())
            continue;
        const std::shared_ptr<MDI_Media> item = list.at(row);
        if (item->status() == 9) {
            const QString message = QString::fromLatin1(kRemoveQuestion).arg(item->name());
            const bool yes = m_panelDelegate ? m_panelDelegate->runRemoveQuestion(message)
                                             : AppPanelDelegate().runRemoveQuestion(message);
            m_alertResult = !yes;
            if (!yes)
                continue;
            m_encodeController->stopEncoding();
            setStoppedControls();
            m_paused = false;
        }
        remaining.append(row);
    }
    m_encodeBrowseController->clearIndexes(remaining);
    if (m_encodeBrowseController->count() == 0)
        setStoppedControls();
}

void AppDelegate::selectAll() {
    if (m_selectedFunction == EncodeFunction)
        m_encodeBrowseController->selectAll();
    else if (m_selectedFunction == RetagFunction)
        m_retagBrowseController->selectAll();
}

void AppDelegate::openFiles(const QStringList& paths) {
    if (m_selectedFunction == EncodeFunction)
        m_encodeBrowseController->loadFiles(paths);
    else if (m_selectedFunction == RetagFunction)
        m_retagBrowseController->loadFiles(paths);
}

void AppDelegate::loadMovie(const QString& path, qint64 title) {
    if (m_selectedFunction == EncodeFunction)
        m_encodeBrowseController->loadFiles({path}, {title});
    else if (m_selectedFunction == RetagFunction)
        m_retagBrowseController->loadFiles({path}, {title});
}

void AppDelegate::toggleFuncSegment(int function) {
    if (function < EncodeFunction || function > LibraryFunction)
        return;
    const bool changed = function != m_selectedFunction;
    m_selectedFunction = function;
    m_encodeBrowseController->setViewVisible(function == EncodeFunction);
    m_retagBrowseController->setViewVisible(function == RetagFunction);
    m_moviesBrowserController->setHidden(function != LibraryFunction);
    if (function == LibraryFunction) {
        populateGenreToolbar();
        AppControls controls = m_controls;
        controls.genreItemEnabled = true;
        setControls(controls);
    } else {
        AppControls controls = m_controls;
        controls.genrePopup.clear();
        controls.genreItemEnabled = false;
        setControls(controls);
    }
    if (changed)
        emit selectedFunctionChanged(function);
}

void AppDelegate::populateGenreToolbar() {
    AppControls controls = m_controls;
    controls.genrePopup = QStringList{QStringLiteral("All Movies")};
    const QVariantList genres = UserDefaults::standard().arrayForKey(key(SettingsKey::GenreList));
    for (const QVariant& genre : genres)
        controls.genrePopup.append(genre.toString());
    setControls(controls);
}

// --- callbacks ---------------------------------------------------------------------

void AppDelegate::statusUpdate() {
    m_encodeBrowseController->statusUpdate();
}

void AppDelegate::scanStateChange() {
    AppControls controls = m_controls;
    if (m_encodeBrowseController->isScanning()) {
        controls.scanIcon = QStringLiteral("Actions-zoom-out-icon");
        controls.scanLabel = QStringLiteral("Cancel");
    } else {
        controls.scanIcon = QStringLiteral("Actions-page-zoom-icon");
        controls.scanLabel = QStringLiteral("Scan");
    }
    setControls(controls);
    if (m_frontBrowserDelegate)
        m_frontBrowserDelegate->scanStateChange();
}

bool AppDelegate::setPreferences() {
    return m_frontBrowserDelegate && m_frontBrowserDelegate->setPreferences();
}

void AppDelegate::showBlurayInstructions() {
    if (m_frontBrowserDelegate)
        m_frontBrowserDelegate->showBlurayInstructions();
}

void AppDelegate::showDvdInstructions() {
    if (m_frontBrowserDelegate)
        m_frontBrowserDelegate->showDvdInstructions();
}

void AppDelegate::runSearchPanel(SearchPanelController& panel) {
    if (m_frontBrowserDelegate)
        m_frontBrowserDelegate->runSearchPanel(panel);
    else
        EncodeBrowserDelegate::runSearchPanel(panel);
}

void AppDelegate::scanFailed(const std::shared_ptr<MDI_Media>& item) {
    if (m_frontBrowserDelegate)
        m_frontBrowserDelegate->scanFailed(item);
}

void AppDelegate::itemReady(const std::shared_ptr<MDI_Media>& item) {
    if (m_processing && !m_paused && m_waitingForReady)
        startFirstReady();
    if (m_frontBrowserDelegate)
        m_frontBrowserDelegate->itemReady(item);
}

void AppDelegate::showAlert(const QString& message) {
    if (m_frontBrowserDelegate)
        m_frontBrowserDelegate->showAlert(message);
}
