#pragma once

#include "core/OrderedDictionary.h"
#include "media/Title.h"
#include "metadata/MDB_Metadata.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariant>
#include <QtGlobal>

#include <memory>
#include <optional>
#include <vector>

// One source the user added (a video file, a DVD or a Blu-ray folder) with its
// scanned titles, the chosen main title, the processing switches, the output
// paths and devices, its pipeline status and its metadata record.
//
// Items are plain objects, shared between the browsers' lists and the jobs
// through std::shared_ptr; they are used on the main thread only.
class MDI_Media {
public:
    using TitleList = std::vector<std::unique_ptr<Title>>;

    MDI_Media();
    virtual ~MDI_Media();
    MDI_Media(const MDI_Media&) = delete;
    MDI_Media& operator=(const MDI_Media&) = delete;

    // --- titles ------------------------------------------------------------
    bool isValid() const { return m_status != 0; }
    void AddTitle(std::unique_ptr<Title> title);
    void RemoveTitles();
    const TitleList& getTitles() const { return m_titles; }
    const TitleList& titles() const { return m_titles; }
    // Position of the title with that number; -1 when there is none.
    qint64 getTitleIndexFromID(qint64 titleID) const;
    // The title at `mainTitle`; nullptr when there is none at that position.
    Title* getMainTitle() const;
    // The main title's number; 0 without a main title.
    qint64 getMainTitleID() const;
    // Longest title, the later one on equal durations.
    void determineMainTitle();

    // --- encode decisions --------------------------------------------------
    void assignIfHD();
    bool canPassthru() const;
    // The whole encoder command line, tool path first.
    QStringList getCmdArgs(const QString& preset, bool passThru, const QString& process,
                           const QString& outPath);
    // Also marks each audio track of the main title as duplicated or not.
    QStringList getAudioCmdArgs(const QString& preset);
    // None when the command line needs no subtitle options.
    std::optional<QStringList> getSubtitleCmdArgs(const QString& preset) const;
    QStringList getFilterCmdArgs() const;

    // Text of the video options passed through when the muxer copies the
    // source's own video stream in afterwards.
    static const char* const kPassthruVideoArgs;

    // --- metadata ----------------------------------------------------------
    // The item's record, made on first use.
    MDB_Metadata* getMetadata();
    const MDB_Metadata* metaData() const { return m_metaData.get(); }
    void setMetaData(std::unique_ptr<MDB_Metadata> record) { m_metaData = std::move(record); }
    const MDB_Metadata* queryMetadata() const { return m_queryMetadata.get(); }
    // Keeps a copy of a fetched record, for a later reset.
    void copyToQueryMetadata(const MDB_Metadata& record);

    bool setTag(const QString& value, const QString& key);
    void deleteTag(const QString& key);
    QString getTag(const QString& key) const;
    void setMediaType(const QString& name);
    void setContentRatingType(const QString& name);
    // Rating choices for the country of `languageRegion`, and the record's
    // rating translated into that country's scale.
    void setRating(const QString& languageRegion);
    void setRatingForCountry(const QString& country, const QString& rating);
    virtual void copyMetadata(MDB_Metadata& record);
    virtual void replaceMetadata(MDB_Metadata& record);

    bool setArtworkFromIndex(qint64 index);
    bool setArtworkFromBundle(const QString& name, const QString& type);
    bool setArtworkFromPath(const QString& path);
    bool setArtworkFromURL(const QUrl& url);
    bool setArtworkFromData(const QByteArray& data);
    bool setBackdropFromURL(const QUrl& url);
    bool setBackdropFromBundle(const QString& name, const QString& type);
    bool hasPoster() const;
    qint64 numberOfPosters() const;
    const QList<QUrl>& getThumbnails() const { return m_localThumbnails; }

    // Writes the record's tags into the file at `outPath` and labels the
    // file's audio and subtitle tracks after the main title's included tracks
    // (status 11 while writing, 12 when done, 0 with a warning when the file
    // cannot be opened or the write fails). `freshOutput`: the file is an
    // encode just made, not yet on disk itself, so the write skips its syncs.
    void writeMetadataToFile(bool isTV, bool freshOutput = false);
    // The output's own tags become the item's record, so a tag write keeps
    // them (for a movie whose lookup failed: there is no match to write).
    void adoptFileTags();
    // Why the last writeMetadataToFile wrote nothing; empty after a success.
    // Kept apart from `warnings`, which later steps may replace.
    const QString& tagWriteError() const { return m_tagWriteError; }
    // Reads a file's tags into the record: the file at `inPath`, else at
    // `outPath`. Cover art is copied into the scratch folder and selected.
    void readMetadataFromFile(bool isTV);
    static const char* const kWriteFailed;
    static const char* const kWriteNotDone;
    static const char* const kReadFailed;

    // Search results (records of the hits) and the chosen one.
    void setSearchList(QList<std::shared_ptr<MDB_Metadata>> list);
    const QList<std::shared_ptr<MDB_Metadata>>& searchList() const { return m_searchList; }
    // Chooses a hit; nullptr when the list is empty or the index out of range.
    std::shared_ptr<MDB_Metadata> assignSearchResults(quint64 index);
    quint64 getSearchIndex() const { return m_searchIndex; }
    void resetSearchIndex() { m_searchIndex = 0; }
    // Renames the output file to `name` keeping its folder and extension.
    void replaceNameInOutPath(const QString& name);

    // Extra tags: the tags the user chose to fill in besides the standard ones
    // ("Default Metadata List"), each with an on/off state.
    void defaultExtraMetadata();
    const OrderedDictionary<QString, QString>& extraTags() const { return m_extraTags; }
    void setExtraTags(const OrderedDictionary<QString, QString>& tags) { m_extraTags = tags; }
    const OrderedDictionary<QString, bool>& tagStates() const { return m_tagStates; }
    void setTagStates(const OrderedDictionary<QString, bool>& states) { m_tagStates = states; }
    // Copies the switched-on extra tags that hold a value into the record.
    void assignExtraMetadata();
    // Reads the extra tags' current values back from the record.
    void extractExtraMetadata();

    // --- fields ------------------------------------------------------------
    const QString& name() const { return m_name; }
    void setName(const QString& name) { m_name = name; }
    const QString& inPath() const { return m_inPath; }
    void setInPath(const QString& path) { m_inPath = path; }
    const QString& outPath() const { return m_outPath; }
    void setOutPath(const QString& path) { m_outPath = path; }
    const QString& cmdArgs() const { return m_cmdArgs; }
    void setCmdArgs(const QString& args) { m_cmdArgs = args; }
    const QString& warnings() const { return m_warnings; }
    void setWarnings(const QString& warnings) { m_warnings = warnings; }
    // Why the item's last lookup in the movie database failed (a refused
    // key, a server error, a time-out, no connection), in one line; empty
    // when the database answered, whether or not it found the movie. An item
    // whose lookup failed carries no match: its file keeps the tags it has.
    const QString& lookupError() const { return m_lookupError; }
    void setLookupError(const QString& error) { m_lookupError = error; }
    const QString& languageRegion() const { return m_languageRegion; }
    void setLanguageRegion(const QString& region) { m_languageRegion = region; }
    const QString& primaryDevice() const { return m_primaryDevice; }
    void setPrimaryDevice(const QString& device) { m_primaryDevice = device; }
    const QString& secondaryDevice() const { return m_secondaryDevice; }
    void setSecondaryDevice(const QString& device) { m_secondaryDevice = device; }
    qint64 mainTitle() const { return m_mainTitle; }
    void setMainTitle(qint64 position) { m_mainTitle = position; }
    quint64 searchIndex() const { return m_searchIndex; }
    void setSearchIndex(quint64 index) { m_searchIndex = index; }
    qint64 scanTitle() const { return m_scanTitle; }
    void setScanTitle(qint64 title) { m_scanTitle = title; }
    qint64 frameCount() const { return m_frameCount; }
    void setFrameCount(qint64 count) { m_frameCount = count; }
    qint64 frameTotal() const { return m_frameTotal; }
    void setFrameTotal(qint64 total) { m_frameTotal = total; }
    qint32 status() const { return m_status; }
    void setStatus(qint32 status) { m_status = status; }
    bool decomb() const { return m_decomb; }
    void setDecomb(bool on) { m_decomb = on; }
    bool denoise() const { return m_denoise; }
    void setDenoise(bool on) { m_denoise = on; }
    bool detelecine() const { return m_detelecine; }
    void setDetelecine(bool on) { m_detelecine = on; }
    bool deblock() const { return m_deblock; }
    void setDeblock(bool on) { m_deblock = on; }
    bool searchForeign() const { return m_searchForeign; }
    void setSearchForeign(bool on) { m_searchForeign = on; }
    bool outputHD() const { return m_outputHD; }
    void setOutputHD(bool on) { m_outputHD = on; }
    bool createHDSD() const { return m_createHDSD; }
    void setCreateHDSD(bool on) { m_createHDSD = on; }
    bool createdHD() const { return m_createdHD; }
    void setCreatedHD(bool on) { m_createdHD = on; }
    bool createdSD() const { return m_createdSD; }
    void setCreatedSD(bool on) { m_createdSD = on; }
    bool readMetadata() const { return m_readMetadata; }
    void setReadMetadata(bool on) { m_readMetadata = on; }
    bool bypassMetadata() const { return m_bypassMetadata; }
    void setBypassMetadata(bool on) { m_bypassMetadata = on; }
    bool passthruVideo() const { return m_passthruVideo; }
    void setPassthruVideo(bool on) { m_passthruVideo = on; }
    const QString& ratingCountry() const { return m_ratingCountry; }
    void setRatingCountry(const QString& country) { m_ratingCountry = country; }
    const QString& ratingCode() const { return m_ratingCode; }
    void setRatingCode(const QString& code) { m_ratingCode = code; }
    const QStringList& ratingNames() const { return m_ratingNames; }
    void setRatingNames(const QStringList& names) { m_ratingNames = names; }
    const QStringList& ratings() const { return m_ratings; }
    void setRatings(const QStringList& ratings) { m_ratings = ratings; }
    const QVariantList& translations() const { return m_translations; }
    void setTranslations(const QVariantList& translations) { m_translations = translations; }
    const QList<QUrl>& localThumbnails() const { return m_localThumbnails; }
    void setLocalThumbnails(const QList<QUrl>& thumbnails) { m_localThumbnails = thumbnails; }
    qint32 sourceType() const { return m_sourceType; }
    void setSourceType(qint32 type) { m_sourceType = type; }

protected:
    QString m_name;
    QString m_inPath;
    QString m_outPath;
    QString m_cmdArgs;
    QString m_warnings;
    QString m_tagWriteError;
    QString m_lookupError;
    QString m_languageRegion;
    QString m_primaryDevice;
    QString m_secondaryDevice;
    qint64 m_mainTitle = 0;
    quint64 m_searchIndex = 0;
    qint64 m_scanTitle = 0;
    qint64 m_frameCount = 0;
    qint64 m_frameTotal = 0;
    qint32 m_status = 2;
    bool m_decomb = false;
    bool m_denoise = false;
    bool m_detelecine = false;
    bool m_deblock = false;
    bool m_searchForeign = false;
    bool m_outputHD = false;
    bool m_createHDSD = false;
    bool m_createdHD = false;
    bool m_createdSD = false;
    bool m_readMetadata = false;
    bool m_bypassMetadata = false;
    bool m_passthruVideo = false;
    QString m_ratingCountry;
    QString m_ratingCode;
    QStringList m_ratingNames;
    QStringList m_ratings;
    std::unique_ptr<MDB_Metadata> m_metaData;
    std::unique_ptr<MDB_Metadata> m_queryMetadata;
    TitleList m_titles;
    QList<std::shared_ptr<MDB_Metadata>> m_searchList;
    QVariantList m_translations;
    QList<QUrl> m_localThumbnails;
    OrderedDictionary<QString, QString> m_extraTags;
    OrderedDictionary<QString, bool> m_tagStates;
    qint32 m_sourceType = 0;
};

using MediaItemList = QList<std::shared_ptr<MDI_Media>>;

// A process-wide item list (one per browser). setInstance() makes the list
// when there is none; instance() is nullptr until then and after
// releaseInstance().
template <typename Which> class MDI_SharedMediaList {
public:
    static void setInstance() {
        if (!list())
            list() = std::make_shared<MediaItemList>();
    }
    static std::shared_ptr<MediaItemList> instance() { return list(); }
    static void releaseInstance() { list().reset(); }

private:
    static std::shared_ptr<MediaItemList>& list() {
        static std::shared_ptr<MediaItemList> shared;
        return shared;
    }
};

struct EncodeListKind;
struct TagListKind;
struct MoviesListKind;
// The encode browser's items, the retag browser's items, the library's items.
using EncodeList = MDI_SharedMediaList<EncodeListKind>;
using TagList = MDI_SharedMediaList<TagListKind>;
using MoviesList = MDI_SharedMediaList<MoviesListKind>;
