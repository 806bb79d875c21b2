#pragma once

#include <QByteArray>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>

// The user-defaults store: the user's values in one property-list file under the
// XDG config folder (~/.config/Tarnwick/Tarnwick.plist), written atomically, above
// an in-memory layer of registered defaults. Values are read at the point of use.
class UserDefaults {
public:
    static UserDefaults& standard();

    // The registered defaults lie beneath the user's values and are never written.
    void registerDefaults(const QVariantMap& defaults);
    QVariantMap registeredDefaults() const;

    // The user's value, else the registered default, else an invalid QVariant.
    QVariant objectForKey(const QString& key) const;
    bool boolForKey(const QString& key) const;
    qint64 integerForKey(const QString& key) const;
    QString stringForKey(const QString& key) const; // empty when absent or not text
    QByteArray dataForKey(const QString& key) const;
    QVariantList arrayForKey(const QString& key) const;
    QVariantMap dictionaryForKey(const QString& key) const;

    void setObject(const QVariant& value, const QString& key);
    void setBool(bool value, const QString& key);
    void setInteger(qint64 value, const QString& key);
    void removeObject(const QString& key);

    // A value for this process only, above the user's values and never
    // written (the per-process scratch folder). An invalid value removes it.
    void setVolatileObject(const QVariant& value, const QString& key);

    bool hasUserValue(const QString& key) const;
    // Every key that has a user value or a registered default, sorted.
    QStringList allKeys() const;

    // Writes pending changes: under an exclusive lock on the lock file beside
    // the store ("Tarnwick.plist.lock"), the file is read again, only this
    // process's changes are laid over it and it is written atomically, so
    // concurrent processes lose none of each other's keys. False when the
    // file cannot be written; the old file then stays as it was. Without
    // `error` the reason is printed and the changes stay pending; with it,
    // the caller reports the reason and the unwritten changes are dropped.
    bool synchronize();
    bool synchronize(QString* error);

    QString storePath() const;
    // Points the store at another file and drops the registered defaults; a
    // restart in miniature for tests and for tools that keep their own store.
    void reopen(const QString& path = QString());

private:
    UserDefaults();
    void open(const QString& path);

    mutable QMutex m_mutex;
    QVariantMap m_values;     // the user's values as last read or written
    QSet<QString> m_changed;  // keys set or removed since the last write
    QVariantMap m_registered; // never written
    QVariantMap m_volatile;   // this process only, never written
    QString m_path;
};
