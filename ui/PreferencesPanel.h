#pragma once

#include "core/PreferencesPanelController.h"

#include <QDialog>

#include <memory>

class QCheckBox;
class QMessageBox;

namespace Ui {
class PreferencesPanelPro;
}

// The preferences sheet: every control writes its one settings key at once
// through the controller. It stays open until an iTunes folder is stored
// (the controller's close rule), answering a close with the destination
// alert; the same alert follows opening it without a usable destination.
class PreferencesPanel : public QDialog {
    Q_OBJECT
public:
    explicit PreferencesPanel(QWidget* parent = nullptr);
    ~PreferencesPanel() override;

    PreferencesPanelController* controller() { return &m_controller; }
    // The check box bound to a settings key, for tests and screenshots.
    QCheckBox* checkBox(const QString& key) const;
    // The destination alert while it is shown.
    QMessageBox* destinationAlert() const { return m_alert; }

    // Loads every control from the store.
    void PopulatePanel();
    void onDevices();

    void done(int result) override;

protected:
    void showEvent(QShowEvent* event) override;

private:
    void fillDeviceMenus();
    void fillLanguageMenus();
    void showDeviceTexts();
    void showFolders();
    void chooseFolder(bool itunes);
    void showDestinationAlert();

    std::unique_ptr<Ui::PreferencesPanelPro> m_ui;
    PreferencesPanelController m_controller;
    QMessageBox* m_alert = nullptr;
    bool m_checkedDestination = false;
};
