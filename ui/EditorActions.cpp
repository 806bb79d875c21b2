#include "ui/EditorActions.h"

#include "core/Notifications.h"
#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "processing/AppDelegate.h"
#include "ui/BrowserView.h"
#include "ui/MainWindow.h"
#include "ui/MetadataEditor.h"
#include "ui/MovieInfoPanel.h"
#include "ui/PosterCache.h"
#include "ui/PresentationPanels.h"

#include <QAction>
#include <QMenu>
#include <QMenuBar>
#include <QStatusBar>
#include <QTimer>

EditorActions::EditorActions(MainWindow* window) : QObject(window), m_window(window) {
    auto* menu = new QMenu(tr("&Movie"), window);
    menu->setObjectName(QStringLiteral("movieMenu"));
    m_edit = menu->addAction(tr("Edit Metadata..."), this, [this] { editMetadata(); });
    m_edit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_I));
    m_search = menu->addAction(tr("Search Again..."), this, &EditorActions::searchAgain);
    m_search->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_F));
    menu->addSeparator();
    m_presentation = menu->addAction(tr("Presentation..."), this, [this] { showPresentation(); });
    m_poster = menu->addAction(tr("Poster..."), this, [this] { showPoster(); });
    menu->addSeparator();
    m_warnings = menu->addAction(tr("Warnings..."), this, [this] { showWarnings(); });

    // After "View", before "Queue".
    QMenuBar* bar = window->menuBar();
    QAction* before = nullptr;
    const QList<QAction*> menus = bar->actions();
    for (int i = 0; i + 1 < menus.size(); ++i) {
        if (menus.at(i)->text().remove(u'&') == QLatin1String("View"))
            before = menus.at(i + 1);
    }
    bar->insertMenu(before, menu);

    AppDelegate* app = window->app();
    for (int f = 0; f < 3; ++f) {
        if (BrowserView* view = window->view(f))
            connect(view, &QAbstractItemView::doubleClicked, this, [this] { editMetadata(); });
    }
    connect(app, &AppDelegate::selectedFunctionChanged, this, &EditorActions::enableActions);
    connect(&NotificationCenter::defaultCenter(), &NotificationCenter::posted, this,
            [this](const QString& name) {
                if (name == QLatin1String(NotificationName::SelectionChanged))
                    enableActions();
            });
    MoviesBrowserController* library = app->moviesBrowserController();
    connect(library, &MoviesBrowserController::curMovieChanged, this,
            &EditorActions::enableActions);
    // A saved library movie: its cell's new name and cover.
    connect(library, &MoviesBrowserController::cellUpdated, this, [this, library](int row) {
        const MoviesBrowserController::CellPtr cell = library->itemAtIndex(row);
        BrowserView* view = m_window->view(AppDelegate::LibraryFunction);
        if (!cell || !view)
            return;
        view->posters()->forget(cell->imageRepresentation());
        view->viewport()->update();
        if (QAbstractItemModel* model = view->model())
            emit model->dataChanged(model->index(0, 0), model->index(model->rowCount() - 1, 0));
        m_window->infoPanel()->showMovie(library->curMovie());
    });
    enableActions();
}

void EditorActions::enableActions() {
    AppDelegate* app = m_window->app();
    const int function = app->selectedFunction();
    bool selected = false;
    if (function == AppDelegate::LibraryFunction)
        selected = bool(app->moviesBrowserController()->curMovie());
    else if (function == AppDelegate::RetagFunction)
        selected = bool(app->retagBrowseController()->firstSelectedItem());
    else
        selected = bool(app->encodeBrowseController()->firstSelectedItem());
    for (QAction* a : {m_edit, m_search, m_presentation, m_poster})
        a->setEnabled(selected);
}

QDialog* EditorActions::editMetadata() {
    AppDelegate* app = m_window->app();
    MetadataEditor* editor = nullptr;
    switch (app->selectedFunction()) {
    case AppDelegate::EncodeFunction:
        editor = new MetadataController(app->encodeBrowseController(), m_window);
        break;
    case AppDelegate::RetagFunction:
        editor = new TagController(app->retagBrowseController(), m_window);
        break;
    default:
        editor = new iTunesMetadataController(app->moviesBrowserController(), m_window);
        break;
    }
    if (!editor->editor()->item()) {
        delete editor;
        m_window->statusBar()->showMessage(tr("Select a movie to edit its metadata."), 5000);
        return nullptr;
    }
    // The information panel follows the edits of the movie it shows.
    connect(editor->editor(), &MetadataEditorController::changed, this, [this, editor] {
        if (const std::shared_ptr<MDI_Media> item = editor->editor()->item())
            m_window->infoPanel()->refreshView(item.get());
    });
    editor->setAttribute(Qt::WA_DeleteOnClose);
    editor->open();
    return editor;
}

void EditorActions::searchAgain() {
    if (auto* editor = qobject_cast<MetadataEditor*>(editMetadata()))
        QTimer::singleShot(0, editor, &MetadataEditor::runSearch);
}

namespace {

std::shared_ptr<MDI_Media> selectedMovie(AppDelegate* app) {
    switch (app->selectedFunction()) {
    case AppDelegate::EncodeFunction:
        return app->encodeBrowseController()->firstSelectedItem();
    case AppDelegate::RetagFunction:
        return app->retagBrowseController()->firstSelectedItem();
    default:
        return app->moviesBrowserController()->curMovie();
    }
}

QDialog* showPanel(QDialog* panel) {
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setWindowModality(Qt::WindowModal);
    panel->open();
    return panel;
}

} // namespace

QDialog* EditorActions::showPresentation() {
    return showPanel(new PresentationPanel(selectedMovie(m_window->app()), m_window));
}

QDialog* EditorActions::showPoster() {
    return showPanel(new PosterPanel(selectedMovie(m_window->app()), m_window));
}

QDialog* EditorActions::showWarnings() {
    AppDelegate* app = m_window->app();
    return showPanel(
        new WarningsPanel({app->encodeBrowseController(), app->retagBrowseController()}, m_window));
}
