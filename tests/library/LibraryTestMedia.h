#pragma once

// Movie files for the library tests: copies of one tiny clip, each tagged on
// its own through the MP4 layer.

#include "mp4/Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <cstdint>
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
    MovieTags& setName(const QString& v) {
        name = v;
        return *this;
    }
    MovieTags& setSortName(const QString& v) {
        sortName = v;
        return *this;
    }
    MovieTags& setGenre(const QString& v) {
        genre = v;
        return *this;
    }
    MovieTags& setContentID(uint32_t v) {
        contentID = v;
        return *this;
    }
    MovieTags& setHDVideo(uint8_t v) {
        hdVideo = v;
        return *this;
    }

    QString name;
    QString sortName;
    QString genre;
    std::optional<uint32_t> contentID;
    std::optional<uint8_t> hdVideo;
};

// Writes the tags that are set into an existing MP4 file.
inline bool writeTags(const QString& path, const MovieTags& tags) {
    MP4FileHandle handle = MP4Modify(QFile::encodeName(path).constData());
    if (!handle)
        return false;
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, handle);
    if (!tags.name.isEmpty())
        MP4TagsSetName(t, tags.name.toUtf8().constData());
    if (!tags.sortName.isEmpty())
        MP4TagsSetSortName(t, tags.sortName.toUtf8().constData());
    if (!tags.genre.isEmpty())
        MP4TagsSetGenre(t, tags.genre.toUtf8().constData());
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
    const QString clip = tinyClip();
    if (clip.isEmpty())
        return {};
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile::remove(path);
    if (!QFile::copy(clip, path)) {
        ADD_FAILURE() << "cannot copy the clip to " << path.toStdString();
        return {};
    }
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
    if (!writeTags(path, tags)) {
        ADD_FAILURE() << "cannot tag " << path.toStdString();
        return {};
    }
    return path;
}

// A file with the movie extension that holds no MP4 at all.
inline QString makeJunk(const QString& path) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return {};
    file.write("This is a text file that only looks like a movie by its name.\n");
    return path;
}

} // namespace librarytest
