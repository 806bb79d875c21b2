#pragma once

// Reading the movie database's JSON: what the client and the record
// builder (MDB_TheMovieDbRecord.cpp) both need.

#include <QJsonValue>
#include <QString>

namespace tmdb {

inline QString tag(const char* name) {
    return QString::fromLatin1(name);
}

// A JSON scalar as text; numbers without a trailing ".0".
inline QString text(const QJsonValue& value) {
    if (value.isString())
        return value.toString();
    if (value.isDouble())
        return QString::number(value.toDouble(), 'g', 15);
    if (value.isBool())
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    return {};
}

} // namespace tmdb
