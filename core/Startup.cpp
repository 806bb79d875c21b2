#include "core/Startup.h"

#include "core/MDB_Utility.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <QDir>
#include <QFileInfo>

#include <cstdlib>
#include <ctime>

namespace Startup {

bool registerDefaults(QString* error) {
    const QString missing = Resources::checkResourceDir();
    if (!missing.isEmpty()) {
        if (error)
            *error = missing;
        return false;
    }
    const QVariant defaults = Resources::loadPropertyList(QStringLiteral("Defaults-Pro.plist"));
    if (defaults.typeId() != QMetaType::QVariantMap) {
        if (error)
            *error = QStringLiteral("Tarnwick: cannot read Defaults-Pro.plist in %1")
                         .arg(Resources::resourceDir());
        return false;
    }
    UserDefaults::standard().registerDefaults(defaults.toMap());
    return true;
}

void createUserPresets() {
    const QVariant devices = Resources::loadPropertyList(QStringLiteral("Devices.plist"));
    if (devices.typeId() == QMetaType::QVariantMap)
        MDB_Devices::createUserFile(devices.toMap());
}

bool run(QString* error) {
    srandom(static_cast<unsigned>(std::time(nullptr)));
    if (!registerDefaults(error))
        return false;
    createUserPresets();
    repairTempDirectory();
    repairLanguageRegion();
    return true;
}

QString repairTempDirectory() {
    auto& defaults = UserDefaults::standard();
    const QString stored = defaults.stringForKey(SettingsKey::TempDirectory);
    if (!stored.isEmpty()) {
        const QFileInfo info(stored);
        if (info.isDir() && info.isReadable() && info.isWritable())
            return stored;
    }
    QByteArray templ = QDir::temp().filePath(QStringLiteral("Tarnwick.XXXXXX")).toLocal8Bit();
    if (!mkdtemp(templ.data()))
        return {};
    const QString made = QString::fromLocal8Bit(templ);
    defaults.setObject(made, SettingsKey::TempDirectory);
    defaults.synchronize();
    return made;
}

QString regionForLocale(const QString& localeIdentifier) {
    QString code = localeIdentifier;
    code.replace(QLatin1Char('_'), QLatin1Char('-'));
    if (MDB_Utility::hasLanguageRegion(code))
        return code;
    return QStringLiteral("en-US");
}

void repairLanguageRegion(const QString& localeIdentifier) {
    auto& defaults = UserDefaults::standard();
    const QVariant value = defaults.objectForKey(SettingsKey::LanguageRegion);
    if (!value.isValid() || value.toString() != QLatin1String(""))
        return;
    defaults.setObject(regionForLocale(localeIdentifier), SettingsKey::LanguageRegion);
    defaults.synchronize();
}

bool presetUpdateNeeded() {
    const auto& defaults = UserDefaults::standard();
    const qint64 shipped = defaults.integerForKey(SettingsKey::Presets);
    const qint64 current = defaults.integerForKey(SettingsKey::PresetsCurrent);
    return shipped > current || !defaults.boolForKey(SettingsKey::UpdatePresets);
}

void acceptPresetUpdate() {
    auto& defaults = UserDefaults::standard();
    MDB_Devices::resetAll();
    defaults.setInteger(defaults.integerForKey(SettingsKey::Presets), SettingsKey::PresetsCurrent);
    defaults.setBool(true, SettingsKey::UpdatePresets);
    defaults.synchronize();
}

void cleanupAtExit() {
    auto& defaults = UserDefaults::standard();
    const QString temp = defaults.stringForKey(SettingsKey::TempDirectory);
    if (!temp.isEmpty() && QFileInfo(temp).isDir())
        QDir(temp).removeRecursively();
    defaults.synchronize();
}

} // namespace Startup
