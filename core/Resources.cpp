#include "core/Resources.h"

#include "core/PropertyList.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QtGlobal>

namespace Resources {

// Where the installed layout puts the resources and the auxiliary tools,
// relative to the folder of the programs: the build passes the configured
// install folders, these are the usual ones.
#ifndef TARNWICK_RELATIVE_DATADIR
#define TARNWICK_RELATIVE_DATADIR "../share/tarnwick"
#endif
#ifndef TARNWICK_RELATIVE_LIBEXECDIR
#define TARNWICK_RELATIVE_LIBEXECDIR "../libexec/tarnwick"
#endif

namespace {
QString executableDir() {
    if (QCoreApplication::instance())
        return QCoreApplication::applicationDirPath();
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath().section('/', 0, -2);
}
} // namespace

QString resourceDir() {
    const QString env = qEnvironmentVariable("TARNWICK_RESOURCES");
    if (!env.isEmpty())
        return QDir::cleanPath(env);
    const QString exe = executableDir();
    const QString installed = QDir::cleanPath(exe + QStringLiteral("/" TARNWICK_RELATIVE_DATADIR));
    if (QFileInfo(installed).isDir())
        return installed;
    // The build tree keeps its resources here whatever the install folders are.
    return QDir::cleanPath(exe + QStringLiteral("/../share/tarnwick"));
}

QString checkResourceDir() {
    const QString dir = resourceDir();
    if (!QFileInfo(dir).isDir())
        return QStringLiteral("Tarnwick: resource folder not found: %1 (set TARNWICK_RESOURCES to "
                              "the folder holding Devices.plist)")
            .arg(dir);
    return {};
}

QString path(const QString& name) {
    const QString dir = resourceDir();
    const QString full = dir + QLatin1Char('/') + name;
    if (QFileInfo::exists(full))
        return full;
    static QSet<QString> warned;
    if (!warned.contains(full)) {
        warned.insert(full);
        if (!QFileInfo(dir).isDir())
            qWarning("%s", qPrintable(checkResourceDir()));
        else
            qWarning("Tarnwick: resource %s missing in %s", qPrintable(name), qPrintable(dir));
    }
    return {};
}

QVariant loadPropertyList(const QString& name) {
    const QString p = path(name);
    if (p.isEmpty())
        return {};
    // The shipped tables are consulted by several steps of every movie.
    QString error;
    QVariant v = PropertyList::readFileCached(p, &error);
    if (!v.isValid())
        qWarning("Tarnwick: cannot read %s: %s", qPrintable(p), qPrintable(error));
    return v;
}

QString libexecDir() {
    const QString env = qEnvironmentVariable("TARNWICK_LIBEXEC");
    if (!env.isEmpty())
        return QDir::cleanPath(env);
    const QString exe = executableDir();
    const QString installed =
        QDir::cleanPath(exe + QStringLiteral("/" TARNWICK_RELATIVE_LIBEXECDIR));
    if (QFileInfo(installed).isDir())
        return installed;
    return exe;
}

QString auxiliaryExecutable(const QString& name) {
    return libexecDir() + QLatin1Char('/') + name;
}

} // namespace Resources
