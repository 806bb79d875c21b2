#include "presets/MDB_Devices.h"

#include "core/PropertyList.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

namespace {

const QString kDevices = QStringLiteral("Devices");
const QString kSections = QStringLiteral("Sections");

QString userFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
           QStringLiteral("/Oswenna");
}

std::optional<QVariantMap> readRoot(const QString& path) {
    if (path.isEmpty() || !QFileInfo::exists(path))
        return std::nullopt;
    QString error;
    // Several steps of every movie ask for the presets.
    const QVariant root = PropertyList::readFileCached(path, &error);
    if (root.typeId() != QMetaType::QVariantMap) {
        qWarning("Tarnwick: cannot read the presets in %s: %s", qPrintable(path),
                 qPrintable(error.isEmpty() ? QStringLiteral("not a dictionary") : error));
        return std::nullopt;
    }
    return root.toMap();
}

QStringList names(const QVariantMap& root) {
    return root.value(kDevices).toStringList();
}

// A preset under one of the file's own keys would overwrite the lists.
bool usableName(const QString& name) {
    return !name.isEmpty() && name != kDevices && name != kSections;
}

QString g_lastWriteError;

bool writeUserFile(const QString& file, const QVariantMap& dictionary) {
    QString error;
    if (!PropertyList::writeFile(file, dictionary, &error)) {
        g_lastWriteError = error;
        return false;
    }
    g_lastWriteError.clear();
    return true;
}

} // namespace

QString MDB_Devices::lastWriteError() {
    return g_lastWriteError;
}

QString MDB_Devices::userFilePath() {
    return userFolder() + QStringLiteral("/User-Devices.plist");
}

QString MDB_Devices::defaultFilePath() {
    return Resources::path(QStringLiteral("Devices.plist"));
}

QVariantMap MDB_Devices::devices() {
    if (auto user = userDevices())
        return *user;
    return defaultDevices();
}

QVariantMap MDB_Devices::defaultDevices() {
    return readRoot(defaultFilePath()).value_or(QVariantMap());
}

std::optional<QVariantMap> MDB_Devices::userDevices() {
    return readRoot(userFilePath());
}

QStringList MDB_Devices::sections() {
    return devices().value(kSections).toStringList();
}

QStringList MDB_Devices::deviceNames() {
    return names(devices());
}

QStringList MDB_Devices::defaultDeviceNames() {
    return names(defaultDevices());
}

std::optional<QVariantMap> MDB_Devices::device(const QString& name) {
    const QVariant preset = devices().value(name);
    if (preset.typeId() != QMetaType::QVariantMap)
        return std::nullopt;
    return preset.toMap();
}

bool MDB_Devices::isHD(const QString& name) {
    const auto preset = device(name);
    if (!preset)
        return false;
    const QVariant hd = preset->value(QStringLiteral("HD"));
    // A flag edited as text in the devices panel arrives as "YES"/"NO".
    if (hd.typeId() == QMetaType::QString) {
        const QString text = hd.toString().trimmed().toLower();
        return text == QLatin1String("yes") || text == QLatin1String("true") ||
               text == QLatin1String("1");
    }
    return hd.toBool();
}

bool MDB_Devices::addDevice(const QString& name, const QString& baseline) {
    auto root = userDevices();
    if (!root || !usableName(name) || root->value(baseline).typeId() != QMetaType::QVariantMap)
        return false;
    root->insert(name, root->value(baseline));
    QStringList list = names(*root);
    list.append(name);
    root->insert(kDevices, list);
    return writeToUserFile(*root);
}

bool MDB_Devices::changeDeviceName(const QString& oldName, const QString& toName) {
    auto root = userDevices();
    if (!root)
        return false;
    QStringList list = names(*root);
    const qsizetype index = list.indexOf(oldName);
    if (index < 0 || !root->contains(oldName) || !usableName(toName))
        return false;
    const QVariant preset = root->take(oldName);
    root->insert(toName, preset);
    list[index] = toName;
    root->insert(kDevices, list);
    return writeToUserFile(*root);
}

QString MDB_Devices::deletionRefusal(const QString& name) {
    for (const char* key : {SettingsKey::PrimaryDevice, SettingsKey::SecondaryDevice}) {
        if (UserDefaults::standard().stringForKey(QLatin1String(key)) == name)
            return QStringLiteral("\"%1\" is the \"%2\" setting's preset and cannot be deleted; "
                                  "choose another preset for \"%2\" first")
                .arg(name, QLatin1String(key));
    }
    return {};
}

bool MDB_Devices::deleteDevice(const QString& name) {
    auto root = userDevices();
    if (!root || !deletionRefusal(name).isEmpty())
        return false;
    QStringList list = names(*root);
    if (!usableName(name) || (list.removeAll(name) == 0 && !root->contains(name)))
        return false;
    root->remove(name);
    root->insert(kDevices, list);
    return writeToUserFile(*root);
}

bool MDB_Devices::resetDevice(const QString& name) {
    auto root = userDevices();
    if (!root)
        return false;
    const QVariantMap shippedRoot = defaultDevices();
    const QVariant shipped = shippedRoot.value(name);
    if (shipped.typeId() != QMetaType::QVariantMap)
        return false;
    root->insert(name, shipped);
    QStringList list = names(*root);
    if (!list.contains(name)) {
        // Back where it was shipped: after the shipped presets that precede it.
        const QStringList shippedNames = names(shippedRoot);
        qsizetype at = 0;
        for (qsizetype i = 0; i < shippedNames.indexOf(name); ++i) {
            const qsizetype found = list.indexOf(shippedNames[i]);
            if (found >= 0)
                at = found + 1;
        }
        list.insert(at, name);
        root->insert(kDevices, list);
    }
    return writeToUserFile(*root);
}

bool MDB_Devices::resetAll() {
    const QVariantMap shipped = defaultDevices();
    // A missing resource must not wipe the user's presets.
    if (shipped.isEmpty())
        return false;
    return writeToUserFile(shipped);
}

QString MDB_Devices::GenerateCustomName() {
    const auto root = userDevices();
    const QStringList list = root ? names(*root) : QStringList();
    static const QRegularExpression pattern(QStringLiteral("Custom ([0-9]{1,})$"));
    qulonglong highest = 0;
    for (const QString& name : list) {
        const auto match = pattern.match(name);
        if (!match.hasMatch())
            continue;
        bool ok = false;
        const qulonglong n = match.captured(1).toULongLong(&ok);
        if (ok && n > highest)
            highest = n;
    }
    return QStringLiteral("Custom %1").arg(highest + 1);
}

bool MDB_Devices::createUserFile(const QVariantMap& dictionary) {
    const QString folder = userFolder();
    const QString file = userFilePath();
    if (QFileInfo::exists(file))
        return true;
    if (dictionary.isEmpty())
        return false;
    // Many Linux homes have no Documents folder yet: make the whole path.
    if (!QFileInfo(folder).isDir() && !QDir().mkpath(folder)) {
        qWarning("Tarnwick: cannot create the preset folder %s", qPrintable(folder));
        return false;
    }
    if (!writeUserFile(file, dictionary)) {
        qWarning("Tarnwick: cannot write %s: %s", qPrintable(file), qPrintable(g_lastWriteError));
        return false;
    }
    return true;
}

bool MDB_Devices::writeToUserFile(const QVariantMap& dictionary) {
    const QString file = userFilePath();
    if (!QFileInfo::exists(file)) {
        g_lastWriteError = QStringLiteral("the file does not exist");
        return false;
    }
    return writeUserFile(file, dictionary);
}
