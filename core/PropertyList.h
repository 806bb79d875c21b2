#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

// Property lists as Qt values: dictionaries are QVariantMap, arrays QVariantList,
// strings QString, booleans bool, integers qint64, reals double, data QByteArray
// and dates QDateTime.
namespace PropertyList {

// Parses XML or binary property-list bytes. Answers an invalid QVariant when the
// bytes are not a property list; `error` then says why.
QVariant fromData(const QByteArray& bytes, QString* error = nullptr);

// Reads a property-list file; an invalid QVariant when it is missing or corrupt.
QVariant readFile(const QString& path, QString* error = nullptr);
// readFile for tables consulted many times a run: the parsed value is kept
// and the file read again only when it changed on disk (another file, size
// or modification time).
QVariant readFileCached(const QString& path, QString* error = nullptr);

// Serialises a value as an XML property list.
QByteArray toXml(const QVariant& value);

// Writes an XML property list atomically (AtomicFile::write): on failure the
// old file is left as it was and `error` says why.
bool writeFile(const QString& path, const QVariant& value, QString* error = nullptr);

} // namespace PropertyList
