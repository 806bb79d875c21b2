#pragma once

#include "media/EncodeBrowserController.h"
#include "processing/AppDelegate.h"

#include <QPointer>
#include <QWidget>

// The application's and browsers' questions answered with window-modal
// dialogs on the main window: the "Update Notice", the remove question, the
// instructions, the destination folder, the disc instructions, the no-hits
// search panel and alerts.
class WindowPanels : public AppPanelDelegate, public EncodeBrowserDelegate {
public:
    explicit WindowPanels(QWidget* window) : m_window(window) {}

    // AppPanelDelegate
    bool runUpdateNotice(const QString& title, const QString& text) override;
    bool runRemoveQuestion(const QString& message) override;
    void showInstructions() override;

    // EncodeBrowserDelegate
    bool setPreferences() override;
    void showBlurayInstructions() override;
    void showDvdInstructions() override;
    void runSearchPanel(SearchPanelController& panel) override;
    void showAlert(const QString& message) override;

private:
    QPointer<QWidget> m_window;
};
