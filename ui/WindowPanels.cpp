#include "ui/WindowPanels.h"

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "ui/Artwork.h"
#include "ui/DiscInstructionsPanel.h"
#include "ui/InstructionsPanel.h"
#include "ui/SearchPanel.h"
#include "ui/Sheets.h"

#include <QDir>
#include <QFileDialog>
#include <QMessageBox>
#include <QPushButton>

namespace {

int runBox(QMessageBox& box) {
    box.setWindowModality(box.parentWidget() ? Qt::WindowModal : Qt::ApplicationModal);
    box.exec();
    return 0;
}

} // namespace

bool WindowPanels::runUpdateNotice(const QString& title, const QString& text) {
    QMessageBox box(QMessageBox::Critical, title, title, QMessageBox::NoButton, m_window);
    box.setObjectName(QStringLiteral("UpdateNotice"));
    box.setTextFormat(Qt::RichText);
    box.setText(QStringLiteral("<b>%1</b>").arg(title.toHtmlEscaped()));
    box.setInformativeText(text);
    // Room for the long text in a few lines rather than a narrow column.
    box.setStyleSheet(QStringLiteral("QLabel#qt_msgbox_informativelabel { min-width: 380px; }"));
    QPushButton* ok = box.addButton(QStringLiteral("Ok"), QMessageBox::AcceptRole);
    box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    box.setDefaultButton(ok);
    runBox(box);
    return box.clickedButton() == ok;
}

bool WindowPanels::runRemoveQuestion(const QString& message) {
    QMessageBox box(m_window);
    box.setObjectName(QStringLiteral("RemoveQuestion"));
    box.setWindowTitle(QStringLiteral("Tarnwick"));
    box.setText(message);
    const QPixmap warning = Artwork::pixmap(QStringLiteral("warning-icon"));
    if (!warning.isNull())
        box.setIconPixmap(warning.scaled(64, 64, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    else
        box.setIcon(QMessageBox::Warning);
    QPushButton* no = box.addButton(QStringLiteral("No"), QMessageBox::RejectRole);
    QPushButton* yes = box.addButton(QStringLiteral("Yes"), QMessageBox::AcceptRole);
    box.setDefaultButton(no);
    box.setEscapeButton(no);
    runBox(box);
    return box.clickedButton() == yes;
}

void WindowPanels::showInstructions() {
    InstructionsPanel panel(m_window);
    runSheet(panel);
}

bool WindowPanels::setPreferences() {
    QFileDialog chooser(m_window, QObject::tr("Choose the folder for converted movies"),
                        QDir::homePath());
    chooser.setObjectName(QStringLiteral("DestinationChooser"));
    chooser.setFileMode(QFileDialog::Directory);
    chooser.setOption(QFileDialog::ShowDirsOnly);
    chooser.setAcceptMode(QFileDialog::AcceptOpen);
    chooser.setLabelText(QFileDialog::Accept, QObject::tr("Choose"));
    if (runSheet(chooser) != QDialog::Accepted || chooser.selectedFiles().isEmpty())
        return false;
    const QString folder = chooser.selectedFiles().first();
    UserDefaults::standard().setObject(Bookmark::create(folder),
                                       QString::fromLatin1(SettingsKey::DestinationPathBookmark));
    return true;
}

void WindowPanels::showBlurayInstructions() {
    DiscInstructionsPanel panel(DiscInstructionsPanel::Bluray, m_window);
    runSheet(panel);
}

void WindowPanels::showDvdInstructions() {
    DiscInstructionsPanel panel(DiscInstructionsPanel::Dvd, m_window);
    runSheet(panel);
}

void WindowPanels::runSearchPanel(SearchPanelController& panel) {
    SearchPanel dialog(panel, m_window);
    runSheet(dialog);
}

void WindowPanels::showAlert(const QString& message) {
    QMessageBox box(QMessageBox::Warning, QStringLiteral("Tarnwick"), message, QMessageBox::Ok,
                    m_window);
    box.setObjectName(QStringLiteral("Alert"));
    runBox(box);
}
