// Turning a device preset into encoder arguments.
#include "presets/MDB_Devices.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <utility>

namespace {

// A missing preset or key reads as the text a missing object formats to, so a
// bad name shows up in the command line instead of vanishing.
QString presetText(const std::optional<QVariantMap>& preset, const char* key) {
    const QString k = QLatin1String(key);
    if (!preset || !preset->contains(k))
        return QStringLiteral("(null)");
    return preset->value(k).toString();
}

// Reads an optionally signed integer at `pos` after skipping blanks; the value
// is left alone when none follows.
bool scanInteger(const QString& text, qsizetype pos, qint64* value) {
    while (pos < text.size() && text[pos].isSpace())
        ++pos;
    qsizetype end = pos;
    if (end < text.size() && (text[end] == QLatin1Char('-') || text[end] == QLatin1Char('+')))
        ++end;
    const qsizetype digits = end;
    while (end < text.size() && text[end].isDigit())
        ++end;
    if (end == digits)
        return false;
    bool ok = false;
    const qint64 v = text.mid(pos, end - pos).toLongLong(&ok);
    if (ok)
        *value = v;
    return ok;
}

// The number after `longName`, else after `shortProbe` (the short name with its
// blank), stepping over `shortName`. 0 when neither is there.
qint64 pictureLimit(const QString& picture, const QString& longName, const QString& shortProbe,
                    const QString& shortName) {
    qsizetype pos = picture.indexOf(longName);
    if (pos >= 0) {
        pos += longName.size();
    } else {
        pos = picture.indexOf(shortProbe);
        if (pos >= 0)
            pos += shortName.size();
    }
    qint64 value = 0;
    if (pos >= 0)
        scanInteger(picture, pos, &value);
    return value;
}

// The leading integer of a text, 0 when it has none.
qint64 leadingInteger(const QString& text) {
    qint64 value = 0;
    scanInteger(text, 0, &value);
    return value;
}

} // namespace

QString MDB_Devices::videoCmdArgs(const QString& name, bool nativeRate, const QString& nativeSize) {
    Q_UNUSED(nativeRate);
    const auto preset = device(name);

    const qsizetype x = nativeSize.indexOf(QLatin1Char('x'));
    const qint64 sourceWidth = leadingInteger(x < 0 ? nativeSize : nativeSize.left(x));
    const qint64 sourceHeight = x < 0 ? 0 : leadingInteger(nativeSize.mid(x + 1));
    const qint64 sourcePixels = sourceWidth * sourceHeight;

    const QString picture = presetText(preset, "picture");
    const qint64 maxWidth = pictureLimit(picture, QStringLiteral("--maxWidth"),
                                         QStringLiteral("-X "), QStringLiteral("-X"));
    const qint64 maxHeight = pictureLimit(picture, QStringLiteral("--maxHeight"),
                                          QStringLiteral("-Y "), QStringLiteral("-Y"));
    const qint64 maxPixels = maxWidth * maxHeight;

    QString encoder = presetText(preset, "video encoder");
    if (sourcePixels < maxPixels) {
        qsizetype pos = encoder.indexOf(QLatin1String("--vb "));
        if (pos >= 0) {
            pos += 4;
        } else {
            pos = encoder.indexOf(QLatin1String("-b "));
            if (pos >= 0)
                pos += 2;
        }
        if (pos >= 0) {
            qint64 bitrate = 2000;
            scanInteger(encoder, pos, &bitrate);
            qint64 scaled = qint64(double(sourcePixels) * (double(bitrate) / double(maxPixels)));
            if (scaled < 150)
                scaled = 150;
            // Only the long spelling is rewritten: "-b" presets keep their rate.
            encoder.replace(QStringLiteral("--vb %1").arg(bitrate),
                            QStringLiteral("--vb %1").arg(scaled));
        }
    }

    const QString framerate =
        UserDefaults::standard().boolForKey(QLatin1String(SettingsKey::NativeFramerate))
            ? QStringLiteral("--vfr")
            : presetText(preset, "video framerate");

    return QStringLiteral("%1 %2 %3 %4 %5")
        .arg(encoder, framerate, presetText(preset, "destination"), picture,
             presetText(preset, "misc"));
}

QStringList MDB_Devices::audioCmdArgs(const QString& name, const QList<qint64>& tracks,
                                      const QStringList& titles, const QStringList& codecs,
                                      QList<bool>* duplicates) {
    Q_UNUSED(titles);
    Q_UNUSED(codecs);
    const auto preset = device(name);
    const QString encoderText = presetText(preset, "audio encoder");
    const QStringList pattern = presetText(preset, "audio track").split(QLatin1Char(' '));

    // Outputs per source track: the pieces of the "--audio" value.
    qsizetype outputs = 1;
    const qsizetype audio = pattern.indexOf(QLatin1String("--audio"));
    if (audio >= 0 && audio + 1 < pattern.size())
        outputs = pattern[audio + 1].split(QLatin1Char(',')).size();

    const auto isOption = [](const QString& token) { return token.startsWith(QLatin1Char('-')); };
    QStringList working = pattern;
    for (QString& token : working) {
        if (!isOption(token))
            token.clear();
    }

    for (qsizetype i = 0; i < tracks.size(); ++i) {
        const QString number = QString::number(tracks[i]);
        for (qsizetype k = 0; k < pattern.size(); ++k) {
            if (isOption(pattern[k]))
                continue;
            QString piece = pattern[k];
            piece.replace(QLatin1Char('%'), number);
            if (!working[k].isEmpty())
                working[k] += QLatin1Char(',');
            working[k] += piece;
        }
        if (duplicates) {
            if (duplicates->size() <= i)
                duplicates->resize(i + 1);
            (*duplicates)[i] = outputs >= 2;
        }
    }

    return encoderText.split(QLatin1Char(' ')) + working;
}

QStringList MDB_Devices::subtitleCmdArgs(const QString& name,
                                         const std::optional<QList<qint64>>& tracks,
                                         const std::optional<QStringList>& titles, qint64 burn,
                                         qint64 native) {
    Q_UNUSED(name);
    QStringList args;
    bool markBurn = true;
    if (tracks && titles) {
        args << QStringLiteral("--subtitle");
        if (tracks->isEmpty()) {
            if (burn == 0) {
                args << QStringLiteral("scan");
                markBurn = false;
            }
            // Otherwise "--subtitle" stands without a value, as built.
        } else {
            QString list;
            if (burn == 0)
                list = QStringLiteral("scan,");
            else if (burn > 0)
                list = QStringLiteral("%1,").arg(burn);
            const qsizetype last = tracks->size() - 1;
            for (qsizetype i = 0; i <= last; ++i) {
                const qint64 track = tracks->at(i);
                if (i == last) {
                    // The burned track already leads the list.
                    if (track == burn)
                        list.chop(1);
                    else
                        list += QString::number(track);
                } else if (track != burn) {
                    list += QString::number(track) + QLatin1Char(',');
                }
            }
            args << list;
        }
    } else if (burn == 0) {
        args << QStringLiteral("--subtitle") << QStringLiteral("scan");
        markBurn = false;
    }

    if (markBurn && burn > 0)
        args << QStringLiteral("--subtitle-burn") << QStringLiteral("1");

    if (native > 0 && tracks) {
        const qsizetype i = tracks->indexOf(native);
        if (i >= 0) {
            // Only a first-listed track makes room for the leading scan/burn entry.
            const qint64 position = (i == 0 && burn >= 0) ? 2 : i + 1;
            args << QStringLiteral("--subtitle-default") << QString::number(position);
        }
    }
    return args;
}

QStringList MDB_Devices::filterCmdArgs() {
    const auto& defaults = UserDefaults::standard();
    QStringList args;
    const std::pair<const char*, const char*> filters[] = {
        {SettingsKey::Decomb, "--decomb"},
        {SettingsKey::Denoise, "--denoise"},
        {SettingsKey::Detelecine, "--detelecine"},
        {SettingsKey::Deblock, "--deblock"},
    };
    for (const auto& [key, option] : filters) {
        if (defaults.boolForKey(QLatin1String(key)))
            args << QLatin1String(option);
    }
    return args;
}

void MDB_Devices::removeUnsupportedArgs(QStringList& args) {
    struct Unsupported {
        const char* option;
        int count;
    };
    // "-o" and "-f" drop only themselves: their value stays in the list.
    static const Unsupported options[] = {
        {"-h", 1},
        {"--help", 1},
        {"-u", 1},
        {"--update", 1},
        {"-v", 2},
        {"--verbose", 2},
        {"-Z", 2},
        {"--preset", 2},
        {"-z", 1},
        {"--preset-list", 1},
        {"--no-dvdnav", 1},
        {"--scan", 1},
        {"--main-feature", 1},
        {"-o", 1},
        {"-f", 1},
    };
    for (const auto& [option, count] : options) {
        const QString name = QLatin1String(option);
        qsizetype index;
        while ((index = args.indexOf(name)) >= 0) {
            args.removeAt(index);
            // A counted option standing last has no value to take along.
            if (count == 2 && index < args.size())
                args.removeAt(index);
        }
    }
}
