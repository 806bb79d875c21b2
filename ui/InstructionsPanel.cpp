#include "ui/InstructionsPanel.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "ui/Sheets.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace {

QString key(const char* name) {
    return QString::fromLatin1(name);
}

} // namespace

InstructionsPanel::InstructionsPanel(QWidget* parent) : QDialog(parent) {
    setObjectName(QStringLiteral("InstructionsPanel"));
    setWindowTitle(tr("Welcome to Tarnwick"));
    QVBoxLayout* column = sheetWithIcon(this, QStringLiteral("Tarnwick"));
    column->addWidget(sheetHeading(tr("Welcome to Tarnwick"), this));
    column->addWidget(sheetBody(
        tr("<ol style='margin-left:-20px'>"
           "<li><b>Add movies</b>: drop video files, DVD or Blu-ray folders on the window, or use "
           "<i>Open</i>. Each one is scanned and looked up in the movie database.</li>"
           "<li><b>Check the match</b>: select a movie to see its poster, description, tracks "
           "and output file beside the grid.</li>"
           "<li><b>Start</b>: the movies are converted one after another, tagged, and filed in "
           "your destination folder.</li></ol>"
           "<p>Select several movies with Ctrl or Shift, or all with Ctrl+A; the Delete key "
           "removes the selected ones. <i>Retag</i> updates the tags of existing .m4v files, "
           "<i>iTunes Library</i> browses your movie library by genre.</p>"),
        this));
    m_hide = new QCheckBox(tr("Do not show these instructions at start-up"), this);
    m_hide->setObjectName(QStringLiteral("hideBox"));
    const QString setting = key(SettingsKey::HideInstructions);
    m_hide->setChecked(UserDefaults::standard().boolForKey(setting));
    connect(m_hide, &QCheckBox::toggled, this,
            [setting](bool on) { UserDefaults::standard().setBool(on, setting); });
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(m_hide, 1);
    bottom->addWidget(buttons);
    column->addLayout(bottom);
    setMinimumWidth(560);
}
