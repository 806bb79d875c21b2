#pragma once

#include "library/iTunesMovieCell.h"
#include "media/MDI_Movie.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QThreadPool>
#include <QUrl>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

// The iTunes library browser without its view: the movie files under the
// library's "Movies" folder, one cell per content id, grouped by genre, and
// the movie built for the selected cell. The list loads once, on a background
// queue; everything else, signals included, happens on the main thread.
class MoviesBrowserController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool hidden READ isHidden WRITE setHidden NOTIFY hiddenChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY isLoadingChanged)
    Q_PROPERTY(QString scanTitle READ scanTitle NOTIFY scanTitleChanged)
    Q_PROPERTY(QString scanStatus READ scanStatus NOTIFY scanStatusChanged)
    Q_PROPERTY(bool scanProgressVisible READ scanProgressVisible NOTIFY scanProgressChanged)
    Q_PROPERTY(bool scanProgress READ scanProgress NOTIFY scanProgressChanged)
    Q_PROPERTY(int scanProgressValue READ scanProgressValue NOTIFY scanProgressChanged)
    Q_PROPERTY(int scanProgressMaximum READ scanProgressMaximum NOTIFY scanProgressChanged)
    Q_PROPERTY(QStringList genres READ genres NOTIFY genresChanged)
    Q_PROPERTY(QString curGenre READ curGenre NOTIFY reloaded)
    Q_PROPERTY(int count READ count NOTIFY reloaded)

public:
    using CellPtr = std::shared_ptr<iTunesMovieCell>;
    // Content id → cell.
    using MovieMap = QMap<QString, CellPtr>;
    // Genre → its cells, sorted by sort name; kAllMovies holds every cell.
    using GenreMap = QMap<QString, QList<CellPtr>>;

    static constexpr char kAllMovies[] = "All Movies";

    explicit MoviesBrowserController(QObject* parent = nullptr);
    // Stops a load that is still running and waits for it.
    ~MoviesBrowserController() override;

    // --- the library's files -----------------------------------------------------
    // The "Movies" folder of the folder named by "iTunes Path Bookmark"; empty
    // when the bookmark does not resolve or has no such folder.
    static QString iTunesMoviesFolder();
    // A folder to list instead of the bookmark's (its files, recursively).
    void setMoviesFolder(const QString& folder) { m_moviesFolder = folder; }
    // The folder listed: the one set, else iTunesMoviesFolder().
    QString moviesFolder() const;
    QList<QUrl> scanMoviesURL() const { return scanMoviesURL(moviesFolder()); }
    // Every non-hidden file below `folder` whose name contains ".m4v" in any
    // letter case, sorted by path; empty when `folder` is empty or missing.
    static QList<QUrl> scanMoviesURL(const QString& folder);

    // --- loading -----------------------------------------------------------------
    // Builds movieMap() on the background queue, once; later calls do nothing.
    // movieListLoaded() is emitted when the cells are shown.
    void loadMovieList();
    // Builds genreMap() from `movies` and shows "All Movies".
    void loadFiles(const MovieMap& movies);
    // Showing the browser loads the list and rebuilds the selected movie.
    void setHidden(bool hidden);
    bool isHidden() const { return m_hidden; }
    bool isLoading() const { return m_isLoading; }

    const std::optional<MovieMap>& movieMap() const { return m_movieMap; }
    const GenreMap& genreMap() const { return m_genreMap; }
    // Files of the last load that are not readable MP4 files.
    const QList<QUrl>& skippedFiles() const { return m_skippedFiles; }

    // --- genres ------------------------------------------------------------------
    // "All Movies" first, then the genres of the library in sorted order.
    QStringList genres() const;
    // Shows the cells of `genre`; false (nothing changes) for a genre the
    // library does not have.
    bool chooseGenre(const QString& genre);
    const QString& curGenre() const { return m_curGenre; }

    // --- cells and selection ------------------------------------------------------
    const QList<CellPtr>& curCells() const { return m_curCells; }
    int numberOfItemsInImageBrowser() const { return int(m_curCells.size()); }
    // nullptr outside the shown cells.
    CellPtr itemAtIndex(int index) const;
    int count() const { return numberOfItemsInImageBrowser(); }

    // Rows of curCells(); out-of-range rows are dropped.
    void setSelection(const QList<int>& rows);
    const QList<int>& selection() const { return m_selection; }
    QList<CellPtr> getSelected() const;
    void selectAll();
    // Builds curMovie() for the first selected cell; none without a selection.
    void imageBrowserSelectionDidChange();
    // The selected cell's movie with the tags of its file.
    std::shared_ptr<MDI_Movie> curMovie() const { return m_curMovie; }
    // The editor's save: writes `movie`'s tags into its file and renames the
    // cells of that file. False, with the reason in `error`, when the file is
    // read-only or gone or the write failed; the file is then left as it was.
    bool saveMovie(const std::shared_ptr<MDI_Media>& movie, QString* error = nullptr);

    void statusUpdate() { emit reloaded(); }
    void updateDatasource() { emit reloaded(); }

    // --- display state -----------------------------------------------------------
    const QString& scanTitle() const { return m_scanTitle; }
    const QString& scanStatus() const { return m_scanStatus; }
    // The progress widgets show only while the browser does.
    bool scanProgressVisible() const { return m_scanProgressVisible && !m_hidden; }
    // True while the progress spins without a known end.
    bool scanProgress() const { return m_scanProgress; }
    int scanProgressValue() const { return m_scanProgressValue; }
    int scanProgressMaximum() const { return m_scanProgressMaximum; }

signals:
    void hiddenChanged();
    void isLoadingChanged();
    void scanTitleChanged();
    void scanStatusChanged();
    void scanProgressChanged();
    void genresChanged();
    // The shown cells changed (reloadData).
    void reloaded();
    void curMovieChanged();
    // One shown cell's name or image changed.
    void cellUpdated(int row);
    void movieListLoaded();

private:
    struct LoadResult {
        MovieMap movies;
        QList<QUrl> skipped;
    };

    static void readMovies(const QList<QUrl>& files, LoadResult& result,
                           const std::function<void(int done)>& progress,
                           const std::atomic<bool>& cancel);
    void finishLoading(const LoadResult& result);
    void showCells(const QString& genre);
    void setScanTitle(const QString& title);
    void setScanStatus(const QString& status);
    void setProgress(bool visible, bool spinning, int value, int maximum);
    void setLoading(bool loading);
    static std::shared_ptr<MDI_Movie> movieFromFile(const iTunesMovieCell& cell);

    QString m_moviesFolder;
    std::optional<MovieMap> m_movieMap;
    GenreMap m_genreMap;
    QList<CellPtr> m_curCells;
    QString m_curGenre;
    QList<int> m_selection;
    std::shared_ptr<MDI_Movie> m_curMovie;
    QList<QUrl> m_skippedFiles;

    bool m_hidden = true;
    bool m_isLoading = false;
    QString m_scanTitle;
    QString m_scanStatus;
    bool m_scanProgressVisible = false;
    bool m_scanProgress = false;
    int m_scanProgressValue = 0;
    int m_scanProgressMaximum = 0;

    std::shared_ptr<std::atomic<bool>> m_cancel = std::make_shared<std::atomic<bool>>(false);
    QThreadPool m_operationQueue;
};
