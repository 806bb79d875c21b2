#include "library/MoviesBrowserController.h"

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "library/RetagBrowserController.h"
#include "media/MDI_Movie.h"
#include "metadata/MDB_Basicdata.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "mp4/mp4.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace {

QString counter(int done, int total) {
    return QStringLiteral("[%1 of %2]").arg(done).arg(total);
}

// Sort name first, as the grid lists movies; name and id keep ties stable.
bool shownBefore(const MoviesBrowserController::CellPtr& a,
                 const MoviesBrowserController::CellPtr& b) {
    if (int c = a->sortName().compare(b->sortName(), Qt::CaseInsensitive))
        return c < 0;
    if (int c = a->name().compare(b->name(), Qt::CaseInsensitive))
        return c < 0;
    return a->uid() < b->uid();
}

} // namespace

MoviesBrowserController::MoviesBrowserController(QObject* parent) : QObject(parent) {
    // One load at a time, in order, like a serial operation queue.
    m_operationQueue.setMaxThreadCount(1);
}

MoviesBrowserController::~MoviesBrowserController() {
    *m_cancel = true;
    m_operationQueue.waitForDone();
}

QString MoviesBrowserController::iTunesMoviesFolder() {
    const QString library = Bookmark::resolve(
        UserDefaults::standard().dataForKey(QLatin1String(SettingsKey::ITunesPathBookmark)));
    if (library.isEmpty())
        return {};
    const QFileInfoList entries =
        QDir(library).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& entry : entries) {
        // A file named like the folder has nothing to walk.
        if (entry.isDir() && entry.fileName().contains(QLatin1String("Movies")))
            return entry.absoluteFilePath();
    }
    return {};
}

QString MoviesBrowserController::moviesFolder() const {
    return m_moviesFolder.isEmpty() ? iTunesMoviesFolder() : m_moviesFolder;
}

QList<QUrl> MoviesBrowserController::scanMoviesURL(const QString& folder) {
    if (folder.isEmpty() || !QFileInfo(folder).isDir())
        return {};
    QStringList paths;
    // Hidden entries (resource forks, half-copied files) are never movies;
    // symbolic links to folders are not followed so a loop cannot trap the walk.
    QDirIterator it(folder, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        if (it.fileName().contains(QLatin1String(".m4v"), Qt::CaseInsensitive))
            paths.append(it.filePath());
    }
    // The walk's order depends on the filesystem; a sorted list keeps the
    // listing (and which file a cell shows first) the same from run to run.
    paths.sort();
    QList<QUrl> urls;
    urls.reserve(paths.size());
    for (const QString& path : std::as_const(paths))
        urls.append(QUrl::fromLocalFile(path));
    return urls;
}

void MoviesBrowserController::loadMovieList() {
    if (m_movieMap || m_isLoading)
        return;
    setLoading(true);
    m_genreMap.clear();
    m_genreMap.insert(QString::fromLatin1(kAllMovies), {});
    setScanTitle(QStringLiteral("Loading Movies"));
    setScanStatus(QStringLiteral("(Searching...)"));
    setProgress(true, true, 0, 0);

    // The folder is resolved here: the settings are read on the main thread.
    const QString folder = moviesFolder();
    const std::shared_ptr<std::atomic<bool>> cancel = m_cancel;
    m_operationQueue.start([this, folder, cancel] {
        const QList<QUrl> files = scanMoviesURL(folder);
        if (*cancel)
            return;
        const int total = int(files.size());
        // Every file advances the count, but the main thread hears of it at
        // most a few hundred times, so a large library does not flood it.
        const int step = std::max(1, total / 200);
        auto progress = [this, total, step](int done) {
            if (done != 0 && done != total && done % step != 0)
                return;
            QMetaObject::invokeMethod(
                this,
                [this, done, total] {
                    if (!m_isLoading)
                        return;
                    setProgress(true, false, done, total);
                    setScanStatus(counter(done, total));
                },
                Qt::QueuedConnection);
        };
        progress(0);
        LoadResult result;
        readMovies(files, result, progress, *cancel);
        if (*cancel)
            return;
        QMetaObject::invokeMethod(
            this, [this, result] { finishLoading(result); }, Qt::QueuedConnection);
    });
}

void MoviesBrowserController::readMovies(const QList<QUrl>& files, LoadResult& result,
                                         const std::function<void(int)>& progress,
                                         const std::atomic<bool>& cancel) {
    int done = 0;
    for (const QUrl& url : files) {
        if (cancel)
            return;
        const std::optional<MDB_Basicdata> data = MDB_Basicdata::readBasicDataFromFile(url);
        if (!data) {
            result.skipped.append(url);
        } else if (const auto it = result.movies.find(data->contentID); it != result.movies.end()) {
            (*it)->addURL(data->url, data->hdVideo);
        } else {
            result.movies.insert(data->contentID, std::make_shared<iTunesMovieCell>(*data));
        }
        progress(++done);
    }
}

void MoviesBrowserController::finishLoading(const LoadResult& result) {
    m_movieMap = result.movies;
    m_skippedFiles = result.skipped;
    loadFiles(*m_movieMap);
    setProgress(false, false, 0, 0);
    setScanTitle(QString());
    setScanStatus(QString());
    setLoading(false);
    emit movieListLoaded();
}

void MoviesBrowserController::loadFiles(const MovieMap& movies) {
    const QString all = QString::fromLatin1(kAllMovies);
    GenreMap genres;
    genres.insert(all, {});
    for (const CellPtr& cell : movies) {
        genres[cell->genre()].append(cell);
        // A movie whose genre is literally "All Movies" is listed there once.
        if (cell->genre() != all)
            genres[all].append(cell);
    }
    for (QList<CellPtr>& cells : genres)
        std::sort(cells.begin(), cells.end(), shownBefore);
    m_genreMap = std::move(genres);
    emit genresChanged();
    showCells(all);
}

void MoviesBrowserController::setHidden(bool hidden) {
    if (hidden != m_hidden) {
        m_hidden = hidden;
        emit hiddenChanged();
        emit scanProgressChanged();
    }
    if (hidden)
        return;
    loadMovieList();
    if (!m_selection.isEmpty())
        imageBrowserSelectionDidChange();
}

QStringList MoviesBrowserController::genres() const {
    const QString all = QString::fromLatin1(kAllMovies);
    QStringList names{all};
    for (auto it = m_genreMap.cbegin(); it != m_genreMap.cend(); ++it) {
        if (it.key() != all)
            names.append(it.key());
    }
    return names;
}

bool MoviesBrowserController::chooseGenre(const QString& genre) {
    if (!m_genreMap.contains(genre))
        return false;
    showCells(genre);
    return true;
}

void MoviesBrowserController::showCells(const QString& genre) {
    m_curCells = m_genreMap.value(genre);
    m_curGenre = genre;
    // The rows of the old cells mean nothing in the new ones.
    const bool hadSelection = !m_selection.isEmpty();
    m_selection.clear();
    emit reloaded();
    if (hadSelection)
        imageBrowserSelectionDidChange();
}

MoviesBrowserController::CellPtr MoviesBrowserController::itemAtIndex(int index) const {
    if (index < 0 || index >= m_curCells.size())
        return nullptr;
    return m_curCells.at(index);
}

void MoviesBrowserController::setSelection(const QList<int>& rows) {
    QList<int> valid;
    for (int row : rows) {
        if (row >= 0 && row < m_curCells.size() && !valid.contains(row))
            valid.append(row);
    }
    // The grid's selection is a set of indexes: the first is the lowest.
    std::sort(valid.begin(), valid.end());
    m_selection = valid;
    imageBrowserSelectionDidChange();
}

QList<MoviesBrowserController::CellPtr> MoviesBrowserController::getSelected() const {
    QList<CellPtr> cells;
    for (int row : m_selection)
        cells.append(m_curCells.at(row));
    return cells;
}

void MoviesBrowserController::selectAll() {
    QList<int> rows;
    for (int row = 0; row < m_curCells.size(); ++row)
        rows.append(row);
    setSelection(rows);
}

void MoviesBrowserController::imageBrowserSelectionDidChange() {
    if (m_selection.isEmpty())
        m_curMovie.reset();
    else
        m_curMovie = movieFromFile(*m_curCells.at(m_selection.first()));
    emit curMovieChanged();
}

bool MoviesBrowserController::saveMovie(const std::shared_ptr<MDI_Media>& movie, QString* error) {
    auto fail = [&](const QString& message) {
        if (error)
            *error = message;
        return false;
    };
    if (!movie)
        return fail(QStringLiteral("No movie to save."));
    const QString path = movie->outPath();
    const QFileInfo info(path);
    if (!info.isFile())
        return fail(
            QStringLiteral("%1: the movie file is gone, so its tags were not written.").arg(path));
    const bool anyWriteBit =
        info.permissions() & (QFile::WriteOwner | QFile::WriteGroup | QFile::WriteOther);
    if (!info.isWritable() || !anyWriteBit)
        return fail(QStringLiteral("%1: %2").arg(
            path, QString::fromLatin1(RetagBrowserController::kReadOnlyFile)));
    movie->writeMetadataToFile(false);
    if (movie->status() != 12)
        return fail(QStringLiteral("%1: %2").arg(path, movie->warnings()));
    const QString name = movie->getTag(QString::fromLatin1(TagName::Name));
    for (int row = 0; row < m_curCells.size(); ++row) {
        if (m_curCells.at(row)->imageRepresentation() == path) {
            m_curCells.at(row)->fileSaved(name);
            emit cellUpdated(row);
        }
    }
    if (error)
        error->clear();
    return true;
}

std::shared_ptr<MDI_Movie> MoviesBrowserController::movieFromFile(const iTunesMovieCell& cell) {
    auto movie = std::make_shared<MDI_Movie>();
    const QString path = cell.imageRepresentation();
    movie->setOutPath(path);
    auto record = std::make_unique<MDB_MovieMetadata>();
    // The file may have gone since the listing; the movie then keeps an
    // empty record and the cell's name.
    if (MP4FileHandle handle = MP4Read(QFile::encodeName(path).constData())) {
        record->readMetaDataFromFile(handle, false);
        MP4Close(handle);
    }
    movie->setMetaData(std::move(record));
    const QString name = movie->getTag(QString::fromLatin1(TagName::Name));
    movie->setName(name.isEmpty() ? cell.name() : name);
    return movie;
}

void MoviesBrowserController::setScanTitle(const QString& title) {
    if (title == m_scanTitle)
        return;
    m_scanTitle = title;
    emit scanTitleChanged();
}

void MoviesBrowserController::setScanStatus(const QString& status) {
    if (status == m_scanStatus)
        return;
    m_scanStatus = status;
    emit scanStatusChanged();
}

void MoviesBrowserController::setProgress(bool visible, bool spinning, int value, int maximum) {
    if (visible == m_scanProgressVisible && spinning == m_scanProgress &&
        value == m_scanProgressValue && maximum == m_scanProgressMaximum)
        return;
    m_scanProgressVisible = visible;
    m_scanProgress = spinning;
    m_scanProgressValue = value;
    m_scanProgressMaximum = maximum;
    emit scanProgressChanged();
}

void MoviesBrowserController::setLoading(bool loading) {
    if (loading == m_isLoading)
        return;
    m_isLoading = loading;
    emit isLoadingChanged();
}
