#pragma once

#include <QString>
#include <QVariant>

// Where the program finds its shipped data and its auxiliary tools.
namespace Resources {

// The resource folder: $TARNWICK_RESOURCES, else share/tarnwick beside the
// executable's bin/ folder (the same in the build tree and when installed).
QString resourceDir();

// Full path of a shipped resource; empty when the resource folder is missing or
// lacks the file (a warning naming the folder looked in is logged once).
QString path(const QString& name);

// Loads a shipped property list (invalid QVariant when missing or corrupt).
QVariant loadPropertyList(const QString& name);

// The folder of auxiliary executables: $TARNWICK_LIBEXEC, else
// libexec/tarnwick beside bin/ when installed, else the executable's own folder.
QString libexecDir();

// Full path of an auxiliary executable such as "Tarnwick_Pro_Encoder".
QString auxiliaryExecutable(const QString& name);

// A readable message when the resource folder cannot be found, else empty.
QString checkResourceDir();

} // namespace Resources
