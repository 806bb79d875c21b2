#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

class AudioTrack;
class MDB_Metadata;
class MDI_Media;
class SubtitleTrack;
class Title;

// Texts and JSON shapes the commands print. Each thing (a source, a title, a
// track, a match, an output, an item) has one JSON shape, written by one
// function here and used by every command that shows it; the README's JSON
// section documents them.
namespace cli {

// "video file", "DVD", "Blu-ray", or "not scanned" for a source type.
QString sourceTypeName(qint32 type);

// An argument quoted for a POSIX shell when it needs it, so a printed
// command line can be pasted back.
QString shellQuoted(const QString& arg);

// A rating in the display form: "mpaa|PG-13|300|" -> "PG-13".
QString ratingLabel(const QString& rating);

// The encoder command line an item would run (tool path first); empty
// without a main title.
QStringList encoderCommand(MDI_Media& item);

// How an item's lookup in the movie database ended.
namespace lookup {
inline constexpr char Matched[] = "matched";  // a hit was found and queried
inline constexpr char NoMatch[] = "no match"; // the database found nothing (or the hit was skipped)
inline constexpr char Failed[] = "failed";    // the database failed: see the item's warnings
inline constexpr char Skipped[] = "skipped";  // no lookup ("Skip Tagging")
inline constexpr char NotRun[] =
    "not looked up"; // the scan failed, or the command does not look up
} // namespace lookup

// {"path", "name", "sourceType"}
QJsonObject sourceJson(const MDI_Media& item);

// A track: {"id", "type", "language", "name", "channels"}; the tracks of a
// scanned title add {"codec", "frequency", "bitrate", "include", "native",
// "burn", "duplicate"}.
// "type" is "audio", "subtitle", "video" or "text"; "language" an ISO 639
// code; "channels" a layout such as "2.0" (null where it does not apply).
QJsonObject trackJson(qint64 id, const QString& type, const QString& language, const QString& name,
                      const QString& channels);
QJsonObject trackJson(const AudioTrack& track);
QJsonObject trackJson(const SubtitleTrack& track);

// {"id", "main", "duration", "seconds", "size", "codec", "fps", "combing",
//  "stream", "audio": [track], "subtitles": [track]}
QJsonObject titleJson(const Title& title, bool main);

// {"tmdbID", "imdbID", "name", "releaseDate", "year", "genre", "rating",
//  "ratingCode", "director", "poster", "posters", "backdrops", "links":
//  {"tmdb", "imdb", "trailer", "homepage"}, "tagLine", "tags": {TAG: value}}
QJsonObject matchJson(const MDB_Metadata& record);

// {"path", "exists"}
QJsonObject outputJson(const QString& path);

// One source of scan, report, encode and retag:
// {"source", "state", "status", "warnings", "lookup", "match", "mainTitle",
//  "titles", "filters", "passthru", "outputs", "command"}
struct ItemFacts {
    QString state;        // the command's word for where the item ended
    QString lookup;       // one of the lookup:: words
    QStringList warnings; // besides the item's own warning
    QStringList outputs;  // files made or planned
    bool withCommand = true;
};
QJsonObject itemJson(MDI_Media& item, const ItemFacts& facts);

// The item's own warning and `extra`, without empty or repeated lines.
QStringList itemWarnings(const MDI_Media& item, const QStringList& extra = {});

} // namespace cli
