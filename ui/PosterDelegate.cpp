#include "ui/PosterDelegate.h"

#include "ui/Artwork.h"
#include "ui/BrowserModel.h"
#include "ui/PosterCache.h"

#include <QApplication>
#include <QListView>
#include <QPainter>
#include <QPainterPath>
#include <QTextLayout>

namespace {

constexpr int kPosterWidth = 128;
constexpr int kPosterHeight = 190;
constexpr int kMargin = 8;
constexpr int kTextLines = 2;

QColor badgeColor(BrowserModel::Badge badge) {
    switch (badge) {
    case BrowserModel::Added:
        return QColor(0x6b, 0x7b, 0x8c);
    case BrowserModel::Scanning:
        return QColor(0x2f, 0x7d, 0xd1);
    case BrowserModel::Working:
        return QColor(0xd9, 0x8c, 0x1f);
    case BrowserModel::Error:
        return QColor(0xc9, 0x3a, 0x35);
    case BrowserModel::Done:
        return QColor(0x3a, 0x9a, 0x4a);
    case BrowserModel::NoBadge:
        break;
    }
    return QColor(0x80, 0x80, 0x80);
}

// The title in at most `lines` lines, the last elided.
void drawTitle(QPainter* p, const QRect& rect, const QString& text, const QFont& font, int lines) {
    const QFontMetrics fm(font);
    QTextLayout layout(text, font);
    QTextOption option(Qt::AlignHCenter);
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.beginLayout();
    int y = rect.top();
    for (int n = 0; n < lines; ++n) {
        QTextLine line = layout.createLine();
        if (!line.isValid())
            break;
        line.setLineWidth(rect.width());
        const bool last = n == lines - 1;
        const QString part = text.mid(line.textStart(), last ? -1 : line.textLength());
        const QString shown =
            last ? fm.elidedText(part.trimmed(), Qt::ElideRight, rect.width()) : part.trimmed();
        p->drawText(QRect(rect.left(), y, rect.width(), fm.height()), Qt::AlignHCenter, shown);
        y += fm.height();
        if (last || line.textStart() + line.textLength() >= text.size())
            break;
    }
    layout.endLayout();
}

} // namespace

PosterDelegate::PosterDelegate(PosterCache* posters, QObject* parent)
    : QStyledItemDelegate(parent), m_posters(posters) {}

QSize PosterDelegate::posterSize() {
    return {kPosterWidth, kPosterHeight};
}

QSize PosterDelegate::cellSize() {
    const QFontMetrics fm(QApplication::font());
    QFont small = QApplication::font();
    small.setPointSizeF(small.pointSizeF() * 0.85);
    return {kPosterWidth + 2 * kMargin, kPosterHeight + 2 * kMargin + 6 + kTextLines * fm.height() +
                                            QFontMetrics(small).height()};
}

QSize PosterDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const {
    if (!index.data(BrowserRole::Header).toBool())
        return cellSize();
    // As wide as the view, so the header has its own line and its genre's
    // cells start on the next one.
    int width = cellSize().width();
    if (const auto* view = qobject_cast<const QListView*>(option.widget))
        width = std::max(width, view->viewport()->width() - 2 * view->spacing() - 1);
    return {width, headerHeight()};
}

int PosterDelegate::headerHeight() {
    QFont font = QApplication::font();
    font.setPointSizeF(font.pointSizeF() * 1.25);
    return QFontMetrics(font).height() + 14;
}

void PosterDelegate::paintHeader(QPainter* p, const QStyleOptionViewItem& option,
                                 const QModelIndex& index) const {
    p->save();
    QFont font = option.font;
    font.setPointSizeF(font.pointSizeF() * 1.25);
    font.setBold(true);
    p->setFont(font);
    const QRect area = option.rect.adjusted(6, 0, -6, 0);
    const QFontMetrics fm(font);
    const QString text =
        fm.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideRight, area.width());
    p->setPen(option.palette.color(QPalette::Text));
    const QRect textRect(area.left(), area.bottom() - 5 - fm.height(), area.width(), fm.height());
    p->drawText(textRect, Qt::AlignLeft | Qt::AlignVCenter, text);
    // A rule from the end of the name to the right edge sets the group apart.
    const int ruleLeft = area.left() + fm.horizontalAdvance(text) + 10;
    if (ruleLeft < area.right()) {
        QColor rule = option.palette.color(QPalette::Mid);
        rule.setAlpha(160);
        p->setPen(QPen(rule, 1));
        const int y = textRect.center().y() + 1;
        p->drawLine(ruleLeft, y, area.right(), y);
    }
    p->restore();
}

void PosterDelegate::paint(QPainter* p, const QStyleOptionViewItem& option,
                           const QModelIndex& index) const {
    if (index.data(BrowserRole::Header).toBool()) {
        paintHeader(p, option, index);
        return;
    }
    p->save();
    p->setRenderHint(QPainter::Antialiasing);
    p->setRenderHint(QPainter::SmoothPixmapTransform);
    const QRect cell = option.rect.adjusted(2, 2, -2, -2);
    const bool selected = option.state & QStyle::State_Selected;
    if (selected) {
        QColor fill = option.palette.color(QPalette::Highlight);
        fill.setAlpha(60);
        p->setPen(QPen(option.palette.color(QPalette::Highlight), 2));
        p->setBrush(fill);
        p->drawRoundedRect(cell, 8, 8);
    }

    // Poster, centred in its frame with its own aspect.
    const QRect frame(cell.left() + (cell.width() - kPosterWidth) / 2, cell.top() + kMargin - 2,
                      kPosterWidth, kPosterHeight);
    QPixmap poster = m_posters->poster(index.data(BrowserRole::Poster).toString());
    if (poster.isNull())
        poster = Artwork::pixmap(QStringLiteral("MovieTicket"));
    if (!poster.isNull()) {
        const QSize shown = poster.size().scaled(frame.size(), Qt::KeepAspectRatio);
        const QRect target(frame.left() + (frame.width() - shown.width()) / 2,
                           frame.bottom() - shown.height() + 1, shown.width(), shown.height());
        // A soft shadow lifts the poster off the grid.
        p->setPen(Qt::NoPen);
        p->setBrush(QColor(0, 0, 0, 40));
        p->drawRoundedRect(target.translated(2, 3), 4, 4);
        QPainterPath clip;
        clip.addRoundedRect(target, 4, 4);
        p->setClipPath(clip);
        p->drawPixmap(target, poster);
        p->setClipping(false);
    } else {
        p->setPen(option.palette.color(QPalette::Mid));
        p->setBrush(option.palette.color(QPalette::AlternateBase));
        p->drawRoundedRect(frame, 4, 4);
    }

    // Progress of the movie being scanned or converted.
    const double progress = index.data(BrowserRole::Progress).toDouble();
    if (progress >= 0 || progress < -1.5) {
        const QRect bar(frame.left() + 6, frame.bottom() - 12, frame.width() - 12, 6);
        p->setPen(Qt::NoPen);
        p->setBrush(QColor(0, 0, 0, 150));
        p->drawRoundedRect(bar.adjusted(-1, -1, 1, 1), 4, 4);
        if (progress >= 0) {
            p->setBrush(QColor(0x4a, 0xa3, 0xff));
            const int width = int(bar.width() * std::clamp(progress, 0.0, 100.0) / 100.0);
            p->drawRoundedRect(QRect(bar.left(), bar.top(), width, bar.height()), 3, 3);
        } else {
            // Busy without a known end: a striped bar.
            p->setBrush(QBrush(QColor(0x4a, 0xa3, 0xff), Qt::BDiagPattern));
            p->drawRoundedRect(bar, 3, 3);
        }
    }

    // Status badge on the poster's top right corner.
    const auto badge = BrowserModel::Badge(index.data(BrowserRole::Badge).toInt());
    if (badge != BrowserModel::NoBadge) {
        const QPixmap image = Artwork::pixmap(BrowserModel::badgeImage(badge));
        const QRect spot(frame.right() - 26, frame.top() - 4, 30, 30);
        if (!image.isNull())
            p->drawPixmap(spot, image);
    }

    // Title and status line.
    QFont font = option.font;
    const QFontMetrics fm(font);
    const QRect text(cell.left() + 4, frame.bottom() + 6, cell.width() - 8,
                     kTextLines * fm.height());
    p->setPen(option.palette.color(QPalette::Text));
    drawTitle(p, text, index.data(Qt::DisplayRole).toString(), font, kTextLines);
    QFont small = font;
    small.setPointSizeF(font.pointSizeF() * 0.85);
    p->setFont(small);
    const QString status = index.data(BrowserRole::StatusText).toString();
    const QString group = index.data(BrowserRole::Group).toString();
    const QString line = group.isEmpty()    ? status
                         : status.isEmpty() ? group
                                            : group + QStringLiteral(" · ") + status;
    p->setPen(badge == BrowserModel::NoBadge ? option.palette.color(QPalette::PlaceholderText)
                                             : badgeColor(badge));
    p->drawText(
        QRect(cell.left() + 4, text.bottom() + 1, cell.width() - 8, QFontMetrics(small).height()),
        Qt::AlignHCenter, QFontMetrics(small).elidedText(line, Qt::ElideRight, cell.width() - 8));
    p->restore();
}
