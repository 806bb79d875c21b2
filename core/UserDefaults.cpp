#include "core/UserDefaults.h"

#include "core/AtomicFile.h"
#include "core/PropertyList.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cstdio>

namespace {

QString defaultStorePath() {
    const QString override = qEnvironmentVariable("TARNWICK_SETTINGS");
    if (!override.isEmpty())
        return override;
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Tarnwick/Tarnwick.plist");
}

// Reads the store file. A missing or empty file is an empty store; a file that
// is not a property-list dictionary is moved aside so nothing the user had is
// overwritten, and the defaults apply.
QVariantMap readStore(const QString& path, bool warn) {
    QFile file(path);
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    file.close();
    if (bytes.trimmed().isEmpty())
        return {};
    QString why;
    const QVariant root = PropertyList::fromData(bytes, &why);
    if (root.typeId() == QMetaType::QVariantMap)
        return root.toMap();
    if (!warn)
        return {};
    const QString backup = path + QStringLiteral(".corrupt-") +
                           QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QFile::remove(backup);
    const bool kept = QFile::rename(path, backup);
    std::fprintf(
        stderr,
        "Tarnwick: warning: the settings file %s is unreadable (%s); using the defaults%s%s\n",
        qPrintable(path), qPrintable(why.isEmpty() ? QStringLiteral("not a dictionary") : why),
        kept ? ". The bad file was kept as " : "", kept ? qPrintable(backup) : "");
    return {};
}

} // namespace

UserDefaults& UserDefaults::standard() {
    static UserDefaults instance;
    return instance;
}

UserDefaults::UserDefaults() {
    open(defaultStorePath());
    // Unwritten changes reach the file when the application object goes away.
    if (QCoreApplication::instance())
        qAddPostRoutine([] { UserDefaults::standard().synchronize(); });
}

void UserDefaults::open(const QString& path) {
    m_path = path;
    m_values = readStore(path, true);
    m_changed.clear();
}

void UserDefaults::reopen(const QString& path) {
    synchronize();
    QMutexLocker lock(&m_mutex);
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
    if (const auto v = m_volatile.constFind(key); v != m_volatile.constEnd())
        return *v;
    const auto it = m_values.constFind(key);
    if (it != m_values.constEnd())
        return *it;
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
    m_values.insert(key, value);
    m_changed.insert(key);
}

void UserDefaults::setBool(bool value, const QString& key) {
    setObject(QVariant(value), key);
}

void UserDefaults::setInteger(qint64 value, const QString& key) {
    setObject(QVariant(value), key);
}

void UserDefaults::removeObject(const QString& key) {
    QMutexLocker lock(&m_mutex);
    m_values.remove(key);
    m_changed.insert(key);
}

void UserDefaults::setVolatileObject(const QVariant& value, const QString& key) {
    QMutexLocker lock(&m_mutex);
    if (value.isValid())
        m_volatile.insert(key, value);
    else
        m_volatile.remove(key);
}

bool UserDefaults::hasUserValue(const QString& key) const {
    QMutexLocker lock(&m_mutex);
    return m_values.contains(key);
}

QStringList UserDefaults::allKeys() const {
    QMutexLocker lock(&m_mutex);
    QStringList keys = m_values.keys();
    for (auto it = m_registered.cbegin(); it != m_registered.cend(); ++it)
        if (!m_values.contains(it.key()))
            keys.append(it.key());
    keys.sort();
    return keys;
}

bool UserDefaults::synchronize() {
    return synchronize(nullptr);
}

bool UserDefaults::synchronize(QString* errorOut) {
    QMutexLocker lock(&m_mutex);
    if (m_changed.isEmpty()) {
        m_values = readStore(m_path, false);
        return true;
    }
    // Another process may have written the file since we read it: under the
    // lock, take its values and lay only our own changes over them.
    const AtomicFile::Lock fileLock(m_path + QStringLiteral(".lock"));
    QVariantMap merged = readStore(m_path, false);
    const QVariantMap onDisk = merged;
    for (const QString& key : std::as_const(m_changed)) {
        const auto it = m_values.constFind(key);
        if (it == m_values.constEnd())
            merged.remove(key);
        else
            merged.insert(key, *it);
    }
    // Changes undone before they were written (a run's own settings put back
    // at exit) leave the file as it is: a write costs a sync.
    if (!onDisk.isEmpty() && merged == onDisk) {
        m_values = merged;
        m_changed.clear();
        return true;
    }
    QString error;
    if (!PropertyList::writeFile(m_path, merged, &error)) {
        if (errorOut) {
            *errorOut = error;
            m_values = onDisk;
            m_changed.clear();
        } else {
            std::fprintf(stderr, "Tarnwick: cannot write the settings file %s: %s\n",
                         qPrintable(m_path), qPrintable(error));
        }
        return false;
    }
    m_values = merged;
    m_changed.clear();
    return true;
}
