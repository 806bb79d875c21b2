#include "metadata/MDB_Basicdata.h"

#include "metadata/Genres.h"
#include "metadata/MDB_Metadata.h"
#include "mp4/mp4.h"

#include <QFile>
#include <QFileInfo>

#include <cstring>

namespace {

QString fileText(const char* value) {
    return MDB_Metadata::stringFromMetadata(QByteArrayView(value, qsizetype(std::strlen(value))));
}

} // namespace

std::optional<MDB_Basicdata> MDB_Basicdata::readBasicDataFromFile(const QUrl& url) {
    const QString path = url.isLocalFile() ? url.toLocalFile() : url.toString();
    MP4FileHandle handle = MP4Read(QFile::encodeName(path).constData());
    if (!handle)
        return std::nullopt;

    MDB_Basicdata data;
    data.url = url;
    const MP4Tags* tags = MP4TagsAlloc();
    MP4TagsFetchMovieInfo(tags, handle);
    MP4Close(handle);

    const QFileInfo file(path);
    data.name = tags->name ? fileText(tags->name) : file.completeBaseName();
    data.sortName = tags->sortName ? fileText(tags->sortName) : data.name;
    if (tags->genre)
        data.genre = fileText(tags->genre);
    else if (tags->genreType)
        data.genre = MDB_Genres::getGenreFromID(*tags->genreType);
    if (data.genre.isNull())
        data.genre = QStringLiteral("Unknown");
    data.contentID = tags->contentID ? QString::number(int32_t(*tags->contentID)) : file.fileName();
    data.hdVideo = tags->hdVideo ? *tags->hdVideo : 0;
    MP4TagsFree(tags);
    return data;
}
