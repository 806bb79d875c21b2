#pragma once

#include <QStyledItemDelegate>

class PosterCache;

// Paints one grid cell: the poster (or "MovieTicket" while there is none),
// the title in up to two lines, a status line, the status badge and, for the
// movie being scanned or converted, its progress across the poster's foot;
// a group's header row as the group's name across the view.
class PosterDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    PosterDelegate(PosterCache* posters, QObject* parent = nullptr);

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

    static QSize cellSize();
    static QSize posterSize();
    static int headerHeight();

private:
    void paintHeader(QPainter* painter, const QStyleOptionViewItem& option,
                     const QModelIndex& index) const;

    PosterCache* m_posters;
};
