#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>

// The devices panel without its widgets: a current preset picked from the
// preset names, a table of its option strings, and edits that go to the user
// preset file at once. devicesChanged() asks a front end to refill the names
// and select currentDevice(); tableChanged() to reload the table.
class DevicesPanelController : public QObject {
    Q_OBJECT
public:
    static constexpr char kDescriptionColumn[] = "Description";
    static constexpr char kParametersColumn[] = "Parameters";

    explicit DevicesPanelController(QObject* parent = nullptr);

    // Loads the sections and names and selects the "Primary Device" (the
    // first preset when that name is gone).
    void withParentWindow();

    QStringList devices() const { return m_devices; }
    QString currentDevice() const { return m_currentDevice; }
    // Position of the current preset in devices(), -1 when there is none.
    int currentIndex() const { return m_devices.indexOf(m_currentDevice); }
    QStringList infoKeys() const { return m_infoKeys; }
    // Reset-one is offered for shipped names only.
    bool resetDevEnabled() const;

    // The table: one row per key of the current preset that "Sections" names.
    int rowCount() const;
    QString description(int row) const;
    QString parameters(int row) const;
    // Writes the row's option text into the current preset of the user file;
    // false when nothing was written (no user file, bad row, failed write).
    bool setParameters(int row, const QString& text);

    // Makes the preset at `index` of devices() current.
    void onDeviceChanged(int index);
    // A copy of the current preset under a free "Custom N" name, made current.
    bool onAddDevice();
    // Deletes the current preset; the one now at its index (or the one before
    // when it was last) becomes current.
    bool onDeleteDevice();
    // The combo box's text when editing ends: renames the current preset. An
    // empty text or the name of another preset is refused (that would
    // overwrite it); the front end then shows currentDevice() again. The
    // device settings that named the preset follow the new name.
    bool controlTextDidEndEditing(const QString& text);
    bool onResetDevice();
    bool onResetAll();
    // The encoder's command-line guide, for the panel's link.
    static QUrl cliGuideUrl();
    // Synchronises the settings store; the front end then ends the sheet.
    void onClose();

signals:
    void devicesChanged();
    void tableChanged();

private:
    void reloadNames();
    void select(const QString& name);
    QVariantMap currentPreset() const;

    QStringList m_devices;
    QStringList m_infoKeys;
    QString m_currentDevice;
};
