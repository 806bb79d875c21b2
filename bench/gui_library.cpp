// The library grid with many movies, driven by gui-library.sh:
//   bench_gui_library generate CLIP DIR COUNT  copies CLIP COUNT times into DIR
//                                              as an iTunes library's "Movies"
//                                              folder, each tagged with a name,
//                                              a genre and a JPEG cover
//   bench_gui_library grid DIR                 the library browser's grid over
//                                              DIR's movies: time to the first
//                                              painted grid, longest main-thread
//                                              stalls while loading and while
//                                              scrolling end to end, memory
#include "library/MoviesBrowserController.h"
#include "mp4/mp4.h"
#include "ui/BrowserModel.h"
#include "ui/BrowserView.h"
#include "ui/PosterCache.h"

#include <QApplication>
#include <QBuffer>
#include <QColor>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QFont>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QScrollBar>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

namespace {

const char* const kGenres[] = {"Action",  "Comedy",  "Drama",   "Horror", "Thriller",
                               "Western", "Romance", "Fantasy", "Crime",  "Documentary"};

// Distinct covers the size of a real poster thumbnail; the files take them in
// turn, so every file still carries its own copy to decode.
constexpr int kCovers = 97;

QByteArray cover(int index) {
    QImage image(300, 450, QImage::Format_RGB32);
    QPainter painter(&image);
    QLinearGradient sky(0, 0, 0, 450);
    sky.setColorAt(0, QColor::fromHsv((index * 37) % 360, 160, 230));
    sky.setColorAt(1, QColor::fromHsv((index * 37 + 40) % 360, 200, 70));
    painter.fillRect(image.rect(), sky);
    painter.setPen(Qt::white);
    QFont font = painter.font();
    font.setPixelSize(48);
    font.setBold(true);
    painter.setFont(font);
    painter.drawText(image.rect().adjusted(20, 40, -20, -200), Qt::AlignCenter | Qt::TextWordWrap,
                     QStringLiteral("Movie %1").arg(index));
    painter.drawEllipse(QPoint(150, 330), 60 + index % 30, 60 + index % 30);
    painter.end();
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "JPEG", 85);
    return jpeg;
}

int generate(const QString& clip, const QString& dir, int count) {
    std::vector<QByteArray> covers;
    for (int i = 0; i < kCovers; ++i)
        covers.push_back(cover(i));
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < count; ++i) {
        // Every fifth movie also exists as an HD file with the same content id.
        const int id = i - (i % 5 == 1 ? 1 : 0);
        const QString path = QStringLiteral("%1/Movies/%2/movie-%3.m4v")
                                 .arg(dir)
                                 .arg(i / 1000, 2, 10, QLatin1Char('0'))
                                 .arg(i, 5, 10, QLatin1Char('0'));
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile::remove(path);
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
        QByteArray& jpeg = covers[size_t(id % kCovers)];
        const MP4TagArtwork art{jpeg.data(), uint32_t(jpeg.size()), MP4_ART_JPEG};
        MP4TagsSetName(tags, name.constData());
        MP4TagsSetSortName(tags, name.constData());
        MP4TagsSetGenre(tags, kGenres[id % std::size(kGenres)]);
        MP4TagsSetContentID(tags, &contentID);
        MP4TagsSetHDVideo(tags, &hd);
        MP4TagsAddArtwork(tags, &art);
        const bool stored = MP4TagsStore(tags, handle);
        MP4TagsFree(tags);
        MP4Close(handle);
        if (!stored) {
            std::fprintf(stderr, "cannot tag %s\n", qPrintable(path));
            return 1;
        }
        if ((i + 1) % 1000 == 0)
            std::fprintf(stderr, "  %d of %d files\n", i + 1, count);
    }
    std::printf("generate: %d tagged files with covers in %s (%.1f s)\n", count,
                qPrintable(dir + QStringLiteral("/Movies")), double(timer.elapsed()) / 1e3);
    return 0;
}

qint64 threadCpuNs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// The longest the main thread went without turning its event loop, from a
// timer that asks to run every millisecond; with the CPU time the thread
// itself spent in that gap, which tells its own work from waiting for a core
// on a busy machine.
class StallMeter : public QObject {
public:
    StallMeter() {
        m_ticker.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_ticker, &QTimer::timeout, this, [this] {
            const qint64 wall = m_sinceTick.nsecsElapsed();
            const qint64 cpu = threadCpuNs();
            if (wall > m_longest) {
                m_longest = wall;
                m_longestBusy = cpu - m_cpuAtTick;
            }
            m_busiest = std::max(m_busiest, cpu - m_cpuAtTick);
            m_sinceTick.restart();
            m_cpuAtTick = cpu;
        });
        reset();
        m_ticker.start(1);
    }
    double longestMs() const { return double(m_longest) / 1e6; }
    // The main thread's own CPU time in the longest stall, and the most it
    // spent between two turns of the loop.
    double longestBusyMs() const { return double(m_longestBusy) / 1e6; }
    double busiestMs() const { return double(m_busiest) / 1e6; }
    void reset() {
        m_longest = m_longestBusy = m_busiest = 0;
        m_sinceTick.start();
        m_cpuAtTick = threadCpuNs();
    }

private:
    QTimer m_ticker;
    QElapsedTimer m_sinceTick;
    qint64 m_cpuAtTick = 0;
    qint64 m_longest = 0;
    qint64 m_longestBusy = 0;
    qint64 m_busiest = 0;
};

// The grid as the window has it, noting when it first paints movies.
class TimedView : public BrowserView {
public:
    TimedView() : BrowserView(false) {}
    std::function<void()> onFirstGrid;

protected:
    void paintEvent(QPaintEvent* event) override {
        BrowserView::paintEvent(event);
        if (onFirstGrid && model() && model()->rowCount() > 0) {
            auto done = std::move(onFirstGrid);
            onFirstGrid = nullptr;
            done();
        }
    }
};

// Turns the event loop until `done` holds; false after `timeoutMs`.
bool waitFor(const std::function<bool()>& done, int timeoutMs) {
    QElapsedTimer waited;
    waited.start();
    while (!done()) {
        if (waited.elapsed() > timeoutMs)
            return false;
        QEventLoop loop;
        QTimer::singleShot(2, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

double megabytes(const char* field) {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(int(qstrlen(field))).trimmed().split(' ').value(0).toDouble() / 1024;
    }
    return 0;
}

int grid(const QString& dir) {
    MoviesBrowserController browser;
    browser.setMoviesFolder(dir);
    LibraryBrowserModel model(&browser);
    TimedView view;
    view.setGrouped(true);
    view.setModel(&model);
    view.resize(1280, 800);
    StallMeter stalls;

    QElapsedTimer clock;
    clock.start();
    double loadedAt = -1;
    double firstGridAt = -1;
    QObject::connect(&browser, &MoviesBrowserController::movieListLoaded, &browser,
                     [&] { loadedAt = double(clock.nsecsElapsed()) / 1e9; });
    view.onFirstGrid = [&] { firstGridAt = double(clock.nsecsElapsed()) / 1e9; };
    view.show();
    browser.setHidden(false);
    if (!waitFor([&] { return firstGridAt >= 0; }, 120000)) {
        std::fprintf(stderr, "grid: no movies painted within 120 s (%d rows)\n", model.rowCount());
        return 1;
    }
    if (!waitFor([&] { return view.posters()->pending() == 0; }, 60000)) {
        std::fprintf(stderr, "grid: the first screen's posters did not come within 60 s\n");
        return 1;
    }
    const double postersAt = double(clock.nsecsElapsed()) / 1e9;
    const double loadStall = stalls.longestMs();
    const double loadBusy = stalls.busiestMs();
    qint64 files = 0;
    for (const auto& cell : *browser.movieMap())
        files += cell->urls().size();
    std::printf("grid: %lld files, %d movies in %d genres; list loaded at %.3f s, first grid "
                "painted at %.3f s, its posters in at %.3f s; longest main-thread stall while "
                "loading %.1f ms (%.1f ms of it busy), longest busy stretch %.1f ms\n",
                files, int(browser.count()), int(browser.genres().size() - 1), loadedAt,
                firstGridAt, postersAt, loadStall, stalls.longestBusyMs(), loadBusy);

    // End to end, a page a frame (60 frames a second), as a scroll bar dragged
    // steadily down the whole library.
    QScrollBar* bar = view.verticalScrollBar();
    const int page = std::max(1, bar->pageStep());
    stalls.reset();
    clock.restart();
    int frames = 0;
    QTimer frame;
    frame.setTimerType(Qt::PreciseTimer);
    QObject::connect(&frame, &QTimer::timeout, &view, [&] {
        ++frames;
        bar->setValue(std::min(bar->maximum(), bar->value() + page));
        // The view lays the cells out in batches, so the bar's end moves on
        // until the last movie has its place on screen.
        const QRect last = view.visualRect(model.index(model.rowCount() - 1, 0));
        if (bar->value() >= bar->maximum() && last.isValid() &&
            view.viewport()->rect().intersects(last))
            frame.stop();
    });
    frame.start(16);
    waitFor([&] { return !frame.isActive(); }, 600000);
    const double scrolled = double(clock.nsecsElapsed()) / 1e9;
    waitFor([&] { return view.posters()->pending() == 0; }, 60000);
    const double settled = double(clock.nsecsElapsed()) / 1e9;
    const double scrollStall = stalls.longestMs();
    const double scrollBusy = stalls.busiestMs();
    std::printf("scroll: %d px end to end in %d frames, %.2f s (last posters in at %.2f s); "
                "longest main-thread stall %.1f ms (%.1f ms of it busy), longest busy stretch "
                "%.1f ms\n",
                bar->maximum(), frames, scrolled, settled, scrollStall, stalls.longestBusyMs(),
                scrollBusy);

    const double rss = megabytes("VmRSS:");
    const double peak = megabytes("VmHWM:");
    std::printf("memory: resident %.0f MB now, %.0f MB at most\n", rss, peak);
    std::printf("goals: first grid under 1 s: %s; no stall over 50 ms: %s (the main thread's "
                "own work: %s); under 400 MB: %s\n",
                firstGridAt < 1 ? "met" : "NOT met",
                std::max(loadStall, scrollStall) <= 50 ? "met" : "NOT met",
                std::max(loadBusy, scrollBusy) <= 50 ? "met" : "NOT met",
                peak < 400 ? "met" : "NOT met");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    // Neither drawing covers nor timing the grid needs a screen.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() == 4 && args[0] == QLatin1String("generate"))
        return generate(args[1], args[2], args[3].toInt());
    if (args.size() == 2 && args[0] == QLatin1String("grid"))
        return grid(args[1]);
    std::fprintf(stderr, "usage: bench_gui_library generate CLIP DIR COUNT | grid DIR\n");
    return 2;
}
