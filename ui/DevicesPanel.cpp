#include "ui/DevicesPanel.h"

#include "ui_DevicesPanel.h"

#include "presets/MDB_Devices.h"

#include <QDesktopServices>
#include <QHeaderView>
#include <QLineEdit>
#include <QMessageBox>
#include <QSignalBlocker>

DevicesPanel::DevicesPanel(QWidget* parent)
    : QDialog(parent), m_ui(std::make_unique<Ui::DevicesPanel>()) {
    m_ui->setupUi(this);
    setObjectName(QStringLiteral("DevicesPanel"));
    setWindowModality(Qt::WindowModal);
    m_ui->deviceParams->horizontalHeader()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    m_ui->deviceParams->verticalHeader()->setDefaultSectionSize(
        m_ui->deviceParams->fontMetrics().height() + 10);
    // Completing a typed name to an existing one would turn a rename into
    // a refused one.
    m_ui->devices->setCompleter(nullptr);
    m_ui->cliGuide->setToolTip(DevicesPanelController::cliGuideUrl().toString());

    connect(&m_controller, &DevicesPanelController::devicesChanged, this,
            &DevicesPanel::refillNames);
    connect(&m_controller, &DevicesPanelController::tableChanged, this, &DevicesPanel::reloadTable);
    connect(m_ui->devices, &QComboBox::activated, &m_controller,
            &DevicesPanelController::onDeviceChanged);
    // Return in the name field, or leaving it, ends the editing.
    connect(m_ui->devices->lineEdit(), &QLineEdit::editingFinished, this,
            &DevicesPanel::nameEdited);
    connect(m_ui->addDevice, &QPushButton::clicked, &m_controller,
            &DevicesPanelController::onAddDevice);
    connect(m_ui->deleteDevice, &QPushButton::clicked, this, [this] {
        // The preset a device setting names cannot go; say why instead of doing nothing.
        const QString refused = MDB_Devices::deletionRefusal(m_controller.currentDevice());
        if (!refused.isEmpty())
            QMessageBox::warning(this, windowTitle(), refused);
        else
            m_controller.onDeleteDevice();
    });
    connect(m_ui->resetDev, &QPushButton::clicked, &m_controller,
            &DevicesPanelController::onResetDevice);
    connect(m_ui->resetAll, &QPushButton::clicked, &m_controller,
            &DevicesPanelController::onResetAll);
    connect(m_ui->cliGuide, &QLabel::linkActivated, this,
            [] { QDesktopServices::openUrl(DevicesPanelController::cliGuideUrl()); });
    connect(m_ui->deviceParams, &QTableWidget::cellChanged, this, &DevicesPanel::parameterEdited);
    connect(m_ui->closeButton, &QPushButton::clicked, this, &QDialog::accept);

    m_controller.withParentWindow();
}

DevicesPanel::~DevicesPanel() = default;

void DevicesPanel::refillNames() {
    const QSignalBlocker block(m_ui->devices);
    m_ui->devices->clear();
    m_ui->devices->addItems(m_controller.devices());
    m_ui->devices->setCurrentIndex(m_controller.currentIndex());
    m_ui->devices->setEditText(m_controller.currentDevice());
    const bool any = !m_controller.currentDevice().isEmpty();
    m_ui->devices->setEnabled(any);
    m_ui->addDevice->setEnabled(any);
    m_ui->deleteDevice->setEnabled(any);
    m_ui->resetDev->setEnabled(m_controller.resetDevEnabled());
}

void DevicesPanel::reloadTable() {
    m_loading = true;
    QTableWidget* table = m_ui->deviceParams;
    const int rows = m_controller.rowCount();
    table->setRowCount(rows);
    for (int row = 0; row < rows; ++row) {
        auto* description = new QTableWidgetItem(m_controller.description(row));
        description->setFlags(description->flags() & ~Qt::ItemIsEditable);
        table->setItem(row, 0, description);
        table->setItem(row, 1, new QTableWidgetItem(m_controller.parameters(row)));
    }
    m_ui->resetDev->setEnabled(m_controller.resetDevEnabled());
    m_loading = false;
}

void DevicesPanel::nameEdited() {
    const QString text = m_ui->devices->currentText();
    if (text == m_controller.currentDevice())
        return;
    // A refused name is answered by showing the current one again.
    m_controller.controlTextDidEndEditing(text);
}

void DevicesPanel::parameterEdited(int row, int column) {
    if (m_loading || column != 1)
        return;
    m_controller.setParameters(row, m_ui->deviceParams->item(row, column)->text());
}

void DevicesPanel::done(int result) {
    m_controller.onClose();
    QDialog::done(result);
}
