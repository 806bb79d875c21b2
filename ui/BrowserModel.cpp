#include "ui/BrowserModel.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "library/MoviesBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Media.h"
#include "processing/EncoderController.h"

#include <QFileInfo>
#include <QMimeData>
#include <QUrl>

#include <algorithm>
#include <climits>

BrowserModel::Badge BrowserModel::badgeForStatus(qint32 status) {
    if (status == 2)
        return Added;
    if (status >= 3 && status <= 7)
        return Scanning;
    if (status >= 9 && status <= 17)
        return Working;
    if (status == 0 || status == 18)
        return Error;
    if (status == 19)
        return Done;
    return NoBadge;
}

QString BrowserModel::badgeImage(Badge badge) {
    switch (badge) {
    case Added:
        return QStringLiteral("Badge-Added");
    case Scanning:
        return QStringLiteral("Badge-Scanning");
    case Working:
        return QStringLiteral("Badge-Working");
    case Error:
        return QStringLiteral("Badge-Error");
    case Done:
        return QStringLiteral("Badge-Done");
    case NoBadge:
        break;
    }
    return {};
}

QString BrowserModel::badgeText(Badge badge) {
    switch (badge) {
    case Added:
        return tr("Waiting");
    case Scanning:
        return tr("Scanning");
    case Working:
        return tr("Converting");
    case Error:
        return tr("Failed");
    case Done:
        return tr("Done");
    case NoBadge:
        break;
    }
    return tr("Ready");
}

void BrowserModel::sync() {
    const int rows = sourceCount();
    if (rows > m_rows) {
        if (m_rows > 0)
            emit dataChanged(index(0), index(m_rows - 1));
        beginInsertRows({}, m_rows, rows - 1);
        m_rows = rows;
        endInsertRows();
    } else if (rows < m_rows) {
        beginResetModel();
        m_rows = rows;
        endResetModel();
    } else if (rows > 0) {
        emit dataChanged(index(0), index(rows - 1));
    }
}

// --- encode and retag --------------------------------------------------------------

EncodeBrowserModel::EncodeBrowserModel(EncodeBrowserController* browser, EncoderController* encoder,
                                       QObject* parent)
    : BrowserModel(parent), m_browser(browser), m_encoder(encoder) {
    m_rows = sourceCount();
    connect(browser, &EncodeBrowserController::reloaded, this, &BrowserModel::sync);
    connect(browser, &EncodeBrowserController::itemUpdated, this,
            [this](int row) { refreshRow(row); });
    auto scanRow = [this] {
        if (m_browser && m_browser->workMovie())
            refreshRow(rowOf(m_browser->workMovie().get()));
    };
    connect(browser, &EncodeBrowserController::scanProgressChanged, this, scanRow);
    connect(browser, &EncodeBrowserController::scanStatusChanged, this, scanRow);
    if (encoder) {
        auto encodeRow = [this] {
            const MDI_Media* now = m_encoder ? m_encoder->curMovie().get() : nullptr;
            if (m_progressRowItem && m_progressRowItem != now)
                refreshRow(rowOf(m_progressRowItem));
            m_progressRowItem = now;
            if (now)
                refreshRow(rowOf(now));
        };
        connect(encoder, &JobDisplay::progressIndicatorChanged, this, encodeRow);
        connect(encoder, &JobDisplay::progressViewVisibleChanged, this, encodeRow);
        connect(encoder, &JobDisplay::statusFieldChanged, this, encodeRow);
    }
}

int EncodeBrowserModel::sourceCount() const {
    return m_browser ? m_browser->count() : 0;
}

int EncodeBrowserModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : std::min(m_rows, sourceCount());
}

int EncodeBrowserModel::rowOf(const MDI_Media* item) const {
    if (!m_browser || !item)
        return -1;
    const MediaItemList& list = m_browser->movieList();
    for (qsizetype i = 0; i < list.size(); ++i) {
        if (list.at(i).get() == item)
            return int(i);
    }
    return -1;
}

void EncodeBrowserModel::refreshRow(int row) {
    if (row >= 0 && row < rowCount())
        emit dataChanged(index(row), index(row));
}

QVariant EncodeBrowserModel::data(const QModelIndex& index, int role) const {
    if (!m_browser || !index.isValid() || index.row() >= rowCount())
        return {};
    const std::shared_ptr<MDI_Media>& item = m_browser->movieList().at(index.row());
    const QList<EncodeBrowserCell>& cells = m_browser->images();
    const EncodeBrowserCell* cell = index.row() < cells.size() ? &cells.at(index.row()) : nullptr;
    switch (role) {
    case Qt::DisplayRole:
        return cell && !cell->title.isEmpty() ? cell->title : item->name();
    case Qt::ToolTipRole:
        return item->warnings().isEmpty() ? item->inPath()
                                          : item->inPath() + u'\n' + item->warnings();
    case BrowserRole::Poster: {
        if (cell && !cell->image.isEmpty())
            return cell->image;
        const QList<QUrl>& thumbs = item->localThumbnails();
        return thumbs.isEmpty() ? QString() : thumbs.first().toLocalFile();
    }
    case BrowserRole::Badge:
        return int(badgeForStatus(item->status()));
    case BrowserRole::StatusText:
        return badgeText(badgeForStatus(item->status()));
    case BrowserRole::Progress: {
        if (m_encoder && m_encoder->curMovie() == item && m_encoder->progressViewVisible() &&
            item->status() >= 9 && item->status() <= 17)
            return m_encoder->progressIndicator();
        if (m_browser->workMovie() == item && item->status() >= 3 && item->status() <= 7) {
            const int max = m_browser->scanProgressMaximum();
            return max > 0 ? 100.0 * m_browser->scanProgressValue() / max : -2.0;
        }
        return -1.0;
    }
    case BrowserRole::Group:
        return QString();
    }
    return {};
}

Qt::ItemFlags EncodeBrowserModel::flags(const QModelIndex& index) const {
    const Qt::ItemFlags base = QAbstractListModel::flags(index);
    return index.isValid() ? base | Qt::ItemNeverHasChildren : base | Qt::ItemIsDropEnabled;
}

QStringList EncodeBrowserModel::mimeTypes() const {
    return {QStringLiteral("text/uri-list")};
}

Qt::DropActions EncodeBrowserModel::supportedDropActions() const {
    return Qt::CopyAction | Qt::LinkAction | Qt::MoveAction;
}

bool EncodeBrowserModel::canDropMimeData(const QMimeData* data, Qt::DropAction, int, int,
                                         const QModelIndex&) const {
    if (!data || !data->hasUrls())
        return false;
    const QList<QUrl> urls = data->urls();
    return std::any_of(urls.cbegin(), urls.cend(), [](const QUrl& u) { return u.isLocalFile(); });
}

bool EncodeBrowserModel::dropMimeData(const QMimeData* data, Qt::DropAction action, int row,
                                      int column, const QModelIndex& parent) {
    if (!m_browser || !canDropMimeData(data, action, row, column, parent))
        return false;
    QStringList paths;
    for (const QUrl& url : data->urls()) {
        if (url.isLocalFile())
            paths << url.toLocalFile();
    }
    return m_browser->loadFiles(paths) > 0;
}

// --- library -----------------------------------------------------------------------

LibraryBrowserModel::LibraryBrowserModel(MoviesBrowserController* browser, QObject* parent)
    : BrowserModel(parent), m_browser(browser) {
    regroup();
    m_rows = sourceCount();
    connect(browser, &MoviesBrowserController::reloaded, this, [this] {
        // A new set of cells: rows mean other movies now.
        beginResetModel();
        regroup();
        m_rows = sourceCount();
        endResetModel();
    });
}

void LibraryBrowserModel::regroup() {
    m_order.clear();
    m_sourceToRow.clear();
    m_headers.clear();
    if (!m_browser)
        return;
    const auto& cells = m_browser->curCells();
    // The user's genre list gives the groups' order; genres not in it follow
    // alphabetically.
    QHash<QString, int> rank;
    const QVariantList listed =
        UserDefaults::standard().arrayForKey(QString::fromLatin1(SettingsKey::GenreList));
    for (const QVariant& genre : listed)
        rank.insert(genre.toString(), int(rank.size()));
    QHash<QString, QList<int>> members;
    QStringList genres;
    for (int i = 0; i < cells.size(); ++i) {
        QList<int>& list = members[cells.at(i)->genre()];
        if (list.isEmpty())
            genres << cells.at(i)->genre();
        list << i; // the controller's order (by sort name) within a genre
    }
    std::sort(genres.begin(), genres.end(), [&rank](const QString& a, const QString& b) {
        const int ra = rank.value(a, INT_MAX);
        const int rb = rank.value(b, INT_MAX);
        if (ra != rb)
            return ra < rb;
        return QString::localeAwareCompare(a, b) < 0;
    });
    m_sourceToRow.resize(cells.size());
    for (const QString& genre : std::as_const(genres)) {
        m_order << -1;
        m_headers << genre;
        for (int source : members.value(genre)) {
            m_sourceToRow[source] = int(m_order.size());
            m_order << source;
            m_headers << QString();
        }
    }
}

int LibraryBrowserModel::sourceCount() const {
    return m_browser ? m_browser->count() : 0;
}

int LibraryBrowserModel::rowCount(const QModelIndex& parent) const {
    // Rows appear once the controller has the cells they show.
    return parent.isValid() || m_rows < m_sourceToRow.size() ? 0 : int(m_order.size());
}

int LibraryBrowserModel::sourceRow(int row) const {
    return row >= 0 && row < m_order.size() ? m_order.at(row) : -1;
}

int LibraryBrowserModel::rowForSource(int sourceRow) const {
    return sourceRow >= 0 && sourceRow < m_sourceToRow.size() ? m_sourceToRow.at(sourceRow) : -1;
}

Qt::ItemFlags LibraryBrowserModel::flags(const QModelIndex& index) const {
    if (index.isValid() && sourceRow(index.row()) < 0)
        return Qt::ItemIsEnabled; // a header is never selected
    return BrowserModel::flags(index);
}

QVariant LibraryBrowserModel::data(const QModelIndex& index, int role) const {
    if (!m_browser || !index.isValid() || index.row() >= rowCount())
        return {};
    if (sourceRow(index.row()) < 0) {
        const QString& header = m_headers.at(index.row());
        switch (role) {
        case Qt::DisplayRole:
        case BrowserRole::Group:
            return header;
        case BrowserRole::Header:
            return true;
        case BrowserRole::Badge:
            return int(NoBadge);
        case BrowserRole::Progress:
            return -1.0;
        }
        return {};
    }
    const MoviesBrowserController::CellPtr cell = m_browser->itemAtIndex(sourceRow(index.row()));
    if (!cell)
        return {};
    switch (role) {
    case Qt::DisplayRole:
        return cell->imageTitle();
    case Qt::ToolTipRole:
        return cell->imageRepresentation();
    case BrowserRole::Poster:
        return cell->imageRepresentation();
    case BrowserRole::Badge:
        return int(NoBadge);
    case BrowserRole::StatusText:
        return cell->isHD()   ? QStringLiteral("HD")
               : cell->isSD() ? QStringLiteral("SD")
                              : QString();
    case BrowserRole::Progress:
        return -1.0;
    case BrowserRole::Group:
        return cell->genre();
    case BrowserRole::Header:
        return false;
    }
    return {};
}
