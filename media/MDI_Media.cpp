#include "media/MDI_Media.h"

#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/MDB_Certifications.h"
#include "metadata/TagNames.h"
#include "presets/MDB_Devices.h"

#include <QFileInfo>

namespace {

bool setting(const char* key) {
    return UserDefaults::standard().boolForKey(QLatin1String(key));
}

// The integer a text starts with (after blanks); 0 when none.
qint64 leadingInteger(const QString& text) {
    qsizetype pos = 0;
    while (pos < text.size() && text.at(pos).isSpace())
        ++pos;
    qsizetype end = pos;
    if (end < text.size() && (text.at(end) == QLatin1Char('-') || text.at(end) == QLatin1Char('+')))
        ++end;
    while (end < text.size() && text.at(end).isDigit())
        ++end;
    return text.mid(pos, end - pos).toLongLong();
}

} // namespace

const char* const MDI_Media::kPassthruVideoArgs =
    "--encoder x264 --encoder-preset ultrafast --encoder-profile high --vb 50 --format mp4 "
    "--width 80 --maxWidth 80";

MDI_Media::MDI_Media() {
    defaultExtraMetadata();
}

MDI_Media::~MDI_Media() = default;

// --- titles -----------------------------------------------------------------

void MDI_Media::AddTitle(std::unique_ptr<Title> title) {
    if (title)
        m_titles.push_back(std::move(title));
}

void MDI_Media::RemoveTitles() {
    m_titles.clear();
}

qint64 MDI_Media::getTitleIndexFromID(qint64 titleID) const {
    for (size_t i = 0; i < m_titles.size(); ++i) {
        if (m_titles[i]->ID() == titleID)
            return qint64(i);
    }
    return -1;
}

Title* MDI_Media::getMainTitle() const {
    if (m_mainTitle < 0 || quint64(m_mainTitle) >= m_titles.size())
        return nullptr;
    return m_titles[size_t(m_mainTitle)].get();
}

qint64 MDI_Media::getMainTitleID() const {
    const Title* title = getMainTitle();
    return title ? title->ID() : 0;
}

void MDI_Media::determineMainTitle() {
    m_mainTitle = 0;
    qint32 longest = 0;
    for (size_t i = 0; i < m_titles.size(); ++i) {
        const qint32 seconds = m_titles[i]->getDuration();
        if (seconds >= longest) {
            longest = seconds;
            m_mainTitle = qint64(i);
        }
    }
}

// --- encode decisions -------------------------------------------------------

void MDI_Media::assignIfHD() {
    const Title* title = getMainTitle();
    if (!title)
        return;
    if (!MDB_Utility::isHD(title->size())) {
        m_createHDSD = false;
        setTag(QStringLiteral("NO"), QLatin1String(TagName::HDVideo));
        return;
    }
    setTag(QStringLiteral("YES"), QLatin1String(TagName::HDVideo));
    if (setting(SettingsKey::HDSD)) {
        m_createdHD = false;
        m_createdSD = false;
        m_createHDSD = true;
    } else {
        m_createHDSD = false;
    }
}

bool MDI_Media::canPassthru() const {
    const Title* title = getMainTitle();
    if (!title)
        return false;

    QString device;
    if (m_createHDSD && m_createdHD && m_createdSD)
        device.clear(); // both versions exist: nothing left to encode
    else if (m_createHDSD && m_createdHD)
        device = m_secondaryDevice;
    else
        device = m_primaryDevice;
    const auto preset = device.isEmpty() ? std::nullopt : MDB_Devices::device(device);

    const QString size = title->size();
    const qsizetype x = size.indexOf(QLatin1Char('x'));
    const qint64 sourceWidth = leadingInteger(x < 0 ? size : size.left(x));
    const qint64 presetWidth =
        preset ? leadingInteger(preset->value(QStringLiteral("width")).toString()) : 0;

    if (title->codec() != QLatin1String("h264") || sourceWidth > presetWidth)
        return false;
    if (m_decomb || m_deblock || m_denoise || m_detelecine || m_searchForeign)
        return false;
    if (!title->isStreaming())
        return false;
    for (const auto& track : title->subtitleTracks()) {
        if (track->burn())
            return false;
    }
    return true;
}

QStringList MDI_Media::getCmdArgs(const QString& preset, bool passThru, const QString& process,
                                  const QString& outPath) {
    const Title* title = getMainTitle();
    const QString video =
        passThru ? QString::fromLatin1(kPassthruVideoArgs)
                 : MDB_Devices::videoCmdArgs(preset, setting(SettingsKey::NativeFramerate),
                                             title ? title->size() : QString());
    m_cmdArgs = video;
    QStringList videoArgs = video.split(QLatin1Char(' '), Qt::KeepEmptyParts);
    MDB_Devices::removeUnsupportedArgs(videoArgs);

    QStringList args{process,
                     QStringLiteral("--input"),
                     m_inPath,
                     QStringLiteral("--output"),
                     outPath,
                     QStringLiteral("--title"),
                     QString::number(getMainTitleID())};
    args += videoArgs;

    QStringList audio = getAudioCmdArgs(preset);
    MDB_Devices::removeUnsupportedArgs(audio);
    args += audio;

    if (const auto subtitles = getSubtitleCmdArgs(preset))
        args += *subtitles;
    args += getFilterCmdArgs();
    return args;
}

QStringList MDI_Media::getAudioCmdArgs(const QString& preset) {
    Title* title = getMainTitle();
    QList<qint64> tracks;
    QStringList names;
    QStringList codecs;
    QList<bool> duplicates;
    if (title) {
        for (const auto& track : title->audioTracks()) {
            if (!track->include())
                continue;
            tracks << track->origIndex();
            names << track->name();
            codecs << track->codec();
            duplicates << false;
        }
    }
    const QStringList args = MDB_Devices::audioCmdArgs(preset, tracks, names, codecs, &duplicates);
    if (title) {
        qsizetype next = 0;
        for (const auto& track : title->audioTracks()) {
            if (track->include()) {
                track->setDuplicate(next < duplicates.size() && duplicates.at(next));
                ++next;
            } else {
                track->setDuplicate(false);
            }
        }
    }
    return args;
}

std::optional<QStringList> MDI_Media::getSubtitleCmdArgs(const QString& preset) const {
    qint64 burn = m_searchForeign ? 0 : -1;
    qint64 native = setting(SettingsKey::DefaultNative) ? 0 : -1;
    QList<qint64> tracks;
    QStringList names;
    if (const Title* title = getMainTitle()) {
        for (const auto& track : title->subtitleTracks()) {
            if (!track->include())
                continue;
            tracks << track->origIndex();
            names << track->name();
            if (track->burn())
                burn = track->origIndex();
            else if (track->native() && native == 0)
                native = track->origIndex();
        }
    }
    if (tracks.isEmpty() && burn != 0)
        return std::nullopt;
    return MDB_Devices::subtitleCmdArgs(preset, tracks, names, burn, native);
}

QStringList MDI_Media::getFilterCmdArgs() const {
    QStringList args;
    if (m_decomb)
        args << QStringLiteral("-5");
    if (m_denoise)
        args << QStringLiteral("-8");
    if (m_detelecine)
        args << QStringLiteral("-9");
    if (m_deblock)
        args << QStringLiteral("-7");
    return args;
}

// --- metadata ---------------------------------------------------------------

MDB_Metadata* MDI_Media::getMetadata() {
    if (!m_metaData)
        m_metaData = std::make_unique<MDB_Metadata>();
    return m_metaData.get();
}

void MDI_Media::copyToQueryMetadata(const MDB_Metadata& record) {
    m_queryMetadata = record.copyWithZone();
}

bool MDI_Media::setTag(const QString& value, const QString& key) {
    return getMetadata()->setTag(value, key);
}

void MDI_Media::deleteTag(const QString& key) {
    getMetadata()->deleteTag(key);
}

QString MDI_Media::getTag(const QString& key) const {
    return m_metaData ? m_metaData->getTag(key) : QString();
}

void MDI_Media::setMediaType(const QString& name) {
    getMetadata()->setMediaType(name);
}

void MDI_Media::setContentRatingType(const QString& name) {
    getMetadata()->setContentRatingType(name);
}

void MDI_Media::setRating(const QString& languageRegion) {
    m_ratingCountry = MDB_Utility::countryCode(languageRegion);
    m_ratingNames = MDB_Certifications::certificationNames(m_ratingCountry);
    m_ratings = MDB_Certifications::certificationCodes(m_ratingCountry);
    const QString current = getTag(QLatin1String(TagName::Rating));
    if (current.isEmpty()) {
        m_ratingCode.clear();
        return;
    }
    const QString translated =
        MDB_Certifications::certificationTranslate(current, m_ratingCountry, false);
    m_ratingCode = translated.isNull() ? current : translated;
    setRatingForCountry(m_ratingCountry, m_ratingCode);
}

void MDI_Media::setRatingForCountry(const QString& country, const QString& rating) {
    getMetadata()->setRatingForCountry(country, rating);
}

void MDI_Media::copyMetadata(MDB_Metadata& record) {
    getMetadata()->copyMetadata(record);
}

void MDI_Media::replaceMetadata(MDB_Metadata& record) {
    getMetadata()->replaceMetadata(record);
}

bool MDI_Media::setArtworkFromIndex(qint64 index) {
    return getMetadata()->setArtworkFromIndex(index);
}

bool MDI_Media::setArtworkFromBundle(const QString& name, const QString& type) {
    return getMetadata()->setArtworkFromBundle(name, type);
}

bool MDI_Media::setArtworkFromPath(const QString& path) {
    return getMetadata()->setArtworkFromPath(path);
}

bool MDI_Media::setArtworkFromURL(const QUrl& url) {
    return getMetadata()->setArtworkFromURL(url);
}

bool MDI_Media::setArtworkFromData(const QByteArray& data) {
    return getMetadata()->setArtworkFromData(data);
}

bool MDI_Media::setBackdropFromURL(const QUrl& url) {
    return getMetadata()->setBackdropFromURL(url);
}

bool MDI_Media::setBackdropFromBundle(const QString& name, const QString& type) {
    return getMetadata()->setBackdropFromBundle(name, type);
}

bool MDI_Media::hasPoster() const {
    return m_metaData && !m_metaData->artwork().isNull();
}

qint64 MDI_Media::numberOfPosters() const {
    return m_metaData ? m_metaData->artworkFullsizeURLs().size() : 0;
}

void MDI_Media::setSearchList(QList<std::shared_ptr<MDB_Metadata>> list) {
    m_searchList = std::move(list);
}

std::shared_ptr<MDB_Metadata> MDI_Media::assignSearchResults(quint64 index) {
    if (index >= quint64(m_searchList.size()))
        return nullptr;
    m_searchIndex = index;
    return m_searchList.at(qsizetype(index));
}

void MDI_Media::replaceNameInOutPath(const QString& name) {
    if (m_outPath.isEmpty() || name.isEmpty())
        return;
    const QFileInfo info(m_outPath);
    const QString suffix = info.suffix();
    QString renamed = name;
    renamed.replace(QLatin1Char('/'), QLatin1Char('-')); // a name must not open a folder
    if (!suffix.isEmpty())
        renamed += QLatin1Char('.') + suffix;
    const QString folder = info.path();
    m_outPath = (folder == QLatin1String(".") && !m_outPath.startsWith(QLatin1String("./")))
                    ? renamed
                    : folder + QLatin1Char('/') + renamed;
}

void MDI_Media::defaultExtraMetadata() {
    m_extraTags = {};
    m_tagStates = {};
    const QVariantMap defaults =
        UserDefaults::standard().dictionaryForKey(QLatin1String(SettingsKey::DefaultMetadataList));
    for (auto it = defaults.cbegin(); it != defaults.cend(); ++it) {
        const bool on = it.value().toBool();
        m_tagStates.insert(it.key(), on);
        if (on)
            m_extraTags.insert(it.key(), QString(QLatin1String("")));
    }
}

void MDI_Media::assignExtraMetadata() {
    for (const auto& [tag, value] : m_extraTags) {
        // An empty extra tag means "not filled in", never "erase".
        if (m_tagStates.value(tag, false) && !value.isEmpty())
            setTag(value, tag);
    }
}

void MDI_Media::extractExtraMetadata() {
    if (!m_metaData)
        return;
    const QList<QString> tags = m_extraTags.keys();
    for (const QString& tag : tags) {
        const QString value = m_metaData->getTag(tag);
        m_extraTags.insert(tag, value.isNull() ? QString(QLatin1String("")) : value);
    }
}
