#include "ui/LoadPanel.h"

#include "ui/Sheets.h"

#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QIntValidator>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

LoadPanel::LoadPanel(QWidget* parent) : QDialog(parent) {
    setObjectName(QStringLiteral("LoadPanel"));
    setWindowTitle(tr("Load Source"));
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(20, 20, 20, 16);
    column->addWidget(sheetHeading(tr("Add a movie file, DVD or Blu-ray folder"), this));
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
