#pragma once

// The MP4 file API the metadata code is written against: C-style calls with
// the customary MP4 library names and meanings, on top of the project's own
// box layer (mp4/Box.h, mp4/Mp4File.h).
//
// Written here because no Debian 12 package serves: the usual MP4 tag
// library is not packaged, libavformat only writes whole new files, and
// TagLib edits iTunes items but not track languages, names or codec
// properties, and grows a file by shifting its tail with no way back.
// Tags here are rewritten in place or appended, with a rollback on failure.
//
// Memory: strings and buffers handed out (track names, ES configuration,
// item lists) are malloc'ed and released with free() or the matching *Free
// call. Items built by the caller for MP4ItmfAddItem own their strings and
// values as malloc'ed memory too (strdup/malloc); MP4ItmfItemFree frees them.

#include <cstdint>

typedef void* MP4FileHandle;
typedef uint32_t MP4TrackId;
typedef uint32_t MP4SampleId;
typedef uint64_t MP4Timestamp;
typedef uint64_t MP4Duration;

#define MP4_INVALID_FILE_HANDLE ((MP4FileHandle) nullptr)
#define MP4_INVALID_TRACK_ID ((MP4TrackId)0)
#define MP4_INVALID_SAMPLE_ID ((MP4SampleId)0)
#define MP4_INVALID_DURATION ((MP4Duration)-1)

#define MP4_OD_TRACK_TYPE "odsm"
#define MP4_SCENE_TRACK_TYPE "sdsm"
#define MP4_AUDIO_TRACK_TYPE "soun"
#define MP4_VIDEO_TRACK_TYPE "vide"
#define MP4_HINT_TRACK_TYPE "hint"
#define MP4_CNTL_TRACK_TYPE "cntl"
#define MP4_TEXT_TRACK_TYPE "text"
#define MP4_SUBTITLE_TRACK_TYPE "sbtl"
#define MP4_SUBPIC_TRACK_TYPE "subp"
#define MP4_CLOSED_CAPTION_TRACK_TYPE "clcp"

// Object type indications of the esds decoder configuration.
#define MP4_INVALID_AUDIO_TYPE 0x00
#define MP4_MPEG4_AUDIO_TYPE 0x40
#define MP4_MPEG2_AAC_MAIN_AUDIO_TYPE 0x66
#define MP4_MPEG2_AAC_LC_AUDIO_TYPE 0x67
#define MP4_MPEG2_AAC_SSR_AUDIO_TYPE 0x68
#define MP4_MPEG2_AUDIO_TYPE 0x69
#define MP4_MPEG1_AUDIO_TYPE 0x6B
#define MP4_PCM16_LITTLE_ENDIAN_AUDIO_TYPE 0xE0
#define MP4_VORBIS_AUDIO_TYPE 0xDD
#define MP4_AC3_AUDIO_TYPE 0xA5
#define MP4_ALAW_AUDIO_TYPE 0xE3
#define MP4_ULAW_AUDIO_TYPE 0xE4
#define MP4_PCM16_BIG_ENDIAN_AUDIO_TYPE 0xE6
#define MP4_MPEG4_VIDEO_TYPE 0x20
#define MP4_H264_VIDEO_TYPE 0x21

// MP4Close flag: leave the bit rates as they are (we never compute them).
#define MP4_CLOSE_DO_NOT_COMPUTE_BITRATE 0x00000001

// --- files ------------------------------------------------------------------

MP4FileHandle MP4Read(const char* fileName);
// MP4Modify flag: the file is output just made by another program and not
// on disk itself yet, so ordering the moov write with syncs protects nothing.
#define MP4_MODIFY_FRESH_OUTPUT 0x00000001
MP4FileHandle MP4Modify(const char* fileName, uint32_t flags = 0);
// Writes the pending changes of a Modify handle (moov only, crash-safe), then
// closes. False when the write failed; the file is then as it was before.
bool MP4Close(MP4FileHandle hFile, uint32_t flags = 0);
// Why the last MP4Read, MP4Modify, MP4Close or MP4Optimize of this thread
// failed ("" after a success).
const char* MP4GetLastError();
// Rewrites the file with moov in front of the media data. Without newFileName
// the result replaces fileName (written beside it, then renamed over it).
bool MP4Optimize(const char* fileName, const char* newFileName = nullptr);

MP4Duration MP4GetDuration(MP4FileHandle hFile);
uint32_t MP4GetTimeScale(MP4FileHandle hFile);
bool MP4HaveAtom(MP4FileHandle hFile, const char* atomName); // path below moov, "moov." optional

// --- tracks -----------------------------------------------------------------

uint32_t MP4GetNumberOfTracks(MP4FileHandle hFile, const char* type = nullptr, uint8_t subType = 0);
MP4TrackId MP4FindTrackId(MP4FileHandle hFile, uint16_t index, const char* type = nullptr,
                          uint8_t subType = 0);
uint16_t MP4FindTrackIndex(MP4FileHandle hFile, MP4TrackId trackId);
const char* MP4GetTrackType(MP4FileHandle hFile, MP4TrackId trackId);
const char* MP4GetTrackMediaDataName(MP4FileHandle hFile, MP4TrackId trackId); // "avc1", "mp4a"...

bool MP4GetTrackLanguage(MP4FileHandle hFile, MP4TrackId trackId, char* code); // code: 4 bytes
bool MP4SetTrackLanguage(MP4FileHandle hFile, MP4TrackId trackId, const char* code);
bool MP4GetTrackName(MP4FileHandle hFile, MP4TrackId trackId, char** name); // free() it
bool MP4SetTrackName(MP4FileHandle hFile, MP4TrackId trackId, const char* name);

uint8_t MP4GetTrackEsdsObjectTypeId(MP4FileHandle hFile, MP4TrackId trackId);
bool MP4GetTrackESConfiguration(MP4FileHandle hFile, MP4TrackId trackId, uint8_t** ppConfig,
                                uint32_t* pConfigSize); // free() *ppConfig

uint32_t MP4GetTrackTimeScale(MP4FileHandle hFile, MP4TrackId trackId);
MP4Duration MP4GetTrackDuration(MP4FileHandle hFile, MP4TrackId trackId);
MP4SampleId MP4GetTrackNumberOfSamples(MP4FileHandle hFile, MP4TrackId trackId);
uint32_t MP4GetSampleSize(MP4FileHandle hFile, MP4TrackId trackId, MP4SampleId sampleId);
MP4Duration MP4GetSampleDuration(MP4FileHandle hFile, MP4TrackId trackId, MP4SampleId sampleId);

// Atom paths are dotted and relative to the track's trak box:
// "mdia.minf.stbl.stsd.ac-3.dac3"; a component may carry an index, "trak[1]".
bool MP4HaveTrackAtom(MP4FileHandle hFile, MP4TrackId trackId, const char* atomName);
// Integer fields of a track's boxes by dotted path ending in the field name:
// "mdia.mdhd.timeScale", "mdia.minf.stbl.stsd.mp4a.channels",
// "mdia.minf.stbl.stsd.ac-3.dac3.acmod", "tkhd.trackId", "mdia.minf.stbl.stsz.sampleCount"...
bool MP4GetTrackIntegerProperty(MP4FileHandle hFile, MP4TrackId trackId, const char* propName,
                                uint64_t* retvalue);

// --- chapters ---------------------------------------------------------------

typedef enum {
    MP4ChapterTypeNone = 0,
    MP4ChapterTypeAny = 1,
    MP4ChapterTypeQt = 2,
    MP4ChapterTypeNero = 4,
} MP4ChapterType;

#define MP4V2_CHAPTER_TITLE_MAX 1023

typedef struct MP4Chapter_s {
    MP4Duration duration; // milliseconds
    char title[MP4V2_CHAPTER_TITLE_MAX + 1];
} MP4Chapter_t;

// Reads the chapter list (a QuickTime chapter text track, or Nero `chpl`);
// *chapterList is malloc'ed. Answers the kind found, MP4ChapterTypeNone if none.
MP4ChapterType MP4GetChapters(MP4FileHandle hFile, MP4Chapter_t** chapterList,
                              uint32_t* chapterCount,
                              MP4ChapterType fromChapterType = MP4ChapterTypeQt);

// --- iTunes tags ------------------------------------------------------------

typedef enum {
    MP4_ART_UNDEFINED = 0,
    MP4_ART_BMP = 1,
    MP4_ART_GIF = 2,
    MP4_ART_JPEG = 3,
    MP4_ART_PNG = 4,
} MP4TagArtworkType;

typedef struct MP4TagArtwork_s {
    void* data;
    uint32_t size;
    MP4TagArtworkType type;
} MP4TagArtwork;

typedef struct MP4TagTrack_s {
    uint16_t index;
    uint16_t total;
} MP4TagTrack;

typedef struct MP4TagDisk_s {
    uint16_t index;
    uint16_t total;
} MP4TagDisk;

// Every field points into storage owned by the tag set; a null field means
// "absent", and storing it removes that item from the file.
typedef struct MP4Tags_s {
    void* __handle;

    const char* name;
    const char* artist;
    const char* albumArtist;
    const char* album;
    const char* grouping;
    const char* composer;
    const char* comments;
    const char* genre;
    const uint16_t* genreType;
    const char* releaseDate;
    const MP4TagTrack* track;
    const MP4TagDisk* disk;
    const uint16_t* tempo;
    const uint8_t* compilation;

    const char* tvShow;
    const char* tvNetwork;
    const char* tvEpisodeID;
    const uint32_t* tvSeason;
    const uint32_t* tvEpisode;

    const char* description;
    const char* longDescription;
    const char* seriesDescription;
    const char* lyrics;

    const char* sortName;
    const char* sortArtist;
    const char* sortAlbumArtist;
    const char* sortAlbum;
    const char* sortComposer;
    const char* sortTVShow;

    const MP4TagArtwork* artwork;
    uint32_t artworkCount;

    const char* copyright;
    const char* encodingTool;
    const char* encodedBy;
    const char* purchaseDate;

    const uint8_t* podcast;
    const char* keywords;
    const char* category;

    const uint8_t* hdVideo;
    const uint8_t* mediaType;
    const uint8_t* contentRating;
    const uint8_t* gapless;

    const char* iTunesAccount;
    const uint8_t* iTunesAccountType;
    const uint32_t* iTunesCountry;
    const uint32_t* contentID;
    const uint32_t* artistID;
    const uint64_t* playlistID;
    const uint32_t* genreID;
    const uint32_t* composerID;
    const char* xid;
} MP4Tags;

const MP4Tags* MP4TagsAlloc();
bool MP4TagsFetch(const MP4Tags* tags, MP4FileHandle hFile);
// Only the fields a library listing needs: name, sort name, genre (text and
// numeric), content ID and HD flag.
bool MP4TagsFetchMovieInfo(const MP4Tags* tags, MP4FileHandle hFile);
// Only the first cover art (artworkCount 0 or 1); other fields are left alone.
bool MP4TagsFetchArtwork(const MP4Tags* tags, MP4FileHandle hFile);
// Writes every field into the file's item list (null fields remove their item);
// items the tag set does not know, freeform ones included, are kept.
bool MP4TagsStore(const MP4Tags* tags, MP4FileHandle hFile);
void MP4TagsFree(const MP4Tags* tags);

bool MP4TagsAddArtwork(const MP4Tags*, const MP4TagArtwork*);
bool MP4TagsSetArtwork(const MP4Tags*, uint32_t index, const MP4TagArtwork*);
bool MP4TagsRemoveArtwork(const MP4Tags*, uint32_t index);

bool MP4TagsSetName(const MP4Tags*, const char*);
bool MP4TagsSetArtist(const MP4Tags*, const char*);
bool MP4TagsSetAlbumArtist(const MP4Tags*, const char*);
bool MP4TagsSetAlbum(const MP4Tags*, const char*);
bool MP4TagsSetGrouping(const MP4Tags*, const char*);
bool MP4TagsSetComposer(const MP4Tags*, const char*);
bool MP4TagsSetComments(const MP4Tags*, const char*);
bool MP4TagsSetGenre(const MP4Tags*, const char*);
bool MP4TagsSetGenreType(const MP4Tags*, const uint16_t*);
bool MP4TagsSetReleaseDate(const MP4Tags*, const char*);
bool MP4TagsSetTrack(const MP4Tags*, const MP4TagTrack*);
bool MP4TagsSetDisk(const MP4Tags*, const MP4TagDisk*);
bool MP4TagsSetTempo(const MP4Tags*, const uint16_t*);
bool MP4TagsSetCompilation(const MP4Tags*, const uint8_t*);

bool MP4TagsSetTVShow(const MP4Tags*, const char*);
bool MP4TagsSetTVNetwork(const MP4Tags*, const char*);
bool MP4TagsSetTVEpisodeID(const MP4Tags*, const char*);
bool MP4TagsSetTVSeason(const MP4Tags*, const uint32_t*);
bool MP4TagsSetTVEpisode(const MP4Tags*, const uint32_t*);

bool MP4TagsSetDescription(const MP4Tags*, const char*);
bool MP4TagsSetLongDescription(const MP4Tags*, const char*);
bool MP4TagsSetSeriesDescription(const MP4Tags*, const char*);
bool MP4TagsSetLyrics(const MP4Tags*, const char*);

bool MP4TagsSetSortName(const MP4Tags*, const char*);
bool MP4TagsSetSortArtist(const MP4Tags*, const char*);
bool MP4TagsSetSortAlbumArtist(const MP4Tags*, const char*);
bool MP4TagsSetSortAlbum(const MP4Tags*, const char*);
bool MP4TagsSetSortComposer(const MP4Tags*, const char*);
bool MP4TagsSetSortTVShow(const MP4Tags*, const char*);

bool MP4TagsSetCopyright(const MP4Tags*, const char*);
bool MP4TagsSetEncodingTool(const MP4Tags*, const char*);
bool MP4TagsSetEncodedBy(const MP4Tags*, const char*);
bool MP4TagsSetPurchaseDate(const MP4Tags*, const char*);

bool MP4TagsSetPodcast(const MP4Tags*, const uint8_t*);
bool MP4TagsSetKeywords(const MP4Tags*, const char*);
bool MP4TagsSetCategory(const MP4Tags*, const char*);

bool MP4TagsSetHDVideo(const MP4Tags*, const uint8_t*);
bool MP4TagsSetMediaType(const MP4Tags*, const uint8_t*);
bool MP4TagsSetContentRating(const MP4Tags*, const uint8_t*);
bool MP4TagsSetGapless(const MP4Tags*, const uint8_t*);

bool MP4TagsSetITunesAccount(const MP4Tags*, const char*);
bool MP4TagsSetITunesAccountType(const MP4Tags*, const uint8_t*);
bool MP4TagsSetITunesCountry(const MP4Tags*, const uint32_t*);
bool MP4TagsSetContentID(const MP4Tags*, const uint32_t*);
bool MP4TagsSetArtistID(const MP4Tags*, const uint32_t*);
bool MP4TagsSetPlaylistID(const MP4Tags*, const uint64_t*);
bool MP4TagsSetGenreID(const MP4Tags*, const uint32_t*);
bool MP4TagsSetComposerID(const MP4Tags*, const uint32_t*);
bool MP4TagsSetXID(const MP4Tags*, const char*);

// --- generic (iTunes metadata format) items ----------------------------------

typedef enum {
    MP4_ITMF_BT_IMPLICIT = 0,
    MP4_ITMF_BT_UTF8 = 1,
    MP4_ITMF_BT_UTF16 = 2,
    MP4_ITMF_BT_SJIS = 3,
    MP4_ITMF_BT_HTML = 6,
    MP4_ITMF_BT_XML = 7,
    MP4_ITMF_BT_UUID = 8,
    MP4_ITMF_BT_ISRC = 9,
    MP4_ITMF_BT_MI3P = 10,
    MP4_ITMF_BT_GIF = 12,
    MP4_ITMF_BT_JPEG = 13,
    MP4_ITMF_BT_PNG = 14,
    MP4_ITMF_BT_URL = 15,
    MP4_ITMF_BT_DURATION = 16,
    MP4_ITMF_BT_DATETIME = 17,
    MP4_ITMF_BT_GENRES = 18,
    MP4_ITMF_BT_INTEGER = 21,
    MP4_ITMF_BT_RIAA_PA = 24,
    MP4_ITMF_BT_UPC = 25,
    MP4_ITMF_BT_BMP = 27,
    MP4_ITMF_BT_UNDEFINED = 255,
} MP4ItmfBasicType;

typedef struct MP4ItmfData_s {
    uint8_t typeSetIdentifier;
    MP4ItmfBasicType typeCode;
    uint32_t locale;
    uint8_t* value;
    uint32_t valueSize;
} MP4ItmfData;

typedef struct MP4ItmfDataList_s {
    MP4ItmfData* elements;
    uint32_t size;
} MP4ItmfDataList;

typedef struct MP4ItmfItem_s {
    void* __handle; // identifies the item in the file it was read from
    char* code;
    char* mean;
    char* name;
    MP4ItmfDataList dataList;
} MP4ItmfItem;

typedef struct MP4ItmfItemList_s {
    MP4ItmfItem* elements;
    uint32_t size;
} MP4ItmfItemList;

MP4ItmfItem* MP4ItmfItemAlloc(const char* code, uint32_t numData);
void MP4ItmfItemFree(MP4ItmfItem* item);
void MP4ItmfItemListFree(MP4ItmfItemList* itemList);

MP4ItmfItemList* MP4ItmfGetItems(MP4FileHandle hFile);
MP4ItmfItemList* MP4ItmfGetItemsByCode(MP4FileHandle hFile, const char* code);
// Freeform ("----") items with that meaning; a null name matches every name.
MP4ItmfItemList* MP4ItmfGetItemsByMeaning(MP4FileHandle hFile, const char* meaning,
                                          const char* name);

bool MP4ItmfAddItem(MP4FileHandle hFile, const MP4ItmfItem* item);
bool MP4ItmfSetItem(MP4FileHandle hFile, const MP4ItmfItem* item);
bool MP4ItmfRemoveItem(MP4FileHandle hFile, const MP4ItmfItem* item);
