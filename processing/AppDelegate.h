#pragma once

#include "media/EncodeBrowserController.h"
#include "processing/JobDelegates.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class EncoderController;
class MoviesBrowserController;
class RetagBrowserController;

// The questions and panels the application controller needs a front end for.
// The defaults are what a front end without that panel gets.
class AppPanelDelegate {
public:
    virtual ~AppPanelDelegate() = default;
    // The critical "Update Notice" alert with "Ok" and "Cancel"; true for
    // "Ok". Without a panel the presets are updated: nothing can be encoded
    // with out-of-date presets.
    virtual bool runUpdateNotice(const QString& title, const QString& text) {
        Q_UNUSED(title);
        Q_UNUSED(text);
        return true;
    }
    // The remove question, buttons "No" (first) and "Yes"; true for "Yes".
    // Without a panel the movie stays.
    virtual bool runRemoveQuestion(const QString& message) {
        Q_UNUSED(message);
        return false;
    }
    virtual void showInstructions() {}
};

// The toolbar items and menu entries whose state follows the queue.
struct AppControls {
    bool startEnabled = true;
    bool startMenuEnabled = true;
    bool pauseEnabled = false;
    bool pauseMenuEnabled = false;
    bool pauseMenuChecked = false;
    bool stopEnabled = false;
    bool stopMenuEnabled = false;
    QString pauseIcon = QStringLiteral("Aqua-Pause-icon");
    QString pauseLabel = QStringLiteral("Pause");
    QString scanIcon = QStringLiteral("Actions-page-zoom-icon");
    QString scanLabel = QStringLiteral("Scan");
    bool genreItemEnabled = false;
    QStringList genrePopup;

    bool operator==(const AppControls&) const = default;
};

// The application's controller without its window: owns the three browsers
// and the encoder job, runs the processing queue (the shared encode list) and
// keeps the controls' states consistent with it. Lives on the main thread.
class AppDelegate : public QObject,
                    public EncodeBrowserDelegate,
                    public StatusDelegate,
                    public EncoderDelegate {
    Q_OBJECT
public:
    enum Function { EncodeFunction = 0, RetagFunction = 1, LibraryFunction = 2 };

    explicit AppDelegate(QObject* parent = nullptr);
    ~AppDelegate() override;

    // Neither is owned. The browser delegate answers the browsers' questions
    // (search panel, disc instructions...); the application keeps the encode
    // browser's scan state change for itself and passes it on.
    void setPanelDelegate(AppPanelDelegate* delegate) { m_panelDelegate = delegate; }
    void setBrowserDelegate(EncodeBrowserDelegate* delegate);
    void setInformationController(InformationPanel* panel);

    EncodeBrowserController* encodeBrowseController() const {
        return m_encodeBrowseController.get();
    }
    RetagBrowserController* retagBrowseController() const { return m_retagBrowseController.get(); }
    MoviesBrowserController* moviesBrowserController() const {
        return m_moviesBrowserController.get();
    }
    EncoderController* encodeController() const { return m_encodeController.get(); }

    // --- lifecycle ---------------------------------------------------------------
    // Temporary folder, bookmarks, language region, the encode browser shown,
    // the preset update notice and the instructions. The shipped defaults must
    // be registered already (Startup::run).
    void applicationWillFinishLaunching();
    // Removes the temporary folder and writes the settings.
    void applicationWillTerminate();

    // --- commands ------------------------------------------------------------------
    // False when the start was refused (notice cancelled, or paused).
    bool startProcessing();
    void pauseProcessing();
    void stopProcessing();
    void scanToggle();
    void clearAll();
    void clearSelected();
    void selectAll();
    // The chosen files and folders go to the current function's browser.
    void openFiles(const QStringList& paths);
    void loadMovie(const QString& path, qint64 title);
    void toggleFuncSegment(int function);
    void populateGenreToolbar();

    // --- state ---------------------------------------------------------------------
    bool processing() const { return m_processing; }
    bool paused() const { return m_paused; }
    int selectedFunction() const { return m_selectedFunction; }
    bool alertResult() const { return m_alertResult; }
    const AppControls& controls() const { return m_controls; }

    // --- callbacks -----------------------------------------------------------------
    void encodeComplete() override;
    void statusUpdate() override;
    void scanStateChange() override;
    // Passed on to the front end's browser delegate.
    bool setPreferences() override;
    void showBlurayInstructions() override;
    void showDvdInstructions() override;
    void runSearchPanel(SearchPanelController& panel) override;
    void scanFailed(const std::shared_ptr<MDI_Media>& item) override;
    void itemReady(const std::shared_ptr<MDI_Media>& item) override;
    void showAlert(const QString& message) override;

    static const char* const kRemoveQuestion;
    // The warning of a movie whose conversion could not be started.
    static const char* const kEncoderMissing;

signals:
    void controlsChanged();
    void processingChanged(bool processing);
    void selectedFunctionChanged(int function);

private:
    // The preset check before a start, and at launch. False for "Cancel".
    bool checkPresets();
    void setStoppedControls();
    void setControls(const AppControls& controls);
    void setProcessing(bool processing);
    void removeFromEncodeList(const QList<int>& rows);
    void restoreTmpdir();
    void startFirstReady();

    AppPanelDelegate* m_panelDelegate = nullptr;
    EncodeBrowserDelegate* m_frontBrowserDelegate = nullptr;
    InformationPanel* m_informationController = nullptr;
    std::unique_ptr<EncoderController> m_encodeController;
    std::unique_ptr<EncodeBrowserController> m_encodeBrowseController;
    std::unique_ptr<RetagBrowserController> m_retagBrowseController;
    std::unique_ptr<MoviesBrowserController> m_moviesBrowserController;
    int m_selectedFunction = EncodeFunction;
    bool m_processing = false;
    bool m_paused = false;
    bool m_alertResult = false;
    bool m_tmpdirChanged = false;
    // Started with nothing ready: the next ready movie starts the queue.
    bool m_waitingForReady = false;
    QByteArray m_savedTmpdir; // null: TMPDIR was not set
    AppControls m_controls;
};
