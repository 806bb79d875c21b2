#pragma once

#include "media/EncodeBrowserController.h"

namespace cli {

class ProgressLine;

// The encode browser's questions and notices on the terminal. The no-hits
// question is asked only when it can be answered (a terminal, no --yes);
// otherwise the source is skipped as the panel's Skip button does.
class TerminalBrowserDelegate : public EncodeBrowserDelegate {
public:
    TerminalBrowserDelegate(bool assumeYes, bool interactive, ProgressLine& progress)
        : m_assumeYes(assumeYes), m_interactive(interactive), m_progress(progress) {}

    void runSearchPanel(SearchPanelController& panel) override;
    bool setPreferences() override;
    void showBlurayInstructions() override;
    void showDvdInstructions() override;
    void scanFailed(const std::shared_ptr<MDI_Media>& item) override;
    void showAlert(const QString& message) override;

    // An alert came that belongs to no item (the scan chain may have stopped).
    bool alerted() const { return m_alerted; }

private:
    bool m_assumeYes;
    bool m_interactive;
    bool m_toldDestination = false;
    bool m_alerted = false;
    ProgressLine& m_progress;
};

// The scan session has nothing more to do: no scan runs and every item is
// ready (8) or failed (0). An item still waiting (2) after an alert means the
// chain could not go on, which counts as settled too.
bool scanSessionSettled(const EncodeBrowserController& browser, bool alerted);

} // namespace cli
