// Moving a metadata record into and out of the iTunes tags of an open MP4 file.

#include "metadata/MDB_Metadata.h"

#include "core/MDB_Utility.h"
#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/Genres.h"
#include "metadata/MDB_Certifications.h"
#include "metadata/TagNames.h"
#include "mp4/mp4.h"

#include <QFile>
#include <QRegularExpression>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char kITunesMeaning[] = "com.apple.iTunes";
const char kRatingItem[] = "iTunEXTC";
const char kPeopleItem[] = "iTunMOVI";
const char kOwnMeaning[] = "com.oswenna.metadata";
const char kIdentifierItem[] = "MOVI";

// iTunMOVI keys and the tags they come from.
struct PeopleKey {
    const char* plistKey;
    const char* tag;
};
const PeopleKey kPeople[] = {
    {"cast", TagName::Cast},
    {"directors", TagName::Director},
    {"codirectors", TagName::Codirector},
    {"producers", TagName::Producers},
    {"screenwriters", TagName::Screenwriters},
};
const char kStudioKey[] = "studio";

// Leading integer of a string, as the record's numeric tags are typed by hand:
// "12 episodes" is 12, "abc" is 0.
qint64 integerValue(const QString& s) {
    const QByteArray bytes = s.trimmed().toUtf8();
    char* end = nullptr;
    const long long v = std::strtoll(bytes.constData(), &end, 10);
    return end == bytes.constData() ? 0 : qint64(v);
}

class TagWriter {
public:
    TagWriter(const MDB_Metadata& record, const MP4Tags* tags) : m_record(record), m_tags(tags) {}

    // Text: the tag's UTF-8 text, or null (removing the item) when absent.
    void text(bool (*setter)(const MP4Tags*, const char*), const char* key) {
        const QString value = m_record.getTag(QString::fromLatin1(key));
        if (value.isNull()) {
            setter(m_tags, nullptr);
            return;
        }
        const QByteArray utf8 = value.toUtf8();
        setter(m_tags, utf8.constData());
    }

    // "n", "n/m", "n-m", "n m": sscanf's "%u%[/- ]%u", both parts 0 unless read.
    template <typename Pair>
    void pair(bool (*setter)(const MP4Tags*, const Pair*), const char* key) {
        const QString value = m_record.getTag(QString::fromLatin1(key));
        if (value.isNull()) {
            setter(m_tags, nullptr);
            return;
        }
        unsigned number = 0;
        unsigned total = 0;
        std::sscanf(value.toUtf8().constData(), "%u%*[/- ]%u", &number, &total);
        Pair p;
        p.index = uint16_t(number);
        p.total = uint16_t(total);
        setter(m_tags, &p);
    }

    // Integers; absent removes unless `keepWhenAbsent` (the store identifiers,
    // which the program never edits and must not lose).
    template <typename T>
    void number(bool (*setter)(const MP4Tags*, const T*), const char* key,
                bool keepWhenAbsent = false) {
        const QString value = m_record.getTag(QString::fromLatin1(key));
        if (value.isNull()) {
            if (!keepWhenAbsent)
                setter(m_tags, nullptr);
            return;
        }
        const T v = T(integerValue(value));
        setter(m_tags, &v);
    }

    // Flags whose 0 means "leave the item out".
    void flag(bool (*setter)(const MP4Tags*, const uint8_t*), uint8_t value) {
        setter(m_tags, value ? &value : nullptr);
    }

private:
    const MDB_Metadata& m_record;
    const MP4Tags* m_tags;
};

// Cover art is written as one PNG image: the artwork's own bytes when it is
// one, else a conversion made before anything is written.
void writeArtwork(const MDB_Metadata& record, const QByteArray& png, const MP4Tags* tags) {
    if (!record.isArtworkEdited())
        return;
    if (!png.isEmpty()) {
        MP4TagArtwork art;
        art.data = const_cast<char*>(png.constData());
        art.size = uint32_t(png.size());
        art.type = MP4_ART_PNG;
        if (tags->artworkCount > 0)
            MP4TagsSetArtwork(tags, 0, &art);
        else
            MP4TagsAddArtwork(tags, &art);
    } else if (tags->artworkCount > 0) {
        MP4TagsRemoveArtwork(tags, 0);
    }
}

void removeItems(MP4FileHandle handle, const char* meaning, const char* name) {
    MP4ItmfItemList* list = MP4ItmfGetItemsByMeaning(handle, meaning, name);
    if (!list)
        return;
    for (uint32_t i = 0; i < list->size; ++i)
        MP4ItmfRemoveItem(handle, &list->elements[i]);
    MP4ItmfItemListFree(list);
}

char* duplicate(const char* s) {
    const size_t n = std::strlen(s) + 1;
    char* copy = static_cast<char*>(std::malloc(n));
    std::memcpy(copy, s, n);
    return copy;
}

// A freeform item with one UTF-8 value of `size` bytes taken from `value`.
void addItem(MP4FileHandle handle, const char* meaning, const char* name, const QByteArray& value,
             uint32_t size) {
    MP4ItmfItem* item = MP4ItmfItemAlloc("----", 1);
    item->mean = duplicate(meaning);
    item->name = duplicate(name);
    MP4ItmfData& data = item->dataList.elements[0];
    data.typeCode = MP4_ITMF_BT_UTF8;
    data.valueSize = size;
    data.value = static_cast<uint8_t*>(std::malloc(size ? size : 1));
    if (size)
        std::memcpy(data.value, value.constData(), size);
    MP4ItmfAddItem(handle, item);
    MP4ItmfItemFree(item);
}

// Calls `use` with the bytes of every value of every matching item.
template <typename F>
void forEachItemValue(MP4FileHandle handle, const char* meaning, const char* name, F use) {
    MP4ItmfItemList* list = MP4ItmfGetItemsByMeaning(handle, meaning, name);
    if (!list)
        return;
    for (uint32_t i = 0; i < list->size; ++i) {
        const MP4ItmfDataList& values = list->elements[i].dataList;
        for (uint32_t j = 0; j < values.size; ++j) {
            const MP4ItmfData& d = values.elements[j];
            use(QByteArray(reinterpret_cast<const char*>(d.value), d.value ? d.valueSize : 0));
        }
    }
    MP4ItmfItemListFree(list);
}

void writeRating(const MDB_Metadata& record, MP4FileHandle handle) {
    removeItems(handle, kITunesMeaning, kRatingItem);
    const QString rating = record.getTag(TagName::Rating);
    if (rating.isNull())
        return;
    QString value = rating;
    const QString annotation = record.getTag(TagName::RatingAnnotation);
    if (!rating.isEmpty() && !annotation.isEmpty())
        value += annotation;
    const QByteArray utf8 = value.toUtf8();
    // The item's length is kept to one byte's worth: longer values lose
    // everything but the residue.
    addItem(handle, kITunesMeaning, kRatingItem, utf8, uint32_t(utf8.size() % 256));
}

void writePeople(const MDB_Metadata& record, MP4FileHandle handle) {
    QVariantMap people;
    for (const PeopleKey& p : kPeople) {
        const QString value = record.getTag(QString::fromLatin1(p.tag));
        if (!value.isNull())
            people.insert(QString::fromLatin1(p.plistKey),
                          MDB_Metadata::dictArrayFromString(value));
    }
    const QString studio = record.getTag(TagName::Studio);
    if (!studio.isNull())
        people.insert(QString::fromLatin1(kStudioKey), studio);

    removeItems(handle, kITunesMeaning, kPeopleItem);
    if (people.isEmpty())
        return;
    const QByteArray xml = PropertyList::toXml(people);
    addItem(handle, kITunesMeaning, kPeopleItem, xml, uint32_t(xml.size()));
}

void writeIdentifiers(const MDB_Metadata& record, MP4FileHandle handle, bool isTV) {
    removeItems(handle, kOwnMeaning, kIdentifierItem);
    const QString mainKey = QString::fromLatin1(isTV ? TagName::TVDbID : TagName::TMDbID);
    const QString main = record.getTag(mainKey);
    const QString imdb = record.getTag(TagName::IMDbID);
    if (main.isNull() && imdb.isNull())
        return;

    QVariantMap ids;
    if (!main.isNull()) {
        ids.insert(mainKey, MDB_Metadata::dictArrayFromString(main));
        // Stored from the series identifier, not from the episode's: files
        // written so far carry it this way, and readers expect it.
        if (isTV && !record.getTag(TagName::TVDbEID).isNull())
            ids.insert(TagName::TVDbEID, MDB_Metadata::dictArrayFromString(main));
    }
    if (!imdb.isNull())
        ids.insert(TagName::IMDbID, MDB_Metadata::dictArrayFromString(imdb));
    const QByteArray xml = PropertyList::toXml(ids);
    addItem(handle, kOwnMeaning, kIdentifierItem, xml, uint32_t(xml.size()));
}

QString fileText(const char* value) {
    return MDB_Metadata::stringFromMetadata(QByteArrayView(value, qsizetype(std::strlen(value))));
}

MDB_Image imageFromArtwork(const MP4TagArtwork& art) {
    if (!art.data || !art.size)
        return {};
    // A deep copy: the image outlives the tags it is read from.
    return MDB_Image::fromData(QByteArray(static_cast<const char*>(art.data), qsizetype(art.size)));
}

QByteArray localPath(const QUrl& url) {
    return QFile::encodeName(url.isLocalFile() ? url.toLocalFile() : url.toString());
}

} // namespace

QString MDB_Metadata::getGenreFromID(int genreID) {
    return MDB_Genres::getGenreFromID(genreID);
}

bool MDB_Metadata::writeMetadataToFile(MP4FileHandle handle, bool isTV, QString* error) const {
    if (!handle) {
        if (error)
            *error = QStringLiteral("no file to write the tags to");
        return false;
    }
    QByteArray png;
    if (m_isArtworkEdited && !m_artwork.isNull()) {
        QString why;
        png = m_artwork.pngData(&why);
        if (png.isEmpty()) {
            const QString message =
                QStringLiteral("The cover art cannot be written as PNG: %1; no tags were written.")
                    .arg(why);
            if (error)
                *error = message;
            else
                qWarning("Tarnwick: %s", qPrintable(message));
            return false;
        }
    }
    const MP4Tags* tags = MP4TagsAlloc();
    // Fetched first so that items this record does not know survive the store.
    MP4TagsFetch(tags, handle);

    TagWriter w(*this, tags);
    w.text(MP4TagsSetName, TagName::Name);
    w.text(MP4TagsSetArtist, TagName::Artist);
    w.text(MP4TagsSetAlbumArtist, TagName::AlbumArtist);
    w.text(MP4TagsSetAlbum, TagName::Album);
    w.text(MP4TagsSetGrouping, TagName::Grouping);
    w.text(MP4TagsSetComposer, TagName::Composer);
    w.text(MP4TagsSetComments, TagName::Comments);
    // Only the text genre is written; a numeric one would shadow it in some
    // players.
    MP4TagsSetGenreType(tags, nullptr);
    w.text(MP4TagsSetGenre, TagName::Genre);
    w.text(MP4TagsSetReleaseDate, TagName::ReleaseDate);
    w.pair(MP4TagsSetTrack, TagName::TrackNumber);
    w.pair(MP4TagsSetDisk, TagName::DiskNumber);
    w.number(MP4TagsSetTempo, TagName::Tempo);
    w.text(MP4TagsSetTVShow, TagName::TVShow);
    w.text(MP4TagsSetTVNetwork, TagName::TVNetwork);
    w.text(MP4TagsSetTVEpisodeID, TagName::TVEpisodeID);
    w.number(MP4TagsSetTVSeason, TagName::TVSeason);
    w.number(MP4TagsSetTVEpisode, TagName::TVEpisodeNumber);
    w.text(MP4TagsSetDescription, TagName::Description);
    w.text(MP4TagsSetLongDescription, TagName::LongDescription);
    w.text(MP4TagsSetSeriesDescription, TagName::SeriesDescription);
    w.text(MP4TagsSetLyrics, TagName::Lyrics);
    w.text(MP4TagsSetCopyright, TagName::Copyright);
    w.text(MP4TagsSetEncodingTool, TagName::EncodingTool);
    w.text(MP4TagsSetEncodedBy, TagName::EncodedBy);
    w.text(MP4TagsSetITunesAccount, TagName::ITunesAccount);
    w.flag(MP4TagsSetMediaType, m_mediaKind);
    w.flag(MP4TagsSetHDVideo, m_hdVideo);
    w.flag(MP4TagsSetGapless, m_gapless);
    w.flag(MP4TagsSetPodcast, m_podcast);
    w.text(MP4TagsSetKeywords, TagName::Keywords);
    w.text(MP4TagsSetCategory, TagName::Category);
    // "None" (0) is a statement of its own, unlike the flags above.
    MP4TagsSetContentRating(tags, &m_contentRating);
    w.number(MP4TagsSetContentID, TagName::ContentID);
    w.number(MP4TagsSetPlaylistID, TagName::PlaylistID, true);
    w.number(MP4TagsSetComposerID, TagName::ComposerID, true);
    w.number(MP4TagsSetArtistID, TagName::ArtistID, true);
    w.number(MP4TagsSetGenreID, TagName::GenreID, true);
    w.text(MP4TagsSetXID, TagName::XID);
    w.text(MP4TagsSetSortName, TagName::SortName);
    w.text(MP4TagsSetSortArtist, TagName::SortArtist);
    w.text(MP4TagsSetSortAlbumArtist, TagName::SortAlbumArtist);
    w.text(MP4TagsSetSortAlbum, TagName::SortAlbum);
    w.text(MP4TagsSetSortComposer, TagName::SortComposer);
    w.text(MP4TagsSetSortTVShow, TagName::SortTVShow);

    writeArtwork(*this, png, tags);
    MP4TagsStore(tags, handle);
    MP4TagsFree(tags);

    writeRating(*this, handle);
    writePeople(*this, handle);
    writeIdentifiers(*this, handle, isTV);
    return true;
}

bool MDB_Metadata::readMetaDataFromFile(MP4FileHandle handle, bool isTV) {
    if (!handle)
        return false;
    QMap<QString, QString> tagsRead = m_tagsDict;
    auto text = [&](const char* value, const char* key) {
        if (value)
            tagsRead.insert(QString::fromLatin1(key), fileText(value));
    };
    auto number = [&](auto value, const char* key) {
        if (value)
            tagsRead.insert(QString::fromLatin1(key), QString::number(*value));
    };
    // "%d": 32-bit identifiers read back as signed, as they always have been.
    auto signedNumber = [&](const uint32_t* value, const char* key) {
        if (value)
            tagsRead.insert(QString::fromLatin1(key), QString::number(int32_t(*value)));
    };
    auto pair = [&](const auto* value, const char* key) {
        if (value)
            tagsRead.insert(QString::fromLatin1(key),
                            QStringLiteral("%1/%2").arg(int(value->index)).arg(int(value->total)));
    };

    const MP4Tags* tags = MP4TagsAlloc();
    MP4TagsFetch(tags, handle);

    text(tags->name, TagName::Name);
    text(tags->artist, TagName::Artist);
    text(tags->albumArtist, TagName::AlbumArtist);
    text(tags->album, TagName::Album);
    text(tags->grouping, TagName::Grouping);
    text(tags->composer, TagName::Composer);
    text(tags->comments, TagName::Comments);
    if (tags->genre) {
        text(tags->genre, TagName::Genre);
    } else if (tags->genreType) {
        const QString name = getGenreFromID(*tags->genreType);
        if (!name.isNull())
            tagsRead.insert(TagName::Genre, name);
    }
    text(tags->releaseDate, TagName::ReleaseDate);
    pair(tags->track, TagName::TrackNumber);
    pair(tags->disk, TagName::DiskNumber);
    number(tags->tempo, TagName::Tempo);
    text(tags->tvShow, TagName::TVShow);
    text(tags->tvNetwork, TagName::TVNetwork);
    text(tags->tvEpisodeID, TagName::TVEpisodeID);
    signedNumber(tags->tvSeason, TagName::TVSeason);
    signedNumber(tags->tvEpisode, TagName::TVEpisodeNumber);
    text(tags->description, TagName::Description);
    text(tags->longDescription, TagName::LongDescription);
    text(tags->seriesDescription, TagName::SeriesDescription);
    text(tags->lyrics, TagName::Lyrics);
    text(tags->copyright, TagName::Copyright);
    text(tags->encodingTool, TagName::EncodingTool);
    text(tags->encodedBy, TagName::EncodedBy);
    text(tags->iTunesAccount, TagName::ITunesAccount);
    text(tags->keywords, TagName::Keywords);
    text(tags->category, TagName::Category);
    signedNumber(tags->contentID, TagName::ContentID);
    number(tags->playlistID, TagName::PlaylistID);
    signedNumber(tags->composerID, TagName::ComposerID);
    signedNumber(tags->artistID, TagName::ArtistID);
    signedNumber(tags->genreID, TagName::GenreID);
    text(tags->xid, TagName::XID);
    text(tags->sortName, TagName::SortName);
    text(tags->sortArtist, TagName::SortArtist);
    text(tags->sortAlbumArtist, TagName::SortAlbumArtist);
    text(tags->sortAlbum, TagName::SortAlbum);
    text(tags->sortComposer, TagName::SortComposer);
    text(tags->sortTVShow, TagName::SortTVShow);
    text(tags->purchaseDate, TagName::PurchaseDate);
    if (tags->mediaType)
        m_mediaKind = *tags->mediaType;
    if (tags->hdVideo)
        m_hdVideo = *tags->hdVideo;
    if (tags->gapless)
        m_gapless = *tags->gapless;
    if (tags->podcast)
        m_podcast = *tags->podcast;
    if (tags->contentRating)
        m_contentRating = *tags->contentRating;

    const bool hasArtwork = tags->artworkCount > 0 && tags->artwork;
    if (hasArtwork) {
        const MDB_Image image = imageFromArtwork(tags->artwork[0]);
        if (!image.isNull())
            m_artwork = image;
    }
    MP4TagsFree(tags);

    const QString country = MDB_Utility::countryCode(
        UserDefaults::standard().stringForKey(SettingsKey::LanguageRegion));
    forEachItemValue(handle, kITunesMeaning, kRatingItem, [&](const QByteArray& bytes) {
        static const QRegularExpression separators(QStringLiteral("[\\\\|]"));
        const QStringList pieces = QString::fromUtf8(bytes).split(separators);
        if (pieces.size() >= 3) {
            const QString code = MDB_Certifications::makeCode(pieces[0], pieces[1], pieces[2]);
            const QString translated =
                MDB_Certifications::certificationTranslate(code, country, isTV);
            // A country without a table keeps the file's own rating.
            tagsRead.insert(TagName::Rating, translated.isNull() ? code : translated);
        }
        if (pieces.size() >= 4 && !pieces[3].isEmpty())
            tagsRead.insert(TagName::RatingAnnotation, pieces[3]);
    });

    forEachItemValue(handle, kITunesMeaning, kPeopleItem, [&](const QByteArray& bytes) {
        const QVariantMap people = PropertyList::fromData(bytes).toMap();
        for (const PeopleKey& p : kPeople) {
            const QString names = stringFromArray(people.value(p.plistKey).toList());
            if (!names.isEmpty())
                tagsRead.insert(QString::fromLatin1(p.tag), names);
        }
        const QVariant studio = people.value(kStudioKey);
        if (studio.typeId() == QMetaType::QString && !studio.toString().isEmpty())
            tagsRead.insert(TagName::Studio, studio.toString());
    });

    forEachItemValue(handle, kOwnMeaning, kIdentifierItem, [&](const QByteArray& bytes) {
        const QVariantMap ids = PropertyList::fromData(bytes).toMap();
        const QStringList keys = isTV ? QStringList{TagName::TVDbID, TagName::TVDbEID}
                                      : QStringList{TagName::TMDbID, TagName::TMDbEID};
        for (const QString& key : keys + QStringList{TagName::IMDbID}) {
            const QString value = stringFromArray(ids.value(key).toList());
            if (!value.isEmpty())
                tagsRead.insert(key, value);
        }
    });

    m_tagsDict = tagsRead;
    return hasArtwork;
}

MDB_Image MDB_Metadata::readImageFromFile(const QUrl& url) {
    MP4FileHandle handle = MP4Read(localPath(url).constData());
    if (!handle)
        return {};
    MDB_Image image;
    const MP4Tags* tags = MP4TagsAlloc();
    if (MP4TagsFetchArtwork(tags, handle) && tags->artworkCount > 0 && tags->artwork)
        image = imageFromArtwork(tags->artwork[0]);
    MP4TagsFree(tags);
    MP4Close(handle);
    return image;
}
