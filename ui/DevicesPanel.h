#pragma once

#include "presets/DevicesPanelController.h"

#include <QDialog>

#include <memory>

namespace Ui {
class DevicesPanel;
}

// The devices sheet: a preset picked (and renamed) in an editable combo
// box, its option strings in a table whose "Parameters" column is edited in
// place; every change goes to the user preset file through the controller.
class DevicesPanel : public QDialog {
    Q_OBJECT
public:
    explicit DevicesPanel(QWidget* parent = nullptr);
    ~DevicesPanel() override;

    DevicesPanelController* controller() { return &m_controller; }

    void done(int result) override;

private:
    void refillNames();
    void reloadTable();
    void nameEdited();
    void parameterEdited(int row, int column);

    std::unique_ptr<Ui::DevicesPanel> m_ui;
    DevicesPanelController m_controller;
    bool m_loading = false;
};
