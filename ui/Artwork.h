#pragma once

#include <QIcon>
#include <QPixmap>
#include <QString>

// The project's images by name ("Aqua-Pause-icon", "MovieTicket"), read once
// from the resource folder. A missing file gives a null image, so a build
// without the artwork still runs and shows nothing there.
namespace Artwork {

QPixmap pixmap(const QString& name);
QIcon icon(const QString& name);

} // namespace Artwork
