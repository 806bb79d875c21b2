#include "ui/DiscInstructionsPanel.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "ui/Sheets.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

namespace {

// Download pages for disc support on this system.
const char* const kDiscRipperPage = "https://www.makemkv.com/download/";
const char* const kDvdLibraryPage = "https://www.videolan.org/developers/libdvdnav.html";

} // namespace

namespace {

QString key(const char* name) {
    return QString::fromLatin1(name);
}

} // namespace

DiscInstructionsPanel::DiscInstructionsPanel(Disc disc, QWidget* parent)
    : QDialog(parent), m_disc(disc) {
    const bool dvd = disc == Dvd;
    setObjectName(dvd ? QStringLiteral("DvdPanel") : QStringLiteral("BlurayPanel"));
    setWindowTitle(dvd ? tr("DVD Instructions") : tr("Blu-ray Instructions"));
    QVBoxLayout* column = sheetWithIcon(this, QStringLiteral("warning-icon"));
    column->addWidget(
        sheetHeading(dvd ? tr("Reading encrypted DVDs") : tr("Reading Blu-ray discs"), this));
    if (dvd) {
        column->addWidget(sheetBody(
            tr("Most commercial DVDs are encrypted. To convert them, install the DVD decryption "
               "library (libdvdcss) for your system, or first copy the disc to a folder or an "
               "MKV file with a disc ripper and add that instead."),
            this));
    } else {
        column->addWidget(sheetBody(
            tr("Blu-ray discs are encrypted and cannot be read directly. Copy the disc to an MKV "
               "file or a folder with a disc ripper first, then add the copy to Tarnwick."),
            this));
    }
    auto* links = new QHBoxLayout;
    auto* ripper = new QPushButton(tr("Get a Disc Ripper"), this);
    ripper->setObjectName(QStringLiteral("installAppButton"));
    connect(ripper, &QPushButton::clicked, this,
            [] { QDesktopServices::openUrl(QUrl(QString::fromLatin1(kDiscRipperPage))); });
    links->addWidget(ripper);
    if (dvd) {
        auto* library = new QPushButton(tr("Get the DVD Library"), this);
        library->setObjectName(QStringLiteral("installLibraryButton"));
        connect(library, &QPushButton::clicked, this,
                [] { QDesktopServices::openUrl(QUrl(QString::fromLatin1(kDvdLibraryPage))); });
        links->addWidget(library);
    }
    links->addStretch(1);
    column->addLayout(links);
    m_hide = new QCheckBox(tr("Do not show this message again"), this);
    m_hide->setObjectName(QStringLiteral("hideBox"));
    const QString setting =
        key(dvd ? SettingsKey::HideDVDInstructions : SettingsKey::HideBlurayInstructions);
    m_hide->setChecked(UserDefaults::standard().boolForKey(setting));
    connect(m_hide, &QCheckBox::toggled, this,
            [setting](bool on) { UserDefaults::standard().setBool(on, setting); });
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(m_hide, 1);
    bottom->addWidget(buttons);
    column->addLayout(bottom);
    setMinimumWidth(520);
}
