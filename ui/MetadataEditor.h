#pragma once

#include "media/MetadataEditorController.h"

#include <QDialog>
#include <QHash>

class EncodeBrowserController;
class MoviesBrowserController;
class QComboBox;
class QFormLayout;
class QLabel;
class QPushButton;
class RetagBrowserController;

// The metadata editor of the first selected item of a browser: every tag
// shown with a control of its kind, the cover with its candidates, the
// search results panel, and (for files) Save and Revert. The three
// browsers' editors below differ only in what they edit and where it goes.
class MetadataEditor : public QDialog {
    Q_OBJECT
public:
    MetadataEditorController* editor() const { return m_editor; }
    // The control of one tag (a line edit, text edit, date edit, the two
    // spin boxes of a number pair, a combo box or a check box).
    QWidget* field(const QString& key) const { return m_fields.value(key); }
    QComboBox* coverPopup() const { return m_coverPopup; }
    QPushButton* saveButton() const { return m_save; }
    QPushButton* revertButton() const { return m_revert; }
    QPushButton* searchButton() const { return m_search; }
    QLabel* coverWell() const { return m_cover; }

    // Opens the search results panel and applies the hit picked there;
    // true when a pick is being applied.
    bool runSearch();
    // Save; a failure is shown and the edits stay.
    bool save();
    // Fills the controls from the record again.
    void refresh();

    void done(int result) override;

protected:
    MetadataEditor(MetadataEditorController* editor, QWidget* parent);
    bool eventFilter(QObject* watched, QEvent* event) override;
    // Refills when the browser redraws the item (a pick's query ended).
    void followBrowser(EncodeBrowserController* browser);

private:
    void build();
    QWidget* makeControl(const MetadataEditorController::Field& field);
    void fillControl(const QString& key, QWidget* control);
    void openImage();
    void showError(const QString& message);

    MetadataEditorController* m_editor;
    QHash<QString, QWidget*> m_fields;
    QFormLayout* m_form = nullptr;
    QLabel* m_cover = nullptr;
    QLabel* m_heading = nullptr;
    QComboBox* m_coverPopup = nullptr;
    QPushButton* m_search = nullptr;
    QPushButton* m_revert = nullptr;
    QPushButton* m_save = nullptr;
    QPushButton* m_close = nullptr;
    bool m_filling = false;
};

// The encode browser's editor: the edits stay with the item and are
// written by the tagging after the encode.
class MetadataController : public MetadataEditor {
    Q_OBJECT
public:
    MetadataController(EncodeBrowserController* browser, QWidget* parent = nullptr);
};

// The retag browser's editor: saved into the file in place.
class TagController : public MetadataEditor {
    Q_OBJECT
public:
    TagController(RetagBrowserController* browser, QWidget* parent = nullptr);
};

// The library's editor for its current movie: saved into the movie's file.
class iTunesMetadataController : public MetadataEditor {
    Q_OBJECT
public:
    iTunesMetadataController(MoviesBrowserController* library, QWidget* parent = nullptr);
};
