#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QTimer>

#include <memory>

class AppDelegate;
class BrowserView;
class EditorActions;
class EncodeBrowserModel;
class LibraryBrowserModel;
class MovieInfoPanel;
class ProgressArea;
class QAction;
class QActionGroup;
class QComboBox;
class QDialog;
class QSplitter;
class QStackedWidget;
class WindowPanels;

// The main window around the application controller: the toolbar and menus
// of its commands (their states follow the controller's controls), the three
// browsers' grids in a stack, the information panel beside them and the
// progress lines below.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(AppDelegate* app, QWidget* parent = nullptr);
    ~MainWindow() override;

    AppDelegate* app() const { return m_app; }
    WindowPanels* panels() const { return m_panels.get(); }
    BrowserView* view(int function) const;
    BrowserView* currentView() const;
    MovieInfoPanel* infoPanel() const { return m_info; }
    ProgressArea* progressArea() const { return m_progress; }
    QComboBox* genrePopup() const { return m_genrePopup; }
    // The "Movie" menu: editors, search results and the movie's panels.
    EditorActions* editorActions() const { return m_editorActions; }

    // Toolbar items and menu entries, by the controller's names.
    QAction* startButton() const { return m_startButton; }
    QAction* pauseToggle() const { return m_pauseToggle; }
    QAction* stopButton() const { return m_stopButton; }
    QAction* scanToggle() const { return m_scanToggle; }
    QAction* startMenu() const { return m_startMenu; }
    QAction* pauseMenu() const { return m_pauseMenu; }
    QAction* stopMenu() const { return m_stopMenu; }
    QAction* functionAction(int function) const;
    QAction* selectAllAction() const { return m_selectAll; }
    QAction* clearSelectedAction() const { return m_clearSelected; }
    // The file a help entry opens ("docs/FAQ.md"...): the installed copy, or
    // the source tree's when running from the build tree; empty when neither.
    static QString helpDocument(const QString& document);
    // The image name each item shows now ("Aqua-Pause-icon"...).
    QString imageName(const QAction* action) const;

    // The Delete key and "Clear Selected": the current browser's selection.
    void clearSelected();
    // The file chooser (files and folders, several at once) for the current
    // browser.
    void openFiles();
    void toggleLoadPanel();
    void aboutDialog();
    // Quit as after "Stop and Quit", without the question (a termination
    // signal): the job stops, its unfinished output goes, then the event
    // loop ends.
    void quitWithoutAsking();

signals:
    void firstPainted();

protected:
    void closeEvent(QCloseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    void buildActions();
    void buildToolbar();
    void buildMenus();
    void buildCentre();
    void applyControls();
    void functionChanged(int function);
    void syncSelection(int function);
    void chooseGenre(const QString& genre);
    // Shows a settings panel window-modal; it deletes itself when closed.
    QDialog* openPanel(QDialog* panel);
    void setImage(QAction* action, const QString& name);
    // Stops the queue and the scans, waiting for the tools to end; false
    // when the user keeps the application running. `ask`: a conversion in
    // progress asks first.
    bool confirmQuit(bool ask = true);

    AppDelegate* m_app;
    std::unique_ptr<WindowPanels> m_panels;
    QStackedWidget* m_stack = nullptr;
    QSplitter* m_splitter = nullptr;
    BrowserView* m_views[3] = {};
    EncodeBrowserModel* m_encodeModel = nullptr;
    EncodeBrowserModel* m_retagModel = nullptr;
    LibraryBrowserModel* m_libraryModel = nullptr;
    MovieInfoPanel* m_info = nullptr;
    ProgressArea* m_progress = nullptr;
    QComboBox* m_genrePopup = nullptr;
    QAction* m_genreItem = nullptr;
    EditorActions* m_editorActions = nullptr;

    QActionGroup* m_functions = nullptr;
    QAction* m_functionActions[3] = {};
    QAction* m_open = nullptr;
    QAction* m_loadSource = nullptr;
    QAction* m_startButton = nullptr;
    QAction* m_pauseToggle = nullptr;
    QAction* m_stopButton = nullptr;
    QAction* m_scanToggle = nullptr;
    QAction* m_clear = nullptr;
    QAction* m_startMenu = nullptr;
    QAction* m_pauseMenu = nullptr;
    QAction* m_stopMenu = nullptr;
    QAction* m_scanMenu = nullptr;
    QAction* m_selectAll = nullptr;
    QAction* m_clearSelected = nullptr;
    QAction* m_clearAll = nullptr;

    QTimer m_resizeEnd;
    bool m_painted = false;
    bool m_quitConfirmed = false;
};
