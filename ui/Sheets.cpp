#include "ui/Sheets.h"

#include "ui/Artwork.h"

#include <QDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

int runSheet(QDialog& dialog) {
    dialog.setWindowModality(dialog.parentWidget() ? Qt::WindowModal : Qt::ApplicationModal);
    return dialog.exec();
}

QLabel* sheetHeading(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    QFont f = label->font();
    f.setBold(true);
    f.setPointSizeF(f.pointSizeF() * 1.15);
    label->setFont(f);
    label->setWordWrap(true);
    return label;
}

QLabel* sheetBody(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextFormat(Qt::RichText);
    label->setOpenExternalLinks(true);
    return label;
}

// Icon on the left, the rest on the right, as alerts are laid out.
QVBoxLayout* sheetWithIcon(QDialog* dialog, const QString& image) {
    auto* row = new QHBoxLayout(dialog);
    row->setContentsMargins(20, 20, 20, 16);
    row->setSpacing(16);
    auto* icon = new QLabel(dialog);
    const QPixmap pixmap = Artwork::pixmap(image);
    if (!pixmap.isNull())
        icon->setPixmap(pixmap.scaled(64, 64, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    icon->setFixedWidth(64);
    icon->setAlignment(Qt::AlignTop | Qt::AlignHCenter);
    row->addWidget(icon, 0, Qt::AlignTop);
    auto* column = new QVBoxLayout;
    column->setSpacing(10);
    row->addLayout(column, 1);
    return column;
}
