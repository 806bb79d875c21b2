#include "cli/Describe.h"

namespace cli {

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

} // namespace cli
