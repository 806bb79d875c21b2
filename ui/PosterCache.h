#pragma once

#include <QCache>
#include <QImage>
#include <QObject>
#include <QPixmap>
#include <QSet>
#include <QSize>
#include <QString>
#include <QThreadPool>

// Posters for the grids: image files, or the cover art inside a movie file,
// decoded and scaled on worker threads and kept scaled in memory, so a grid
// of thousands of movies scrolls without decoding on the main thread.
class PosterCache : public QObject {
    Q_OBJECT
public:
    explicit PosterCache(const QSize& size, QObject* parent = nullptr);
    ~PosterCache() override;

    // The scaled poster of `source`; null while it loads (posterReady()
    // follows) or when the source has no readable image.
    QPixmap poster(const QString& source);
    QSize posterSize() const { return m_size; }
    // Drops what is kept of `source` (its image changed on disk).
    void forget(const QString& source);
    // Decoding requests still queued or running.
    int pending() const { return int(m_pending.size()); }

    // Decodes and scales one source; runs on any thread.
    static QImage load(const QString& source, const QSize& size);

signals:
    void posterReady(const QString& source);

private:
    void finished(const QString& source, const QImage& image);

    QSize m_size;
    QCache<QString, QPixmap> m_cache;
    QSet<QString> m_pending;
    QSet<QString> m_unreadable;
    QThreadPool m_pool;
    // Rising priorities: the posters asked for last (the ones on screen now)
    // are decoded first when the user scrolls past many quickly.
    int m_priority = 0;
};
