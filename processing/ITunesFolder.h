#pragma once

#include <QString>

// The folder inside the user's iTunes folder that takes new movies.
namespace ITunesFolder {

// The first folder (by name, hidden ones skipped) inside the folder of
// "iTunes Path Bookmark" whose name contains "iTunes"; empty when the bookmark
// is missing or no longer resolves, or no folder matches.
QString addFolder();

// Moves the file into `folder` under its own name. False, with the file left
// where it was, when that is not possible.
bool moveInto(const QString& file, const QString& folder);

} // namespace ITunesFolder
