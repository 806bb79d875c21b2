#include "media/TextScanner.h"

#include <limits>

void TextScanner::setScanLocation(qsizetype location) {
    m_location = qBound(qsizetype(0), location, m_text.size());
}

bool TextScanner::skippable(QChar c) const {
    switch (m_skip) {
    case Skip::BlanksAndNewlines:
        return c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\n') ||
               c == QLatin1Char('\r');
    case Skip::Blanks:
        return c == QLatin1Char(' ') || c == QLatin1Char('\t');
    case Skip::None:
        break;
    }
    return false;
}

qsizetype TextScanner::skipped(qsizetype from) const {
    while (from < m_text.size() && skippable(m_text.at(from)))
        ++from;
    return from;
}

bool TextScanner::isAtEnd() const {
    return skipped(m_location) >= m_text.size();
}

bool TextScanner::scanUpToString(const QString& stop, QString* into) {
    const qsizetype start = skipped(m_location);
    if (start >= m_text.size())
        return false;
    qsizetype end = stop.isEmpty() ? -1 : m_text.indexOf(stop, start);
    if (end < 0)
        end = m_text.size();
    if (end == start)
        return false;
    if (into)
        *into = m_text.mid(start, end - start);
    m_location = end;
    return true;
}

bool TextScanner::scanString(const QString& string) {
    const qsizetype start = skipped(m_location);
    if (string.isEmpty() || start >= m_text.size())
        return false;
    if (QStringView(m_text).mid(start).startsWith(string)) {
        m_location = start + string.size();
        return true;
    }
    return false;
}

bool TextScanner::scanInteger(qint64* value) {
    qsizetype pos = skipped(m_location);
    bool negative = false;
    if (pos < m_text.size() &&
        (m_text.at(pos) == QLatin1Char('-') || m_text.at(pos) == QLatin1Char('+'))) {
        negative = m_text.at(pos) == QLatin1Char('-');
        ++pos;
    }
    const qsizetype digits = pos;
    qint64 result = 0;
    bool saturated = false;
    constexpr qint64 limit = std::numeric_limits<qint64>::max();
    while (pos < m_text.size()) {
        const QChar c = m_text.at(pos);
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            break;
        const int digit = c.unicode() - '0';
        if (!saturated && result > (limit - digit) / 10)
            saturated = true;
        if (!saturated)
            result = result * 10 + digit;
        ++pos;
    }
    if (pos == digits)
        return false;
    if (saturated)
        result = negative ? std::numeric_limits<qint64>::min() : limit;
    else if (negative)
        result = -result;
    if (value)
        *value = result;
    m_location = pos;
    return true;
}
