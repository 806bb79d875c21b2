#include "processing/JobText.h"

#include "media/TextScanner.h"

#include <QString>

namespace JobText {

namespace {
bool isDigit(QChar c) {
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

bool skippable(const TextScanner& cursor, QChar c) {
    switch (cursor.charactersToBeSkipped()) {
    case TextScanner::Skip::BlanksAndNewlines:
        return c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\n') ||
               c == QLatin1Char('\r');
    case TextScanner::Skip::Blanks:
        return c == QLatin1Char(' ') || c == QLatin1Char('\t');
    case TextScanner::Skip::None:
        break;
    }
    return false;
}
} // namespace

bool scanDouble(TextScanner& cursor, double* value) {
    const QString& text = cursor.string();
    const qsizetype start = cursor.scanLocation();
    qsizetype pos = start;
    while (pos < text.size() && skippable(cursor, text.at(pos)))
        ++pos;
    const qsizetype numberStart = pos;
    if (pos < text.size() && (text.at(pos) == QLatin1Char('-') || text.at(pos) == QLatin1Char('+')))
        ++pos;
    qsizetype digits = 0;
    while (pos < text.size() && isDigit(text.at(pos))) {
        ++pos;
        ++digits;
    }
    if (pos < text.size() && text.at(pos) == QLatin1Char('.')) {
        ++pos;
        while (pos < text.size() && isDigit(text.at(pos))) {
            ++pos;
            ++digits;
        }
    }
    if (digits == 0)
        return false;
    // An exponent counts only when digits follow it.
    if (pos < text.size() &&
        (text.at(pos) == QLatin1Char('e') || text.at(pos) == QLatin1Char('E'))) {
        qsizetype exp = pos + 1;
        if (exp < text.size() &&
            (text.at(exp) == QLatin1Char('-') || text.at(exp) == QLatin1Char('+')))
            ++exp;
        if (exp < text.size() && isDigit(text.at(exp))) {
            while (exp < text.size() && isDigit(text.at(exp)))
                ++exp;
            pos = exp;
        }
    }
    bool ok = false;
    const double parsed = QStringView(text).mid(numberStart, pos - numberStart).toDouble(&ok);
    if (!ok)
        return false;
    *value = parsed;
    cursor.setScanLocation(pos);
    return true;
}

} // namespace JobText
