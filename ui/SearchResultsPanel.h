#pragma once

#include <QDialog>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTableWidget;
class QTextBrowser;
class SearchResultsPanelController;

// The search results panel: the hits of one movie with the poster, year and
// overview of the one selected, a new search with its language, and Done or
// Cancel. Bound to the controller, which keeps the choice when it closes.
class SearchResultsPanel : public QDialog {
    Q_OBJECT
public:
    SearchResultsPanel(SearchResultsPanelController* panel, QWidget* parent = nullptr);

    QTableWidget* resultsList() const { return m_results; }
    QLineEdit* searchField() const { return m_search; }
    QComboBox* languagePopup() const { return m_language; }
    QPushButton* doneButton() const { return m_done; }
    QPushButton* cancelButton() const { return m_cancel; }
    // A row click, as the user makes it.
    void chooseRow(int row);

    void reject() override;

private:
    void refresh();
    void search();

    SearchResultsPanelController* m_panel;
    QTableWidget* m_results;
    QLabel* m_poster;
    QLabel* m_title;
    QTextBrowser* m_summary;
    QLineEdit* m_search;
    QPushButton* m_searchButton;
    QComboBox* m_language;
    QPushButton* m_imdb;
    QPushButton* m_tmdb;
    QPushButton* m_done;
    QPushButton* m_cancel;
    bool m_filling = false;
};
