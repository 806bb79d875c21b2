#include "core/PropertyList.h"

#include "core/AtomicFile.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QTimeZone>

#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

// Property-list dates count seconds from 2001-01-01 UTC.
constexpr qint64 kAppleEpochOffset = 978307200;

QVariant toVariant(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t v = 0;
        plist_get_bool_val(node, &v);
        return QVariant(v != 0);
    }
    case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        // Negative integers travel as two's complement.
        return QVariant(static_cast<qint64>(v));
    }
    case PLIST_REAL: {
        double v = 0;
        plist_get_real_val(node, &v);
        return QVariant(v);
    }
    case PLIST_STRING: {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        QString out = QString::fromUtf8(s ? s : "");
        std::free(s);
        return out;
    }
    case PLIST_DATA: {
        char* d = nullptr;
        uint64_t len = 0;
        plist_get_data_val(node, &d, &len);
        QByteArray out(d, static_cast<qsizetype>(len));
        std::free(d);
        return out;
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return QDateTime::fromMSecsSinceEpoch(
            (qint64(sec) + kAppleEpochOffset) * 1000 + usec / 1000, QTimeZone::utc());
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t n = plist_array_get_size(node);
        list.reserve(n);
        for (uint32_t i = 0; i < n; ++i)
            list.append(toVariant(plist_array_get_item(node, i)));
        return list;
    }
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char* key = nullptr;
            plist_t val = nullptr;
            plist_dict_next_item(node, it, &key, &val);
            if (!val) {
                std::free(key);
                break;
            }
            map.insert(QString::fromUtf8(key), toVariant(val));
            std::free(key);
        }
        std::free(it);
        return map;
    }
    case PLIST_UID: {
        uint64_t v = 0;
        plist_get_uid_val(node, &v);
        return QVariant(static_cast<qint64>(v));
    }
    default:
        return {};
    }
}

plist_t fromVariant(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Bool:
        return plist_new_bool(value.toBool());
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::UChar:
        return plist_new_uint(static_cast<uint64_t>(value.toLongLong()));
    case QMetaType::Double:
    case QMetaType::Float:
        return plist_new_real(value.toDouble());
    case QMetaType::QByteArray: {
        const QByteArray b = value.toByteArray();
        return plist_new_data(b.constData(), static_cast<uint64_t>(b.size()));
    }
    case QMetaType::QDateTime: {
        const qint64 ms = value.toDateTime().toMSecsSinceEpoch() - kAppleEpochOffset * 1000;
        return plist_new_date(static_cast<int32_t>(ms / 1000),
                              static_cast<int32_t>((ms % 1000) * 1000));
    }
    case QMetaType::QVariantMap: {
        plist_t dict = plist_new_dict();
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            plist_dict_set_item(dict, it.key().toUtf8().constData(), fromVariant(it.value()));
        return dict;
    }
    case QMetaType::QVariantHash: {
        plist_t dict = plist_new_dict();
        const QVariantHash map = value.toHash();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            plist_dict_set_item(dict, it.key().toUtf8().constData(), fromVariant(it.value()));
        return dict;
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        plist_t arr = plist_new_array();
        for (const QVariant& v : value.toList())
            plist_array_append_item(arr, fromVariant(v));
        return arr;
    }
    default:
        if (value.canConvert<QVariantList>() && value.typeId() != QMetaType::QString)
            return fromVariant(QVariant(value.toList()));
        return plist_new_string(value.toString().toUtf8().constData());
    }
}

} // namespace

namespace PropertyList {

QVariant fromData(const QByteArray& bytes, QString* error) {
    if (bytes.isEmpty()) {
        if (error)
            *error = QStringLiteral("empty file");
        return {};
    }
    plist_t root = nullptr;
    const auto len = static_cast<uint32_t>(bytes.size());
    if (plist_is_binary(bytes.constData(), len)) {
        plist_from_bin(bytes.constData(), len, &root);
    } else {
        // The XML reader of this libplist accepts some trailing junk; insist on a
        // closing tag so a truncated file is reported as corrupt.
        const QByteArray trimmed = bytes.trimmed();
        if (trimmed.startsWith("<") && !trimmed.endsWith("</plist>")) {
            if (error)
                *error = QStringLiteral("not a complete property list");
            return {};
        }
        plist_from_xml(bytes.constData(), len, &root);
    }
    if (!root) {
        if (error)
            *error = QStringLiteral("not a property list");
        return {};
    }
    QVariant out = toVariant(root);
    plist_free(root);
    return out;
}

QVariant readFile(const QString& path, QString* error) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        if (error)
            *error = f.errorString();
        return {};
    }
    return fromData(f.readAll(), error);
}

QVariant readFileCached(const QString& path, QString* error) {
    struct Parsed {
        dev_t device;
        ino_t inode;
        off_t size;
        timespec modified;
        QVariant value;
    };
    static QMutex mutex;
    static QHash<QString, Parsed> parsed;
    struct stat st {};
    const bool stamped = ::stat(QFile::encodeName(path).constData(), &st) == 0;
    auto same = [&st](const Parsed& c) {
        return c.device == st.st_dev && c.inode == st.st_ino && c.size == st.st_size &&
               c.modified.tv_sec == st.st_mtim.tv_sec && c.modified.tv_nsec == st.st_mtim.tv_nsec;
    };
    if (stamped) {
        QMutexLocker lock(&mutex);
        const auto it = parsed.constFind(path);
        if (it != parsed.constEnd() && same(*it))
            return it->value;
    }
    // A change between the stat and the read only costs the next call a read.
    QVariant v = readFile(path, error);
    if (v.isValid() && stamped) {
        QMutexLocker lock(&mutex);
        parsed.insert(path, {st.st_dev, st.st_ino, st.st_size, st.st_mtim, v});
    }
    return v;
}

QByteArray toXml(const QVariant& value) {
    plist_t root = fromVariant(value);
    char* xml = nullptr;
    uint32_t len = 0;
    plist_to_xml(root, &xml, &len);
    QByteArray out(xml, static_cast<qsizetype>(len));
    plist_to_xml_free(xml);
    plist_free(root);
    return out;
}

bool writeFile(const QString& path, const QVariant& value, QString* error) {
    const QByteArray xml = toXml(value);
    if (xml.isEmpty()) {
        if (error)
            *error = QStringLiteral("cannot serialise the property list");
        return false;
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    return AtomicFile::write(path, xml, error);
}

} // namespace PropertyList
