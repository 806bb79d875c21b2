// Writing an item's tags and track labels into its output file, and reading a
// file's tags back into the item.
#include "media/MDI_Media.h"

#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/TagNames.h"
#include "mp4/mp4.h"

#include <QFile>
#include <QFileInfo>

namespace {

struct FileTrack {
    MP4TrackId id;
    QByteArray type;
};

bool isSubtitle(const QByteArray& type) {
    return type == "subp" || type == "sbtl";
}

void labelTrack(MP4FileHandle handle, MP4TrackId id, const QString& isoName, const QString& name) {
    MP4SetTrackLanguage(handle, id, isoName.toLatin1().constData());
    MP4SetTrackName(handle, id, name.toUtf8().constData());
}

QString audioLabel(MP4FileHandle handle, MP4TrackId id, const AudioTrack& track, bool append) {
    if (!append)
        return track.name();
    return QStringLiteral("%1 (%2 ch)")
        .arg(track.name(), MDB_Utility::getNumAudioChannelsInMP4(handle, id));
}

void labelSubtitles(MP4FileHandle handle, const QList<FileTrack>& tracks, const Title& title) {
    const auto& subtitles = title.subtitleTracks();
    size_t cursor = 0;
    for (const FileTrack& file : tracks) {
        if (!isSubtitle(file.type))
            continue;
        // Burned tracks are part of the picture and have no file track.
        while (cursor < subtitles.size() &&
               !(subtitles[cursor]->include() && !subtitles[cursor]->burn()))
            ++cursor;
        if (cursor >= subtitles.size())
            return;
        labelTrack(handle, file.id, subtitles[cursor]->isoName(), subtitles[cursor]->name());
        ++cursor;
    }
}

void labelAudio(MP4FileHandle handle, const QList<FileTrack>& tracks, const Title& title) {
    const bool append =
        UserDefaults::standard().boolForKey(QLatin1String(SettingsKey::AppendAudio));
    const auto& audio = title.audioTracks();
    size_t cursor = 0;
    for (qsizetype k = 0; k < tracks.size(); ++k) {
        if (tracks[k].type != "soun")
            continue;
        size_t found = cursor;
        while (found < audio.size() && !audio[found]->include())
            ++found;
        if (found >= audio.size())
            continue; // more file tracks than included ones: left as they are
        const AudioTrack& track = *audio[found];
        labelTrack(handle, tracks[k].id, track.isoName(),
                   audioLabel(handle, tracks[k].id, track, append));
        // A track the encoder emitted twice owns the next file track as well.
        if (track.duplicate() && k + 1 < tracks.size()) {
            ++k;
            labelTrack(handle, tracks[k].id, track.isoName(),
                       audioLabel(handle, tracks[k].id, track, append));
        }
        cursor = found + 1;
    }
}

} // namespace

const char* const MDI_Media::kWriteFailed =
    "Unable to write the tags to the movie file! The file was either missing or unable to be "
    "opened.";
const char* const MDI_Media::kWriteNotDone =
    "Unable to write the tags to the movie file! The file was left as it was.";
const char* const MDI_Media::kReadFailed =
    "Unable to access the movie file! The file was missing, unable to be opened, or an "
    "unsupported format.";

namespace {

// The message with the MP4 layer's reason for the last failure, when it gave one.
QString withReason(const char* message) {
    const QString reason = QString::fromUtf8(MP4GetLastError());
    return reason.isEmpty() ? QString::fromLatin1(message)
                            : QStringLiteral("%1 (%2)").arg(QString::fromLatin1(message), reason);
}

} // namespace

void MDI_Media::writeMetadataToFile(bool isTV, bool freshOutput) {
    MP4FileHandle handle = m_outPath.isEmpty()
                               ? MP4_INVALID_FILE_HANDLE
                               : MP4Modify(QFile::encodeName(m_outPath).constData(),
                                           freshOutput ? MP4_MODIFY_FRESH_OUTPUT : 0);
    if (handle == MP4_INVALID_FILE_HANDLE) {
        m_status = 0;
        m_warnings =
            m_outPath.isEmpty() ? QString::fromLatin1(kWriteFailed) : withReason(kWriteFailed);
        m_tagWriteError = m_warnings;
        return;
    }
    m_status = 11;
    assignExtraMetadata();
    QString error;
    const bool written = getMetadata()->writeMetadataToFile(handle, isTV, &error);
    extractExtraMetadata();
    if (!written) {
        // Nothing was changed in the file: close it as it is and say why.
        MP4Close(handle, MP4_CLOSE_DO_NOT_COMPUTE_BITRATE);
        m_status = 0;
        m_warnings = error;
        m_tagWriteError = error;
        return;
    }

    QList<FileTrack> tracks;
    const uint32_t count = MP4GetNumberOfTracks(handle);
    for (uint32_t i = 0; i < count; ++i) {
        const MP4TrackId id = MP4FindTrackId(handle, uint16_t(i));
        const char* type = MP4GetTrackType(handle, id);
        tracks.append({id, QByteArray(type ? type : "")});
    }

    if (const Title* title = getMainTitle(); title && !tracks.isEmpty()) {
        if (title->numberSubtitleTracks() > 0)
            labelSubtitles(handle, tracks, *title);
        if (title->numberAudioTracks() > 0)
            labelAudio(handle, tracks, *title);
    }

    // The tags reach the file only on close; a failed write leaves it as it was.
    if (!MP4Close(handle, MP4_CLOSE_DO_NOT_COMPUTE_BITRATE)) {
        m_status = 0;
        m_warnings = withReason(kWriteNotDone);
        m_tagWriteError = m_warnings;
        return;
    }
    m_tagWriteError.clear();
    m_status = 12;
}

void MDI_Media::readMetadataFromFile(bool isTV) {
    const QString path = m_inPath.isEmpty() ? m_outPath : m_inPath;
    MP4FileHandle handle =
        path.isEmpty() ? MP4_INVALID_FILE_HANDLE : MP4Read(QFile::encodeName(path).constData());
    if (handle == MP4_INVALID_FILE_HANDLE) {
        m_warnings = QString::fromLatin1(kReadFailed);
        return;
    }
    MDB_Metadata* record = getMetadata();
    const bool hasArtwork = record->readMetaDataFromFile(handle, isTV);
    MP4Close(handle);
    // Kept as the item's choice; the file's own rating is not translated.
    m_ratingCode = record->getTag(QLatin1String(TagName::Rating));
    extractExtraMetadata();

    if (!hasArtwork || record->artwork().isNull())
        return;
    bool existed = false;
    const QUrl local = MDB_Utility::copyImageToTemp(record->artwork(),
                                                    QFileInfo(path).completeBaseName(), &existed);
    if (local.isEmpty())
        return;
    QList<QUrl> fullsize = record->artworkFullsizeURLs();
    if (!fullsize.contains(local)) {
        fullsize.prepend(local);
        record->setArtworkFullsizeURLs(fullsize);
    }
    QList<QUrl> thumbs = record->artworkThumbURLs();
    if (!thumbs.contains(local)) {
        thumbs.prepend(local);
        record->setArtworkThumbURLs(thumbs);
    }
    record->setArtworkFromIndex(record->artworkFullsizeURLs().indexOf(local));
}

void MDI_Media::adoptFileTags() {
    auto record = std::make_unique<MDB_Metadata>(MDB_Metadata::KeyedArchive());
    if (MP4FileHandle handle = MP4Read(QFile::encodeName(m_outPath).constData())) {
        record->readMetaDataFromFile(handle, false);
        MP4Close(handle);
    }
    record->setIsArtworkEdited(false);
    setMetaData(std::move(record));
    setExtraTags({});
}
