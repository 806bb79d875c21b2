#include "ScanReport.h"

#include "ScanRelay.h"

#include <QFile>
#include <QJsonArray>
#include <QLocale>
#include <QString>

#include <cmath>
#include <cstdio>

namespace {

// HandBrake's title types.
constexpr int kDvdTitle = 0;
constexpr int kBlurayTitle = 1;

QByteArray num(qint64 v) {
    return QByteArray::number(v);
}

// Integers only, so the C library's locale cannot change the text.
template <typename... Args> QByteArray fmt(const char* format, Args... args) {
    char buf[128];
    const int n = std::snprintf(buf, sizeof buf, format, args...);
    return QByteArray(buf, qBound(0, n, int(sizeof buf) - 1));
}

int intOf(const QJsonObject& o, const char* key) {
    return o.value(QLatin1String(key)).toInt();
}

QString stringOf(const QJsonObject& o, const char* key) {
    return o.value(QLatin1String(key)).toString();
}

QByteArray hms(const QJsonObject& duration) {
    return fmt("%02d:%02d:%02d", intOf(duration, "Hours"), intOf(duration, "Minutes"),
               intOf(duration, "Seconds"));
}

// Files of any kind can be opened by the text-art demuxers; what they
// render is not a movie.
bool isMovie(const QJsonObject& title) {
    static const QStringList textArt = {QStringLiteral("bintext"), QStringLiteral("xbin"),
                                        QStringLiteral("idf"), QStringLiteral("ansi"),
                                        QStringLiteral("tty")};
    const QJsonObject geometry = title.value(QLatin1String("Geometry")).toObject();
    return !textArt.contains(stringOf(title, "VideoCodec")) && intOf(geometry, "Width") > 0 &&
           intOf(geometry, "Height") > 0;
}

QList<QJsonObject> movieTitles(const QJsonObject& titleSet) {
    QList<QJsonObject> titles;
    for (const QJsonValue& v : titleSet.value(QLatin1String("TitleList")).toArray()) {
        if (isMovie(v.toObject()))
            titles << v.toObject();
    }
    return titles;
}

QByteArray videoCodec(const QString& name) {
    if (name == QLatin1String("mpeg2video"))
        return "mpeg2";
    if (name == QLatin1String("mpeg1video"))
        return "mpeg1";
    return asciiOnly(name.toUtf8());
}

QByteArray audioCodec(const QJsonObject& track) {
    const QString name = stringOf(track, "CodecName").toLower();
    static const QList<std::pair<const char*, const char*>> names = {
        {"ac3", "AC3"},   {"eac3", "E-AC3"},    {"aac", "AAC"},        {"aac_latm", "AAC"},
        {"dts", "DTS"},   {"truehd", "TrueHD"}, {"mp3", "MP3"},        {"mp2", "MP2"},
        {"mp1", "MP1"},   {"flac", "FLAC"},     {"vorbis", "Vorbis"},  {"opus", "Opus"},
        {"alac", "ALAC"}, {"pcm_dvd", "LPCM"},  {"pcm_bluray", "LPCM"}};
    for (const auto& [from, to] : names) {
        if (name == QLatin1String(from))
            return to;
    }
    if (name.startsWith(QLatin1String("pcm_")))
        return "PCM";
    if (!name.isEmpty())
        return asciiOnly(name.toUpper().toUtf8());
    // Without a codec name the description's first parenthesis names it.
    const QString description = stringOf(track, "Description");
    const qsizetype open = description.indexOf(u'(');
    const qsizetype close = description.indexOf(u')', open + 1);
    if (open >= 0 && close > open)
        return asciiOnly(description.mid(open + 1, close - open - 1).toUtf8());
    return "Unknown";
}

QByteArray channels(const QJsonObject& track) {
    const int count = intOf(track, "ChannelCount");
    const int lfe = intOf(track, "LFECount");
    if (count > 0)
        return num(count - lfe) + '.' + num(lfe) + " ch";
    const QString description = stringOf(track, "Description");
    const qsizetype at = description.indexOf(QLatin1String(" ch)"));
    if (at > 0) {
        const qsizetype open = description.lastIndexOf(u'(', at);
        if (open >= 0)
            return asciiOnly(description.mid(open + 1, at + 3 - open - 1).toUtf8());
    }
    return "0.0 ch";
}

QByteArray isoCode(const QJsonObject& track) {
    const QString code = stringOf(track, "LanguageCode").toLower();
    if (code.size() == 3 && code.at(0).isLetter() && code.at(1).isLetter() &&
        code.at(2).isLetter() && code.at(0).unicode() < 0x80 && code.at(1).unicode() < 0x80 &&
        code.at(2).unicode() < 0x80)
        return code.toLatin1();
    return "und";
}

// A language name the parser can read back: ASCII, no parentheses (they
// delimit the codec), capitalised like the rest of the report's names.
QByteArray languageName(const QJsonObject& track) {
    QString name = stringOf(track, "Language");
    // Attributes follow the language: "English (Wide Screen) [VOBSUB]".
    for (const char* tail : {" [", " ("}) {
        const qsizetype at = name.indexOf(QLatin1String(tail));
        if (at > 0)
            name.truncate(at);
    }
    const QString decomposed = name.normalized(QString::NormalizationForm_KD);
    QString plain;
    for (QChar c : decomposed) {
        if (c.unicode() >= 0x20 && c.unicode() < 0x7f && c != u'(' && c != u')')
            plain.append(c);
    }
    plain = plain.simplified();
    bool hasLetter = false;
    for (QChar c : plain)
        hasLetter = hasLetter || c.isLetter();
    if (!hasLetter) {
        // A name in another script: fall back to the English one.
        const QLocale::Language language =
            QLocale::codeToLanguage(QString::fromLatin1(isoCode(track)), QLocale::ISO639Part2);
        plain = language == QLocale::AnyLanguage || language == QLocale::C
                    ? QStringLiteral("Unknown")
                    : QLocale::languageToString(language);
    }
    plain[0] = plain.at(0).toUpper();
    return asciiOnly(plain.toUtf8());
}

QByteArray frameRate(const QJsonObject& rate) {
    const double den = rate.value(QLatin1String("Den")).toDouble();
    const double fps = den > 0 ? rate.value(QLatin1String("Num")).toDouble() / den : 0.0;
    if (std::fabs(fps - std::round(fps)) < 0.0005)
        return num(qint64(std::llround(fps)));
    return QByteArray::number(fps, 'f', 3);
}

// HandBrakeCLI 1.6 names the region only on standard output, and not for
// every source; the disc's own IFO carries the same mask.
QByteArray dvdRegionLine(const QString& path) {
    const QStringList candidates = {path + QStringLiteral("/VIDEO_TS/VIDEO_TS.IFO"),
                                    path + QStringLiteral("/VIDEO_TS.IFO"), path};
    for (const QString& candidate : candidates) {
        QFile ifo(candidate);
        if (!ifo.open(QIODevice::ReadOnly))
            continue;
        const QByteArray head = ifo.read(0x24);
        if (head.size() < 0x24 || !head.startsWith("DVDVIDEO-VMG"))
            continue;
        const auto mask = static_cast<unsigned char>(head.at(0x23));
        QByteArray line = "libdvdnav: DVD disk reports itself with Region mask " +
                          fmt("0x%08x", unsigned(mask) << 16) + ". Regions:";
        for (int region = 1; region <= 8; ++region) {
            if (!(mask & (1u << (region - 1))))
                line += fmt(" %02d", region);
        }
        return line;
    }
    return "libdvdnav: DVD disk reports no region information";
}

QByteArray titleBlock(const QJsonObject& title, int mainFeature) {
    const int type = intOf(title, "Type");
    const int index = intOf(title, "Index");
    QByteArray out = "+ title " + num(index) + ":\n";
    if (index == mainFeature)
        out += "  + Main Feature\n";
    if (type == kBlurayTitle) {
        if (intOf(title, "Playlist") >= 0)
            out += fmt("  + playlist: %05d.MPLS\n", intOf(title, "Playlist"));
    } else if (type != kDvdTitle) {
        out += "  + stream: " + asciiOnly(stringOf(title, "Path").toUtf8()) + '\n';
    }
    out += "  + codec: " + videoCodec(stringOf(title, "VideoCodec")) + '\n';
    out += "  + duration: " + hms(title.value(QLatin1String("Duration")).toObject()) + '\n';

    const QJsonObject geometry = title.value(QLatin1String("Geometry")).toObject();
    const QJsonObject par = geometry.value(QLatin1String("PAR")).toObject();
    const int width = intOf(geometry, "Width"), height = intOf(geometry, "Height");
    const int parNum = qMax(1, intOf(par, "Num")), parDen = qMax(1, intOf(par, "Den"));
    const double aspect = double(width) * parNum / (double(height) * parDen);
    out += "  + size: " + num(width) + 'x' + num(height) + ", pixel aspect: " + num(parNum) + '/' +
           num(parDen) + ", display aspect: " + QByteArray::number(aspect, 'f', 2) + ", " +
           frameRate(title.value(QLatin1String("FrameRate")).toObject()) + " FPS\n";

    const QJsonArray crop = title.value(QLatin1String("Crop")).toArray();
    if (crop.size() == 4)
        out += "  + autocrop: " + num(crop[0].toInt()) + '/' + num(crop[1].toInt()) + '/' +
               num(crop[2].toInt()) + '/' + num(crop[3].toInt()) + '\n';

    out += "  + chapters:\n";
    int chapter = 0;
    for (const QJsonValue& c : title.value(QLatin1String("ChapterList")).toArray())
        out += "    + " + num(++chapter) + ": duration " +
               hms(c.toObject().value(QLatin1String("Duration")).toObject()) + '\n';

    // Both headers always appear: the parser ends a title's audio list at
    // the subtitle header.
    out += "  + audio tracks:\n";
    int position = 0;
    for (const QJsonValue& v : title.value(QLatin1String("AudioList")).toArray()) {
        const QJsonObject track = v.toObject();
        ++position;
        const int number =
            track.contains(QLatin1String("TrackNumber")) ? intOf(track, "TrackNumber") : position;
        out += "    + " + num(number) + ", " + languageName(track) + " (" + audioCodec(track) +
               ") (" + channels(track) + ") (iso639-2: " + isoCode(track) + ')';
        // HandBrake reports 1 for a bit rate it does not know; rate and bit
        // rate come as a pair or not at all.
        const int rate = intOf(track, "SampleRate");
        const int bitRate = intOf(track, "BitRate");
        if (rate > 0 && bitRate > 1)
            out += ", " + num(rate) + "Hz, " + num(bitRate) + "bps";
        out += '\n';
    }

    out += "  + subtitle tracks:\n";
    position = 0;
    for (const QJsonValue& v : title.value(QLatin1String("SubtitleList")).toArray()) {
        const QJsonObject track = v.toObject();
        ++position;
        const int number =
            track.contains(QLatin1String("TrackNumber")) ? intOf(track, "TrackNumber") : position;
        QString format = stringOf(track, "Format").toLower();
        format =
            format == QLatin1String("bitmap") ? QStringLiteral("Bitmap") : QStringLiteral("Text");
        QByteArray source = asciiOnly(stringOf(track, "SourceName").toUtf8());
        source.replace('(', '[').replace(')', ']');
        if (source.isEmpty())
            source = "Unknown";
        out += "    + " + num(number) + ", " + languageName(track) +
               " (iso639-2: " + isoCode(track) + ") (" + format.toLatin1() + ")(" + source + ")\n";
    }

    if (title.value(QLatin1String("InterlaceDetected")).toBool())
        out += "+ combing detected, may be interlaced or telecined\n";
    return out;
}

} // namespace

int reportedTitleCount(const QJsonObject& titleSet) {
    return int(movieTitles(titleSet).size());
}

QByteArray scanReport(const QJsonObject& titleSet, const QByteArray& dvdMarker) {
    const QList<QJsonObject> titles = movieTitles(titleSet);
    if (titles.isEmpty())
        return "No title found.\nHandBrake has exited.\n";

    QByteArray out;
    bool dvd = false, bluray = false;
    for (const QJsonObject& t : titles) {
        dvd = dvd || intOf(t, "Type") == kDvdTitle;
        bluray = bluray || intOf(t, "Type") == kBlurayTitle;
    }
    if (dvd)
        out += (dvdMarker.isEmpty() ? dvdRegionLine(stringOf(titles.front(), "Path")) : dvdMarker) +
               '\n';
    else if (bluray)
        out += "scan: BD has " + num(titles.size()) + " title(s)\n";

    const int mainFeature = intOf(titleSet, "MainFeature");
    for (const QJsonObject& t : titles)
        out += titleBlock(t, mainFeature);
    out += "HandBrake has exited.\n";
    return out;
}
