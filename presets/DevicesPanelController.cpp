#include "presets/DevicesPanelController.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

namespace {

// Flags are shown and typed as text; a typed flag keeps its type in the file
// so the presets stay as shipped.
QString displayText(const QVariant& value) {
    if (value.typeId() == QMetaType::Bool)
        return value.toBool() ? QStringLiteral("YES") : QStringLiteral("NO");
    return value.toString();
}

QVariant typedValue(const QVariant& old, const QString& text) {
    const QString t = text.trimmed().toLower();
    if (old.typeId() == QMetaType::Bool) {
        if (t == QLatin1String("yes") || t == QLatin1String("true") || t == QLatin1String("1"))
            return true;
        if (t == QLatin1String("no") || t == QLatin1String("false") || t == QLatin1String("0"))
            return false;
    } else if (old.typeId() == QMetaType::Int || old.typeId() == QMetaType::LongLong) {
        bool ok = false;
        const qlonglong n = text.trimmed().toLongLong(&ok);
        if (ok)
            return n;
    }
    return text;
}

} // namespace

DevicesPanelController::DevicesPanelController(QObject* parent) : QObject(parent) {}

void DevicesPanelController::withParentWindow() {
    m_infoKeys = MDB_Devices::sections();
    reloadNames();
    select(UserDefaults::standard().stringForKey(SettingsKey::PrimaryDevice));
}

void DevicesPanelController::reloadNames() {
    m_devices = MDB_Devices::deviceNames();
}

void DevicesPanelController::select(const QString& name) {
    if (m_devices.contains(name))
        m_currentDevice = name;
    else
        m_currentDevice = m_devices.isEmpty() ? QString() : m_devices.first();
    emit devicesChanged();
    emit tableChanged();
}

bool DevicesPanelController::resetDevEnabled() const {
    return !m_currentDevice.isEmpty() &&
           MDB_Devices::defaultDeviceNames().contains(m_currentDevice);
}

QVariantMap DevicesPanelController::currentPreset() const {
    if (m_currentDevice.isEmpty())
        return {};
    return MDB_Devices::device(m_currentDevice).value_or(QVariantMap());
}

int DevicesPanelController::rowCount() const {
    // Rows are labelled from "Sections"; a key it does not name has no row.
    return int(qMin<qsizetype>(currentPreset().size(), m_infoKeys.size()));
}

QString DevicesPanelController::description(int row) const {
    return row >= 0 && row < m_infoKeys.size() ? m_infoKeys.at(row) : QString();
}

QString DevicesPanelController::parameters(int row) const {
    if (row < 0 || row >= rowCount())
        return {};
    return displayText(currentPreset().value(m_infoKeys.at(row)));
}

bool DevicesPanelController::setParameters(int row, const QString& text) {
    if (row < 0 || row >= rowCount())
        return false;
    auto root = MDB_Devices::userDevices();
    if (!root || !root->contains(m_currentDevice))
        return false;
    QVariantMap preset = root->value(m_currentDevice).toMap();
    const QString key = m_infoKeys.at(row);
    preset.insert(key, typedValue(preset.value(key), text));
    root->insert(m_currentDevice, preset);
    const bool written = MDB_Devices::writeToUserFile(*root);
    emit tableChanged();
    return written;
}

void DevicesPanelController::onDeviceChanged(int index) {
    if (index < 0 || index >= m_devices.size())
        return;
    m_currentDevice = m_devices.at(index);
    emit devicesChanged();
    emit tableChanged();
}

bool DevicesPanelController::onAddDevice() {
    if (m_currentDevice.isEmpty())
        return false;
    const QString name = MDB_Devices::GenerateCustomName();
    if (!MDB_Devices::addDevice(name, m_currentDevice))
        return false;
    reloadNames();
    select(name);
    return true;
}

bool DevicesPanelController::onDeleteDevice() {
    const int k = currentIndex();
    if (k < 0 || !MDB_Devices::deleteDevice(m_currentDevice))
        return false;
    reloadNames();
    // Deleting the only preset leaves nothing to select.
    if (m_devices.isEmpty())
        select(QString());
    else
        select(m_devices.at(qMin<qsizetype>(k, m_devices.size() - 1)));
    return true;
}

bool DevicesPanelController::controlTextDidEndEditing(const QString& text) {
    if (text == m_currentDevice)
        return true;
    const bool renamed = !text.isEmpty() && !m_devices.contains(text) &&
                         MDB_Devices::changeDeviceName(m_currentDevice, text);
    // The preset in use stays in use under its new name.
    if (renamed) {
        auto& d = UserDefaults::standard();
        for (const char* key : {SettingsKey::PrimaryDevice, SettingsKey::SecondaryDevice}) {
            if (d.stringForKey(key) == m_currentDevice)
                d.setObject(text, key);
        }
    }
    reloadNames();
    select(renamed ? text : m_currentDevice);
    return renamed;
}

bool DevicesPanelController::onResetDevice() {
    const bool reset = MDB_Devices::resetDevice(m_currentDevice);
    emit tableChanged();
    return reset;
}

bool DevicesPanelController::onResetAll() {
    const bool reset = MDB_Devices::resetAll();
    withParentWindow();
    return reset;
}

QUrl DevicesPanelController::cliGuideUrl() {
    return QUrl(
        QStringLiteral("https://handbrake.fr/docs/en/latest/cli/command-line-reference.html"));
}

void DevicesPanelController::onClose() {
    UserDefaults::standard().synchronize();
}
