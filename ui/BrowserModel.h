#pragma once

#include <QAbstractListModel>
#include <QPointer>

#include "library/MoviesBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "processing/EncoderController.h"

#include <memory>

class EncodeBrowserController;
class EncoderController;
class MDI_Media;
class MoviesBrowserController;

// What a grid cell shows, in roles a delegate reads: the models below turn
// the browsers' item lists into these, and nothing else about the items.
namespace BrowserRole {
enum {
    Poster = Qt::UserRole + 1, // path of the poster image or movie file; empty for none
    Badge,                     // BrowserModel::Badge
    Progress,                  // percent 0-100; -1 none; -2 busy without a known end
    Group,                     // the library's genre; empty in the other browsers
    StatusText,                // short word under the title
    Header,                    // true for a row that only names its group
};
} // namespace BrowserRole

class BrowserModel : public QAbstractListModel {
    Q_OBJECT
public:
    // The status groups of an item: none (1 and 8), added (2), scanning
    // (3-7), working (9-17), error (0 and 18), done (19).
    enum Badge { NoBadge, Added, Scanning, Working, Error, Done };
    Q_ENUM(Badge)

    using QAbstractListModel::QAbstractListModel;
    static Badge badgeForStatus(qint32 status);
    static QString badgeImage(Badge badge);
    static QString badgeText(Badge badge);

    // Follows the controller's row count: appended rows are inserted (the
    // view keeps its selection), fewer rows reset the model, and the same
    // count refreshes every cell.
    void sync();

protected:
    virtual int sourceCount() const = 0;

private:
    int m_rows = 0;
    friend class EncodeBrowserModel;
    friend class LibraryBrowserModel;
};

// The encode or retag browser's items.
class EncodeBrowserModel : public BrowserModel {
    Q_OBJECT
public:
    // `encoder` (may be null) gives the progress of the movie being converted.
    EncodeBrowserModel(EncodeBrowserController* browser, EncoderController* encoder,
                       QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QStringList mimeTypes() const override;
    bool canDropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                         const QModelIndex& parent) const override;
    bool dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                      const QModelIndex& parent) override;
    Qt::DropActions supportedDropActions() const override;

    EncodeBrowserController* browser() const { return m_browser; }

protected:
    int sourceCount() const override;

private:
    void refreshRow(int row);
    int rowOf(const MDI_Media* item) const;

    QPointer<EncodeBrowserController> m_browser;
    QPointer<EncoderController> m_encoder;
    const MDI_Media* m_progressRowItem = nullptr;
};

// The iTunes library's shown cells (the chosen genre's), grouped by genre in
// the order of the user's genre list, each group led by a header row.
class LibraryBrowserModel : public BrowserModel {
    Q_OBJECT
public:
    explicit LibraryBrowserModel(MoviesBrowserController* browser, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    // The controller's row shown at `row` (and back); -1 for a header row.
    int sourceRow(int row) const;
    int rowForSource(int sourceRow) const;

protected:
    int sourceCount() const override;

private:
    void regroup();

    QPointer<MoviesBrowserController> m_browser;
    QList<int> m_order;       // per row: the controller's row, or -1 for a header
    QList<int> m_sourceToRow; // per controller row: its row here
    QStringList m_headers;    // per row: the genre of a header row, else empty
};
