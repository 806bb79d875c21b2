#include "ui/BrowserView.h"

#include "core/Notifications.h"
#include "ui/PosterCache.h"
#include "ui/PosterDelegate.h"

#include <QDragEnterEvent>
#include <QKeyEvent>
#include <QMimeData>
#include <QPainter>

BrowserView::BrowserView(bool acceptsDrops, QWidget* parent)
    : QListView(parent), m_posters(new PosterCache(PosterDelegate::posterSize(), this)) {
    setViewMode(QListView::IconMode);
    setMovement(QListView::Static);
    setResizeMode(QListView::Adjust);
    setLayoutMode(QListView::Batched);
    setBatchSize(200);
    setUniformItemSizes(true);
    setGridSize(PosterDelegate::cellSize() + QSize(8, 8));
    setSpacing(4);
    setWordWrap(true);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setSelectionRectVisible(true);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setFrameShape(QFrame::NoFrame);
    setItemDelegate(new PosterDelegate(m_posters, this));
    setAcceptDrops(acceptsDrops);
    setDragEnabled(false);
    setDropIndicatorShown(false);
    setDragDropMode(acceptsDrops ? QAbstractItemView::DropOnly : QAbstractItemView::NoDragDrop);
    viewport()->setAcceptDrops(acceptsDrops);
    // Posters arrive from the decoding threads: repaint the cells on screen.
    connect(m_posters, &PosterCache::posterReady, viewport(), qOverload<>(&QWidget::update));
    connect(&NotificationCenter::defaultCenter(), &NotificationCenter::posted, this,
            [this](const QString& name) {
                if (name == QLatin1String(NotificationName::WindowDidResize))
                    scheduleDelayedItemsLayout();
            });
}

void BrowserView::setGrouped(bool grouped) {
    // A header is wider than a cell: sizes per row instead of one grid.
    setUniformItemSizes(!grouped);
    setGridSize(grouped ? QSize() : PosterDelegate::cellSize() + QSize(8, 8));
    setSpacing(grouped ? 8 : 4);
}

QList<int> BrowserView::selectedRows() const {
    QList<int> rows;
    if (!selectionModel())
        return rows;
    for (const QModelIndex& index : selectionModel()->selectedIndexes())
        rows << index.row();
    std::sort(rows.begin(), rows.end());
    return rows;
}

void BrowserView::selectRows(const QList<int>& rows) {
    if (!selectionModel() || !model())
        return;
    QItemSelection selection;
    for (int row : rows) {
        const QModelIndex index = model()->index(row, 0);
        if (index.isValid())
            selection.select(index, index);
    }
    selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
}

void BrowserView::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Delete || event->key() == Qt::Key_Backspace) {
        emit deleteRequested();
        event->accept();
        return;
    }
    QListView::keyPressEvent(event);
}

void BrowserView::paintEvent(QPaintEvent* event) {
    QListView::paintEvent(event);
    if (!model() || model()->rowCount() > 0 || m_placeholder.isEmpty())
        return;
    QPainter p(viewport());
    QFont font = p.font();
    font.setPointSizeF(font.pointSizeF() * 1.4);
    p.setFont(font);
    p.setPen(palette().color(QPalette::PlaceholderText));
    p.drawText(viewport()->rect().adjusted(24, 24, -24, -24), Qt::AlignCenter | Qt::TextWordWrap,
               m_placeholder);
}

// Dropped files go to the model whatever the cell under the pointer.
void BrowserView::dragEnterEvent(QDragEnterEvent* event) {
    if (acceptDrops() && event->mimeData()->hasUrls())
        event->acceptProposedAction();
    else
        event->ignore();
}

void BrowserView::dragMoveEvent(QDragMoveEvent* event) {
    if (acceptDrops() && event->mimeData()->hasUrls())
        event->acceptProposedAction();
    else
        event->ignore();
}

void BrowserView::dropEvent(QDropEvent* event) {
    if (!acceptDrops() || !model() ||
        !model()->dropMimeData(event->mimeData(), Qt::CopyAction, -1, 0, QModelIndex())) {
        event->ignore();
        return;
    }
    event->acceptProposedAction();
}
