#include "ui/MainWindow.h"

#include "core/Notifications.h"
#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "processing/AppDelegate.h"
#include "processing/EncoderController.h"
#include "processing/MuxerController.h"
#include "ui/AboutDialog.h"
#include "ui/Artwork.h"
#include "ui/BrowserModel.h"
#include "ui/BrowserView.h"
#include "ui/DevicesPanel.h"
#include "ui/EditorActions.h"
#include "ui/GenresPanel.h"
#include "ui/LoadPanel.h"
#include "ui/MovieInfoPanel.h"
#include "ui/PreferencesPanel.h"
#include "ui/ProgressArea.h"
#include "ui/Sheets.h"
#include "ui/WindowPanels.h"

#include <QAbstractItemView>
#include <QActionGroup>
#include <QCloseEvent>
#include <QComboBox>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QListView>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QStatusBar>
#include <QThread>
#include <QToolBar>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>

namespace {

// The documents the help entries open (the project has no web site); their
// paths below the installed documentation folder and the source tree.
const char* const kHelpPage = "README.md";
const char* const kFaqPage = "docs/FAQ.md";
const char* const kSupportPage = "docs/SUPPORT.md";
const char* const kFeaturesPage = "docs/FEATURES.md";
// How long a stopped tool gets to end when the application quits.
constexpr int kStopGraceMs = 20000;

const char* const kImageProperty = "tarnwickImage";

} // namespace

MainWindow::MainWindow(AppDelegate* app, QWidget* parent)
    : QMainWindow(parent), m_app(app), m_panels(std::make_unique<WindowPanels>(this)) {
    setObjectName(QStringLiteral("MainWindow"));
    setWindowTitle(QStringLiteral("Tarnwick"));
    setWindowIcon(Artwork::icon(QStringLiteral("Tarnwick")));
    setUnifiedTitleAndToolBarOnMac(true);
    m_app->setPanelDelegate(m_panels.get());
    m_app->setBrowserDelegate(m_panels.get());

    buildActions();
    buildCentre();
    buildToolbar();
    buildMenus();
    m_editorActions = new EditorActions(this);

    m_app->setInformationController(m_info);
    connect(m_app, &AppDelegate::controlsChanged, this, &MainWindow::applyControls);
    connect(m_app, &AppDelegate::selectedFunctionChanged, this, &MainWindow::functionChanged);

    // The end of a live resize: the grids lay themselves out once more.
    m_resizeEnd.setSingleShot(true);
    m_resizeEnd.setInterval(150);
    connect(&m_resizeEnd, &QTimer::timeout, this, [] {
        NotificationCenter::defaultCenter().post(
            QString::fromLatin1(NotificationName::WindowDidResize));
    });

    resize(1180, 760);
    functionChanged(m_app->selectedFunction());
    applyControls();
}

MainWindow::~MainWindow() {
    m_app->setPanelDelegate(nullptr);
    m_app->setBrowserDelegate(nullptr);
    m_app->setInformationController(nullptr);
}

void MainWindow::setImage(QAction* action, const QString& name) {
    action->setProperty(kImageProperty, name);
    action->setIcon(Artwork::icon(name));
}

QString MainWindow::helpDocument(const QString& document) {
    // Installed, every document sits in one folder beside bin/.
    const QString installed = QDir(QCoreApplication::applicationDirPath())
                                  .filePath(QStringLiteral(TARNWICK_RELATIVE_DOCDIR "/") +
                                            QFileInfo(document).fileName());
    for (const QString& path :
         {installed, QDir(QStringLiteral(TARNWICK_SOURCE_DIR)).filePath(document)}) {
        if (QFileInfo(path).isFile())
            return QFileInfo(path).absoluteFilePath();
    }
    return {};
}

QString MainWindow::imageName(const QAction* action) const {
    return action ? action->property(kImageProperty).toString() : QString();
}

QAction* MainWindow::functionAction(int function) const {
    return function >= 0 && function < 3 ? m_functionActions[function] : nullptr;
}

BrowserView* MainWindow::view(int function) const {
    return function >= 0 && function < 3 ? m_views[function] : nullptr;
}

BrowserView* MainWindow::currentView() const {
    return view(m_app->selectedFunction());
}

// --- building -------------------------------------------------------------------------

void MainWindow::buildActions() {
    m_functions = new QActionGroup(this);
    m_functions->setExclusive(true);
    const char* functionNames[3] = {"Encode", "Retag", "iTunes Library"};
    const char* functionImages[3] = {"Mode-Encode", "Mode-Retag", "Mode-Library"};
    for (int f = 0; f < 3; ++f) {
        QAction* a = new QAction(tr(functionNames[f]), this);
        a->setCheckable(true);
        a->setShortcut(QKeySequence(Qt::CTRL | Qt::Key(Qt::Key_1 + f)));
        setImage(a, QString::fromLatin1(functionImages[f]));
        m_functions->addAction(a);
        connect(a, &QAction::triggered, this, [this, f] { m_app->toggleFuncSegment(f); });
        m_functionActions[f] = a;
    }

    m_open = new QAction(tr("Open..."), this);
    m_open->setShortcut(QKeySequence::Open);
    setImage(m_open, QStringLiteral("Actions-document-open-icon"));
    connect(m_open, &QAction::triggered, this, &MainWindow::openFiles);

    m_loadSource = new QAction(tr("Load Source..."), this);
    m_loadSource->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_L));
    connect(m_loadSource, &QAction::triggered, this, &MainWindow::toggleLoadPanel);

    m_startButton = new QAction(tr("Start"), this);
    setImage(m_startButton, QStringLiteral("Aqua-Play-icon"));
    m_startButton->setToolTip(tr("Convert the ready movies one after another"));
    m_pauseToggle = new QAction(tr("Pause"), this);
    setImage(m_pauseToggle, QStringLiteral("Aqua-Pause-icon"));
    m_stopButton = new QAction(tr("Stop"), this);
    setImage(m_stopButton, QStringLiteral("Aqua-Stop-icon"));
    m_scanToggle = new QAction(tr("Scan"), this);
    setImage(m_scanToggle, QStringLiteral("Actions-page-zoom-icon"));
    m_clear = new QAction(tr("Clear"), this);
    setImage(m_clear, QStringLiteral("Actions-edit-clear-icon"));
    m_clear->setToolTip(tr("Remove every movie from this list"));

    m_startMenu = new QAction(tr("Start"), this);
    m_startMenu->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_R));
    m_pauseMenu = new QAction(tr("Pause"), this);
    m_pauseMenu->setCheckable(true);
    m_pauseMenu->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_P));
    m_stopMenu = new QAction(tr("Stop"), this);
    m_stopMenu->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Period));
    m_scanMenu = new QAction(tr("Scan"), this);

    for (QAction* a : {m_startButton, m_startMenu})
        connect(a, &QAction::triggered, this, [this] { m_app->startProcessing(); });
    for (QAction* a : {m_pauseToggle, m_pauseMenu})
        connect(a, &QAction::triggered, this, [this] {
            m_app->pauseProcessing();
            // The entry's check mark is the controller's, not the click's.
            applyControls();
        });
    for (QAction* a : {m_stopButton, m_stopMenu})
        connect(a, &QAction::triggered, this, [this] { m_app->stopProcessing(); });
    for (QAction* a : {m_scanToggle, m_scanMenu})
        connect(a, &QAction::triggered, this, [this] { m_app->scanToggle(); });
    connect(m_clear, &QAction::triggered, this, [this] { m_app->clearAll(); });

    m_selectAll = new QAction(tr("Select All"), this);
    m_selectAll->setShortcut(QKeySequence::SelectAll);
    connect(m_selectAll, &QAction::triggered, this, [this] {
        if (m_app->selectedFunction() != AppDelegate::LibraryFunction && currentView())
            currentView()->selectAll();
    });
    m_clearSelected = new QAction(tr("Clear Selected"), this);
    connect(m_clearSelected, &QAction::triggered, this, &MainWindow::clearSelected);
    m_clearAll = new QAction(tr("Clear All"), this);
    connect(m_clearAll, &QAction::triggered, this, [this] { m_app->clearAll(); });
}

void MainWindow::buildToolbar() {
    QToolBar* bar = addToolBar(tr("Toolbar"));
    bar->setObjectName(QStringLiteral("toolbar"));
    bar->setMovable(false);
    bar->setFloatable(false);
    bar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    bar->setIconSize(QSize(32, 32));
    for (QAction* a : m_functionActions)
        bar->addAction(a);
    bar->addSeparator();
    bar->addAction(m_open);
    bar->addSeparator();
    for (QAction* a : {m_startButton, m_pauseToggle, m_stopButton})
        bar->addAction(a);
    bar->addSeparator();
    bar->addAction(m_scanToggle);
    bar->addAction(m_clear);
    auto* spacer = new QWidget(bar);
    spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    bar->addWidget(spacer);
    auto* genreBox = new QWidget(bar);
    auto* genreLayout = new QVBoxLayout(genreBox);
    genreLayout->setContentsMargins(6, 0, 10, 0);
    genreLayout->setSpacing(2);
    m_genrePopup = new QComboBox(genreBox);
    m_genrePopup->setObjectName(QStringLiteral("genrePopup"));
    m_genrePopup->setMinimumWidth(170);
    m_genrePopup->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    auto* genreLabel = new QLabel(tr("Genre"), genreBox);
    genreLabel->setAlignment(Qt::AlignHCenter);
    genreLayout->addWidget(m_genrePopup);
    genreLayout->addWidget(genreLabel);
    m_genreItem = bar->addWidget(genreBox);
    connect(m_genrePopup, &QComboBox::activated, this,
            [this](int index) { chooseGenre(m_genrePopup->itemText(index)); });
}

void MainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(m_open);
    file->addAction(m_loadSource);
    file->addSeparator();
    QAction* quit = file->addAction(tr("Quit"), this, &QWidget::close);
    quit->setShortcut(QKeySequence::Quit);
    quit->setMenuRole(QAction::QuitRole);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    edit->addAction(m_selectAll);
    edit->addAction(m_clearSelected);
    edit->addAction(m_clearAll);
    edit->addSeparator();
    QAction* preferences = edit->addAction(tr("Preferences..."), this,
                                           [this] { openPanel(new PreferencesPanel(this)); });
    preferences->setMenuRole(QAction::PreferencesRole);
    edit->addAction(tr("Devices..."), this, [this] { openPanel(new DevicesPanel(this)); });
    edit->addAction(tr("Genres..."), this, [this] {
        QDialog* genres = openPanel(new GenresPanel(this));
        // The library's genre pop-up lists "Genre List".
        connect(genres, &QDialog::finished, this, [this] {
            if (m_app->selectedFunction() == AppDelegate::LibraryFunction)
                m_app->populateGenreToolbar();
        });
    });

    QMenu* view = menuBar()->addMenu(tr("&View"));
    for (QAction* a : m_functionActions)
        view->addAction(a);

    QMenu* queue = menuBar()->addMenu(tr("&Queue"));
    queue->addAction(m_startMenu);
    queue->addAction(m_pauseMenu);
    queue->addAction(m_stopMenu);
    queue->addSeparator();
    queue->addAction(m_scanMenu);

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("Instructions"), this, [this] { m_panels->showInstructions(); });
    help->addSeparator();
    auto link = [this, help](const QString& text, const char* document) {
        help->addAction(text, this, [this, document] {
            const QString path = helpDocument(QString::fromLatin1(document));
            if (path.isEmpty() || !QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
                statusBar()->showMessage(
                    tr("The document %1 could not be opened")
                        .arg(QFileInfo(QString::fromLatin1(document)).fileName()),
                    5000);
        });
    };
    link(tr("Online Help"), kHelpPage);
    link(tr("Frequently Asked Questions"), kFaqPage);
    link(tr("Support"), kSupportPage);
    link(tr("Features"), kFeaturesPage);
    help->addSeparator();
    QAction* about = help->addAction(tr("About Tarnwick"), this, &MainWindow::aboutDialog);
    about->setMenuRole(QAction::AboutRole);
}

void MainWindow::buildCentre() {
    m_splitter = new QSplitter(Qt::Horizontal, this);
    m_splitter->setChildrenCollapsible(false);
    auto* left = new QWidget(m_splitter);
    auto* leftLayout = new QVBoxLayout(left);
    leftLayout->setContentsMargins(0, 0, 0, 0);
    leftLayout->setSpacing(0);
    m_stack = new QStackedWidget(left);
    leftLayout->addWidget(m_stack, 1);
    m_progress = new ProgressArea(m_app->encodeController(), left);
    m_progress->setObjectName(QStringLiteral("progressArea"));
    leftLayout->addWidget(m_progress);

    EncoderController* encoder = m_app->encodeController();
    m_encodeModel = new EncodeBrowserModel(m_app->encodeBrowseController(), encoder, this);
    m_retagModel = new EncodeBrowserModel(m_app->retagBrowseController(), nullptr, this);
    m_libraryModel = new LibraryBrowserModel(m_app->moviesBrowserController(), this);
    QAbstractItemModel* models[3] = {m_encodeModel, m_retagModel, m_libraryModel};
    const char* placeholders[3] = {
        "Drop movie files, DVD or Blu-ray folders here,\nor choose Open to add them.",
        "Drop .m4v files here to look them up again and retag them.",
        "No movies in the library.\nSet the iTunes folder in the preferences."};
    const char* names[3] = {"encodeView", "retagView", "libraryView"};
    for (int f = 0; f < 3; ++f) {
        auto* v = new BrowserView(f != AppDelegate::LibraryFunction, m_stack);
        v->setObjectName(QLatin1String(names[f]));
        v->setGrouped(f == AppDelegate::LibraryFunction);
        v->setModel(models[f]);
        v->setPlaceholder(tr(placeholders[f]));
        m_stack->addWidget(v);
        m_views[f] = v;
        connect(v->selectionModel(), &QItemSelectionModel::selectionChanged, this,
                [this, f] { syncSelection(f); });
        connect(v, &BrowserView::deleteRequested, this, [this, f] {
            if (m_app->selectedFunction() == f)
                clearSelected();
        });
    }

    m_info = new MovieInfoPanel(m_splitter);
    m_info->setObjectName(QStringLiteral("infoPanel"));
    m_info->followLibrary(m_app->moviesBrowserController());
    m_splitter->addWidget(left);
    m_splitter->addWidget(m_info);
    m_splitter->setStretchFactor(0, 1);
    m_splitter->setStretchFactor(1, 0);
    m_splitter->setSizes({860, 320});
    setCentralWidget(m_splitter);
}

// --- state ------------------------------------------------------------------------------

void MainWindow::applyControls() {
    const AppControls& c = m_app->controls();
    m_startButton->setEnabled(c.startEnabled);
    m_startMenu->setEnabled(c.startMenuEnabled);
    m_pauseToggle->setEnabled(c.pauseEnabled);
    m_pauseToggle->setText(c.pauseLabel);
    setImage(m_pauseToggle, c.pauseIcon);
    m_pauseMenu->setEnabled(c.pauseMenuEnabled);
    m_pauseMenu->setChecked(c.pauseMenuChecked);
    m_stopButton->setEnabled(c.stopEnabled);
    m_stopMenu->setEnabled(c.stopMenuEnabled);
    m_scanToggle->setText(c.scanLabel);
    setImage(m_scanToggle, c.scanIcon);
    m_scanMenu->setText(c.scanLabel);

    const QString shown = m_genrePopup->currentText();
    QStringList items;
    for (int i = 0; i < m_genrePopup->count(); ++i)
        items << m_genrePopup->itemText(i);
    if (items != c.genrePopup) {
        m_genrePopup->clear();
        m_genrePopup->addItems(c.genrePopup);
        const int keep = m_genrePopup->findText(shown);
        if (keep >= 0)
            m_genrePopup->setCurrentIndex(keep);
    }
    m_genrePopup->setEnabled(c.genreItemEnabled);
}

void MainWindow::functionChanged(int function) {
    if (QAction* a = functionAction(function))
        a->setChecked(true);
    m_stack->setCurrentIndex(function);
    const bool library = function == AppDelegate::LibraryFunction;
    m_open->setEnabled(!library);
    m_loadSource->setEnabled(!library);
    m_clear->setEnabled(!library);
    m_clearAll->setEnabled(!library);
    m_clearSelected->setEnabled(!library);
    m_selectAll->setEnabled(!library);
    m_scanToggle->setEnabled(function == AppDelegate::EncodeFunction);
    m_scanMenu->setEnabled(function == AppDelegate::EncodeFunction);
    if (library)
        m_progress->showLibrary(m_app->moviesBrowserController());
    else
        m_progress->showBrowser(
            function == AppDelegate::EncodeFunction
                ? m_app->encodeBrowseController()
                : static_cast<EncodeBrowserController*>(m_app->retagBrowseController()));
    // The panel shows what is selected in the browser now on screen.
    syncSelection(function);
    if (BrowserView* v = view(function))
        v->setFocus();
}

void MainWindow::syncSelection(int function) {
    if (function != m_app->selectedFunction())
        return;
    const QList<int> rows = m_views[function]->selectedRows();
    if (function == AppDelegate::LibraryFunction) {
        QList<int> source;
        for (int row : rows)
            source << m_libraryModel->sourceRow(row);
        MoviesBrowserController* library = m_app->moviesBrowserController();
        library->setSelection(source);
        m_info->showMovie(library->curMovie(), int(library->selection().size()));
        return;
    }
    EncodeBrowserController* browser =
        function == AppDelegate::EncodeFunction
            ? m_app->encodeBrowseController()
            : static_cast<EncodeBrowserController*>(m_app->retagBrowseController());
    browser->setSelection(rows);
}

QDialog* MainWindow::openPanel(QDialog* panel) {
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setWindowModality(Qt::WindowModal);
    panel->open();
    return panel;
}

void MainWindow::chooseGenre(const QString& genre) {
    MoviesBrowserController* library = m_app->moviesBrowserController();
    if (!library->chooseGenre(genre))
        statusBar()->showMessage(tr("No movies of the genre %1 in the library").arg(genre), 5000);
}

// --- commands ---------------------------------------------------------------------------

void MainWindow::clearSelected() {
    // Ends any editing in the window first.
    setFocus();
    m_app->clearSelected();
    if (BrowserView* v = currentView())
        v->setFocus();
}

void MainWindow::openFiles() {
    if (m_app->selectedFunction() == AppDelegate::LibraryFunction)
        return;
    auto* chooser = new QFileDialog(this, tr("Add Movies"));
    chooser->setObjectName(QStringLiteral("OpenPanel"));
    chooser->setAttribute(Qt::WA_DeleteOnClose);
    chooser->setFileMode(QFileDialog::ExistingFiles);
    // Disc folders are sources too: the chooser's own lists let folders be
    // picked alongside files, and its button takes whatever is selected.
    chooser->setOption(QFileDialog::DontUseNativeDialog);
    for (QAbstractItemView* list : chooser->findChildren<QAbstractItemView*>())
        list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    chooser->setLabelText(QFileDialog::Accept, tr("Add"));
    if (auto* box = chooser->findChild<QDialogButtonBox*>()) {
        if (QPushButton* add = box->button(QDialogButtonBox::Open)) {
            add->disconnect();
            connect(add, &QPushButton::clicked, chooser, [this, chooser] {
                QStringList paths;
                const QDir dir = chooser->directory();
                if (auto* list = chooser->findChild<QListView*>(QStringLiteral("listView"))) {
                    for (const QModelIndex& index : list->selectionModel()->selectedRows())
                        paths << dir.filePath(index.data().toString());
                }
                if (paths.isEmpty())
                    paths = chooser->selectedFiles();
                chooser->close();
                m_app->openFiles(paths);
            });
        }
    }
    chooser->setWindowModality(Qt::WindowModal);
    chooser->show();
}

void MainWindow::toggleLoadPanel() {
    if (m_app->selectedFunction() == AppDelegate::LibraryFunction)
        return;
    LoadPanel panel(this);
    if (runSheet(panel) == QDialog::Accepted && !panel.path().isEmpty())
        m_app->loadMovie(panel.path(), panel.title());
}

void MainWindow::aboutDialog() {
    AboutDialog about(this);
    runSheet(about);
}

// --- window events --------------------------------------------------------------------

void MainWindow::quitWithoutAsking() {
    if (m_quitConfirmed)
        return;
    confirmQuit(false);
    m_quitConfirmed = true;
    close();
    QCoreApplication::quit();
}

bool MainWindow::confirmQuit(bool ask) {
    EncoderController* encoder = m_app->encodeController();
    auto toolsRunning = [encoder] {
        return encoder->progressViewVisible() || encoder->muxController()->progressViewVisible();
    };
    if (ask && m_app->processing() && toolsRunning()) {
        QMessageBox box(QMessageBox::Warning, QStringLiteral("Tarnwick"),
                        tr("A movie is being converted."), QMessageBox::NoButton, this);
        box.setObjectName(QStringLiteral("QuitQuestion"));
        box.setInformativeText(
            tr("Quitting stops the conversion; the unfinished file is removed."));
        QPushButton* cancel = box.addButton(tr("Cancel"), QMessageBox::RejectRole);
        QPushButton* quit = box.addButton(tr("Stop and Quit"), QMessageBox::AcceptRole);
        box.setDefaultButton(cancel);
        box.setWindowModality(Qt::WindowModal);
        box.exec();
        if (box.clickedButton() != quit)
            return false;
    }
    if (m_app->processing())
        m_app->stopProcessing();
    for (EncodeBrowserController* browser :
         {m_app->encodeBrowseController(),
          static_cast<EncodeBrowserController*>(m_app->retagBrowseController())}) {
        if (browser->isScanning())
            browser->stopScanning();
    }
    // The stopped tool removes its own unfinished output once it has ended.
    QDeadlineTimer deadline(kStopGraceMs);
    while (toolsRunning() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents, 50);
        QThread::msleep(5);
    }
    return true;
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (!m_quitConfirmed && !confirmQuit()) {
        event->ignore();
        return;
    }
    m_quitConfirmed = true;
    event->accept();
}

void MainWindow::resizeEvent(QResizeEvent* event) {
    QMainWindow::resizeEvent(event);
    m_resizeEnd.start();
}

void MainWindow::paintEvent(QPaintEvent* event) {
    QMainWindow::paintEvent(event);
    if (!m_painted) {
        m_painted = true;
        emit firstPainted();
    }
}
