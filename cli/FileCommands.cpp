// `tarnwick-cli tags FILE [--json]`,
// `tarnwick-cli tags FILE --set "TAG=VALUE"... [--delete TAG]... [--artwork IMAGE |
// --remove-artwork]` and `tarnwick-cli tracks FILE [--json]`: the tags and tracks of one MP4 file,
// read with the MP4 layer and the metadata record's reader, written through the media item's tag
// writer, as the retag browser does. A file that is not an MP4, is damaged or truncated,
// or is read-only gets one line and exit status 1, and is left unchanged.
#include "cli/Commands.h"
#include "cli/Describe.h"

#include "core/MDB_Utility.h"
#include "media/MDI_Movie.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"
#include "mp4/mp4.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <cstdlib>
#include <memory>
#include <optional>

namespace {

const QString kTags = QStringLiteral("tags");
const QString kTracks = QStringLiteral("tracks");

QString tag(const char* name) {
    return QString::fromLatin1(name);
}

// The names that are not text tags: each a field of the record of its own.
const QStringList& fieldNames() {
    static const QStringList names = {tag(TagName::MediaKind), tag(TagName::HDVideo),
                                      tag(TagName::ContentRating), tag(TagName::Gapless),
                                      QStringLiteral("Podcast")};
    return names;
}

// Every text tag the writer stores, in display order.
const QStringList& textTagNames() {
    static const QStringList names = [] {
        QStringList list = MDB_Metadata::availableMetadata();
        for (const char* name : {TagName::EncodingTool, TagName::TMDbID, TagName::IMDbID}) {
            if (!list.contains(tag(name)))
                list << tag(name);
        }
        for (const QString& field : fieldNames())
            list.removeAll(field);
        return list;
    }();
    return names;
}

bool isYes(const QString& value) {
    const QString v = value.trimmed().toLower();
    return v == QLatin1String("yes") || v == QLatin1String("true") || v == QLatin1String("1");
}

bool isNo(const QString& value) {
    const QString v = value.trimmed().toLower();
    return v == QLatin1String("no") || v == QLatin1String("false") || v == QLatin1String("0");
}

QString nameOf(const OrderedDictionary<int, QString>& names, int code) {
    for (const auto& [value, name] : names) {
        if (value == code)
            return name;
    }
    return QString::number(code);
}

QStringList namesOf(const OrderedDictionary<int, QString>& names) {
    QStringList list;
    for (const auto& [value, name] : names)
        list << name;
    return list;
}

// What the MP4 layer logs while a file is opened is kept, not printed: the
// command says it in its own one line ("truncated file (...)").
class Mp4Log {
public:
    Mp4Log() {
        s_last.clear();
        s_previous = qInstallMessageHandler(&Mp4Log::handle);
    }
    ~Mp4Log() { qInstallMessageHandler(s_previous); }
    Mp4Log(const Mp4Log&) = delete;
    Mp4Log& operator=(const Mp4Log&) = delete;

    // The reason of the last message, without the "MP4 open failed: PATH: " before it.
    static QString reason() {
        const qsizetype colon = s_last.lastIndexOf(QStringLiteral(": "));
        return colon < 0 ? s_last : s_last.mid(colon + 2);
    }

private:
    // Other categories go on to the handler in place before.
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text) {
        if (context.category && QByteArrayView(context.category) == "tarnwick.mp4")
            s_last = text;
        else if (s_previous)
            s_previous(type, context, text);
    }

    static inline QString s_last;
    static inline QtMessageHandler s_previous = nullptr;
};

QString notMp4(const QString& why) {
    const QString reason = Mp4Log::reason();
    return reason.isEmpty() ? why : QStringLiteral("%1 (%2)").arg(why, reason);
}

// One line about a file that cannot be used; the file is not touched.
int unusable(const QString& path, const QString& why) {
    return cli::failure(QStringLiteral("%1: %2; the file was left unchanged").arg(path, why));
}

// The file exists and is a file; answers the failure otherwise.
std::optional<int> checkFile(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists())
        return cli::failure(QStringLiteral("%1: no such file").arg(path));
    if (!info.isFile())
        return cli::failure(QStringLiteral("%1: not a file").arg(path));
    if (!info.isReadable())
        return cli::failure(QStringLiteral("%1: not readable").arg(path));
    return std::nullopt;
}

// The file's tags as a record of their own: nothing but what the file holds.
std::unique_ptr<MDB_Metadata> readTags(const QString& path, bool* hasArtwork) {
    MP4FileHandle handle = MP4Read(QFile::encodeName(path).constData());
    if (handle == MP4_INVALID_FILE_HANDLE)
        return nullptr;
    auto record = std::make_unique<MDB_Metadata>(MDB_Metadata::KeyedArchive());
    *hasArtwork = record->readMetaDataFromFile(handle, false);
    MP4Close(handle);
    record->setIsEdited(false);
    record->setIsArtworkEdited(false);
    return record;
}

QJsonObject tagsJson(const MDB_Metadata& record, bool hasArtwork) {
    QJsonObject o;
    for (auto it = record.tagsDict().cbegin(); it != record.tagsDict().cend(); ++it)
        o.insert(it.key(), it.value());
    o.insert(tag(TagName::MediaKind), nameOf(MDB_Metadata::mediaTypes(), record.mediaKind()));
    o.insert(tag(TagName::HDVideo), int(record.hdVideo()));
    o.insert(tag(TagName::ContentRating),
             nameOf(MDB_Metadata::contentRatings(), record.contentRating()));
    o.insert(tag(TagName::Gapless), record.gapless() != 0);
    o.insert(QStringLiteral("Podcast"), record.podcast() != 0);
    o.insert(QStringLiteral("Artwork"), hasArtwork);
    return o;
}

void printTags(const MDB_Metadata& record, bool hasArtwork) {
    QTextStream& out = cli::out();
    QStringList order = textTagNames();
    for (auto it = record.tagsDict().cbegin(); it != record.tagsDict().cend(); ++it) {
        if (!order.contains(it.key()))
            order << it.key();
    }
    for (const QString& name : std::as_const(order)) {
        const QString value = record.getTag(name);
        if (!value.isNull())
            out << name << ": " << value << '\n';
    }
    out << "Media Kind: " << nameOf(MDB_Metadata::mediaTypes(), record.mediaKind()) << '\n'
        << "HD Video: " << record.hdVideo() << '\n'
        << "Content Rating: " << nameOf(MDB_Metadata::contentRatings(), record.contentRating())
        << '\n'
        << "Gapless: " << (record.gapless() ? "yes" : "no") << '\n'
        << "Podcast: " << (record.podcast() ? "yes" : "no") << '\n'
        << "Artwork: " << (hasArtwork ? "yes" : "no") << '\n';
    out.flush();
}

// Applies one "TAG=VALUE"; the reason in `why` when it cannot be.
bool setField(MDB_Metadata& record, const QString& name, const QString& value, QString* why) {
    if (name == tag(TagName::MediaKind) || name == tag(TagName::ContentRating)) {
        const auto& names = name == tag(TagName::MediaKind) ? MDB_Metadata::mediaTypes()
                                                            : MDB_Metadata::contentRatings();
        if (!namesOf(names).contains(value)) {
            *why = QStringLiteral("\"%1\" takes one of: %2")
                       .arg(name, namesOf(names).join(QStringLiteral(", ")));
            return false;
        }
        record.setTag(value, name);
        return true;
    }
    if (name == tag(TagName::HDVideo)) {
        if (value != QLatin1String("0") && value != QLatin1String("1") &&
            value != QLatin1String("2")) {
            *why = QStringLiteral("\"HD Video\" takes 0, 1 (720p) or 2 (1080p)");
            return false;
        }
        record.setTag(value, name);
        return true;
    }
    if (name == tag(TagName::Gapless) || name == QLatin1String("Podcast")) {
        if (!isYes(value) && !isNo(value)) {
            *why = QStringLiteral("\"%1\" takes YES or NO").arg(name);
            return false;
        }
        if (name == tag(TagName::Gapless))
            record.setTag(isYes(value) ? QStringLiteral("YES") : QStringLiteral("NO"), name);
        else
            record.setPodcast(isYes(value) ? 1 : 0);
        return true;
    }
    record.setTag(value, name);
    return true;
}

void deleteField(MDB_Metadata& record, const QString& name) {
    if (name == tag(TagName::MediaKind))
        record.setTag(nameOf(MDB_Metadata::mediaTypes(), 0), name); // 0: no media kind item
    else if (name == tag(TagName::ContentRating))
        record.setTag(QStringLiteral("None"), name);
    else if (name == tag(TagName::HDVideo) || name == tag(TagName::Gapless))
        record.setTag(QStringLiteral("0"), name);
    else if (name == QLatin1String("Podcast"))
        record.setPodcast(0);
    else
        record.deleteTag(name);
}

bool knownName(const QString& name) {
    return textTagNames().contains(name) || fieldNames().contains(name);
}

int unknownTag(const QString& name) {
    return cli::usageError(
        kTags, QStringLiteral("unknown tag \"%1\"; tags are: %2")
                   .arg(name, (textTagNames() + fieldNames()).join(QStringLiteral(", "))));
}

int runTags(cli::Invocation& run) {
    if (run.positional().size() != 1)
        return cli::usageError(kTags, run.positional().isEmpty()
                                          ? QStringLiteral("no file given")
                                          : QStringLiteral("one file at a time"));
    const QString path = run.positional().constFirst();
    if (run.json())
        cli::setJsonMember(QStringLiteral("file"), path);

    // The edits, checked before the file is opened.
    QList<QPair<QString, QString>> sets;
    for (const QString& assignment : run.values(QStringLiteral("set"))) {
        const qsizetype equals = assignment.indexOf(QLatin1Char('='));
        if (equals <= 0)
            return cli::usageError(
                kTags, QStringLiteral("--set takes TAG=VALUE, such as --set \"Genre=Drama\"; got "
                                      "\"%1\"")
                           .arg(assignment));
        const QString name = assignment.left(equals).trimmed();
        if (!knownName(name))
            return unknownTag(name);
        sets.append({name, assignment.mid(equals + 1)});
    }
    const QStringList deletes = run.values(QStringLiteral("delete"));
    for (const QString& name : deletes) {
        if (!knownName(name.trimmed()))
            return unknownTag(name.trimmed());
    }
    const QString artwork = run.value(QStringLiteral("artwork"));
    const bool removeArtwork = run.isSet(QStringLiteral("remove-artwork"));
    if (run.isSet(QStringLiteral("artwork")) && removeArtwork)
        return cli::usageError(kTags,
                               QStringLiteral("--artwork and --remove-artwork exclude each other"));
    if (run.isSet(QStringLiteral("artwork")) && artwork.isEmpty())
        return cli::usageError(kTags, QStringLiteral("--artwork needs an image file"));
    const bool edits = !sets.isEmpty() || !deletes.isEmpty() || !artwork.isEmpty() || removeArtwork;

    if (const std::optional<int> status = checkFile(path))
        return *status;
    if (!artwork.isEmpty() && !QFileInfo(artwork).isFile())
        return cli::failure(QStringLiteral("%1: no such image file").arg(artwork));

    QString error;
    cli::StartupScope startup;
    if (!startup.begin(&error))
        return cli::failure(error);

    bool hasArtwork = false;
    Mp4Log log;
    std::unique_ptr<MDB_Metadata> record = readTags(path, &hasArtwork);
    if (!record)
        return unusable(path, notMp4(QStringLiteral("not an MP4 file, or a damaged one")));

    if (edits) {
        const QFileInfo info(path);
        // Root may write anywhere; a file without any write permission is still
        // the user's way of saying "leave it alone".
        const bool anyWriteBit =
            info.permissions() & (QFile::WriteOwner | QFile::WriteGroup | QFile::WriteOther);
        if (!info.isWritable() || !anyWriteBit)
            return unusable(path, QStringLiteral("the file is read-only"));
        for (const auto& [name, value] : std::as_const(sets)) {
            QString why;
            if (!setField(*record, name, value, &why))
                return cli::usageError(kTags, why);
        }
        for (const QString& name : deletes)
            deleteField(*record, name.trimmed());
        if (removeArtwork) {
            record->setArtworkFromPath(QString());
        } else if (!artwork.isEmpty() && !record->setArtworkFromPath(artwork)) {
            return cli::failure(
                QStringLiteral("%1: not an image the cover can be made of").arg(artwork));
        }

        // Written as the retag browser writes a file: the media item's writer.
        MDI_Movie item;
        item.setOutPath(path);
        item.setMetaData(std::move(record));
        item.writeMetadataToFile(false);
        if (item.status() != 12)
            return cli::failure(QStringLiteral("%1: %2").arg(path, item.warnings()));
        record = readTags(path, &hasArtwork);
        if (!record)
            return cli::failure(QStringLiteral("%1: cannot be read after the write").arg(path));
        if (!run.json())
            cli::err() << path << ": written" << Qt::endl;
    }

    if (run.json())
        cli::setJsonMember(QStringLiteral("tags"), tagsJson(*record, hasArtwork));
    else
        printTags(*record, hasArtwork);
    return cli::kExitOk;
}

QString trackType(const char* handler) {
    const QByteArray type(handler ? handler : "");
    if (type == "vide")
        return QStringLiteral("video");
    if (type == "soun")
        return QStringLiteral("audio");
    if (type == "sbtl" || type == "subp" || type == "clcp")
        return QStringLiteral("subtitle");
    if (type == "text")
        return QStringLiteral("text");
    return QString::fromLatin1(type);
}

int runTracks(cli::Invocation& run) {
    if (run.positional().size() != 1)
        return cli::usageError(kTracks, run.positional().isEmpty()
                                            ? QStringLiteral("no file given")
                                            : QStringLiteral("one file at a time"));
    const QString path = run.positional().constFirst();
    if (run.json()) {
        cli::setJsonMember(QStringLiteral("file"), path);
        cli::setJsonMember(QStringLiteral("tracks"), QJsonArray());
    }
    if (const std::optional<int> status = checkFile(path))
        return *status;
    Mp4Log log;
    MP4FileHandle handle = MP4Read(QFile::encodeName(path).constData());
    if (handle == MP4_INVALID_FILE_HANDLE)
        return unusable(path, notMp4(QStringLiteral("not an MP4 file, or a damaged one")));

    QJsonArray tracks;
    const uint32_t count = MP4GetNumberOfTracks(handle);
    for (uint32_t i = 0; i < count; ++i) {
        const MP4TrackId id = MP4FindTrackId(handle, uint16_t(i));
        const QString type = trackType(MP4GetTrackType(handle, id));
        char code[4] = {};
        const QString language =
            MP4GetTrackLanguage(handle, id, code) ? QString::fromLatin1(code, 3) : QString();
        char* name = nullptr;
        QString trackName;
        if (MP4GetTrackName(handle, id, &name) && name)
            trackName = QString::fromUtf8(name);
        std::free(name);
        const QString channels = type == QLatin1String("audio")
                                     ? MDB_Utility::getNumAudioChannelsInMP4(handle, id)
                                     : QString();
        tracks.append(cli::trackJson(id, type, language, trackName, channels));
    }
    MP4Close(handle);

    if (run.json()) {
        cli::setJsonMember(QStringLiteral("tracks"), tracks);
        return cli::kExitOk;
    }
    QTextStream& out = cli::out();
    out << QStringLiteral("%1  %2  %3  %4  %5")
               .arg(QStringLiteral("ID"), -3)
               .arg(QStringLiteral("TYPE"), -8)
               .arg(QStringLiteral("LANGUAGE"), -8)
               .arg(QStringLiteral("CHANNELS"), -8)
               .arg(QStringLiteral("NAME"))
        << '\n';
    for (const QJsonValue& value : std::as_const(tracks)) {
        const QJsonObject t = value.toObject();
        out << QStringLiteral("%1  %2  %3  %4  %5")
                   .arg(QString::number(t.value("id").toInt()), -3)
                   .arg(t.value("type").toString(), -8)
                   .arg(t.value("language").toString(), -8)
                   .arg(t.value("channels").isNull() ? QStringLiteral("-")
                                                     : t.value("channels").toString(),
                        -8)
                   .arg(t.value("name").toString())
                   .trimmed()
            << '\n';
    }
    out.flush();
    return cli::kExitOk;
}

const cli::CommandRegistration tagsRegistration(
    {kTags,
     {QStringLiteral("tags FILE [--json]"),
      QStringLiteral("tags FILE [--set \"TAG=VALUE\"]... [--delete TAG]... "
                     "[--artwork IMAGE | --remove-artwork] [--json]")},
     QStringLiteral("show or change the tags of one MP4 file"),
     QStringLiteral(
         "Without changes, prints every tag the file holds, one \"Tag: value\" line each, then its "
         "media kind, HD flag, content rating, gapless and podcast flags and whether it has cover "
         "art. With --set, --delete, --artwork or --remove-artwork the changes are written into "
         "the file in place (only the movie index is rewritten) and the tags are printed as they "
         "are afterwards.\\n\\n"
         "TAG is a name of the tag vocabulary: Name, Artist, Genre, Release Date, Description, "
         "Long Description, Rating, Cast, Director, Studio, TMDb ID, IMDb ID and the others that "
         "tarnwick-cli tags --set \"X=\" lists, and Media Kind (Movie, TV Show, ...), HD Video (0, "
         "1, 2), Content Rating (None, Clean, Explicit), Gapless and Podcast (YES or NO). People "
         "lists (Cast, Director...) are comma-separated. A file that is not an MP4, is truncated "
         "or is read-only is left unchanged."),
     {{QStringLiteral("FILE"), QStringLiteral("an MP4 file (.m4v, .mp4)")}},
     {{{QStringLiteral("set")},
       QStringLiteral("\"TAG=VALUE\""),
       QStringLiteral("set a tag (repeatable); an empty VALUE leaves the tag present but empty")},
      {{QStringLiteral("delete")},
       QStringLiteral("TAG"),
       QStringLiteral("remove a tag (repeatable)")},
      {{QStringLiteral("artwork")},
       QStringLiteral("IMAGE"),
       QStringLiteral("make this image (PNG or JPEG) the cover art; it is stored as PNG")},
      {{QStringLiteral("remove-artwork")}, {}, QStringLiteral("remove the cover art")}},
     true,
     QStringLiteral("0 done, 1 no such file, not an MP4 file, read-only or the write failed (the "
                    "file is left unchanged), 2 usage error (an unknown tag or a value it does not "
                    "take)."),
     runTags,
     QJsonObject{{QStringLiteral("file"), QJsonValue::Null},
                 {QStringLiteral("tags"), QJsonValue::Null}}});

const cli::CommandRegistration tracksRegistration(
    {kTracks,
     {QStringLiteral("tracks FILE [--json]")},
     QStringLiteral("list the tracks of one MP4 file"),
     QStringLiteral("Lists every track of the file: its id, its type (video, audio, subtitle, "
                    "text), its ISO 639-2 language, its channel layout (audio: 2.0, 5.1, ...) and "
                    "its name."),
     {{QStringLiteral("FILE"), QStringLiteral("an MP4 file (.m4v, .mp4)")}},
     {},
     true,
     QStringLiteral("0 done, 1 no such file or not an MP4 file, 2 usage error."),
     runTracks,
     QJsonObject{{QStringLiteral("file"), QJsonValue::Null},
                 {QStringLiteral("tracks"), QJsonArray()}}});

} // namespace
