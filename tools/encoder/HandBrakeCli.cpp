#include "HandBrakeCli.h"

#include <QFileInfo>

#include <cstdlib>
#include <unistd.h>

namespace handbrake {

namespace {

bool isExecutableFile(const QString& path) {
    const QFileInfo info(path);
    return info.isFile() && ::access(QFile::encodeName(path).constData(), X_OK) == 0;
}

// Options newer or older HandBrake builds know and 1.6 refuses.
bool isUnsupported(const QString& arg) {
    return arg == QLatin1String("--use-opencl");
}

// Options with an optional value: 1.6 reads the value only when it is
// attached with "=", a separate value would be taken for a stray argument.
QString optionalValueOption(const QString& arg) {
    if (arg == QLatin1String("--subtitle-burn") || arg == QLatin1String("--subtitle-burned"))
        return QStringLiteral("--subtitle-burned");
    if (arg == QLatin1String("--subtitle-default"))
        return QStringLiteral("--subtitle-default");
    return {};
}

bool looksLikeValue(const QString& arg) {
    return !arg.isEmpty() && !arg.startsWith(u'-');
}

} // namespace

QString locate(QString* tried) {
    const QByteArray env = qgetenv("TARNWICK_HANDBRAKE");
    if (!env.isEmpty()) {
        const QString path = QFile::decodeName(env);
        if (tried)
            *tried = path;
        return isExecutableFile(path) ? path : QString();
    }
    if (tried)
        *tried = QStringLiteral("HandBrakeCLI");
    const QByteArray pathVar = qgetenv("PATH");
    const QStringList dirs =
        QFile::decodeName(pathVar.isEmpty() ? QByteArray("/usr/bin:/bin") : pathVar)
            .split(u':', Qt::SkipEmptyParts);
    for (const QString& dir : dirs) {
        const QString candidate = dir + QStringLiteral("/HandBrakeCLI");
        if (isExecutableFile(candidate))
            return candidate;
    }
    return {};
}

QByteArray missingMessage(const QString& tried) {
    return "Tarnwick_Pro_Encoder: cannot run HandBrakeCLI (" + QFile::encodeName(tried) +
           "): install the Debian package handbrake-cli (apt-get install handbrake-cli)\n";
}

bool isScanRequest(const QStringList& args) {
    for (const QString& arg : args) {
        if (arg == QLatin1String("--output") || arg == QLatin1String("-o") ||
            arg.startsWith(QLatin1String("--output=")))
            return false;
    }
    return true;
}

QStringList encodeArguments(const QStringList& args) {
    QStringList out;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args.at(i);
        // Empty pieces come from double blanks in preset texts.
        if (arg.isEmpty() || isUnsupported(arg))
            continue;
        const QString joined = optionalValueOption(arg);
        if (!joined.isEmpty()) {
            if (i + 1 < args.size() && looksLikeValue(args.at(i + 1)))
                out << joined + u'=' + args.at(++i);
            else
                out << joined;
            continue;
        }
        // A bare --subtitle would swallow the next option as its track list.
        if ((arg == QLatin1String("--subtitle") || arg == QLatin1String("-s")) &&
            !(i + 1 < args.size() && looksLikeValue(args.at(i + 1))))
            continue;
        out << arg;
    }
    return out;
}

QStringList scanArguments(const QStringList& args) {
    QStringList out;
    bool haveScan = false;
    for (const QString& arg : args) {
        if (arg.isEmpty() || isUnsupported(arg) || arg == QLatin1String("--json"))
            continue;
        if (arg == QLatin1String("--scan"))
            haveScan = true;
        out << arg;
    }
    if (!haveScan)
        out << QStringLiteral("--scan");
    out << QStringLiteral("--json");
    return out;
}

} // namespace handbrake
