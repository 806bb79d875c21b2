// `tarnwick-cli library [--genre NAME] [--json] [--folder DIR]`: the movies of
// the iTunes library grouped by genre, one entry per content id with all the
// files that hold it. The folder defaults to the "Movies" folder of the
// "iTunes Path Bookmark" setting. Text shows each genre with its movies and
// their file counts; --json prints
// {"genres": {name: [{name, sortName, contentID, hdVideo, files}, ...]}}.
// Files that are not MP4 are reported on stderr and left out.
#include "cli/Commands.h"

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "library/MoviesBrowserController.h"

#include <QEventLoop>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <unistd.h>

namespace {

const QString kCommand = QStringLiteral("library");
// Below this many files the listing is over before a progress line helps.
constexpr int kProgressThreshold = 100;

QString pathOf(const QUrl& url) {
    return url.isLocalFile() ? url.toLocalFile() : url.toString();
}

QString filesText(qsizetype count) {
    return count == 1 ? QStringLiteral("1 file") : QStringLiteral("%1 files").arg(count);
}

// Why no folder resolves, in words the user can act on.
QString missingFolderMessage() {
    const QByteArray bookmark =
        UserDefaults::standard().dataForKey(QLatin1String(SettingsKey::ITunesPathBookmark));
    const QString hint = QStringLiteral("; name the movies folder with --folder DIR");
    if (bookmark.isEmpty())
        return QStringLiteral("no iTunes folder is set (\"%1\")")
                   .arg(QLatin1String(SettingsKey::ITunesPathBookmark)) +
               hint;
    const QString library = Bookmark::resolve(bookmark);
    if (library.isEmpty())
        return QStringLiteral("the iTunes folder %1 does not exist")
                   .arg(QString::fromUtf8(bookmark)) +
               hint;
    return QStringLiteral("the iTunes folder %1 has no \"Movies\" folder").arg(library) + hint;
}

// Progress of a long listing: one updating line on a terminal, otherwise a
// line per tenth so a log is not flooded.
class ProgressPrinter {
public:
    explicit ProgressPrinter(const MoviesBrowserController& browser)
        : m_browser(browser), m_terminal(isatty(fileno(stderr)) != 0) {}

    void update() {
        const int total = m_browser.scanProgressMaximum();
        const int done = m_browser.scanProgressValue();
        if (total < kProgressThreshold || m_browser.scanProgress())
            return;
        if (m_terminal) {
            cli::err() << "\rReading movies [" << done << " of " << total << "]";
            cli::err().flush();
            m_open = done < total;
            if (!m_open)
                cli::err() << Qt::endl;
            return;
        }
        const int tenth = done * 10 / total;
        if (tenth == m_lastTenth)
            return;
        m_lastTenth = tenth;
        cli::err() << "Reading movies [" << done << " of " << total << "]" << Qt::endl;
    }

    void finish() {
        if (m_open)
            cli::err() << Qt::endl;
        m_open = false;
    }

private:
    const MoviesBrowserController& m_browser;
    bool m_terminal;
    bool m_open = false;
    int m_lastTenth = -1;
};

QJsonArray cellsJson(const QList<MoviesBrowserController::CellPtr>& cells) {
    QJsonArray movies;
    for (const auto& cell : cells) {
        QJsonArray files;
        for (const QUrl& url : cell->urls())
            files.append(pathOf(url));
        movies.append(QJsonObject{
            {QStringLiteral("name"), cell->name()},
            {QStringLiteral("sortName"), cell->sortName()},
            {QStringLiteral("contentID"), cell->uid()},
            {QStringLiteral("hdVideo"), int(cell->hdVideo())},
            {QStringLiteral("files"), files},
        });
    }
    return movies;
}

void printText(const QString& genre, const QList<MoviesBrowserController::CellPtr>& cells) {
    QTextStream& out = cli::out();
    out << genre << " (" << cells.size() << (cells.size() == 1 ? " movie)" : " movies)") << '\n';
    for (const auto& cell : cells) {
        out << "  " << cell->name();
        if (cell->isHD())
            out << " [HD]";
        out << " (" << filesText(cell->urls().size()) << ")\n";
    }
}

int runLibrary(cli::Invocation& run) {
    if (!run.positional().isEmpty())
        return cli::usageError(
            kCommand, QStringLiteral("unknown argument \"%1\"").arg(run.positional().constFirst()));
    const QString genre = run.value(QStringLiteral("genre"));
    QString folder = run.value(QStringLiteral("folder"));
    const bool json = run.json();
    for (const char* name : {"genre", "folder"}) {
        if (run.isSet(QLatin1String(name)) && run.value(QLatin1String(name)).isEmpty())
            return cli::usageError(kCommand, QStringLiteral("--%1 needs a value").arg(name));
    }

    QString error;
    cli::StartupScope startup;
    if (!startup.begin(&error))
        return cli::failure(error);

    if (folder.isEmpty()) {
        folder = MoviesBrowserController::iTunesMoviesFolder();
        if (folder.isEmpty())
            return cli::failure(missingFolderMessage());
    } else if (!QFileInfo(folder).isDir()) {
        return cli::failure(QStringLiteral("no such folder: %1").arg(folder));
    }

    MoviesBrowserController browser;
    browser.setMoviesFolder(folder);
    ProgressPrinter progress(browser);
    QObject::connect(&browser, &MoviesBrowserController::scanProgressChanged, &browser,
                     [&progress] { progress.update(); });
    QEventLoop loop;
    QObject::connect(&browser, &MoviesBrowserController::movieListLoaded, &loop, &QEventLoop::quit);
    browser.loadMovieList();
    loop.exec();
    progress.finish();

    for (const QUrl& url : browser.skippedFiles())
        cli::warning(QStringLiteral("skipped %1: not a readable MP4 file").arg(pathOf(url)));

    const QString all = QString::fromLatin1(MoviesBrowserController::kAllMovies);
    QStringList shown;
    if (!genre.isEmpty()) {
        if (!browser.chooseGenre(genre)) {
            QStringList known = browser.genres();
            return cli::failure(QStringLiteral("no movies of the genre \"%1\" in %2 (genres: %3)")
                                    .arg(genre, folder, known.join(QStringLiteral(", "))));
        }
        shown.append(genre);
    } else {
        // "All Movies" would list every movie a second time.
        shown = browser.genres();
        shown.removeAll(all);
    }

    const auto& genreMap = browser.genreMap();
    if (json) {
        QJsonObject genres;
        for (const QString& name : std::as_const(shown))
            genres.insert(name, cellsJson(genreMap.value(name)));
        cli::setJsonMember(QStringLiteral("folder"), folder);
        cli::setJsonMember(QStringLiteral("genres"), genres);
        return cli::kExitOk;
    }
    if (genreMap.value(all).isEmpty()) {
        cli::out() << "No movies in " << folder << '\n';
        return cli::kExitOk;
    }
    bool first = true;
    for (const QString& name : std::as_const(shown)) {
        if (!first)
            cli::out() << '\n';
        first = false;
        printText(name, genreMap.value(name));
    }
    return cli::kExitOk;
}

const cli::CommandRegistration registration(
    {kCommand,
     {QStringLiteral("library [--genre NAME] [--folder DIR] [--json]")},
     QStringLiteral("the movies of the iTunes library, grouped by genre"),
     QStringLiteral(
         "Reads every MP4 file of the library's movies folder and lists the movies by genre, one "
         "entry per content id with the number of files that hold it ([HD] for HD video). Files "
         "that are not MP4 are reported on standard error and left out."),
     {},
     {{{QStringLiteral("genre")},
       QStringLiteral("NAME"),
       QStringLiteral("only the movies of this genre")},
      {{QStringLiteral("folder")},
       QStringLiteral("DIR"),
       QStringLiteral("the movies folder to read (default: \"Movies\" in the folder of the "
                      "\"iTunes Path Bookmark\" setting)")}},
     true,
     QStringLiteral("0 done, 1 no such folder or genre, 2 usage error."),
     runLibrary,
     QJsonObject{{QStringLiteral("folder"), QJsonValue::Null},
                 {QStringLiteral("genres"), QJsonObject()}}});

} // namespace
