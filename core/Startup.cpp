#include "core/Startup.h"

#include "core/MDB_Utility.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Startup {

bool registerDefaults(QString* error) {
    const QString missing = Resources::checkResourceDir();
    if (!missing.isEmpty()) {
        if (error)
            *error = missing;
        return false;
    }
    const QVariant defaults = Resources::loadPropertyList(QStringLiteral("Defaults-Pro.plist"));
    if (defaults.typeId() != QMetaType::QVariantMap) {
        if (error)
            *error = QStringLiteral("Tarnwick: cannot read Defaults-Pro.plist in %1")
                         .arg(Resources::resourceDir());
        return false;
    }
    UserDefaults::standard().registerDefaults(defaults.toMap());
    return true;
}

void createUserPresets() {
    const QVariant devices = Resources::loadPropertyList(QStringLiteral("Devices.plist"));
    if (devices.typeId() == QMetaType::QVariantMap)
        MDB_Devices::createUserFile(devices.toMap());
}

bool run(QString* error) {
    srandom(static_cast<unsigned>(std::time(nullptr)));
    if (!registerDefaults(error))
        return false;
    createUserPresets();
    repairTempDirectory();
    repairLanguageRegion();
    return true;
}

namespace {

// This process's scratch folder and the write end of its watchdog's pipe.
QString g_scratch;
int g_watchdog = -1;

// Tells the watchdog that the folder is taken care of; it then ends.
void releaseWatchdog() {
    if (g_watchdog < 0)
        return;
    const char done = 'x';
    while (::write(g_watchdog, &done, 1) < 0 && errno == EINTR) {
    }
    ::close(g_watchdog);
    g_watchdog = -1;
}

// A small forked process that removes the scratch folder when this process
// ends without doing so itself (killed, or ended by _Exit). It waits on a
// pipe: end-of-file without the "done" byte means we are gone. Only
// async-signal-safe calls follow the fork; the removal is rm's.
void startWatchdog(const QString& folder) {
    releaseWatchdog();
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return;
    const QByteArray path = QFile::encodeName(folder);
    const char* const argv[] = {"rm", "-rf", "--", path.constData(), nullptr};
    const int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const pid_t pid = ::fork();
    if (pid == 0) {
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE})
            ::signal(sig, SIG_IGN);
        if (devNull >= 0)
            for (int fd = 0; fd < 3; ++fd)
                ::dup2(devNull, fd);
        // Nothing of ours stays open in it but its end of the pipe.
        const int keep = ::dup2(fds[0], 3);
        if (keep == 3)
            ::syscall(SYS_close_range, 4U, ~0U, 0U);
        if (::chdir("/") != 0) {
        }
        char byte = 0;
        ssize_t n;
        while ((n = ::read(3, &byte, 1)) < 0 && errno == EINTR) {
        }
        if (n == 0)
            ::execv("/bin/rm", const_cast<char* const*>(argv));
        ::_exit(0);
    }
    if (devNull >= 0)
        ::close(devNull);
    ::close(fds[0]);
    if (pid < 0) {
        ::close(fds[1]);
        return;
    }
    g_watchdog = fds[1];
}

void removeScratch() {
    if (!g_scratch.isEmpty())
        QDir(g_scratch).removeRecursively();
    g_scratch.clear();
    UserDefaults::standard().setVolatileObject(QVariant(), SettingsKey::TempDirectory);
    releaseWatchdog();
}

} // namespace

QString repairTempDirectory() {
    if (!g_scratch.isEmpty()) {
        const QFileInfo info(g_scratch);
        if (info.isDir() && info.isReadable() && info.isWritable())
            return g_scratch;
        removeScratch();
    }
    QByteArray templ = QFile::encodeName(QDir::temp().filePath(QStringLiteral("Tarnwick.XXXXXX")));
    if (!mkdtemp(templ.data()))
        return {};
    g_scratch = QFile::decodeName(templ);
    // The folder belongs to this process alone: it is not stored, so two
    // processes never share one and start-up writes nothing.
    UserDefaults::standard().setVolatileObject(g_scratch, SettingsKey::TempDirectory);
    startWatchdog(g_scratch);
    static bool routine = false;
    if (!routine && QCoreApplication::instance()) {
        routine = true;
        qAddPostRoutine(removeScratch);
    }
    return g_scratch;
}

QString regionForLocale(const QString& localeIdentifier) {
    QString code = localeIdentifier;
    code.replace(QLatin1Char('_'), QLatin1Char('-'));
    if (MDB_Utility::hasLanguageRegion(code))
        return code;
    return QStringLiteral("en-US");
}

void repairLanguageRegion(const QString& localeIdentifier) {
    auto& defaults = UserDefaults::standard();
    const QVariant value = defaults.objectForKey(SettingsKey::LanguageRegion);
    if (!value.isValid() || value.toString() != QLatin1String(""))
        return;
    defaults.setObject(regionForLocale(localeIdentifier), SettingsKey::LanguageRegion);
    defaults.synchronize();
}

bool presetUpdateNeeded() {
    const auto& defaults = UserDefaults::standard();
    const qint64 shipped = defaults.integerForKey(SettingsKey::Presets);
    const qint64 current = defaults.integerForKey(SettingsKey::PresetsCurrent);
    return shipped > current || !defaults.boolForKey(SettingsKey::UpdatePresets);
}

void acceptPresetUpdate() {
    auto& defaults = UserDefaults::standard();
    MDB_Devices::resetAll();
    defaults.setInteger(defaults.integerForKey(SettingsKey::Presets), SettingsKey::PresetsCurrent);
    defaults.setBool(true, SettingsKey::UpdatePresets);
    defaults.synchronize();
}

void cleanupAtExit() {
    removeScratch();
    UserDefaults::standard().synchronize();
}

} // namespace Startup
