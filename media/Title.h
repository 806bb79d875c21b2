#pragma once

#include "media/AudioTrack.h"
#include "media/SubtitleTrack.h"

#include <QString>
#include <QtGlobal>

#include <memory>
#include <vector>

// One title of a scanned source with its video description and its ordered
// audio and subtitle tracks. The title owns its tracks; it is move-only, so a
// media item holds its titles by value or through unique_ptr.
//
// Index arguments are positions in the current list order, never `origIndex`.
// An index outside the list reads as an empty value and changes nothing.
// The language settings are read at the moment of each call.
class Title {
public:
    using AudioTrackList = std::vector<std::unique_ptr<AudioTrack>>;
    using SubtitleTrackList = std::vector<std::unique_ptr<SubtitleTrack>>;

    Title() = default;
    Title(const Title&) = delete;
    Title& operator=(const Title&) = delete;
    Title(Title&&) = default;
    Title& operator=(Title&&) = default;

    qint64 ID() const { return m_ID; }
    void setID(qint64 id) { m_ID = id; }
    bool combing() const { return m_combing; }
    void setCombing(bool combing) { m_combing = combing; }
    bool isStreaming() const { return m_isStreaming; }
    void setIsStreaming(bool isStreaming) { m_isStreaming = isStreaming; }
    // The stream's path; a null string when the title is not streaming.
    const QString& stream() const { return m_stream; }
    void setStream(const QString& stream) { m_stream = stream; }
    const QString& duration() const { return m_duration; }
    void setDuration(const QString& duration) { m_duration = duration; }
    const QString& size() const { return m_size; }
    void setSize(const QString& size) { m_size = size; }
    const QString& pixelAspect() const { return m_pixelAspect; }
    void setPixelAspect(const QString& pixelAspect) { m_pixelAspect = pixelAspect; }
    const QString& displayAspect() const { return m_displayAspect; }
    void setDisplayAspect(const QString& displayAspect) { m_displayAspect = displayAspect; }
    const QString& FPS() const { return m_FPS; }
    void setFPS(const QString& fps) { m_FPS = fps; }
    const QString& codec() const { return m_codec; }
    void setCodec(const QString& codec) { m_codec = codec; }

    const AudioTrackList& audioTracks() const { return m_audioTracks; }
    const SubtitleTrackList& subtitleTracks() const { return m_subtitleTracks; }
    // The track at a list position, or nullptr.
    AudioTrack* audioTrack(int index) const;
    SubtitleTrack* subtitleTrack(int index) const;

    // Decide `native` and `include` from the settings, then append. Answer the
    // appended track (nullptr when given none).
    AudioTrack* addAudioTrack(std::unique_ptr<AudioTrack> track);
    SubtitleTrack* addSubtitleTrack(std::unique_ptr<SubtitleTrack> track);

    // Native tracks first (stable) once all tracks are added.
    void arrangeAudioTracks();
    void arrangeSubtitleTracks();

    // The duration in seconds; 0 when the text is not hh:mm:ss.
    qint32 getDuration() const;

    // Audio tracks by position.
    bool audioTrackIncluded(int index) const;
    void includeAudioTrack(bool include, int index);
    QString audioTrackName(int index) const;
    QString audioTrackCodec(int index) const;
    QString audioTrackChannels(int index) const;
    QString audioTrackIsoType(int index) const;
    QString audioTrackIsoName(int index) const;
    int numberAudioTracks() const { return int(m_audioTracks.size()); }
    int numberIncludedAudioTracks() const;
    void renameAudioTrack(const QString& name, int index);
    bool isAudioTrackDuplicated(int index) const;
    // Sets only the code: the displayed audio name is left to renameAudioTrack.
    void setAudioLanguage(int index, const QString& name, const QString& isoName);

    // Subtitle tracks by position.
    QString subtitleTrackName(int index) const;
    QString subtitleTrackIsoType(int index) const;
    QString subtitleTrackIsoName(int index) const;
    void renameSubtitleTrack(const QString& name, int index);
    // "Text" or "Bitmap" (empty for a bad index).
    QString subtitleTrackType(int index) const;
    int numberSubtitleTracks() const { return int(m_subtitleTracks.size()); }
    bool subtitleTrackIncluded(int index) const;
    void includeSubtitleTrack(bool include, int index);
    void setSubtitleLanguage(int index, const QString& name, const QString& isoName);
    bool subtitleBurnState(int index) const;
    // Burning one track clears every other; clearing touches only that track.
    void setSubtitleBurnState(int index, bool state);
    // Moves a track of this title to position 0; a foreign track is ignored.
    void moveSubtitleToFront(const SubtitleTrack* track);

    // Whether a language code is the user's, from "Language Region". `current`
    // is answered for code families other than iso639-1/-2.
    static bool isNativeLanguage(const QString& isoType, const QString& isoName, bool current);

private:
    qint64 m_ID = 0;
    bool m_combing = false;
    bool m_isStreaming = false;
    QString m_stream;
    QString m_duration;
    QString m_size;
    QString m_pixelAspect;
    QString m_displayAspect;
    QString m_FPS;
    QString m_codec;
    AudioTrackList m_audioTracks;
    SubtitleTrackList m_subtitleTracks;
};
