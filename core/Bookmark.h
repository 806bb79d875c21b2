#pragma once

#include <QByteArray>
#include <QString>

// Folder bookmarks: on this platform a bookmark is the folder's absolute path
// as UTF-8 bytes, and starting or stopping access needs nothing.
namespace Bookmark {

// Bookmark bytes of a folder; empty when the path is not an existing folder.
QByteArray create(const QString& folder);

// The folder a bookmark names, or an empty string when it no longer resolves
// (empty bytes, or the path is gone or not a folder).
QString resolve(const QByteArray& bookmark);

} // namespace Bookmark
