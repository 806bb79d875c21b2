#pragma once

#include "core/MDB_Image.h"
#include "lookup/MDB_TheMovieDb.h"
#include "media/MDI_Media.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <vector>

// The search results panel without its window: the hits of one media item,
// the hit shown with its summary and poster, a new search, the search
// language, and the choice made when the panel closes. A front end shows
// the properties, forwards the buttons, and runs its modal loop until
// closed() is emitted.
class SearchResultsPanelController : public QObject, public MDB_TheMovieDbDelegate {
    Q_OBJECT
    Q_PROPERTY(QString summary READ summary NOTIFY panelChanged)
    Q_PROPERTY(MDB_Image poster READ poster NOTIFY panelChanged)
    Q_PROPERTY(QString searchString READ searchString WRITE setSearchString NOTIFY panelChanged)
    Q_PROPERTY(QStringList searchLanguages READ searchLanguages NOTIFY panelChanged)
    Q_PROPERTY(QString searchLanguage READ searchLanguage NOTIFY panelChanged)
    Q_PROPERTY(int selectedRow READ selectedSearchResult NOTIFY panelChanged)
    Q_PROPERTY(bool isOpen READ isOpen NOTIFY closed)

public:
    explicit SearchResultsPanelController(QObject* parent = nullptr);
    ~SearchResultsPanelController() override;

    // `withParentWindow:withMovie:replaceName:` without the window: keeps the
    // item and flag, selects the row of the item's search index and fills the
    // panel for it. `replaceName`: a new search text also renames the output.
    void withParentWindow(const std::shared_ptr<MDI_Media>& movie, bool replaceName);
    bool isOpen() const { return m_open; }

    // Shows the hit at `index`: summary, poster, and the overview in the
    // item's language (both fetched synchronously).
    void populatePanel(qint64 index);

    // The table: one row per hit; columns "Release Date" and "Name".
    int numberOfRows() const;
    QString value(int row, const QString& column) const;
    // The table's selected row, -1 for none.
    qint64 selectedSearchResult() const { return m_selectedRow; }
    void selectRow(qint64 row);
    // A row click: fills the panel for the selected row.
    void resultSelected();

    void setSearchString(const QString& text);
    const QString& searchString() const { return m_searchString; }
    // A new search for the typed text (nothing when it is empty); the hits
    // arrive in searchComplete().
    void onSearchBtn();
    void searchComplete(std::vector<std::unique_ptr<MDB_Metadata>> results) override;
    void queryComplete(MDB_Metadata* metadata) override;

    void onDoneBtn();
    void onCancelBtn();
    // The pages to open for the shown hit; empty when no hit is shown.
    QUrl onIMDbBtn() const;
    QUrl onTMDbBtn() const;
    // Puts the language's ISO 639-1 code in front of the item's language region.
    void onLanguageChanged(const QString& languageName);

    // After closing: whether the editor must apply the selected row (it
    // differs from the item's choice, or a new search was made).
    bool selectionChanged() const;

    const QString& summary() const { return m_summary; }
    const MDB_Image& poster() const { return m_poster; }
    const QStringList& searchLanguages() const { return m_searchLanguages; }
    const QString& searchLanguage() const { return m_searchLanguage; }
    std::shared_ptr<MDI_Media> curMovie() const { return m_curMovie; }
    std::shared_ptr<MDB_Metadata> movieMeta() const { return m_movieMeta; }
    bool isSearching() const { return m_searching; }

signals:
    void panelChanged();
    void searchFinished();
    void closed();

private:
    void close();

    std::shared_ptr<MDI_Media> m_curMovie;
    std::shared_ptr<MDB_Metadata> m_movieMeta;
    bool m_replaceName = false;
    bool m_open = false;
    bool m_searching = false;
    qint64 m_selectedRow = -1;
    QString m_summary;
    MDB_Image m_poster;
    QString m_searchString;
    QStringList m_searchLanguages;
    QUrl m_imdbPage;
    QString m_searchLanguage;
    // The panel's own searches; dropped (and so cancelled) when it closes.
    std::unique_ptr<MDB_TheMovieDb> m_movieDB;
};
