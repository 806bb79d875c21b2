#pragma once

// Movie files to retag: one short H.264/AAC MP4 made with ffmpeg and cached
// in the build tree, copied per test under the name the test needs (the tests
// write into their copies) and tagged there with the project's own writer.
// The movie database is the loopback server of the scan tests.

#include "Processes.h"
#include "scan/ScanTestSupport.h"

#include "Processes.h"

#include "media/MDI_Movie.h"
#include "metadata/TagNames.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QRegularExpression>

namespace retagtest {

// 2 s of 320x180 H.264 with AAC sound, no tags.
inline QString plainMovie() {
    return testsupport::cachedFile(
        QStringLiteral(TARNWICK_BINARY_DIR "/test-media/retag/plain.m4v"), [](const QString& out) {
            return testsupport::ffmpeg(
                QString("-f lavfi -i testsrc2=size=320x180:rate=25 -f lavfi -i sine=frequency=440 "
                        "-t 2 -c:v libx264 -preset ultrafast -c:a aac -ac 2 -f mp4")
                    .split(u' ') +
                QStringList{out});
        });
}

inline QString tag(const char* name) {
    return QString::fromLatin1(name);
}

// A copy of the plain movie at `dir/name`, carrying exactly `tags` (and the
// cover when given), written by the media item's own file tagging.
inline QString taggedCopy(const QString& dir, const QString& name,
                          const QMap<QString, QString>& tags, const QImage& cover = {}) {
    const QString source = plainMovie();
    const QString path = dir + u'/' + name;
    if (source.isEmpty() || !QFile::copy(source, path)) {
        ADD_FAILURE() << "cannot copy the sample to " << path.toStdString();
        return {};
    }
    if (tags.isEmpty() && cover.isNull())
        return path;
    MDI_Movie writer;
    writer.setOutPath(path);
    writer.getMetadata()->setTagsDict(tags);
    if (!cover.isNull()) {
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        cover.save(&buffer, "PNG");
        writer.setArtworkFromData(png);
    }
    writer.writeMetadataToFile(false);
    EXPECT_EQ(writer.status(), 12) << writer.warnings().toStdString();
    return path;
}

inline QImage solidCover(QColor color) {
    QImage image(48, 72, QImage::Format_RGB32);
    image.fill(color);
    return image;
}

inline QByteArray fileHash(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QCryptographicHash::hash(f.readAll(), QCryptographicHash::Sha256);
}

// The container tags as ffprobe reads them (an independent reader).
inline QJsonObject probeTags(const QString& path) {
    const testsupport::RunResult r =
        testsupport::run(QStringLiteral("ffprobe"),
                         {"-v", "error", "-show_entries", "format_tags", "-of", "json", path});
    return QJsonDocument::fromJson(r.out)
        .object()
        .value("format")
        .toObject()
        .value("tags")
        .toObject();
}

// The width of the cover ffprobe sees as an attached picture stream; 0 for none.
inline int coverWidth(const QString& path) {
    const testsupport::RunResult r =
        testsupport::run(QStringLiteral("ffprobe"),
                         {"-v", "error", "-show_entries",
                          "stream=width:stream_disposition=attached_pic", "-of", "json", path});
    for (const QJsonValue& s : QJsonDocument::fromJson(r.out).object().value("streams").toArray()) {
        const QJsonObject o = s.toObject();
        if (o.value("disposition").toObject().value("attached_pic").toInt() == 1)
            return o.value("width").toInt();
    }
    return 0;
}

inline bool probeHasCover(const QString& path) {
    return coverWidth(path) > 0;
}

// The tags AtomicParsley reads, as "NAME: value" for its "Atom "NAME" contains: value" lines.
inline QMap<QString, QString> atomicParsleyTags(const QString& path) {
    const testsupport::RunResult r =
        testsupport::run(QStringLiteral("AtomicParsley"), {path, "-t"}, 30000);
    QMap<QString, QString> tags;
    for (const QString& line : QString::fromUtf8(r.out).split(u'\n')) {
        static const QRegularExpression atom(QStringLiteral("^Atom \"(.+)\" contains: (.*)$"));
        const QRegularExpressionMatch m = atom.match(line.trimmed());
        if (m.hasMatch())
            tags.insert(m.captured(1), m.captured(2));
    }
    return tags;
}

} // namespace retagtest
