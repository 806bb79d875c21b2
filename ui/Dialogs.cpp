#include "ui/Dialogs.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "lookup/SearchPanelController.h"
#include "ui/Artwork.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QIntValidator>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTextBrowser>
#include <QUrl>
#include <QVBoxLayout>

namespace {

QString key(const char* name) {
    return QString::fromLatin1(name);
}

// Download pages for disc support on this system.
const char* const kDiscRipperPage = "https://www.makemkv.com/download/";
const char* const kDvdLibraryPage = "https://www.videolan.org/developers/libdvdnav.html";

QLabel* heading(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    QFont f = label->font();
    f.setBold(true);
    f.setPointSizeF(f.pointSizeF() * 1.15);
    label->setFont(f);
    label->setWordWrap(true);
    return label;
}

QLabel* body(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextFormat(Qt::RichText);
    label->setOpenExternalLinks(true);
    return label;
}

// Icon on the left, the rest on the right, as alerts are laid out.
QVBoxLayout* withIcon(QDialog* dialog, const QString& image) {
    auto* row = new QHBoxLayout(dialog);
    row->setContentsMargins(20, 20, 20, 16);
    row->setSpacing(16);
    auto* icon = new QLabel(dialog);
    const QPixmap pixmap = Artwork::pixmap(image);
    if (!pixmap.isNull())
        icon->setPixmap(pixmap.scaled(64, 64, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    icon->setFixedWidth(64);
    icon->setAlignment(Qt::AlignTop | Qt::AlignHCenter);
    row->addWidget(icon, 0, Qt::AlignTop);
    auto* column = new QVBoxLayout;
    column->setSpacing(10);
    row->addLayout(column, 1);
    return column;
}

} // namespace

int runSheet(QDialog& dialog) {
    dialog.setWindowModality(dialog.parentWidget() ? Qt::WindowModal : Qt::ApplicationModal);
    return dialog.exec();
}

// --- no hits -----------------------------------------------------------------------

SearchPanel::SearchPanel(SearchPanelController& panel, QWidget* parent)
    : QDialog(parent), m_panel(panel) {
    setObjectName(QStringLiteral("SearchPanel"));
    setWindowTitle(tr("No Match Found"));
    QVBoxLayout* column = withIcon(this, QStringLiteral("Tarnwick"));
    column->addWidget(heading(tr("The movie database has no match for this name."), this));
    column->addWidget(
        body(tr("Change the name and search again, or skip the search and keep the movie "
                "untagged for now."),
             this));
    auto* form = new QFormLayout;
    auto* current = new QLineEdit(panel.currentName(), this);
    current->setReadOnly(true);
    current->setObjectName(QStringLiteral("currentName"));
    m_newName = new QLineEdit(panel.newName(), this);
    m_newName->setObjectName(QStringLiteral("newName"));
    m_newName->setMinimumWidth(320);
    form->addRow(tr("Searched for:"), current);
    form->addRow(tr("Search for:"), m_newName);
    column->addLayout(form);
    auto* buttons = new QDialogButtonBox(this);
    QPushButton* skip = buttons->addButton(tr("Skip"), QDialogButtonBox::RejectRole);
    QPushButton* search = buttons->addButton(tr("Search"), QDialogButtonBox::AcceptRole);
    skip->setObjectName(QStringLiteral("skipButton"));
    search->setObjectName(QStringLiteral("searchButton"));
    search->setDefault(true);
    column->addWidget(buttons);
    connect(search, &QPushButton::clicked, this, [this] {
        m_panel.setNewName(m_newName->text().trimmed());
        m_panel.searchBtn();
        accept();
    });
    connect(skip, &QPushButton::clicked, this, [this] {
        m_panel.skipBtn();
        reject();
    });
    // Closing the panel any other way skips, as without an answer.
    connect(this, &QDialog::rejected, this, [this] { m_panel.skipBtn(); });
}

// --- load panel ----------------------------------------------------------------------

LoadPanel::LoadPanel(QWidget* parent) : QDialog(parent) {
    setObjectName(QStringLiteral("LoadPanel"));
    setWindowTitle(tr("Load Source"));
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(20, 20, 20, 16);
    column->addWidget(heading(tr("Add a movie file, DVD or Blu-ray folder"), this));
    auto* form = new QFormLayout;
    auto* pathRow = new QHBoxLayout;
    m_path = new QLineEdit(this);
    m_path->setObjectName(QStringLiteral("path"));
    m_path->setMinimumWidth(360);
    m_path->setPlaceholderText(tr("File or folder"));
    auto* browse = new QPushButton(tr("Browse..."), this);
    browse->setObjectName(QStringLiteral("browseButton"));
    pathRow->addWidget(m_path, 1);
    pathRow->addWidget(browse);
    form->addRow(tr("Path:"), pathRow);
    m_title = new QLineEdit(QStringLiteral("0"), this);
    m_title->setObjectName(QStringLiteral("title"));
    m_title->setValidator(new QIntValidator(0, 9999, m_title));
    m_title->setMaximumWidth(80);
    auto* titleRow = new QHBoxLayout;
    titleRow->addWidget(m_title);
    auto* hint = new QLabel(tr("0 scans every title"), this);
    hint->setForegroundRole(QPalette::PlaceholderText);
    titleRow->addWidget(hint, 1);
    form->addRow(tr("Title number:"), titleRow);
    column->addLayout(form);
    auto* buttons = new QDialogButtonBox(this);
    buttons->addButton(tr("Cancel"), QDialogButtonBox::RejectRole);
    QPushButton* open = buttons->addButton(tr("Open"), QDialogButtonBox::AcceptRole);
    open->setObjectName(QStringLiteral("openButton"));
    open->setDefault(true);
    column->addWidget(buttons);
    open->setEnabled(false);
    connect(m_path, &QLineEdit::textChanged, open,
            [open](const QString& text) { open->setEnabled(!text.trimmed().isEmpty()); });
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(browse, &QPushButton::clicked, this, [this] {
        auto* chooser = new QFileDialog(this, tr("Choose a Source"));
        // Files and disc folders alike: the non-native chooser lets either be picked.
        chooser->setFileMode(QFileDialog::AnyFile);
        chooser->setOption(QFileDialog::DontUseNativeDialog);
        chooser->setAttribute(Qt::WA_DeleteOnClose);
        connect(chooser, &QFileDialog::fileSelected, this,
                [this](const QString& file) { m_path->setText(file); });
        chooser->open();
    });
}

QString LoadPanel::path() const {
    return m_path->text().trimmed();
}

qint64 LoadPanel::title() const {
    return m_title->text().toLongLong();
}

// --- disc instructions ------------------------------------------------------------------

DiscInstructionsPanel::DiscInstructionsPanel(Disc disc, QWidget* parent)
    : QDialog(parent), m_disc(disc) {
    const bool dvd = disc == Dvd;
    setObjectName(dvd ? QStringLiteral("DvdPanel") : QStringLiteral("BlurayPanel"));
    setWindowTitle(dvd ? tr("DVD Instructions") : tr("Blu-ray Instructions"));
    QVBoxLayout* column = withIcon(this, QStringLiteral("warning-icon"));
    column->addWidget(
        heading(dvd ? tr("Reading encrypted DVDs") : tr("Reading Blu-ray discs"), this));
    if (dvd) {
        column->addWidget(body(
            tr("Most commercial DVDs are encrypted. To convert them, install the DVD decryption "
               "library (libdvdcss) for your system, or first copy the disc to a folder or an "
               "MKV file with a disc ripper and add that instead."),
            this));
    } else {
        column->addWidget(body(
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

// --- introduction ------------------------------------------------------------------------

InstructionsPanel::InstructionsPanel(QWidget* parent) : QDialog(parent) {
    setObjectName(QStringLiteral("InstructionsPanel"));
    setWindowTitle(tr("Welcome to Tarnwick"));
    QVBoxLayout* column = withIcon(this, QStringLiteral("Tarnwick"));
    column->addWidget(heading(tr("Welcome to Tarnwick"), this));
    column->addWidget(body(
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

// --- about -----------------------------------------------------------------------------------

QString AboutDialog::creditsText() {
    QFile file(QStringLiteral(":/tarnwick/Credits Pro.html"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

AboutDialog::AboutDialog(QWidget* parent) : QDialog(parent) {
    setObjectName(QStringLiteral("AboutDialog"));
    setWindowTitle(tr("About Tarnwick"));
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(24, 20, 24, 16);
    column->setSpacing(8);
    auto* icon = new QLabel(this);
    const QPixmap pixmap = Artwork::pixmap(QStringLiteral("Tarnwick"));
    if (!pixmap.isNull())
        icon->setPixmap(pixmap.scaled(96, 96, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    icon->setAlignment(Qt::AlignCenter);
    column->addWidget(icon);
    QLabel* name = heading(QStringLiteral("Tarnwick"), this);
    name->setAlignment(Qt::AlignCenter);
    column->addWidget(name);
    auto* version = new QLabel(tr("Version %1").arg(QStringLiteral(TARNWICK_VERSION)), this);
    version->setAlignment(Qt::AlignCenter);
    version->setForegroundRole(QPalette::PlaceholderText);
    column->addWidget(version);
    auto* credits = new QTextBrowser(this);
    credits->setObjectName(QStringLiteral("credits"));
    credits->setOpenExternalLinks(true);
    credits->setHtml(creditsText());
    credits->setMinimumSize(420, 220);
    column->addWidget(credits, 1);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    column->addWidget(buttons);
}
