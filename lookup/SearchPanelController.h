#pragma once

#include <QString>

// The no-hits question: the name that found nothing, an editable new name,
// and the user's choice between searching again and skipping. The desktop
// panel and the terminal prompt fill it through the browser's delegate.
// When the database failed rather than found nothing, `lookupError` says
// why (a refused key, a server error, a time-out, no connection); searching
// under another name will then rarely help.
class SearchPanelController {
public:
    // Keeps a copy as `startName` and shows it in both fields.
    void setSearchName(const QString& name) {
        m_startName = name;
        m_currentName = name;
        m_newName = name;
    }
    const QString& startName() const { return m_startName; }
    const QString& currentName() const { return m_currentName; }

    // Empty when the database answered without hits.
    void setLookupError(const QString& error) { m_lookupError = error; }
    const QString& lookupError() const { return m_lookupError; }
    bool lookupFailed() const { return !m_lookupError.isEmpty(); }

    void setSkipSearch(bool skip) { m_skipSearch = skip; }
    bool skipSearch() const { return m_skipSearch; }

    // The edited name.
    QString newName() const { return m_newName; }
    void setNewName(const QString& name) { m_newName = name; }

    // The panel's two buttons.
    void skipBtn() { m_skipSearch = true; }
    void searchBtn() { m_skipSearch = false; }

private:
    QString m_startName;
    QString m_currentName;
    QString m_newName;
    QString m_lookupError;
    bool m_skipSearch = false;
};
