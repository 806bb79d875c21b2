#pragma once

#include <QObject>

class MainWindow;
class QAction;
class QDialog;

// The "Movie" menu of the main window and the double-click on a cell: the
// metadata editor of the browser on screen, the search results panel, and
// the presentation, poster and warnings panels.
class EditorActions : public QObject {
    Q_OBJECT
public:
    explicit EditorActions(MainWindow* window);

    QAction* editAction() const { return m_edit; }
    QAction* searchAction() const { return m_search; }
    QAction* presentationAction() const { return m_presentation; }
    QAction* posterAction() const { return m_poster; }
    QAction* warningsAction() const { return m_warnings; }

    // The editor of the current browser's first selected item; null (and a
    // note in the status bar) when nothing is selected. Shown window-modal.
    QDialog* editMetadata();
    // The editor with the search results panel open over it.
    void searchAgain();
    QDialog* showPresentation();
    QDialog* showPoster();
    QDialog* showWarnings();

private:
    void enableActions();

    MainWindow* m_window;
    QAction* m_edit;
    QAction* m_search;
    QAction* m_presentation;
    QAction* m_poster;
    QAction* m_warnings;
};
