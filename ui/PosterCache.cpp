#include "ui/PosterCache.h"

#include "mp4/mp4.h"

#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QPointer>
#include <QRunnable>

namespace {

bool isMovieFile(const QString& path) {
    const QString suffix = QFileInfo(path).suffix().toLower();
    return suffix == QLatin1String("m4v") || suffix == QLatin1String("mp4") ||
           suffix == QLatin1String("mov");
}

QByteArray coverArt(const QString& path) {
    QByteArray bytes;
    MP4FileHandle file = MP4Read(QFile::encodeName(path).constData());
    if (file == MP4_INVALID_FILE_HANDLE)
        return bytes;
    const MP4Tags* tags = MP4TagsAlloc();
    if (MP4TagsFetchArtwork(tags, file) && tags->artworkCount > 0 && tags->artwork)
        bytes = QByteArray(static_cast<const char*>(tags->artwork[0].data),
                           qsizetype(tags->artwork[0].size));
    MP4TagsFree(tags);
    MP4Close(file);
    return bytes;
}

} // namespace

PosterCache::PosterCache(const QSize& size, QObject* parent) : QObject(parent), m_size(size) {
    // Roughly 60 MB of scaled posters at the grid's size.
    m_cache.setMaxCost(60 * 1024 * 1024);
    m_pool.setMaxThreadCount(qMax(1, QThread::idealThreadCount()));
}

PosterCache::~PosterCache() {
    m_pool.clear();
    m_pool.waitForDone();
}

void PosterCache::forget(const QString& source) {
    m_cache.remove(source);
    m_unreadable.remove(source);
}

QImage PosterCache::load(const QString& source, const QSize& size) {
    QImage image;
    if (isMovieFile(source)) {
        image = QImage::fromData(coverArt(source));
    } else {
        QImageReader reader(source);
        reader.setAutoTransform(true);
        const QSize full = reader.size();
        // Large JPEGs decode several times faster straight to a small size.
        if (full.isValid())
            reader.setScaledSize(full.scaled(size, Qt::KeepAspectRatio));
        image = reader.read();
    }
    if (image.isNull())
        return image;
    if (image.size() != image.size().scaled(size, Qt::KeepAspectRatio))
        image = image.scaled(size, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    return image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

QPixmap PosterCache::poster(const QString& source) {
    if (source.isEmpty() || m_unreadable.contains(source))
        return {};
    if (QPixmap* cached = m_cache.object(source))
        return *cached;
    if (m_pending.contains(source))
        return {};
    m_pending.insert(source);
    const QSize size = m_size;
    QPointer<PosterCache> self(this);
    m_pool.start(
        [self, source, size] {
            const QImage image = load(source, size);
            if (self)
                QMetaObject::invokeMethod(
                    self.data(),
                    [self, source, image] {
                        if (self)
                            self->finished(source, image);
                    },
                    Qt::QueuedConnection);
        },
        ++m_priority);
    return {};
}

void PosterCache::finished(const QString& source, const QImage& image) {
    m_pending.remove(source);
    if (image.isNull()) {
        m_unreadable.insert(source);
    } else {
        auto* pixmap = new QPixmap(QPixmap::fromImage(image));
        m_cache.insert(source, pixmap, int(image.sizeInBytes()));
    }
    emit posterReady(source);
}
