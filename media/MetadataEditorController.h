#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <memory>
#include <utility>

class EncodeBrowserController;
class MDB_Metadata;
class MDI_Media;
class MoviesBrowserController;
class RetagBrowserController;
class SearchResultsPanelController;

// The metadata editor without its window, for the first selected item of one
// browser: the encode browser's (`MetadataController`: the edits stay on the
// item for the tagging after the encode), the retag browser's (`TagController`)
// and the library's current movie (`iTunesMetadataController`), both saved
// into their own file. Edits go straight into the item's record; the record
// as it was when editing began is kept so revert() can put it back.
class MetadataEditorController : public QObject {
    Q_OBJECT
public:
    enum class Source { Encode, Retag, Library };
    // The control a tag is edited with.
    enum class Kind {
        Text,
        LongText,
        Date,
        NumberPair,
        Rating,
        MediaKind,
        ContentRating,
        HDVideo,
        Boolean
    };
    struct Field {
        QString key;
        Kind kind;
    };

    explicit MetadataEditorController(EncodeBrowserController* browser, QObject* parent = nullptr);
    explicit MetadataEditorController(RetagBrowserController* browser, QObject* parent = nullptr);
    explicit MetadataEditorController(MoviesBrowserController* library, QObject* parent = nullptr);
    ~MetadataEditorController() override;

    Source source() const { return m_source; }
    // Takes the browser's first selected item (the library's current movie)
    // and remembers its record as it is now. False when there is none.
    bool load();
    std::shared_ptr<MDI_Media> item() const { return m_item; }

    // The fields shown: the movie's own tags, then the tags switched on in
    // the "Metadata List" groups in their order, then the numeric flags.
    static QList<Field> fields();
    static Kind kind(const QString& key);
    // The value as its control shows it: media kind and content rating by
    // name, "HD Video" as "0"/"1"/"2", booleans as "1"/"0".
    QString value(const QString& key) const;
    // The "Rating" menu: names and the rating strings stored for them, of
    // the item's country.
    QList<std::pair<QString, QString>> ratingChoices() const;
    // False when nothing changed. A new "Name" renames the cell.
    bool setValue(const QString& key, const QString& value);

    // The covers to choose from: the full-size posters, then the backdrops.
    QList<QUrl> coverCandidates() const;
    bool chooseCover(int index);
    // An image file opened or dropped; false (nothing changes) when it is
    // not an image.
    bool setCoverFromFile(const QString& path);

    // Whether anything was changed since load() or the last save.
    bool isModified() const { return m_modified; }
    // Retag and library items: writes the tags into the file. False, with
    // the reason in `error`, when the file is read-only, gone or not a movie
    // file; the edits then stay on the item so nothing is lost.
    bool save(QString* error = nullptr);
    // Puts back the record as it was at load() (or at the last save).
    void revert();

    // The search results panel for the item: the encode and library editors
    // let a new search text rename the output, the tag editor does not.
    void openSearch(SearchResultsPanelController& panel) const;
    // After the panel closed: applies the hand-picked hit in the encode
    // (`metadataSearchUpdate`) or retag browser (`tagSearchUpdate`). The
    // library applies no pick. True when a pick is being applied.
    bool applySearch(const SearchResultsPanelController& panel);

signals:
    void changed();

private:
    void takeSnapshot();
    void coverChanged();
    MDB_Metadata* record() const;

    Source m_source;
    QPointer<EncodeBrowserController> m_encode;
    QPointer<RetagBrowserController> m_retag;
    QPointer<MoviesBrowserController> m_library;
    std::shared_ptr<MDI_Media> m_item;
    std::unique_ptr<MDB_Metadata> m_snapshot;
    QList<QUrl> m_snapshotThumbnails;
    QString m_snapshotName;
    bool m_modified = false;
};
