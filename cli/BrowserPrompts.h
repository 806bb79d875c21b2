#pragma once

#include "media/EncodeBrowserController.h"

#include <QSet>

namespace cli {

class ProgressLine;

// The encode browser's questions and notices on the terminal. The no-hits
// question is asked only when it can be answered (a terminal, no --yes);
// otherwise the source is skipped as the panel's Skip button does. A lookup
// that failed (the database refused the key, failed, did not answer) is not
// asked about: the item is skipped with the failure's message.
class TerminalBrowserDelegate : public EncodeBrowserDelegate {
public:
    TerminalBrowserDelegate(bool assumeYes, bool interactive, ProgressLine& progress)
        : m_assumeYes(assumeYes), m_interactive(interactive), m_progress(progress) {}

    // The browser whose questions these are (its work item is the one asked about).
    void setBrowser(const EncodeBrowserController* browser) { m_browser = browser; }

    void runSearchPanel(SearchPanelController& panel) override;
    bool setPreferences() override;
    void showBlurayInstructions() override;
    void showDvdInstructions() override;
    void scanFailed(const std::shared_ptr<MDI_Media>& item) override;
    void showAlert(const QString& message) override;

    // An alert came that belongs to no item (the scan chain may have stopped).
    bool alerted() const { return m_alerted; }

    // How the item's lookup ended: one of the cli::lookup words. `skipTagging`:
    // the run looked nothing up.
    QString lookupOutcome(const MDI_Media& item, bool skipTagging) const;

private:
    const EncodeBrowserController* m_browser = nullptr;
    // Items that found nothing (the last search of each came back empty).
    QSet<const MDI_Media*> m_unmatched;
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
