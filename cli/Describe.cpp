#include "cli/Describe.h"

#include "core/Resources.h"
#include "media/AudioTrack.h"
#include "media/MDI_Media.h"
#include "media/SubtitleTrack.h"
#include "media/Title.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QUrl>

namespace cli {

namespace {

QJsonValue textOrNull(const QString& text) {
    return text.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(text);
}

QJsonValue urlOrNull(const QVariant& value) {
    const QUrl url = value.toUrl();
    return !value.isValid() || url.isEmpty() ? QJsonValue(QJsonValue::Null)
                                             : QJsonValue(url.toString());
}

QJsonArray urlList(const QList<QUrl>& urls) {
    QJsonArray list;
    for (const QUrl& url : urls)
        list.append(url.toString());
    return list;
}

// "2.0 ch" -> "2.0": the layout alone, as the MP4 reader gives it.
QString channelLayout(const QString& channels) {
    QString layout = channels.trimmed();
    if (layout.endsWith(QLatin1String(" ch")))
        layout.chop(3);
    return layout;
}

} // namespace

QString sourceTypeName(qint32 type) {
    switch (type) {
    case 1:
        return QStringLiteral("video file");
    case 2:
        return QStringLiteral("DVD");
    case 3:
        return QStringLiteral("Blu-ray");
    default:
        return QStringLiteral("not scanned");
    }
}

QString shellQuoted(const QString& arg) {
    if (arg.isEmpty())
        return QStringLiteral("''");
    static const QString safe = QStringLiteral("@%+=:,./-_");
    bool plain = true;
    for (const QChar c : arg) {
        if (!(c.unicode() < 128 && (c.isLetterOrNumber() || safe.contains(c)))) {
            plain = false;
            break;
        }
    }
    if (plain)
        return arg;
    QString quoted = arg;
    quoted.replace(QLatin1String("'"), QLatin1String("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

QString ratingLabel(const QString& rating) {
    const QStringList parts = rating.split(QLatin1Char('|'));
    return parts.size() > 1 ? parts.at(1) : rating;
}

QStringList encoderCommand(MDI_Media& item) {
    if (!item.isValid() || !item.getMainTitle())
        return {};
    const bool passThru = item.passthruVideo() && item.canPassthru();
    return item.getCmdArgs(item.primaryDevice(), passThru,
                           Resources::auxiliaryExecutable(QStringLiteral("Tarnwick_Pro_Encoder")),
                           item.outPath());
}

QJsonObject sourceJson(const MDI_Media& item) {
    return QJsonObject{{QStringLiteral("path"), item.inPath()},
                       {QStringLiteral("name"), item.name()},
                       {QStringLiteral("sourceType"), sourceTypeName(item.sourceType())}};
}

QJsonObject trackJson(qint64 id, const QString& type, const QString& language, const QString& name,
                      const QString& channels) {
    return QJsonObject{{QStringLiteral("id"), id},
                       {QStringLiteral("type"), type},
                       {QStringLiteral("language"), language},
                       {QStringLiteral("name"), name},
                       {QStringLiteral("channels"), textOrNull(channels)}};
}

QJsonObject trackJson(const AudioTrack& track) {
    QJsonObject o = trackJson(track.origIndex(), QStringLiteral("audio"), track.isoName(),
                              track.name(), channelLayout(track.channels()));
    o.insert(QStringLiteral("codec"), track.codec());
    o.insert(QStringLiteral("frequency"), textOrNull(track.freq()));
    o.insert(QStringLiteral("bitrate"), textOrNull(track.bps()));
    o.insert(QStringLiteral("include"), track.include());
    o.insert(QStringLiteral("native"), track.native());
    o.insert(QStringLiteral("burn"), false);
    o.insert(QStringLiteral("duplicate"), track.duplicate());
    return o;
}

QJsonObject trackJson(const SubtitleTrack& track) {
    QJsonObject o = trackJson(track.origIndex(), QStringLiteral("subtitle"), track.isoName(),
                              track.name(), QString());
    o.insert(QStringLiteral("codec"), track.type());
    o.insert(QStringLiteral("frequency"), QJsonValue::Null);
    o.insert(QStringLiteral("bitrate"), QJsonValue::Null);
    o.insert(QStringLiteral("include"), track.include());
    o.insert(QStringLiteral("native"), track.native());
    o.insert(QStringLiteral("burn"), track.burn());
    o.insert(QStringLiteral("duplicate"), false);
    return o;
}

QJsonObject titleJson(const Title& title, bool main) {
    QJsonArray audio;
    for (const auto& track : title.audioTracks())
        audio.append(trackJson(*track));
    QJsonArray subtitles;
    for (const auto& track : title.subtitleTracks())
        subtitles.append(trackJson(*track));
    return QJsonObject{
        {QStringLiteral("id"), title.ID()},
        {QStringLiteral("main"), main},
        {QStringLiteral("duration"), title.duration()},
        {QStringLiteral("seconds"), title.getDuration()},
        {QStringLiteral("size"), title.size()},
        {QStringLiteral("codec"), title.codec()},
        {QStringLiteral("fps"), title.FPS().trimmed()},
        {QStringLiteral("combing"), title.combing()},
        {QStringLiteral("stream"),
         title.isStreaming() ? QJsonValue(title.stream()) : QJsonValue(QJsonValue::Null)},
        {QStringLiteral("audio"), audio},
        {QStringLiteral("subtitles"), subtitles},
    };
}

QJsonObject matchJson(const MDB_Metadata& record) {
    auto tag = [&record](const char* name) { return record.getTag(QString::fromLatin1(name)); };
    QJsonObject tags;
    for (auto it = record.tagsDict().cbegin(); it != record.tagsDict().cend(); ++it)
        tags.insert(it.key(), it.value());
    const QString rating = tag(TagName::Rating);
    const QString released = tag(TagName::ReleaseDate);
    return QJsonObject{
        {QStringLiteral("tmdbID"), textOrNull(tag(TagName::TMDbID))},
        {QStringLiteral("imdbID"), textOrNull(tag(TagName::IMDbID))},
        {QStringLiteral("name"), tag(TagName::Name)},
        {QStringLiteral("releaseDate"), textOrNull(released)},
        {QStringLiteral("year"), textOrNull(released.left(4))},
        {QStringLiteral("genre"), tag(TagName::Genre)},
        {QStringLiteral("rating"), ratingLabel(rating)},
        {QStringLiteral("ratingCode"), rating},
        {QStringLiteral("director"), tag(TagName::Director)},
        {QStringLiteral("poster"), textOrNull(record.getArtworkURL().toString())},
        {QStringLiteral("posters"), urlList(record.artworkFullsizeURLs())},
        {QStringLiteral("backdrops"), urlList(record.backdropFullsizeURLs())},
        {QStringLiteral("links"),
         QJsonObject{{QStringLiteral("tmdb"), urlOrNull(record.tmdb())},
                     {QStringLiteral("imdb"), urlOrNull(record.imdb())},
                     {QStringLiteral("trailer"), urlOrNull(record.trailer())},
                     {QStringLiteral("homepage"), urlOrNull(record.homepage())}}},
        {QStringLiteral("tagLine"), record.tagLine().isValid()
                                        ? QJsonValue(record.tagLine().toString())
                                        : QJsonValue(QJsonValue::Null)},
        {QStringLiteral("tags"), tags},
    };
}

QJsonObject outputJson(const QString& path) {
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("exists"), QFileInfo::exists(path)}};
}

QStringList itemWarnings(const MDI_Media& item, const QStringList& extra) {
    QStringList lines;
    for (const QString& line : QStringList{item.warnings()} + extra) {
        const QString text = line.trimmed();
        if (!text.isEmpty() && !lines.contains(text))
            lines << text;
    }
    return lines;
}

QJsonObject itemJson(MDI_Media& item, const ItemFacts& facts) {
    QJsonArray titles;
    const Title* main = item.getMainTitle();
    for (const auto& title : item.getTitles())
        titles.append(titleJson(*title, title.get() == main));
    QJsonArray outputs;
    for (const QString& path : facts.outputs)
        outputs.append(outputJson(path));
    const bool matched = facts.lookup == QLatin1String(lookup::Matched) && item.metaData();
    return QJsonObject{
        {QStringLiteral("source"), sourceJson(item)},
        {QStringLiteral("state"), facts.state},
        {QStringLiteral("status"), item.status()},
        {QStringLiteral("warnings"),
         QJsonArray::fromStringList(itemWarnings(item, facts.warnings))},
        {QStringLiteral("lookup"), facts.lookup},
        {QStringLiteral("match"),
         matched ? QJsonValue(matchJson(*item.metaData())) : QJsonValue(QJsonValue::Null)},
        {QStringLiteral("mainTitle"), main ? QJsonValue(main->ID()) : QJsonValue(QJsonValue::Null)},
        {QStringLiteral("titles"), titles},
        {QStringLiteral("filters"), QJsonObject{{QStringLiteral("decomb"), item.decomb()},
                                                {QStringLiteral("denoise"), item.denoise()},
                                                {QStringLiteral("detelecine"), item.detelecine()},
                                                {QStringLiteral("deblock"), item.deblock()}}},
        {QStringLiteral("passthru"), item.passthruVideo() && item.canPassthru()},
        {QStringLiteral("outputs"), outputs},
        {QStringLiteral("command"),
         QJsonArray::fromStringList(facts.withCommand ? encoderCommand(item) : QStringList())},
    };
}

} // namespace cli
