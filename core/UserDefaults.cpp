#include "core/UserDefaults.h"

#include "core/PropertyList.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cstdio>

namespace {

bool readPlist(QIODevice& device, QSettings::SettingsMap& map) {
    const QByteArray bytes = device.readAll();
    if (bytes.trimmed().isEmpty())
        return true; // a new, empty store
    const QVariant root = PropertyList::fromData(bytes);
    if (root.typeId() != QMetaType::QVariantMap)
        return false;
    const QVariantMap dict = root.toMap();
    for (auto it = dict.cbegin(); it != dict.cend(); ++it)
        map.insert(it.key(), it.value());
    return true;
}

bool writePlist(QIODevice& device, const QSettings::SettingsMap& map) {
    QVariantMap dict;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        dict.insert(it.key(), it.value());
    return device.write(PropertyList::toXml(dict)) >= 0;
}

QSettings::Format plistFormat() {
    static const QSettings::Format format =
        QSettings::registerFormat(QStringLiteral("plist"), readPlist, writePlist);
    return format;
}

QString defaultStorePath() {
    const QString override = qEnvironmentVariable("TARNWICK_SETTINGS");
    if (!override.isEmpty())
        return override;
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Tarnwick/Tarnwick.plist");
}

} // namespace

UserDefaults& UserDefaults::standard() {
    static UserDefaults instance;
    return instance;
}

UserDefaults::UserDefaults() {
    open(defaultStorePath());
}

void UserDefaults::open(const QString& path) {
    m_path = path;
    QDir().mkpath(QFileInfo(path).absolutePath());
    // QSettings reads lazily and would overwrite a bad file at its next write, so
    // check the file before handing it over.
    QFile existing(path);
    if (existing.exists() && existing.open(QIODevice::ReadOnly)) {
        const QByteArray bytes = existing.readAll();
        existing.close();
        QString why;
        if (!bytes.trimmed().isEmpty() &&
            PropertyList::fromData(bytes, &why).typeId() != QMetaType::QVariantMap) {
            // Keep the bad file for the user rather than lose it.
            const QString backup =
                path + QStringLiteral(".corrupt-") +
                QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
            QFile::remove(backup);
            const bool kept = QFile::rename(path, backup);
            std::fprintf(stderr,
                         "Tarnwick: warning: the settings file %s is unreadable (%s); using the "
                         "defaults%s%s\n",
                         qPrintable(path),
                         qPrintable(why.isEmpty() ? QStringLiteral("not a dictionary") : why),
                         kept ? ". The bad file was kept as " : "", kept ? qPrintable(backup) : "");
        }
    }
    m_settings = std::make_unique<QSettings>(path, plistFormat());
    m_settings->setFallbacksEnabled(false);
}

void UserDefaults::reopen(const QString& path) {
    QMutexLocker lock(&m_mutex);
    if (m_settings)
        m_settings->sync();
    m_registered.clear();
    open(path.isEmpty() ? defaultStorePath() : path);
}

QString UserDefaults::storePath() const {
    QMutexLocker lock(&m_mutex);
    return m_path;
}

void UserDefaults::registerDefaults(const QVariantMap& defaults) {
    QMutexLocker lock(&m_mutex);
    for (auto it = defaults.cbegin(); it != defaults.cend(); ++it)
        m_registered.insert(it.key(), it.value());
}

QVariantMap UserDefaults::registeredDefaults() const {
    QMutexLocker lock(&m_mutex);
    return m_registered;
}

QVariant UserDefaults::objectForKey(const QString& key) const {
    QMutexLocker lock(&m_mutex);
    const QVariant v = m_settings->value(key);
    if (v.isValid())
        return v;
    return m_registered.value(key);
}

bool UserDefaults::boolForKey(const QString& key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QString) {
        const QString s = v.toString().trimmed().toLower();
        return s == QLatin1String("yes") || s == QLatin1String("true") || s.toLongLong() != 0;
    }
    return v.toBool();
}

qint64 UserDefaults::integerForKey(const QString& key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QString)
        return v.toString().trimmed().toLongLong();
    return v.toLongLong();
}

QString UserDefaults::stringForKey(const QString& key) const {
    const QVariant v = objectForKey(key);
    switch (v.typeId()) {
    case QMetaType::QString:
        return v.toString();
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::Double:
        return v.toString();
    default:
        return {};
    }
}

QByteArray UserDefaults::dataForKey(const QString& key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QByteArray)
        return v.toByteArray();
    return {};
}

QVariantList UserDefaults::arrayForKey(const QString& key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QVariantList || v.typeId() == QMetaType::QStringList)
        return v.toList();
    return {};
}

QVariantMap UserDefaults::dictionaryForKey(const QString& key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QVariantMap)
        return v.toMap();
    return {};
}

void UserDefaults::setObject(const QVariant& value, const QString& key) {
    if (!value.isValid()) {
        removeObject(key);
        return;
    }
    QMutexLocker lock(&m_mutex);
    m_settings->setValue(key, value);
}

void UserDefaults::setBool(bool value, const QString& key) {
    setObject(QVariant(value), key);
}

void UserDefaults::setInteger(qint64 value, const QString& key) {
    setObject(QVariant(value), key);
}

void UserDefaults::removeObject(const QString& key) {
    QMutexLocker lock(&m_mutex);
    m_settings->remove(key);
}

bool UserDefaults::hasUserValue(const QString& key) const {
    QMutexLocker lock(&m_mutex);
    return m_settings->contains(key);
}

QStringList UserDefaults::allKeys() const {
    QMutexLocker lock(&m_mutex);
    QStringList keys = m_settings->allKeys();
    for (auto it = m_registered.cbegin(); it != m_registered.cend(); ++it)
        if (!keys.contains(it.key()))
            keys.append(it.key());
    keys.sort();
    return keys;
}

bool UserDefaults::synchronize() {
    QMutexLocker lock(&m_mutex);
    m_settings->sync();
    return m_settings->status() == QSettings::NoError;
}
