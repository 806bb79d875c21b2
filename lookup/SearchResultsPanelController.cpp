#include "lookup/SearchResultsPanelController.h"

#include "core/HttpClient.h"
#include "core/MDB_Utility.h"
#include "core/Resources.h"
#include "metadata/TagNames.h"

namespace {

QString tag(const char* name) {
    return QString::fromLatin1(name);
}

MDB_Image posterNotAvailable() {
    const QString path = Resources::path(QStringLiteral("PosterNotAvailable.png"));
    return path.isEmpty() ? MDB_Image() : MDB_Image::fromFile(path);
}

} // namespace

SearchResultsPanelController::SearchResultsPanelController(QObject* parent) : QObject(parent) {}

SearchResultsPanelController::~SearchResultsPanelController() = default;

void SearchResultsPanelController::withParentWindow(const std::shared_ptr<MDI_Media>& movie,
                                                    bool replaceName) {
    m_curMovie = movie;
    m_replaceName = replaceName;
    m_movieMeta.reset();
    m_open = true;
    if (!m_curMovie) {
        m_selectedRow = -1;
        populatePanel(0);
        return;
    }
    const qint64 index = qint64(m_curMovie->getSearchIndex());
    m_selectedRow = index < m_curMovie->searchList().size() ? index : -1;
    populatePanel(index);
}

void SearchResultsPanelController::populatePanel(qint64 index) {
    m_movieMeta.reset();
    m_poster = MDB_Image();
    m_imdbPage.clear();
    if (m_curMovie && !m_curMovie->searchList().isEmpty() && index >= 0 &&
        index < m_curMovie->searchList().size()) {
        m_movieMeta = m_curMovie->searchList().at(index);
        m_summary = m_movieMeta->getTag(tag(TagName::Description));
        const QUrl address = m_movieMeta->artworkURL();
        if (!address.isEmpty()) {
            const HttpClient::Response answer = HttpClient::get(address);
            if (answer.error.isEmpty())
                m_poster = MDB_Image::fromData(answer.body);
        }
        if (m_poster.isNull())
            m_poster = posterNotAvailable();
        // The overview in the item's language.
        const QString tmdbID = m_movieMeta->getTag(tag(TagName::TMDbID));
        if (!tmdbID.isEmpty()) {
            if (std::unique_ptr<MDB_Metadata> record =
                    MDB_TheMovieDb::movie(tmdbID, m_curMovie->languageRegion())) {
                m_summary = record->getTag(tag(TagName::Description));
                // Search hits carry no IMDb link; the full record does.
                m_imdbPage = record->imdb().toUrl();
            }
        }
    } else {
        m_summary.clear();
    }

    m_searchString.clear();
    m_searchLanguages = MDB_Utility::languages();
    const QString code = m_curMovie ? m_curMovie->languageRegion().left(2) : QString();
    m_searchLanguage = MDB_Utility::iso639_1Languages().value(code);
    emit panelChanged();
}

int SearchResultsPanelController::numberOfRows() const {
    return m_curMovie ? int(m_curMovie->searchList().size()) : 0;
}

QString SearchResultsPanelController::value(int row, const QString& column) const {
    if (row < 0 || row >= numberOfRows())
        return {};
    if (column != QLatin1String(TagName::ReleaseDate) && column != QLatin1String(TagName::Name))
        return {};
    return m_curMovie->searchList().at(row)->getTag(column);
}

void SearchResultsPanelController::selectRow(qint64 row) {
    m_selectedRow = row >= 0 && row < numberOfRows() ? row : -1;
    emit panelChanged();
}

void SearchResultsPanelController::resultSelected() {
    if (m_selectedRow >= 0)
        populatePanel(m_selectedRow);
}

void SearchResultsPanelController::setSearchString(const QString& text) {
    if (text == m_searchString)
        return;
    m_searchString = text;
    emit panelChanged();
}

void SearchResultsPanelController::onSearchBtn() {
    const QString text = m_searchString.trimmed();
    if (text.isEmpty() || !m_curMovie)
        return;
    if (m_replaceName)
        m_curMovie->replaceNameInOutPath(text);
    m_curMovie->setName(text);
    m_curMovie->setReadMetadata(false);
    if (!m_movieDB)
        m_movieDB = std::make_unique<MDB_TheMovieDb>();
    m_searching = true;
    m_movieDB->search(text, m_curMovie->languageRegion(), this);
}

void SearchResultsPanelController::searchComplete(
    std::vector<std::unique_ptr<MDB_Metadata>> results) {
    m_searching = false;
    if (!m_curMovie)
        return;
    QList<std::shared_ptr<MDB_Metadata>> hits;
    for (std::unique_ptr<MDB_Metadata>& hit : results)
        hits.append(std::shared_ptr<MDB_Metadata>(std::move(hit)));
    m_curMovie->setSearchList(hits);
    m_curMovie->resetSearchIndex();
    m_curMovie->setStatus(6);
    const qint64 index = qint64(m_curMovie->getSearchIndex());
    m_selectedRow = index < hits.size() ? index : -1;
    populatePanel(index);
    emit searchFinished();
}

void SearchResultsPanelController::queryComplete(MDB_Metadata* metadata) {
    Q_UNUSED(metadata); // the panel only searches
}

void SearchResultsPanelController::onDoneBtn() {
    close();
}

void SearchResultsPanelController::onCancelBtn() {
    m_selectedRow = -1;
    close();
}

void SearchResultsPanelController::close() {
    // A search still running reports to nobody.
    m_movieDB.reset();
    m_searching = false;
    m_open = false;
    emit closed();
}

QUrl SearchResultsPanelController::onIMDbBtn() const {
    if (!m_movieMeta)
        return {};
    const QUrl page = m_movieMeta->imdb().toUrl();
    return page.isEmpty() ? m_imdbPage : page;
}

QUrl SearchResultsPanelController::onTMDbBtn() const {
    if (!m_movieMeta)
        return {};
    const QUrl page = m_movieMeta->tmdb().toUrl();
    if (!page.isEmpty())
        return page;
    const QString id = m_movieMeta->getTag(tag(TagName::TMDbID));
    return id.isEmpty() ? QUrl() : MDB_TheMovieDb::tmdbPage(id);
}

void SearchResultsPanelController::onLanguageChanged(const QString& languageName) {
    if (!m_curMovie)
        return;
    const OrderedDictionary<QString, QString>& languages = MDB_Utility::iso639_1Languages();
    for (const QString& code : languages.keys()) {
        if (languages.value(code) != languageName)
            continue;
        QString region = m_curMovie->languageRegion();
        region.replace(0, 2, code);
        m_curMovie->setLanguageRegion(region);
        m_searchLanguage = languageName;
        emit panelChanged();
        return;
    }
}

bool SearchResultsPanelController::selectionChanged() const {
    if (!m_curMovie || m_selectedRow < 0)
        return false;
    return quint64(m_selectedRow) != m_curMovie->getSearchIndex() || m_curMovie->status() == 6;
}
