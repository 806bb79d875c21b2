#include "ui/PresentationPanels.h"

#include "core/HttpClient.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Media.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"

#include <QDialogButtonBox>
#include <QFileInfo>
#include <QGuiApplication>
#include <QHeaderView>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

QString movieName(const MDI_Media& movie) {
    const QString name = movie.getTag(QString::fromLatin1(TagName::Name));
    return name.isEmpty() ? movie.name() : name;
}

QDialogButtonBox* closeButton(QDialog* dialog) {
    auto* box = new QDialogButtonBox(QDialogButtonBox::Close, dialog);
    QObject::connect(box, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    return box;
}

} // namespace

QPixmap moviePoster(const MDI_Media& movie) {
    QPixmap poster;
    if (const MDB_Metadata* record = movie.metaData(); record && !record->artwork().isNull())
        poster.loadFromData(record->artwork().data());
    if (poster.isNull() && !movie.localThumbnails().isEmpty())
        poster.load(movie.localThumbnails().first().toLocalFile());
    return poster;
}

QPixmap movieBackdrop(const MDI_Media& movie) {
    QPixmap backdrop;
    const MDB_Metadata* record = movie.metaData();
    if (!record)
        return backdrop;
    // The stand-in of a match made with the "backdrop Art" setting off
    // gives way to the movie's first backdrop, fetched once for this panel.
    const bool standIn =
        record->backdropURL().fileName().startsWith(QLatin1String("NoArtworkBackground"));
    if (!record->backdrop().isNull() && !(standIn && !record->backdropFullsizeURLs().isEmpty()))
        backdrop.loadFromData(record->backdrop().data());
    if (backdrop.isNull() && !record->backdropFullsizeURLs().isEmpty()) {
        const QUrl url = record->backdropFullsizeURLs().first();
        if (url.isLocalFile()) {
            backdrop.load(url.toLocalFile());
        } else {
            const HttpClient::Response answer = HttpClient::get(url);
            if (answer.error.isEmpty())
                backdrop.loadFromData(answer.body);
        }
    }
    return backdrop;
}

// --- presentation ---------------------------------------------------------------------

PresentationPanel::PresentationPanel(const std::shared_ptr<MDI_Media>& movie, QWidget* parent)
    : QDialog(parent) {
    setObjectName(QStringLiteral("PresentationPanel"));
    setWindowTitle(tr("Presentation"));
    if (movie) {
        m_backdrop = movieBackdrop(*movie);
        m_poster = moviePoster(*movie);
        m_name = movieName(*movie);
        QStringList facts;
        const QString year = movie->getTag(QString::fromLatin1(TagName::ReleaseDate)).left(4);
        if (!year.isEmpty())
            facts << year;
        const QString genre = movie->getTag(QString::fromLatin1(TagName::Genre));
        if (!genre.isEmpty())
            facts << genre;
        if (const MDB_Metadata* record = movie->metaData()) {
            const QString line = record->tagLine().toString();
            if (!line.isEmpty())
                facts << line;
        }
        m_facts = facts.join(QStringLiteral("  \u00b7  "));
    } else {
        m_name = tr("No movie selected");
    }
    auto* layout = new QVBoxLayout(this);
    layout->addStretch(1);
    layout->addWidget(closeButton(this));
    resize(960, 540);
}

void PresentationPanel::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.fillRect(rect(), QColor(18, 18, 22));
    if (!m_backdrop.isNull()) {
        const QPixmap scaled =
            m_backdrop.scaled(size(), Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
        p.drawPixmap((width() - scaled.width()) / 2, (height() - scaled.height()) / 2, scaled);
    } else {
        p.setPen(QColor(120, 120, 130));
        p.drawText(rect().adjusted(0, 0, -24, -60), Qt::AlignRight | Qt::AlignBottom,
                   tr("No backdrop"));
    }
    // A dark band under the texts keeps them legible on any backdrop.
    QLinearGradient shade(0, height() * 0.45, 0, height());
    shade.setColorAt(0, QColor(0, 0, 0, 0));
    shade.setColorAt(1, QColor(0, 0, 0, 200));
    p.fillRect(rect(), shade);

    const int margin = 28;
    const QSize posterBox(int(height() * 0.55 * 2 / 3), int(height() * 0.55));
    QRect posterRect(QPoint(margin, height() - posterBox.height() - margin - 40), posterBox);
    if (!m_poster.isNull()) {
        const QPixmap poster =
            m_poster.scaled(posterBox, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        posterRect.setSize(poster.size());
        p.drawPixmap(posterRect.topLeft(), poster);
        p.setPen(QPen(QColor(255, 255, 255, 90), 1));
        p.drawRect(posterRect.adjusted(0, 0, -1, -1));
    }
    const int textLeft = m_poster.isNull() ? margin : posterRect.right() + margin;
    QFont title = font();
    title.setPointSizeF(title.pointSizeF() * 2.2);
    title.setBold(true);
    p.setFont(title);
    p.setPen(Qt::white);
    const QRect textRect(textLeft, posterRect.top(), width() - textLeft - margin,
                         posterRect.height());
    p.drawText(textRect, Qt::AlignLeft | Qt::AlignBottom | Qt::TextWordWrap,
               m_name + QStringLiteral("\n"));
    QFont small = font();
    small.setPointSizeF(small.pointSizeF() * 1.1);
    p.setFont(small);
    p.setPen(QColor(220, 220, 225));
    p.drawText(textRect, Qt::AlignLeft | Qt::AlignBottom | Qt::TextWordWrap, m_facts);
}

// --- poster ---------------------------------------------------------------------------

PosterPanel::PosterPanel(const std::shared_ptr<MDI_Media>& movie, QWidget* parent)
    : QDialog(parent) {
    setObjectName(QStringLiteral("PosterPanel"));
    const QPixmap poster = movie ? moviePoster(*movie) : QPixmap();
    m_hasPoster = !poster.isNull();
    setWindowTitle(movie ? movieName(*movie) : tr("Poster"));
    auto* label = new QLabel(this);
    label->setAlignment(Qt::AlignCenter);
    QSize box(480, 711);
    if (const QScreen* screen = QGuiApplication::primaryScreen())
        box = box.boundedTo(screen->availableSize() * 0.85);
    if (m_hasPoster)
        label->setPixmap(poster.scaled(box, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    else
        label->setText(tr("This movie has no poster."));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(label, 1);
    layout->addWidget(closeButton(this));
}

// --- warnings -------------------------------------------------------------------------

WarningsPanel::WarningsPanel(const QList<EncodeBrowserController*>& browsers, QWidget* parent)
    : QDialog(parent), m_browsers(browsers) {
    setObjectName(QStringLiteral("WarningsPanel"));
    setWindowTitle(tr("Warnings"));
    m_list = new QTreeWidget(this);
    m_list->setObjectName(QStringLiteral("warningsList"));
    m_list->setColumnCount(3);
    m_list->setHeaderLabels({tr("Movie"), tr("Result"), tr("Warnings")});
    m_list->setRootIsDecorated(false);
    m_list->setWordWrap(true);
    m_list->setAlternatingRowColors(true);
    m_list->header()->setStretchLastSection(true);
    m_empty = new QLabel(tr("No warnings: every movie went through without a problem."), this);
    m_empty->setAlignment(Qt::AlignCenter);
    m_empty->setForegroundRole(QPalette::PlaceholderText);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_list, 1);
    layout->addWidget(m_empty, 1);
    layout->addWidget(closeButton(this));
    resize(820, 360);
    reload();
}

void WarningsPanel::reload() {
    m_list->clear();
    for (EncodeBrowserController* browser : m_browsers) {
        if (!browser)
            continue;
        for (const std::shared_ptr<MDI_Media>& item : browser->movieList()) {
            // Failed items, and finished ones that carry a warning.
            if (item->status() != 0 && item->warnings().trimmed().isEmpty())
                continue;
            const QString warnings = item->warnings().trimmed();
            auto* row = new QTreeWidgetItem(m_list);
            row->setText(0, movieName(*item));
            row->setToolTip(0, item->inPath());
            row->setText(1, item->status() == 0 ? tr("Failed") : tr("Partly done"));
            row->setText(2,
                         warnings.isEmpty() ? tr("The movie could not be processed.") : warnings);
            row->setToolTip(2, warnings);
        }
    }
    m_list->resizeColumnToContents(0);
    m_list->resizeColumnToContents(1);
    m_list->setVisible(m_list->topLevelItemCount() > 0);
    m_empty->setVisible(m_list->topLevelItemCount() == 0);
}
