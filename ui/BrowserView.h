#pragma once

#include <QListView>

class PosterCache;

// A browser's grid of posters: icon mode, several cells selectable, files
// and folders dropped from a file manager handed to the model, the Delete
// key asking for the selected cells' removal, and a new layout after each
// live resize of the window.
class BrowserView : public QListView {
    Q_OBJECT
public:
    // `acceptsDrops`: the encode and retag grids take files; the library not.
    BrowserView(bool acceptsDrops, QWidget* parent = nullptr);

    PosterCache* posters() const { return m_posters; }
    // Rows that are group headers (BrowserRole::Header) take a line of their
    // own across the view.
    void setGrouped(bool grouped);
    // The empty grid's hint ("Drop movies here").
    void setPlaceholder(const QString& text) { m_placeholder = text; }
    // Rows of the selection, ascending.
    QList<int> selectedRows() const;
    void selectRows(const QList<int>& rows);

signals:
    void deleteRequested();

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    PosterCache* m_posters;
    QString m_placeholder;
};
