#pragma once

#include <QString>

// Texts the commands print about a source and its command line.
namespace cli {

// "video file", "DVD", "Blu-ray", or "not scanned" for a source type.
QString sourceTypeName(qint32 type);

// An argument quoted for a POSIX shell when it needs it, so a printed
// command line can be pasted back.
QString shellQuoted(const QString& arg);

} // namespace cli
