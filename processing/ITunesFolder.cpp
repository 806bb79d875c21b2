#include "processing/ITunesFolder.h"

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace ITunesFolder {

QString addFolder() {
    const QString root = Bookmark::resolve(
        UserDefaults::standard().dataForKey(QLatin1String(SettingsKey::ITunesPathBookmark)));
    if (root.isEmpty())
        return {};
    const QDir dir(root);
    const QFileInfoList entries = dir.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    // Only a folder can take the movie.
    for (const QFileInfo& entry : entries) {
        if (entry.fileName().contains(QLatin1String("iTunes")))
            return entry.absoluteFilePath();
    }
    return {};
}

bool moveInto(const QString& file, const QString& folder) {
    if (folder.isEmpty() || !QFileInfo(folder).isDir() || !QFileInfo::exists(file))
        return false;
    const QString target = QDir(folder).filePath(QFileInfo(file).fileName());
    // Never replace a movie already waiting there.
    if (QFileInfo::exists(target))
        return false;
    return QFile::rename(file, target);
}

} // namespace ITunesFolder
