#include "core/Bookmark.h"

#include <QFileInfo>

namespace Bookmark {

QByteArray create(const QString& folder) {
    const QFileInfo info(folder);
    if (folder.isEmpty() || !info.isDir())
        return {};
    return info.absoluteFilePath().toUtf8();
}

QString resolve(const QByteArray& bookmark) {
    if (bookmark.isEmpty())
        return {};
    const QString path = QString::fromUtf8(bookmark);
    return QFileInfo(path).isDir() ? path : QString();
}

} // namespace Bookmark
