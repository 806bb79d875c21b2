// Library listing costs, driven by library-listing.sh:
//   bench_library_listing generate CLIP DIR COUNT  copies CLIP COUNT times into
//                                                  DIR, each with its own tags
//   bench_library_listing basic DIR                readBasicDataFromFile over every
//                                                  movie file of DIR, one process
//   bench_library_listing browser DIR              the whole listing through the
//                                                  library browser, genres grouped
#include "library/MoviesBrowserController.h"
#include "metadata/MDB_Basicdata.h"
#include "mp4/mp4.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <algorithm>
#include <cstdio>

namespace {

const char* const kGenres[] = {"Action",  "Comedy",  "Drama",   "Horror", "Thriller",
                               "Western", "Romance", "Fantasy", "Crime",  "Documentary"};

int generate(const QString& clip, const QString& dir, int count) {
    QDir().mkpath(dir);
    for (int i = 0; i < count; ++i) {
        // Every fifth movie also exists as an HD file with the same content id.
        const int id = i - (i % 5 == 1 ? 1 : 0);
        const QString path = QStringLiteral("%1/%2/movie-%3.m4v")
                                 .arg(dir)
                                 .arg(i / 1000, 2, 10, QLatin1Char('0'))
                                 .arg(i, 5, 10, QLatin1Char('0'));
        QDir().mkpath(QFileInfo(path).absolutePath());
        if (!QFile::copy(clip, path)) {
            std::fprintf(stderr, "cannot copy %s to %s\n", qPrintable(clip), qPrintable(path));
            return 1;
        }
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
        MP4FileHandle handle = MP4Modify(QFile::encodeName(path).constData());
        if (!handle) {
            std::fprintf(stderr, "cannot open %s\n", qPrintable(path));
            return 1;
        }
        const MP4Tags* tags = MP4TagsAlloc();
        MP4TagsFetch(tags, handle);
        const QByteArray name = QStringLiteral("Movie Number %1").arg(id).toUtf8();
        const uint32_t contentID = uint32_t(100000 + id);
        const uint8_t hd = i % 5 == 1 ? 1 : 0;
        MP4TagsSetName(tags, name.constData());
        MP4TagsSetSortName(tags, name.constData());
        MP4TagsSetGenre(tags, kGenres[id % std::size(kGenres)]);
        MP4TagsSetContentID(tags, &contentID);
        MP4TagsSetHDVideo(tags, &hd);
        const bool stored = MP4TagsStore(tags, handle);
        MP4TagsFree(tags);
        MP4Close(handle);
        if (!stored) {
            std::fprintf(stderr, "cannot tag %s\n", qPrintable(path));
            return 1;
        }
    }
    return 0;
}

int basic(const QString& dir) {
    const QList<QUrl> files = MoviesBrowserController::scanMoviesURL(dir);
    if (files.isEmpty()) {
        std::fprintf(stderr, "no movie files in %s\n", qPrintable(dir));
        return 1;
    }
    QElapsedTimer timer;
    timer.start();
    int read = 0;
    for (const QUrl& url : files) {
        if (MDB_Basicdata::readBasicDataFromFile(url))
            ++read;
    }
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    std::printf("basic: %d of %lld files read in %.3f s, %.1f us per file\n", read,
                qlonglong(files.size()), seconds, seconds * 1e6 / double(files.size()));
    return read == files.size() ? 0 : 1;
}

int browser(const QString& dir) {
    MoviesBrowserController browser;
    browser.setMoviesFolder(dir);
    // The longest the main thread went without turning its event loop.
    QElapsedTimer sinceTick;
    qint64 longestGap = 0;
    qint64 ticks = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        longestGap = std::max(longestGap, sinceTick.nsecsElapsed());
        sinceTick.restart();
        ++ticks;
    });
    QObject::connect(&browser, &MoviesBrowserController::movieListLoaded, &QCoreApplication::quit);
    QElapsedTimer timer;
    timer.start();
    sinceTick.start();
    ticker.start(1);
    browser.loadMovieList();
    QCoreApplication::exec();
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    qint64 files = 0;
    for (const auto& cell : *browser.movieMap())
        files += cell->urls().size();
    std::printf("browser: %lld files, %lld movies, %lld genres in %.3f s (%.1f us per file); "
                "event loop turned %lld times, longest pause %.1f ms\n",
                files, qlonglong(browser.movieMap()->size()),
                qlonglong(browser.genres().size() - 1), seconds, seconds * 1e6 / double(files),
                ticks, double(longestGap) / 1e6);
    return files > 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments().mid(1);
    if (args.size() == 4 && args[0] == QLatin1String("generate"))
        return generate(args[1], args[2], args[3].toInt());
    if (args.size() == 2 && args[0] == QLatin1String("basic"))
        return basic(args[1]);
    if (args.size() == 2 && args[0] == QLatin1String("browser"))
        return browser(args[1]);
    std::fprintf(stderr, "usage: bench_library_listing generate CLIP DIR COUNT | basic DIR | "
                         "browser DIR\n");
    return 2;
}
