#pragma once

#include "core/MDB_Image.h"
#include "core/OrderedDictionary.h"
#include "mp4/mp4.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariant>

#include <limits>
#include <memory>

// One movie's iTunes metadata: text tags keyed by the names of TagNames.h,
// cover artwork and backdrop with their candidate addresses, the numeric
// fields iTunes keeps outside the text tags, and informational values from the
// movie database that are shown but never written to a file.
//
// Records are plain values without a QObject, owned by one media item at a time
// and handed between threads by pointer; nothing inside locks. Copying is
// explicit: the copy constructor is deleted and copyWithZone() makes the one
// kind of copy the program uses.
class MDB_Metadata {
public:
    // A keyed archive in the order its keys were encoded.
    using KeyedArchive = OrderedDictionary<QString, QVariant>;

    // getArtworkIndexFromURL() for an address that is not in the list.
    static constexpr qint64 NotFound = std::numeric_limits<qint64>::max();

    // A new record: "Unnamed Set", no source, and the tags of initTags(). As
    // initTags() goes through setTag(), a new record counts as edited.
    MDB_Metadata();
    // Decodes an archive made by encodeWithCoder(). Starts from a bare record
    // (initTags() does not run, both edited flags are false, no chosen poster).
    explicit MDB_Metadata(const KeyedArchive& coder);
    virtual ~MDB_Metadata();

    MDB_Metadata(const MDB_Metadata&) = delete;
    MDB_Metadata& operator=(const MDB_Metadata&) = delete;
    MDB_Metadata(MDB_Metadata&&) = default;
    MDB_Metadata& operator=(MDB_Metadata&&) = default;

    // --- the tag vocabulary ------------------------------------------------
    // Every tag name, in display and copy order.
    static const QStringList& availableMetadata();
    // The names a user edits and merges carry over, in that order.
    static const QStringList& writableMetadata();
    // iTunes media kinds, code → name, in menu order.
    static const OrderedDictionary<int, QString>& mediaTypes();
    // iTunes content advisories, code → name.
    static const OrderedDictionary<int, QString>& contentRatings();

    // --- tags --------------------------------------------------------------
    void initTags();
    // The tag's value; a null string when the tag is absent (a present empty
    // tag is an empty, non-null string).
    QString getTag(const QString& key) const;
    // Stores a tag, or for "HD Video", "Gapless", "Content Rating" and
    // "Media Kind" sets the numeric field instead. Answers false when an
    // ordinary tag already holds the value (the edited flag is then left alone)
    // or the media kind or rating name is unknown. A null value of an ordinary
    // tag is stored as the empty string.
    bool setTag(const QString& value, const QString& key);
    void deleteTag(const QString& key);
    // Stores the rating only: the caller keeps the country under
    // "Language Region", and the edited flag is left alone.
    void setRatingForCountry(const QString& country, const QString& rating);
    void setMediaType(const QString& name);
    void setContentRatingType(const QString& name);

    // People lists as kept in files: [{"name": person}, ...] ↔ "A, B, C".
    static QString stringFromArray(const QVariantList& array);
    static QVariantList dictArrayFromString(const QString& string);
    // A text value read from a file: UTF-8, else ASCII, else UTF-16, else "".
    static QString stringFromMetadata(QByteArrayView bytes);

    // --- merging and copying -----------------------------------------------
    bool mergeMetadata(const MDB_Metadata& other);
    void copyMetadata(const MDB_Metadata& other);
    void replaceMetadata(const MDB_Metadata& other);
    // Always a plain MDB_Metadata, also for a subclass.
    std::unique_ptr<MDB_Metadata> copyWithZone() const;

    // --- artwork and backdrop ----------------------------------------------
    // Each loader answers false and leaves the record unchanged when the image
    // cannot be loaded; an empty argument clears the image instead.
    bool setArtworkFromBundle(const QString& name, const QString& type);
    bool setArtworkFromPath(const QString& path);
    bool setArtworkFromData(const QByteArray& data);
    bool setArtworkFromURL(const QUrl& url);
    bool setArtworkFromIndex(qint64 index);
    // The same with the image already fetched (see fetchImage).
    bool setArtworkFromIndex(qint64 index, const MDB_Image& fetched);
    void copyArtwork(const MDB_Metadata& other);
    qint64 getArtworkIndex() const { return m_artworkIndex; }
    QUrl getArtworkURL() const;
    qint64 getArtworkIndexFromURL(const QUrl& url) const;

    bool setBackdropFromBundle(const QString& name, const QString& type);
    bool setBackdropFromPath(const QString& path);
    bool setBackdropFromURL(const QUrl& url);
    bool setBackdropFromURL(const QUrl& url, const MDB_Image& fetched);
    // An image over the network (or from a file URL); none on failure. Safe
    // on any thread, so callers on the main thread can fetch elsewhere.
    static MDB_Image fetchImage(const QUrl& url);

    // --- field lists of the settings ---------------------------------------
    // Sets a tag's display flag in the first group dictionary holding the tag.
    static void setMetadataListValue(bool flag, const QString& key);
    // The tags of every switched-on group, group by group, each sorted by name.
    static OrderedDictionary<QString, bool> orderedMetadataList();

    // --- tag IO (MDB_MetadataIO.cpp) ----------------------------------------
    // Writes the record into the tags of a file opened with MP4Modify(). False,
    // with nothing written and the reason in `error`, without a handle or when
    // cover art to be written cannot be made a PNG.
    bool writeMetadataToFile(MP4FileHandle handle, bool isTV, QString* error = nullptr) const;
    // Reads the file's tags into the record; true when the file has cover art.
    bool readMetaDataFromFile(MP4FileHandle handle, bool isTV);
    // The first cover art of a file; a null image when there is none.
    static MDB_Image readImageFromFile(const QUrl& url);
    // The name of a numeric iTunes genre; null for an unknown code.
    static QString getGenreFromID(int genreID);

    // --- archiving ---------------------------------------------------------
    void encodeWithCoder(KeyedArchive& coder) const;
    // The archive as an XML property list (a dictionary; plists keep no key order).
    QByteArray archive() const;
    // A record from archive(); null when the bytes are not such an archive.
    static std::unique_ptr<MDB_Metadata> unarchive(const QByteArray& bytes,
                                                   QString* error = nullptr);

    // Same tags, preset name, numeric fields and artwork pixels (decoded only
    // when the artwork bytes differ).
    bool operator==(const MDB_Metadata& other) const;

    // --- fields ------------------------------------------------------------
    const QString& presetName() const { return m_presetName; }
    void setPresetName(const QString& name) { m_presetName = name; }
    const QString& sourcePath() const { return m_sourcePath; }
    void setSourcePath(const QString& path) { m_sourcePath = path; }
    const QMap<QString, QString>& tagsDict() const { return m_tagsDict; }
    void setTagsDict(const QMap<QString, QString>& tags);

    const MDB_Image& artwork() const { return m_artwork; }
    void setArtwork(const MDB_Image& image) { m_artwork = image; }
    const QUrl& artworkURL() const { return m_artworkURL; }
    void setArtworkURL(const QUrl& url) { m_artworkURL = url; }
    qint64 artworkIndex() const { return m_artworkIndex; }
    void setArtworkIndex(qint64 index) { m_artworkIndex = index; }
    const QList<QUrl>& artworkThumbURLs() const { return m_artworkThumbURLs; }
    void setArtworkThumbURLs(const QList<QUrl>& urls) { m_artworkThumbURLs = urls; }
    const QList<QUrl>& artworkFullsizeURLs() const { return m_artworkFullsizeURLs; }
    void setArtworkFullsizeURLs(const QList<QUrl>& urls) { m_artworkFullsizeURLs = urls; }

    const MDB_Image& backdrop() const { return m_backdrop; }
    void setBackdrop(const MDB_Image& image) { m_backdrop = image; }
    const QUrl& backdropURL() const { return m_backdropURL; }
    void setBackdropURL(const QUrl& url) { m_backdropURL = url; }
    const QList<QUrl>& backdropThumbURLs() const { return m_backdropThumbURLs; }
    void setBackdropThumbURLs(const QList<QUrl>& urls) { m_backdropThumbURLs = urls; }
    const QList<QUrl>& backdropFullsizeURLs() const { return m_backdropFullsizeURLs; }
    void setBackdropFullsizeURLs(const QList<QUrl>& urls) { m_backdropFullsizeURLs = urls; }

    quint8 mediaKind() const { return m_mediaKind; }
    void setMediaKind(quint8 kind) { m_mediaKind = kind; }
    quint8 contentRating() const { return m_contentRating; }
    void setContentRating(quint8 rating) { m_contentRating = rating; }
    quint8 hdVideo() const { return m_hdVideo; }
    void setHdVideo(quint8 hd) { m_hdVideo = hd; }
    quint8 gapless() const { return m_gapless; }
    void setGapless(quint8 gapless) { m_gapless = gapless; }
    quint8 podcast() const { return m_podcast; }
    void setPodcast(quint8 podcast) { m_podcast = podcast; }

    const QVariant& tagLine() const { return m_tagLine; }
    void setTagLine(const QVariant& value) { m_tagLine = value; }
    const QVariant& homepage() const { return m_homepage; }
    void setHomepage(const QVariant& value) { m_homepage = value; }
    const QVariant& trailer() const { return m_trailer; }
    void setTrailer(const QVariant& value) { m_trailer = value; }
    const QVariant& tmdb() const { return m_tmdb; }
    void setTmdb(const QVariant& value) { m_tmdb = value; }
    const QVariant& imdb() const { return m_imdb; }
    void setImdb(const QVariant& value) { m_imdb = value; }
    const QVariant& budget() const { return m_budget; }
    void setBudget(const QVariant& value) { m_budget = value; }
    const QVariant& revenue() const { return m_revenue; }
    void setRevenue(const QVariant& value) { m_revenue = value; }
    const QVariant& rating() const { return m_rating; }
    void setRating(const QVariant& value) { m_rating = value; }
    const QVariant& votes() const { return m_votes; }
    void setVotes(const QVariant& value) { m_votes = value; }

    bool isEdited() const { return m_isEdited; }
    void setIsEdited(bool edited) { m_isEdited = edited; }
    bool isArtworkEdited() const { return m_isArtworkEdited; }
    void setIsArtworkEdited(bool edited) { m_isArtworkEdited = edited; }

private:
    // Steps shared by copyMetadata() and replaceMetadata(); false when `other`
    // is this record.
    bool copyTagsFrom(const MDB_Metadata& other);
    void copyNumericFields(const MDB_Metadata& other);
    bool takeArtwork(const MDB_Image& image, const QUrl& url, qint64 index);
    void clearArtwork();

    QString m_presetName;
    QString m_sourcePath;
    QMap<QString, QString> m_tagsDict;
    MDB_Image m_artwork;
    QUrl m_artworkURL;
    qint64 m_artworkIndex = -1;
    QList<QUrl> m_artworkThumbURLs;
    QList<QUrl> m_artworkFullsizeURLs;
    MDB_Image m_backdrop;
    QUrl m_backdropURL;
    QList<QUrl> m_backdropThumbURLs;
    QList<QUrl> m_backdropFullsizeURLs;
    quint8 m_mediaKind = 0;
    quint8 m_contentRating = 0;
    quint8 m_hdVideo = 0;
    quint8 m_gapless = 0;
    quint8 m_podcast = 0;
    QVariant m_tagLine;
    QVariant m_homepage;
    QVariant m_trailer;
    QVariant m_tmdb;
    QVariant m_imdb;
    QVariant m_budget;
    QVariant m_revenue;
    QVariant m_rating;
    QVariant m_votes;
    bool m_isEdited = false;
    bool m_isArtworkEdited = false;
};
