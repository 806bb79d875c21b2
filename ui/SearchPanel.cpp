#include "ui/SearchPanel.h"

#include "lookup/SearchPanelController.h"
#include "ui/Sheets.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

SearchPanel::SearchPanel(SearchPanelController& panel, QWidget* parent)
    : QDialog(parent), m_panel(panel) {
    setObjectName(QStringLiteral("SearchPanel"));
    setWindowTitle(tr("No Match Found"));
    QVBoxLayout* column = sheetWithIcon(this, QStringLiteral("Tarnwick"));
    column->addWidget(sheetHeading(tr("The movie database has no match for this name."), this));
    column->addWidget(
        sheetBody(tr("Change the name and search again, or skip the search and keep the movie "
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
