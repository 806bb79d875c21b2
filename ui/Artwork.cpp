#include "ui/Artwork.h"

#include "core/Resources.h"

#include <QFileInfo>
#include <QHash>

namespace Artwork {

QPixmap pixmap(const QString& name) {
    static QHash<QString, QPixmap> loaded;
    auto it = loaded.constFind(name);
    if (it != loaded.constEnd())
        return *it;
    QPixmap image;
    const QString file = QFileInfo(name).suffix().isEmpty() ? name + QStringLiteral(".png") : name;
    const QString path = QFileInfo::exists(Resources::resourceDir() + u'/' + file)
                             ? Resources::resourceDir() + u'/' + file
                             : QString();
    if (!path.isEmpty())
        image.load(path);
    loaded.insert(name, image);
    return image;
}

QIcon icon(const QString& name) {
    const QPixmap image = pixmap(name);
    return image.isNull() ? QIcon() : QIcon(image);
}

} // namespace Artwork
