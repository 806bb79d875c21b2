#include "ui/SearchResultsPanel.h"

#include "lookup/SearchResultsPanelController.h"
#include "metadata/TagNames.h"

#include <QComboBox>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QPushButton>
#include <QTableWidget>
#include <QTextBrowser>
#include <QVBoxLayout>

namespace {
const QSize kPosterSize(200, 296);
}

SearchResultsPanel::SearchResultsPanel(SearchResultsPanelController* panel, QWidget* parent)
    : QDialog(parent), m_panel(panel) {
    setObjectName(QStringLiteral("SearchResultsPanel"));
    setWindowTitle(tr("Search Results"));
    setWindowModality(Qt::WindowModal);

    m_search = new QLineEdit(this);
    m_search->setObjectName(QStringLiteral("searchString"));
    m_search->setPlaceholderText(tr("Search for another title"));
    m_searchButton = new QPushButton(tr("Search"), this);
    m_searchButton->setAutoDefault(false);
    m_language = new QComboBox(this);
    m_language->setObjectName(QStringLiteral("searchLanguage"));
    auto* top = new QHBoxLayout;
    top->addWidget(m_search, 1);
    top->addWidget(m_language);
    top->addWidget(m_searchButton);

    m_results = new QTableWidget(0, 2, this);
    m_results->setObjectName(QStringLiteral("resultsList"));
    m_results->setHorizontalHeaderLabels({tr("Year"), tr("Name")});
    m_results->horizontalHeader()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    m_results->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
    m_results->verticalHeader()->hide();
    m_results->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_results->setSelectionMode(QAbstractItemView::SingleSelection);
    m_results->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_results->setMinimumWidth(260);

    m_poster = new QLabel(this);
    m_poster->setObjectName(QStringLiteral("posterWell"));
    m_poster->setFixedSize(kPosterSize);
    m_poster->setAlignment(Qt::AlignCenter);
    m_title = new QLabel(this);
    QFont bold = m_title->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.2);
    m_title->setFont(bold);
    m_title->setWordWrap(true);
    m_summary = new QTextBrowser(this);
    m_summary->setObjectName(QStringLiteral("summary"));
    m_summary->setMinimumWidth(280);
    auto* detail = new QVBoxLayout;
    detail->addWidget(m_title);
    detail->addWidget(m_summary, 1);
    auto* middle = new QHBoxLayout;
    middle->addWidget(m_results, 2);
    middle->addWidget(m_poster, 0, Qt::AlignTop);
    middle->addLayout(detail, 3);

    m_imdb = new QPushButton(tr("IMDb"), this);
    m_tmdb = new QPushButton(tr("TMDb"), this);
    m_cancel = new QPushButton(tr("Cancel"), this);
    m_done = new QPushButton(tr("Done"), this);
    m_done->setDefault(true);
    for (QPushButton* b : {m_imdb, m_tmdb, m_cancel})
        b->setAutoDefault(false);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(m_imdb);
    bottom->addWidget(m_tmdb);
    bottom->addStretch(1);
    bottom->addWidget(m_cancel);
    bottom->addWidget(m_done);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addLayout(middle, 1);
    layout->addLayout(bottom);
    resize(900, 440);

    connect(m_panel, &SearchResultsPanelController::panelChanged, this,
            &SearchResultsPanel::refresh);
    connect(m_results, &QTableWidget::itemSelectionChanged, this, [this] {
        if (m_filling)
            return;
        const QList<QTableWidgetItem*> picked = m_results->selectedItems();
        if (!picked.isEmpty())
            chooseRow(picked.first()->row());
    });
    connect(m_search, &QLineEdit::textEdited, m_panel,
            &SearchResultsPanelController::setSearchString);
    connect(m_search, &QLineEdit::returnPressed, this, &SearchResultsPanel::search);
    connect(m_searchButton, &QPushButton::clicked, this, &SearchResultsPanel::search);
    connect(m_language, &QComboBox::activated, this,
            [this] { m_panel->onLanguageChanged(m_language->currentText()); });
    connect(m_imdb, &QPushButton::clicked, this,
            [this] { QDesktopServices::openUrl(m_panel->onIMDbBtn()); });
    connect(m_tmdb, &QPushButton::clicked, this,
            [this] { QDesktopServices::openUrl(m_panel->onTMDbBtn()); });
    connect(m_done, &QPushButton::clicked, this, [this] {
        m_panel->onDoneBtn();
        accept();
    });
    connect(m_cancel, &QPushButton::clicked, this, &SearchResultsPanel::reject);
    refresh();
}

void SearchResultsPanel::chooseRow(int row) {
    m_panel->selectRow(row);
    m_panel->resultSelected();
}

void SearchResultsPanel::search() {
    m_panel->setSearchString(m_search->text());
    if (m_search->text().trimmed().isEmpty())
        return;
    m_searchButton->setEnabled(false);
    m_panel->onSearchBtn();
}

void SearchResultsPanel::reject() {
    if (m_panel->isOpen())
        m_panel->onCancelBtn();
    QDialog::reject();
}

void SearchResultsPanel::refresh() {
    m_filling = true;
    const int rows = m_panel->numberOfRows();
    m_results->setRowCount(rows);
    const QString date = QString::fromLatin1(TagName::ReleaseDate);
    const QString name = QString::fromLatin1(TagName::Name);
    for (int row = 0; row < rows; ++row) {
        m_results->setItem(row, 0, new QTableWidgetItem(m_panel->value(row, date).left(4)));
        m_results->setItem(row, 1, new QTableWidgetItem(m_panel->value(row, name)));
    }
    const qint64 selected = m_panel->selectedSearchResult();
    if (selected >= 0 && selected < rows)
        m_results->selectRow(int(selected));
    else
        m_results->clearSelection();

    m_title->setText(
        selected >= 0 && selected < rows
            ? QStringLiteral("%1 (%2)").arg(m_panel->value(int(selected), name),
                                            m_panel->value(int(selected), date).left(4))
        : rows == 0 ? tr("No movies found")
                    : QString());
    m_summary->setPlainText(m_panel->summary());
    QPixmap poster;
    poster.loadFromData(m_panel->poster().data());
    m_poster->setPixmap(poster.isNull() ? QPixmap()
                                        : poster.scaled(kPosterSize, Qt::KeepAspectRatio,
                                                        Qt::SmoothTransformation));
    if (m_language->count() != m_panel->searchLanguages().size()) {
        m_language->clear();
        m_language->addItems(m_panel->searchLanguages());
    }
    m_language->setCurrentIndex(m_language->findText(m_panel->searchLanguage()));
    if (m_search->text() != m_panel->searchString())
        m_search->setText(m_panel->searchString());
    m_searchButton->setEnabled(!m_panel->isSearching());
    m_imdb->setEnabled(!m_panel->onIMDbBtn().isEmpty());
    m_tmdb->setEnabled(!m_panel->onTMDbBtn().isEmpty());
    m_filling = false;
}
