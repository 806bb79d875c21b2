// The library grid with many movies, driven by gui-library.sh:
//   bench_gui_library generate CLIP DIR COUNT  copies CLIP COUNT times into DIR
//                                              as an iTunes library's "Movies"
//                                              folder, each tagged with a name,
//                                              a genre and a JPEG cover
#include "mp4/mp4.h"

#include <QBuffer>
#include <QColor>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QFont>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>

#include <cstdio>
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

} // namespace

int main(int argc, char** argv) {
    // Drawing covers needs no screen.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() == 4 && args[0] == QLatin1String("generate"))
        return generate(args[1], args[2], args[3].toInt());
    std::fprintf(stderr, "usage: bench_gui_library generate CLIP DIR COUNT\n");
    return 2;
}
