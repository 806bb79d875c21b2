#include "cli/BrowserPrompts.h"

#include "cli/Commands.h"
#include "cli/Describe.h"
#include "cli/Terminal.h"
#include "lookup/SearchPanelController.h"

namespace cli {

void TerminalBrowserDelegate::runSearchPanel(SearchPanelController& panel) {
    const MDI_Media* item = m_browser ? m_browser->workMovie().get() : nullptr;
    if (item)
        m_unmatched.insert(item);
    if (panel.lookupFailed()) {
        // Another name would fail the same way.
        if (!InterruptWatcher::pending())
            m_progress.message(QStringLiteral("%1: lookup failed: %2")
                                   .arg(panel.startName(), panel.lookupError()));
        panel.skipBtn();
        return;
    }
    if (m_assumeYes || !m_interactive) {
        m_progress.message(QStringLiteral("No match for \"%1\"; skipped.").arg(panel.startName()));
        panel.skipBtn();
        return;
    }
    m_progress.finish();
    err() << "No match for \"" << panel.startName()
          << "\" in the movie database. Name to search for (empty to skip): " << Qt::flush;
    const std::optional<QString> answer = readAnswer();
    if (!answer) {
        err() << Qt::endl;
        panel.skipBtn();
        return;
    }
    const QString name = answer->trimmed();
    if (name.isEmpty()) {
        panel.skipBtn();
    } else {
        panel.setNewName(name);
        panel.searchBtn();
        // Searched again: it is no longer unmatched unless that finds nothing too.
        if (item)
            m_unmatched.remove(item);
    }
}

QString TerminalBrowserDelegate::lookupOutcome(const MDI_Media& item, bool skipTagging) const {
    if (!item.lookupError().isEmpty())
        return QString::fromLatin1(lookup::Failed);
    if (!item.isValid() || item.status() < 8)
        return QString::fromLatin1(lookup::NotRun);
    if (m_unmatched.contains(&item))
        return QString::fromLatin1(lookup::NoMatch);
    if (skipTagging)
        return QString::fromLatin1(lookup::Skipped);
    return QString::fromLatin1(lookup::Matched);
}

bool TerminalBrowserDelegate::setPreferences() {
    if (!m_toldDestination) {
        m_toldDestination = true;
        m_progress.message(QStringLiteral(
            "Note: no destination folder is set (tarnwick-cli settings); output names are "
            "relative to the folder the encode runs in."));
    }
    return false;
}

void TerminalBrowserDelegate::showBlurayInstructions() {
    m_progress.message(QStringLiteral(
        "Blu-ray source: Tarnwick reads unprotected Blu-ray folders only; decrypt the disc to a "
        "folder first (\"Hide Bluray Instructions\" hides this)."));
}

void TerminalBrowserDelegate::showDvdInstructions() {
    m_progress.message(
        QStringLiteral("DVD source: protected DVDs need libdvdcss (Debian package libdvdcss2) "
                       "(\"Hide DVD Instructions\" hides this)."));
}

void TerminalBrowserDelegate::scanFailed(const std::shared_ptr<MDI_Media>& item) {
    m_progress.message(item->name() + QStringLiteral(": ") + item->warnings());
}

void TerminalBrowserDelegate::showAlert(const QString& message) {
    m_progress.message(QStringLiteral("tarnwick-cli: ") + message);
    m_alerted = true;
}

bool scanSessionSettled(const EncodeBrowserController& browser, bool alerted) {
    if (browser.isScanning())
        return false;
    for (const std::shared_ptr<MDI_Media>& item : browser.movieList()) {
        const qint32 status = item->status();
        if (status != 0 && status != 8 && !(status == 2 && alerted))
            return false;
    }
    return true;
}

} // namespace cli
