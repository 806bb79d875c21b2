#pragma once

// Movie files to retag: one short H.264/AAC MP4 made with ffmpeg and cached
// in the build tree, copied per test under the name the test needs and tagged
// there with the project's own writer. The movie database is the loopback
// server of the scan tests.

#include "ImageTestSupport.h"
#include "Processes.h"
#include "scan/ScanTestSupport.h"

#include "media/MDI_Movie.h"
#include "metadata/TagNames.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>

namespace retagtest {

// 2 s of 320x180 H.264 with AAC sound, no tags.
inline QString plainMovie() {
    return testsupport::cachedFile(
        QStringLiteral(TARNWICK_BINARY_DIR "/test-media/retag/plain.m4v"), [](const QString& out) {
            return testsupport::ffmpeg(
                testsupport::words("-f lavfi -i testsrc2=size=320x180:rate=25 -f lavfi -i "
                                   "sine=frequency=440 -t 2 -c:v libx264 -preset ultrafast "
                                   "-c:a aac -ac 2 -f mp4") +
                QStringList{out});
        });
}

inline QString tag(const char* name) {
    return QString::fromLatin1(name);
}

// A copy of the plain movie at `dir/name` carrying exactly `tags` and a 48x72
// cover of `cover` when given.
inline QString taggedCopy(const QString& dir, const QString& name,
                          const QMap<QString, QString>& tags, QColor cover = {}) {
    const QString path = dir + u'/' + name;
    EXPECT_TRUE(QFile::copy(plainMovie(), path)) << path.toStdString();
    if (tags.isEmpty() && !cover.isValid())
        return path;
    MDI_Movie writer;
    writer.setOutPath(path);
    writer.getMetadata()->setTagsDict(tags);
    if (cover.isValid())
        writer.setArtworkFromData(imagetest::encoded(imagetest::solid(48, 72, cover), "PNG"));
    writer.writeMetadataToFile(false);
    EXPECT_EQ(writer.status(), 12) << writer.warnings().toStdString();
    return path;
}

inline QByteArray fileHash(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly)
               ? QCryptographicHash::hash(f.readAll(), QCryptographicHash::Sha256)
               : QByteArray();
}

inline QJsonObject probe(const QString& path, const char* entries) {
    const testsupport::RunResult r = testsupport::run(
        QStringLiteral("ffprobe"), {"-v", "error", "-show_entries", entries, "-of", "json", path});
    return QJsonDocument::fromJson(r.out).object();
}

// The container tags as ffprobe reads them (an independent reader).
inline QJsonObject probeTags(const QString& path) {
    return probe(path, "format_tags").value("format").toObject().value("tags").toObject();
}

// The width of the cover ffprobe sees as an attached picture stream; 0 for none.
inline int coverWidth(const QString& path) {
    for (const QJsonValue& s :
         probe(path, "stream=width:stream_disposition=attached_pic").value("streams").toArray()) {
        const QJsonObject o = s.toObject();
        if (o.value("disposition").toObject().value("attached_pic").toInt() == 1)
            return o.value("width").toInt();
    }
    return 0;
}

} // namespace retagtest
