#include "ui/MovieInfoPanel.h"

#include "core/Notifications.h"
#include "library/MoviesBrowserController.h"
#include "media/MDI_Media.h"
#include "media/Title.h"
#include "metadata/TagNames.h"
#include "ui/Artwork.h"
#include "ui/PosterCache.h"
#include "ui_MovieInfoPanel.h"

#include <QDir>
#include <QFileInfo>

namespace {

QString tag(const MDI_Media& movie, const char* name) {
    return movie.getTag(QString::fromLatin1(name)).trimmed();
}

// "Rating" holds "type|rating|rank|"; the middle part is what people read.
QString ratingText(const QString& value) {
    const QStringList parts = value.split(u'|');
    return parts.size() >= 2 ? parts.at(1).trimmed() : value.trimmed();
}

// Cast and crew come as "A, B, C,": shown without the trailing comma.
QString listText(QString value) {
    value = value.trimmed();
    while (value.endsWith(u','))
        value.chop(1);
    return value.trimmed();
}

QString audioText(const AudioTrack& track) {
    QStringList parts;
    parts << (track.isoName().isEmpty() ? track.name() : track.isoName());
    if (!track.codec().isEmpty())
        parts << track.codec();
    if (!track.channels().isEmpty())
        parts << track.channels();
    return parts.join(QStringLiteral(", "));
}

} // namespace

MovieInfoPanel::MovieInfoPanel(QWidget* parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::MovieInfoPanel>()),
      m_posters(new PosterCache(QSize(180, 266), this)) {
    m_ui->setupUi(this);
    QFont name = m_ui->nameLabel->font();
    name.setPointSizeF(name.pointSizeF() * 1.35);
    name.setBold(true);
    m_ui->nameLabel->setFont(name);
    m_ui->factsLabel->setForegroundRole(QPalette::PlaceholderText);
    m_ui->emptyLabel->setForegroundRole(QPalette::PlaceholderText);
    m_ui->warningsLabel->setStyleSheet(
        QStringLiteral("QLabel { background: #fdecea; color: #8a1f17; border: 1px solid #f3b8b3;"
                       " border-radius: 6px; padding: 6px; }"));
    connect(m_posters, &PosterCache::posterReady, this, [this](const QString& source) {
        if (source == m_posterSource)
            fill();
    });
    connect(&NotificationCenter::defaultCenter(), &NotificationCenter::posted, this,
            [this](const QString& name, const QVariantMap& userInfo) {
                if (name == QLatin1String(NotificationName::SelectionChanged))
                    selectionChanged(userInfo);
            });
    fill();
}

MovieInfoPanel::~MovieInfoPanel() = default;

void MovieInfoPanel::followLibrary(MoviesBrowserController* library) {
    m_library = library;
    connect(library, &MoviesBrowserController::curMovieChanged, this, [this] {
        if (!m_library || m_library->isHidden())
            return;
        const std::shared_ptr<MDI_Movie> movie = m_library->curMovie();
        showMovie(movie, int(m_library->selection().size()));
    });
}

void MovieInfoPanel::selectionChanged(const QVariantMap& userInfo) {
    const auto movie = userInfo.value(QStringLiteral("movie")).value<std::shared_ptr<MDI_Media>>();
    showMovie(movie, userInfo.value(QStringLiteral("count"), movie ? 1 : 0).toInt());
}

void MovieInfoPanel::showMovie(const std::shared_ptr<MDI_Media>& movie, int count) {
    m_movie = movie;
    m_count = movie ? qMax(1, count) : 0;
    fill();
}

void MovieInfoPanel::refreshView(MDI_Media* movie) {
    if (movie && movie == m_movie.get())
        fill();
}

void MovieInfoPanel::fill() {
    if (!m_movie || m_count > 1) {
        m_ui->emptyLabel->setText(m_count > 1 ? tr("%1 movies selected").arg(m_count)
                                              : tr("No movie selected"));
        m_ui->pages->setCurrentWidget(m_ui->emptyPage);
        m_posterSource.clear();
        return;
    }
    const MDI_Media& movie = *m_movie;
    m_ui->pages->setCurrentWidget(m_ui->moviePage);

    const QList<QUrl>& thumbs = movie.localThumbnails();
    // A movie file (retag, library) carries its own cover art.
    auto isMovieFile = [](const QString& path) {
        return QFileInfo(path).suffix().compare(QLatin1String("m4v"), Qt::CaseInsensitive) == 0 &&
               QFileInfo::exists(path);
    };
    m_posterSource.clear();
    for (const QUrl& thumb : thumbs) {
        if (thumb.isLocalFile() && QFileInfo::exists(thumb.toLocalFile())) {
            m_posterSource = thumb.toLocalFile();
            break;
        }
    }
    if (m_posterSource.isEmpty())
        m_posterSource = isMovieFile(movie.inPath())    ? movie.inPath()
                         : isMovieFile(movie.outPath()) ? movie.outPath()
                                                        : QString();
    QPixmap poster = m_posters->poster(m_posterSource);
    if (poster.isNull())
        poster = Artwork::pixmap(QStringLiteral("MovieTicket"));
    m_ui->posterLabel->setPixmap(
        poster.isNull()
            ? QPixmap()
            : poster.scaled(QSize(180, 266), Qt::KeepAspectRatio, Qt::SmoothTransformation));

    const QString name = tag(movie, TagName::Name);
    m_ui->nameLabel->setText(name.isEmpty() ? movie.name() : name);
    QStringList facts;
    const QString year = tag(movie, TagName::ReleaseDate).left(4);
    if (!year.isEmpty())
        facts << year;
    const QString genre = tag(movie, TagName::Genre);
    if (!genre.isEmpty())
        facts << genre;
    const QString rating = ratingText(tag(movie, TagName::Rating));
    if (!rating.isEmpty())
        facts << rating;
    m_ui->factsLabel->setText(facts.join(QStringLiteral("  ·  ")));
    m_ui->factsLabel->setVisible(!facts.isEmpty());

    QString description = tag(movie, TagName::LongDescription);
    if (description.isEmpty())
        description = tag(movie, TagName::Description);
    m_ui->descriptionLabel->setText(description);
    m_ui->descriptionLabel->setVisible(!description.isEmpty());

    m_ui->warningsLabel->setText(movie.warnings());
    m_ui->warningsLabel->setVisible(!movie.warnings().isEmpty());

    // Captions and values in a two-column table that wraps with the panel.
    const QString caption = palette().color(QPalette::PlaceholderText).name();
    QString rows;
    auto row = [&rows, &caption](const QString& name, const QString& value) {
        if (value.isEmpty())
            return;
        QString html = value.toHtmlEscaped();
        html.replace(u'\n', QStringLiteral("<br>"));
        rows += QStringLiteral("<tr><td align=right style='color:%1; padding:0 8px 6px 0'>%2</td>"
                               "<td style='padding-bottom:6px'>%3</td></tr>")
                    .arg(caption, name, html);
    };
    row(tr("Cast"), listText(tag(movie, TagName::Cast)));
    row(tr("Director"), listText(tag(movie, TagName::Director)));
    row(tr("Writers"), listText(tag(movie, TagName::Screenwriters)));

    QStringList audio;
    QStringList subtitles;
    if (const Title* title = movie.getMainTitle()) {
        QStringList parts{tr("Title %1").arg(title->ID())};
        if (!title->duration().isEmpty())
            parts << title->duration();
        if (!title->size().isEmpty())
            parts << title->size();
        row(tr("Title"), parts.join(QStringLiteral(", ")));
        for (const auto& track : title->audioTracks())
            audio << audioText(*track);
        for (const auto& track : title->subtitleTracks())
            subtitles << (track->isoName().isEmpty() ? track->name() : track->isoName());
    }
    row(tr("Audio"), audio.join(u'\n'));
    row(tr("Subtitles"), subtitles.join(u'\n'));
    // Paths break after their slashes rather than anywhere.
    QString path = QDir::toNativeSeparators(movie.outPath());
    path.replace(QDir::separator(), QString(QDir::separator()) + QChar(0x200B));
    row(movie.inPath().isEmpty() ? tr("File") : tr("Output"), path);
    m_ui->detailsLabel->setText(QStringLiteral("<table width='100%'>") + rows +
                                QStringLiteral("</table>"));
}

QString MovieInfoPanel::nameText() const {
    return m_ui->pages->currentWidget() == m_ui->moviePage ? m_ui->nameLabel->text() : QString();
}

QString MovieInfoPanel::summaryText() const {
    return m_ui->pages->currentWidget() == m_ui->emptyPage ? m_ui->emptyLabel->text()
                                                           : m_ui->nameLabel->text();
}
