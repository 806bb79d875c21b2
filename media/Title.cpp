#include "media/Title.h"

#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <algorithm>

namespace {

bool setting(const char* key) {
    return UserDefaults::standard().boolForKey(QLatin1String(key));
}

template <typename List> auto* at(const List& list, int index) {
    using Track = typename List::value_type::element_type;
    if (index < 0 || std::size_t(index) >= list.size())
        return static_cast<Track*>(nullptr);
    return list[std::size_t(index)].get();
}

// Native tracks to the front, each group keeping its order.
template <typename List> bool moveNativeToFront(List& list) {
    const bool anyNative =
        std::any_of(list.begin(), list.end(), [](const auto& t) { return t->native(); });
    if (anyNative)
        std::stable_partition(list.begin(), list.end(), [](const auto& t) { return t->native(); });
    return anyNative;
}

// Reads a whole decimal field.
bool readField(const QString& text, qint64* value) {
    bool ok = false;
    *value = text.trimmed().toLongLong(&ok);
    return ok;
}

} // namespace

AudioTrack* Title::audioTrack(int index) const {
    return at(m_audioTracks, index);
}

SubtitleTrack* Title::subtitleTrack(int index) const {
    return at(m_subtitleTracks, index);
}

bool Title::isNativeLanguage(const QString& isoType, const QString& isoName, bool current) {
    const QString user = MDB_Utility::languageCode(
        UserDefaults::standard().stringForKey(QLatin1String(SettingsKey::LanguageRegion)));
    if (isoType == QLatin1String("iso639-1"))
        return user == isoName;
    if (isoType != QLatin1String("iso639-2"))
        return current;
    const auto& threeLetter = MDB_Utility::iso639_2();
    if (!threeLetter.contains(isoName))
        return false;
    const QString language = threeLetter.value(isoName);
    for (const auto& [code, name] : MDB_Utility::iso639_1()) {
        if (name == language)
            return user == code;
    }
    return false;
}

AudioTrack* Title::addAudioTrack(std::unique_ptr<AudioTrack> track) {
    if (!track)
        return nullptr;
    const bool onlyNative = setting(SettingsKey::OnlyNative);
    track->setNative(isNativeLanguage(track->isoType(), track->isoName(), track->native()));
    track->setInclude(!(onlyNative && !track->native()));
    m_audioTracks.push_back(std::move(track));
    return m_audioTracks.back().get();
}

SubtitleTrack* Title::addSubtitleTrack(std::unique_ptr<SubtitleTrack> track) {
    if (!track)
        return nullptr;
    const bool onlyNative = setting(SettingsKey::OnlyNative);
    track->setNative(isNativeLanguage(track->isoType(), track->isoName(), track->native()));
    const bool textOnly = setting(SettingsKey::TextSubtitles);
    const bool none = setting(SettingsKey::NoSubtitles);
    bool include = true;
    if (none)
        include = false;
    else if (textOnly && !track->isText())
        include = false;
    else if (onlyNative && !track->native())
        include = false;
    track->setInclude(include);
    m_subtitleTracks.push_back(std::move(track));
    return m_subtitleTracks.back().get();
}

void Title::arrangeAudioTracks() {
    if (m_audioTracks.empty())
        return;
    // A title never loses its only audio track.
    if (m_audioTracks.size() == 1) {
        m_audioTracks.front()->setInclude(true);
        return;
    }
    if (!setting(SettingsKey::DefaultNative))
        return;
    if (!moveNativeToFront(m_audioTracks))
        m_audioTracks.front()->setInclude(true);
}

void Title::arrangeSubtitleTracks() {
    if (m_subtitleTracks.size() < 2 || !setting(SettingsKey::DefaultNative))
        return;
    moveNativeToFront(m_subtitleTracks);
}

qint32 Title::getDuration() const {
    const QStringList parts = m_duration.split(QLatin1Char(':'));
    qint64 hours = 0, minutes = 0, seconds = 0;
    if (parts.size() < 3 || !readField(parts[0], &hours) || !readField(parts[1], &minutes))
        return 0;
    // Seconds may carry a fraction; only the whole seconds count.
    const QString secondsText = parts[2].trimmed();
    qsizetype digits = 0;
    while (digits < secondsText.size() && secondsText[digits].isDigit())
        ++digits;
    if (digits == 0 || !readField(secondsText.left(digits), &seconds))
        return 0;
    return qint32(hours * 3600 + minutes * 60 + seconds);
}

bool Title::audioTrackIncluded(int index) const {
    const auto* t = audioTrack(index);
    return t && t->include();
}

void Title::includeAudioTrack(bool include, int index) {
    if (auto* t = audioTrack(index))
        t->setInclude(include);
}

QString Title::audioTrackName(int index) const {
    const auto* t = audioTrack(index);
    return t ? t->name() : QString();
}

QString Title::audioTrackCodec(int index) const {
    const auto* t = audioTrack(index);
    return t ? t->codec() : QString();
}

QString Title::audioTrackChannels(int index) const {
    const auto* t = audioTrack(index);
    return t ? t->channels() : QString();
}

QString Title::audioTrackIsoType(int index) const {
    const auto* t = audioTrack(index);
    return t ? t->isoType() : QString();
}

QString Title::audioTrackIsoName(int index) const {
    const auto* t = audioTrack(index);
    return t ? t->isoName() : QString();
}

int Title::numberIncludedAudioTracks() const {
    return int(std::count_if(m_audioTracks.begin(), m_audioTracks.end(),
                             [](const auto& t) { return t->include(); }));
}

void Title::renameAudioTrack(const QString& name, int index) {
    if (auto* t = audioTrack(index))
        t->setName(name);
}

bool Title::isAudioTrackDuplicated(int index) const {
    const auto* t = audioTrack(index);
    return t && t->duplicate();
}

void Title::setAudioLanguage(int index, const QString& name, const QString& isoName) {
    Q_UNUSED(name);
    if (auto* t = audioTrack(index))
        t->setIsoName(isoName);
}

QString Title::subtitleTrackName(int index) const {
    const auto* t = subtitleTrack(index);
    return t ? t->name() : QString();
}

QString Title::subtitleTrackIsoType(int index) const {
    const auto* t = subtitleTrack(index);
    return t ? t->isoType() : QString();
}

QString Title::subtitleTrackIsoName(int index) const {
    const auto* t = subtitleTrack(index);
    return t ? t->isoName() : QString();
}

void Title::renameSubtitleTrack(const QString& name, int index) {
    if (auto* t = subtitleTrack(index))
        t->setName(name);
}

QString Title::subtitleTrackType(int index) const {
    const auto* t = subtitleTrack(index);
    if (!t)
        return {};
    return t->isText() ? QStringLiteral("Text") : QStringLiteral("Bitmap");
}

bool Title::subtitleTrackIncluded(int index) const {
    const auto* t = subtitleTrack(index);
    return t && t->include();
}

void Title::includeSubtitleTrack(bool include, int index) {
    if (auto* t = subtitleTrack(index))
        t->setInclude(include);
}

void Title::setSubtitleLanguage(int index, const QString& name, const QString& isoName) {
    if (auto* t = subtitleTrack(index)) {
        t->setName(name);
        t->setIsoName(isoName);
    }
}

bool Title::subtitleBurnState(int index) const {
    const auto* t = subtitleTrack(index);
    return t && t->burn();
}

void Title::setSubtitleBurnState(int index, bool state) {
    auto* target = subtitleTrack(index);
    if (!target)
        return;
    if (state) {
        for (auto& t : m_subtitleTracks)
            t->setBurn(false);
    }
    target->setBurn(state);
}

void Title::moveSubtitleToFront(const SubtitleTrack* track) {
    const auto it = std::find_if(m_subtitleTracks.begin(), m_subtitleTracks.end(),
                                 [track](const auto& t) { return t.get() == track; });
    if (it != m_subtitleTracks.end())
        std::rotate(m_subtitleTracks.begin(), it, std::next(it));
}
