#pragma once

#include <QString>
#include <QVariant>

// Where the program finds its shipped data and its auxiliary tools.
namespace Resources {

// The resource folder: $TARNWICK_RESOURCES, else the installed data folder
// as seen from the executable's folder (share/tarnwick beside bin/ unless the
// build was configured otherwise), else share/tarnwick beside bin/ as in the
// build tree.
QString resourceDir();

// Full path of a shipped resource; empty when the resource folder is missing or
// lacks the file (a warning naming the folder looked in is logged once).
QString path(const QString& name);

// Loads a shipped property list (invalid QVariant when missing or corrupt).
QVariant loadPropertyList(const QString& name);

// The folder of auxiliary executables: $TARNWICK_LIBEXEC, else the installed
// libexec/tarnwick as seen from the executable's folder, else the executable's
// own folder (the build tree).
QString libexecDir();

// Full path of an auxiliary executable such as "Tarnwick_Pro_Encoder".
QString auxiliaryExecutable(const QString& name);

// A readable message when the resource folder cannot be found, else empty.
QString checkResourceDir();

} // namespace Resources
