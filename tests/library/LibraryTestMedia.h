#pragma once

// Movie files for the library tests: copies of one tiny clip, each tagged on
// its own through the MP4 layer.

#include "mp4/Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <optional>

namespace librarytest {

// A fifth of a second of small video: a few kilobytes per copy.
inline QString tinyClip() {
    QStringList args = mp4test::lavfi("testsrc=size=64x48:rate=10:duration=0.2");
    args += {"-c:v", "libx264", "-preset", "ultrafast", "-movflags", "+faststart"};
    return mp4test::ffmpegSample(QStringLiteral("library-tiny.m4v"), args);
}

// The tags a test movie carries; unset ones are left out of the file.
struct MovieTags {
    QString name{}, sortName{}, genre{};
    std::optional<uint32_t> contentID{};
    std::optional<uint8_t> hdVideo{};
};

inline bool writeTags(const QString& path, const MovieTags& tags) {
    MP4FileHandle handle = MP4Modify(QFile::encodeName(path).constData());
    if (!handle)
        return false;
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, handle);
    const auto text = [&](const QString& v, bool (*set)(const MP4Tags*, const char*)) {
        if (!v.isEmpty())
            set(t, v.toUtf8().constData());
    };
    text(tags.name, MP4TagsSetName);
    text(tags.sortName, MP4TagsSetSortName);
    text(tags.genre, MP4TagsSetGenre);
    if (tags.contentID)
        MP4TagsSetContentID(t, &*tags.contentID);
    if (tags.hdVideo)
        MP4TagsSetHDVideo(t, &*tags.hdVideo);
    const bool stored = MP4TagsStore(t, handle);
    MP4TagsFree(t);
    MP4Close(handle);
    return stored;
}

// A copy of the clip at `path` (folders made as needed) carrying `tags`.
inline QString makeMovie(const QString& path, const MovieTags& tags) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile::remove(path);
    const bool copied = QFile::copy(tinyClip(), path) &&
                        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
    if (!copied || !writeTags(path, tags)) {
        ADD_FAILURE() << "cannot make " << path.toStdString();
        return {};
    }
    return path;
}

// A file with the movie extension that holds no MP4 at all.
inline QString makeJunk(const QString& path) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write("only a movie by its name\n") > 0
               ? path
               : QString();
}

} // namespace librarytest
