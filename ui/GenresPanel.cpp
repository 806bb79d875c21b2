#include "ui/GenresPanel.h"

#include "ui_GenresPanel.h"

#include <QComboBox>
#include <QHeaderView>

GenresPanel::GenresPanel(QWidget* parent)
    : QDialog(parent), m_ui(std::make_unique<Ui::GenresPanel>()) {
    m_ui->setupUi(this);
    setObjectName(QStringLiteral("GenresPanel"));
    setWindowModality(Qt::WindowModal);
    m_ui->genreMap->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_ui->genreMap->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
    m_ui->genreMap->verticalHeader()->setDefaultSectionSize(m_ui->genreMap->fontMetrics().height() +
                                                            12);

    connect(&m_controller, &GenresPanelController::tablesChanged, this, &GenresPanel::reload);
    connect(m_ui->addGenre, &QPushButton::clicked, this, [this] {
        // An empty list is started at its first row.
        const int at = m_ui->genreList->count() == 0 ? 0 : selectedRow();
        const int row = m_controller.onAddGenre(at);
        if (row >= 0) {
            select(row);
            // The new genre is named at once.
            m_ui->genreList->editItem(m_ui->genreList->item(row));
        }
    });
    connect(m_ui->deleteGenre, &QPushButton::clicked, this, [this] {
        const int row = selectedRow();
        if (m_controller.onDeleteGenre(row))
            select(qMin(row, m_ui->genreList->count() - 1));
    });
    connect(m_ui->moveUp, &QPushButton::clicked, this,
            [this] { select(m_controller.onMoveGenreUp(selectedRow())); });
    connect(m_ui->moveDown, &QPushButton::clicked, this,
            [this] { select(m_controller.onMoveGenreDown(selectedRow())); });
    connect(m_ui->resetDefaults, &QPushButton::clicked, &m_controller,
            &GenresPanelController::onResetDefaults);
    connect(m_ui->genreList, &QListWidget::itemChanged, this,
            [this](QListWidgetItem* item) { renamed(m_ui->genreList->row(item)); });
    connect(m_ui->genreList, &QListWidget::currentRowChanged, this, [this](int row) {
        m_ui->deleteGenre->setEnabled(row >= 0);
        m_ui->moveUp->setEnabled(row > 0);
        m_ui->moveDown->setEnabled(row >= 0 && row + 1 < m_ui->genreList->count());
    });
    connect(m_ui->closeButton, &QPushButton::clicked, this, &QDialog::accept);
    reload();
    select(m_ui->genreList->count() > 0 ? 0 : -1);
}

GenresPanel::~GenresPanel() = default;

int GenresPanel::selectedRow() const {
    return m_ui->genreList->currentRow();
}

void GenresPanel::select(int row) {
    m_ui->genreList->setCurrentRow(row);
    // Adding needs a selected row to insert at.
    m_ui->addGenre->setEnabled(row >= 0 || m_ui->genreList->count() == 0);
}

void GenresPanel::reload() {
    m_loading = true;
    const int keep = m_ui->genreList->currentRow();
    const QStringList genres = m_controller.genreList();
    m_ui->genreList->clear();
    for (const QString& genre : genres) {
        auto* item = new QListWidgetItem(genre, m_ui->genreList);
        item->setFlags(item->flags() | Qt::ItemIsEditable);
    }
    if (keep >= 0 && keep < genres.size())
        m_ui->genreList->setCurrentRow(keep);

    const auto rows = m_controller.genreMapRows();
    QTableWidget* map = m_ui->genreMap;
    map->clearContents();
    map->setRowCount(int(rows.size()));
    for (int row = 0; row < rows.size(); ++row) {
        const QString tmdbGenre = rows.at(row).first;
        map->setItem(row, 0, new QTableWidgetItem(tmdbGenre));
        auto* popup = new QComboBox(map);
        popup->addItem(tr("None"), QString());
        for (const QString& genre : genres)
            popup->addItem(genre, genre);
        popup->setCurrentIndex(qMax(0, popup->findData(rows.at(row).second)));
        connect(popup, &QComboBox::activated, this, [this, popup, tmdbGenre](int index) {
            m_controller.setMapping(tmdbGenre, popup->itemData(index).toString());
        });
        map->setCellWidget(row, 1, popup);
    }
    m_loading = false;
}

void GenresPanel::renamed(int row) {
    if (m_loading || row < 0)
        return;
    const QString name = m_ui->genreList->item(row)->text().trimmed();
    // Stored once the editor has let go of the item: storing reloads the list.
    QMetaObject::invokeMethod(
        this,
        [this, row, name] {
            // A refused name (empty) shows the stored one again.
            if (!m_controller.renameGenre(row, name))
                reload();
            select(row);
        },
        Qt::QueuedConnection);
}
