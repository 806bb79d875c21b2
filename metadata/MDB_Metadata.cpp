#include "metadata/MDB_Metadata.h"

#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/TagNames.h"

#include <QStringDecoder>

#include <algorithm>

#ifndef TARNWICK_VERSION
#define TARNWICK_VERSION "0.0.0"
#endif

namespace {

// The bundle name of the application as it signs its files.
constexpr char ApplicationName[] = "Tarnwick";
constexpr char UnnamedSet[] = "Unnamed Set";

namespace ArchiveKey {
constexpr char Version[] = "MP42TagEncodeVersion";
constexpr char SetName[] = "MP42SetName";
constexpr char TagsDict[] = "MP42TagsDict";
constexpr char Artwork[] = "MP42Artwork";
constexpr char MediaKind[] = "MP42MediaKind";
constexpr char ContentRating[] = "MP42ContentRating";
constexpr char HDVideo[] = "MP42HDVideo";
constexpr char Gapless[] = "MP42Gapless";
constexpr char Podcast[] = "MP42Podcast";
} // namespace ArchiveKey
constexpr qint64 ArchiveVersion = 1;

// Groups of the field lists, in the order they are searched and listed.
const QStringList& metadataGroups() {
    static const QStringList groups{
        QString::fromLatin1(SettingsKey::TVMetadataList),
        QString::fromLatin1(SettingsKey::MusicMetadataList),
        QString::fromLatin1(SettingsKey::ExtraMetadataList),
        QString::fromLatin1(SettingsKey::MiscMetadataList),
    };
    return groups;
}

// Settings written by hand may hold "YES" or 1 where a boolean is meant.
bool flagValue(const QVariant& value) {
    if (value.typeId() == QMetaType::QString) {
        const QString s = value.toString().trimmed().toLower();
        return s == QLatin1String("yes") || s == QLatin1String("true") || s.toLongLong() != 0;
    }
    return value.toBool();
}

bool isYes(const QString& value) {
    return value == QLatin1String("YES") || value == QLatin1String("Yes") ||
           value == QLatin1String("yes") || value == QLatin1String("1");
}

// A present tag is never a null string, so getTag() can tell it from an absent one.
QString nonNull(const QString& value) {
    return value.isNull() ? QString(QLatin1String("")) : value;
}

quint8 narrowed(const QVariant& value) {
    return static_cast<quint8>(value.toLongLong());
}

} // namespace

MDB_Metadata::MDB_Metadata() : m_presetName(QString::fromLatin1(UnnamedSet)) {
    initTags();
}

MDB_Metadata::MDB_Metadata(const KeyedArchive& coder) {
    m_presetName = coder.value(QString::fromLatin1(ArchiveKey::SetName)).toString();
    const QVariantMap tags = coder.value(QString::fromLatin1(ArchiveKey::TagsDict)).toMap();
    for (auto it = tags.cbegin(); it != tags.cend(); ++it) {
        // Only text belongs in the tags; anything else in a foreign archive is dropped.
        if (it.value().canConvert<QString>() && it.value().typeId() != QMetaType::QVariantMap &&
            it.value().typeId() != QMetaType::QVariantList)
            m_tagsDict.insert(it.key(), nonNull(it.value().toString()));
    }
    const QByteArray png = coder.value(QString::fromLatin1(ArchiveKey::Artwork)).toByteArray();
    if (!png.isEmpty())
        m_artwork = MDB_Image::fromData(png);
    m_mediaKind = narrowed(coder.value(QString::fromLatin1(ArchiveKey::MediaKind)));
    m_contentRating = narrowed(coder.value(QString::fromLatin1(ArchiveKey::ContentRating)));
    m_hdVideo = narrowed(coder.value(QString::fromLatin1(ArchiveKey::HDVideo)));
    m_gapless = narrowed(coder.value(QString::fromLatin1(ArchiveKey::Gapless)));
    m_podcast = narrowed(coder.value(QString::fromLatin1(ArchiveKey::Podcast)));
}

MDB_Metadata::~MDB_Metadata() = default;

// --- vocabulary --------------------------------------------------------------

const QStringList& MDB_Metadata::availableMetadata() {
    using namespace TagName;
    static const QStringList names = [] {
        QStringList list;
        for (const char* name : {Name,
                                 Artist,
                                 AlbumArtist,
                                 Album,
                                 Grouping,
                                 Composer,
                                 Comments,
                                 Genre,
                                 ReleaseDate,
                                 TrackNumber,
                                 DiskNumber,
                                 Tempo,
                                 TVShow,
                                 TVEpisodeNumber,
                                 TVNetwork,
                                 TVEpisodeID,
                                 TVSeason,
                                 Description,
                                 LongDescription,
                                 SeriesDescription,
                                 Rating,
                                 RatingAnnotation,
                                 Studio,
                                 Cast,
                                 Director,
                                 Codirector,
                                 Producers,
                                 Screenwriters,
                                 Lyrics,
                                 Copyright,
                                 EncodedBy,
                                 Keywords,
                                 Category,
                                 ContentID,
                                 ArtistID,
                                 PlaylistID,
                                 GenreID,
                                 ComposerID,
                                 XID,
                                 ITunesAccount,
                                 SortName,
                                 SortArtist,
                                 SortAlbumArtist,
                                 SortAlbum,
                                 SortComposer,
                                 SortTVShow})
            list.append(QString::fromUtf8(name));
        return list;
    }();
    return names;
}

const QStringList& MDB_Metadata::writableMetadata() {
    using namespace TagName;
    static const QStringList names = [] {
        QStringList list;
        for (const char* name : {Name,
                                 Artist,
                                 AlbumArtist,
                                 Album,
                                 Grouping,
                                 Composer,
                                 Comments,
                                 Genre,
                                 ReleaseDate,
                                 TrackNumber,
                                 DiskNumber,
                                 Tempo,
                                 TVShow,
                                 TVEpisodeNumber,
                                 TVNetwork,
                                 TVEpisodeID,
                                 TVSeason,
                                 Cast,
                                 Director,
                                 Codirector,
                                 Producers,
                                 Screenwriters,
                                 Studio,
                                 Description,
                                 LongDescription,
                                 SeriesDescription,
                                 Rating,
                                 RatingAnnotation,
                                 Lyrics,
                                 Copyright,
                                 EncodedBy,
                                 Keywords,
                                 Category,
                                 ContentID,
                                 XID,
                                 ITunesAccount,
                                 SortName,
                                 SortArtist,
                                 SortAlbumArtist,
                                 SortAlbum,
                                 SortComposer,
                                 SortTVShow})
            list.append(QString::fromUtf8(name));
        return list;
    }();
    return names;
}

const OrderedDictionary<int, QString>& MDB_Metadata::mediaTypes() {
    static const OrderedDictionary<int, QString> types = [] {
        OrderedDictionary<int, QString> d;
        d.insert(0, QStringLiteral("Home Video"));
        d.insert(1, QStringLiteral("Music"));
        d.insert(2, QStringLiteral("Audiobook"));
        d.insert(6, QStringLiteral("Music Video"));
        d.insert(9, QStringLiteral("Movie"));
        d.insert(10, QStringLiteral("TV Show"));
        d.insert(11, QStringLiteral("Booklet"));
        d.insert(14, QStringLiteral("Ringtone"));
        d.insert(21, QStringLiteral("Podcast"));
        d.insert(23, QStringLiteral("iTunes U"));
        return d;
    }();
    return types;
}

const OrderedDictionary<int, QString>& MDB_Metadata::contentRatings() {
    static const OrderedDictionary<int, QString> ratings = [] {
        OrderedDictionary<int, QString> d;
        d.insert(0, QStringLiteral("None"));
        d.insert(2, QStringLiteral("Clean"));
        d.insert(4, QStringLiteral("Explicit"));
        return d;
    }();
    return ratings;
}

// --- tags --------------------------------------------------------------------

void MDB_Metadata::initTags() {
    setContentRatingType(QStringLiteral("None"));
    setTag(QStringLiteral("%1 (%2)").arg(QString::fromLatin1(ApplicationName),
                                         QStringLiteral(TARNWICK_VERSION)),
           QString::fromLatin1(TagName::EncodingTool));
    using namespace TagName;
    for (const char* name : {Name, SortName, ReleaseDate, Description, LongDescription, Rating,
                             ContentID, Genre, Cast, Director, Producers, Screenwriters})
        setTag(QString(QLatin1String("")), QString::fromUtf8(name));
}

void MDB_Metadata::setTagsDict(const QMap<QString, QString>& tags) {
    m_tagsDict.clear();
    for (auto it = tags.cbegin(); it != tags.cend(); ++it)
        m_tagsDict.insert(it.key(), nonNull(it.value()));
}

QString MDB_Metadata::getTag(const QString& key) const {
    return m_tagsDict.value(key);
}

bool MDB_Metadata::setTag(const QString& value, const QString& key) {
    if (key == QLatin1String(TagName::HDVideo)) {
        if (value == QLatin1String("2"))
            m_hdVideo = 2;
        else if (isYes(value))
            m_hdVideo = 1;
        else
            m_hdVideo = 0;
        m_isEdited = true;
        return true;
    }
    if (key == QLatin1String(TagName::Gapless)) {
        m_gapless = isYes(value) ? 1 : 0;
        m_isEdited = true;
        return true;
    }
    // An unknown media kind or rating name changes nothing.
    if (key == QLatin1String(TagName::ContentRating)) {
        const bool known = contentRatings().values().contains(value);
        setContentRatingType(value);
        return known;
    }
    if (key == QLatin1String(TagName::MediaKind)) {
        const bool known = mediaTypes().values().contains(value);
        setMediaType(value);
        return known;
    }
    const auto it = m_tagsDict.constFind(key);
    if (it != m_tagsDict.constEnd() && *it == value)
        return false;
    m_tagsDict.insert(key, nonNull(value));
    m_isEdited = true;
    return true;
}

void MDB_Metadata::deleteTag(const QString& key) {
    m_tagsDict.remove(key);
    m_isEdited = true;
}

void MDB_Metadata::setRatingForCountry(const QString& country, const QString& rating) {
    Q_UNUSED(country);
    m_tagsDict.insert(QString::fromLatin1(TagName::Rating), nonNull(rating));
}

void MDB_Metadata::setMediaType(const QString& name) {
    for (const auto& [code, typeName] : mediaTypes()) {
        if (typeName == name) {
            m_mediaKind = static_cast<quint8>(code);
            m_isEdited = true;
            return;
        }
    }
}

void MDB_Metadata::setContentRatingType(const QString& name) {
    for (const auto& [code, ratingName] : contentRatings()) {
        if (ratingName == name) {
            m_contentRating = static_cast<quint8>(code);
            m_isEdited = true;
            return;
        }
    }
}

QString MDB_Metadata::stringFromArray(const QVariantList& array) {
    QStringList names;
    names.reserve(array.size());
    for (const QVariant& element : array)
        names.append(element.toMap().value(QString::fromLatin1(TagName::PersonName)).toString());
    return names.join(QStringLiteral(", "));
}

QVariantList MDB_Metadata::dictArrayFromString(const QString& string) {
    QVariantList array;
    for (const QString& piece : string.split(QLatin1Char(','))) {
        QVariantMap person;
        person.insert(QString::fromLatin1(TagName::PersonName), nonNull(piece.trimmed()));
        array.append(person);
    }
    return array;
}

QString MDB_Metadata::stringFromMetadata(QByteArrayView bytes) {
    if (bytes.isNull())
        return QString(QLatin1String(""));
    {
        QStringDecoder utf8(QStringDecoder::Utf8, QStringConverter::Flag::Stateless);
        const QString text = utf8(bytes);
        if (!utf8.hasError())
            return nonNull(text);
    }
    // Kept for the documented order, though ASCII text already decodes as UTF-8.
    if (std::all_of(bytes.begin(), bytes.end(), [](char c) { return uchar(c) < 0x80; }))
        return QString::fromLatin1(bytes);
    // The decoder lets a dangling odd byte and lone surrogates pass; neither is text.
    if (bytes.size() % 2 == 0) {
        QStringDecoder utf16(QStringDecoder::Utf16, QStringConverter::Flag::Stateless);
        const QString text = utf16(bytes);
        if (!utf16.hasError() && text.isValidUtf16())
            return nonNull(text);
    }
    return QString(QLatin1String(""));
}

// --- merging and copying -----------------------------------------------------

bool MDB_Metadata::mergeMetadata(const MDB_Metadata& other) {
    for (const QString& key : writableMetadata()) {
        const auto it = other.m_tagsDict.constFind(key);
        if (it != other.m_tagsDict.constEnd())
            m_tagsDict.insert(key, *it);
    }
    if (m_artwork.isNull()) {
        m_artwork = other.m_artwork;
        m_isArtworkEdited = true;
    }
    m_mediaKind = other.m_mediaKind;
    m_isEdited = true;
    return true;
}

bool MDB_Metadata::copyTagsFrom(const MDB_Metadata& other) {
    for (const char* key : {TagName::TMDbID, TagName::TVDbID, TagName::TVDbEID}) {
        const auto it = other.m_tagsDict.constFind(QString::fromLatin1(key));
        if (it != other.m_tagsDict.constEnd())
            m_tagsDict.insert(QString::fromLatin1(key), *it);
    }
    if (&other == this)
        return false;
    for (const QString& key : availableMetadata()) {
        const auto it = other.m_tagsDict.constFind(key);
        if (it != other.m_tagsDict.constEnd())
            m_tagsDict.insert(key, *it);
    }
    return true;
}

void MDB_Metadata::copyNumericFields(const MDB_Metadata& other) {
    m_mediaKind = other.m_mediaKind;
    m_contentRating = other.m_contentRating;
    m_gapless = other.m_gapless;
    m_hdVideo = other.m_hdVideo;
}

void MDB_Metadata::copyMetadata(const MDB_Metadata& other) {
    if (!copyTagsFrom(other))
        return;
    if (m_artwork.isNull()) {
        m_artwork = other.m_artwork;
        m_isArtworkEdited = true;
    }
    copyNumericFields(other);
}

void MDB_Metadata::replaceMetadata(const MDB_Metadata& other) {
    if (!copyTagsFrom(other))
        return;
    // The caller loads fresh artwork for the new movie afterwards.
    m_artwork = MDB_Image();
    m_isArtworkEdited = false;
    m_artworkURL = QUrl();
    m_artworkFullsizeURLs.clear();
    m_artworkThumbURLs.clear();
    m_backdrop = MDB_Image();
    m_backdropFullsizeURLs.clear();
    m_backdropThumbURLs.clear();
    m_backdropURL = QUrl();
    copyNumericFields(other);
}

std::unique_ptr<MDB_Metadata> MDB_Metadata::copyWithZone() const {
    auto copy = std::make_unique<MDB_Metadata>();
    if (!m_presetName.isNull())
        copy->m_presetName = m_presetName;
    copy->mergeMetadata(*this);
    copy->m_contentRating = m_contentRating;
    copy->m_gapless = m_gapless;
    copy->m_hdVideo = m_hdVideo;
    copy->m_podcast = m_podcast;
    return copy;
}

// --- field lists -------------------------------------------------------------

void MDB_Metadata::setMetadataListValue(bool flag, const QString& key) {
    UserDefaults& defaults = UserDefaults::standard();
    for (const QString& group : metadataGroups()) {
        QVariantMap fields = defaults.dictionaryForKey(group);
        if (!fields.contains(key))
            continue;
        fields.insert(key, flag);
        defaults.setObject(fields, group);
        return;
    }
}

OrderedDictionary<QString, bool> MDB_Metadata::orderedMetadataList() {
    UserDefaults& defaults = UserDefaults::standard();
    const QVariantMap groupFlags =
        defaults.dictionaryForKey(QString::fromLatin1(SettingsKey::MetadataList));
    OrderedDictionary<QString, bool> list;
    for (const QString& group : metadataGroups()) {
        if (!flagValue(groupFlags.value(group)))
            continue;
        // QMap keys come sorted by plain string comparison already.
        const QVariantMap fields = defaults.dictionaryForKey(group);
        for (auto it = fields.cbegin(); it != fields.cend(); ++it)
            list.insert(it.key(), flagValue(it.value()));
    }
    return list;
}

// --- archiving ---------------------------------------------------------------

void MDB_Metadata::encodeWithCoder(KeyedArchive& coder) const {
    coder.insert(QString::fromLatin1(ArchiveKey::Version), ArchiveVersion);
    coder.insert(QString::fromLatin1(ArchiveKey::SetName), nonNull(m_presetName));
    QVariantMap tags;
    for (auto it = m_tagsDict.cbegin(); it != m_tagsDict.cend(); ++it)
        tags.insert(it.key(), it.value());
    coder.insert(QString::fromLatin1(ArchiveKey::TagsDict), tags);
    if (!m_artwork.isNull()) {
        // Kept as it is when it cannot be made a PNG: the loader reads it either way.
        const QByteArray png = m_artwork.pngData();
        coder.insert(QString::fromLatin1(ArchiveKey::Artwork),
                     png.isEmpty() ? m_artwork.data() : png);
    }
    coder.insert(QString::fromLatin1(ArchiveKey::MediaKind), qint64(m_mediaKind));
    coder.insert(QString::fromLatin1(ArchiveKey::ContentRating), qint64(m_contentRating));
    coder.insert(QString::fromLatin1(ArchiveKey::HDVideo), qint64(m_hdVideo));
    coder.insert(QString::fromLatin1(ArchiveKey::Gapless), qint64(m_gapless));
    coder.insert(QString::fromLatin1(ArchiveKey::Podcast), qint64(m_podcast));
}

QByteArray MDB_Metadata::archive() const {
    KeyedArchive coder;
    encodeWithCoder(coder);
    QVariantMap dict;
    for (const auto& [key, value] : coder)
        dict.insert(key, value);
    return PropertyList::toXml(dict);
}

std::unique_ptr<MDB_Metadata> MDB_Metadata::unarchive(const QByteArray& bytes, QString* error) {
    QString why;
    const QVariant root = PropertyList::fromData(bytes, &why);
    if (root.typeId() != QMetaType::QVariantMap) {
        if (error)
            *error = why.isEmpty() ? QStringLiteral("The archive is not a dictionary")
                                   : QStringLiteral("The archive is not a property list: ") + why;
        return nullptr;
    }
    const QVariantMap dict = root.toMap();
    if (!dict.contains(QString::fromLatin1(ArchiveKey::Version))) {
        if (error)
            *error = QStringLiteral("The property list is not a metadata archive (no %1)")
                         .arg(QString::fromLatin1(ArchiveKey::Version));
        return nullptr;
    }
    KeyedArchive coder;
    for (auto it = dict.cbegin(); it != dict.cend(); ++it)
        coder.insert(it.key(), it.value());
    return std::make_unique<MDB_Metadata>(coder);
}

bool MDB_Metadata::operator==(const MDB_Metadata& other) const {
    return m_presetName == other.m_presetName && m_tagsDict == other.m_tagsDict &&
           m_mediaKind == other.m_mediaKind && m_contentRating == other.m_contentRating &&
           m_hdVideo == other.m_hdVideo && m_gapless == other.m_gapless &&
           m_podcast == other.m_podcast && m_artwork.hasSamePixels(other.m_artwork);
}
