#include "processing/OutputFile.h"

#include "mp4/mp4.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace OutputFile {

namespace {

const QString kHDSuffix = QStringLiteral("(HD).m4v");

// Below this much free space the destination counts as full.
constexpr qint64 kFullBelowBytes = 1024 * 1024;

QString sdPartner(const QString& hdPath) {
    QString sd = hdPath;
    return sd.replace(kHDSuffix, QStringLiteral(".m4v"));
}

} // namespace

QString numbered(const QString& path, int n) {
    if (n <= 1)
        return path;
    const QString number = QStringLiteral(" (%1)").arg(n);
    if (path.endsWith(kHDSuffix))
        return path.left(path.size() - kHDSuffix.size()) + number + kHDSuffix;
    const QFileInfo info(path);
    const QString suffix = info.suffix();
    if (suffix.isEmpty())
        return path + number;
    return path.left(path.size() - suffix.size() - 1) + number + QLatin1Char('.') + suffix;
}

QString claim(const QString& path, bool pairedWithSD) {
    for (int n = 1; n < 10000; ++n) {
        const QString candidate = numbered(path, n);
        if (pairedWithSD && QFileInfo::exists(sdPartner(candidate)))
            continue;
        const int fd = ::open(QFile::encodeName(candidate).constData(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            ::close(fd);
            return candidate;
        }
        if (errno != EEXIST)
            return path;
    }
    return path;
}

QString incompleteName(const QString& path) {
    const QFileInfo info(path);
    const QString suffix = info.suffix();
    const QString stem = suffix.isEmpty() ? path : path.left(path.size() - suffix.size() - 1);
    return stem + QStringLiteral(" (incomplete)") +
           (suffix.isEmpty() ? QString() : QLatin1Char('.') + suffix);
}

bool plays(const QString& path) {
    if (QFileInfo(path).size() <= 0)
        return false;
    MP4FileHandle file = MP4Read(QFile::encodeName(path).constData());
    if (file == MP4_INVALID_FILE_HANDLE)
        return false;
    bool withSamples = false;
    const uint32_t tracks = MP4GetNumberOfTracks(file);
    for (uint16_t i = 0; i < tracks && !withSamples; ++i) {
        const MP4TrackId id = MP4FindTrackId(file, i);
        withSamples = MP4GetTrackNumberOfSamples(file, id) > 0;
    }
    MP4Close(file);
    return withSamples;
}

QString keepIfPlayable(const QString& path) {
    if (!QFileInfo::exists(path))
        return {};
    if (!plays(path)) {
        QFile::remove(path);
        return {};
    }
    const QString target = claim(incompleteName(path));
    if (target == incompleteName(path) && !QFileInfo::exists(target))
        return path; // nowhere to put it: it stays, under its own name
    if (::rename(QFile::encodeName(path).constData(), QFile::encodeName(target).constData()) != 0) {
        QFile::remove(target);
        return path;
    }
    return target;
}

QString failureCause(const QString& path, int exitStatus, const QString& encoderLog) {
    const QString folder = QFileInfo(path).absolutePath();
    const QByteArray encoded = QFile::encodeName(folder);
    struct statvfs fs {};
    const bool known = ::statvfs(encoded.constData(), &fs) == 0;
    if (known && (fs.f_flag & ST_RDONLY))
        return QStringLiteral("The output folder %1 is on a read-only file system.").arg(folder);
    if (::access(encoded.constData(), W_OK) != 0)
        return QStringLiteral("The output folder %1 is not writable (%2).")
            .arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
    if ((known && qint64(fs.f_bavail) * qint64(fs.f_frsize) < kFullBelowBytes) ||
        encoderLog.contains(QLatin1String("No space left on device")))
        return QStringLiteral("No space is left on the device of the output folder %1.")
            .arg(folder);
    if (encoderLog.contains(QLatin1String("Permission denied")))
        return QStringLiteral("The encoder was not allowed to write %1.").arg(path);
    if (exitStatus > 128 && exitStatus < 128 + NSIG) {
        const int sig = exitStatus - 128;
        return QStringLiteral("The encoder was ended by signal %1 (%2).")
            .arg(sig)
            .arg(QString::fromLocal8Bit(strsignal(sig)));
    }
    if (exitStatus != 0)
        return QStringLiteral("The encoder ended with exit status %1.").arg(exitStatus);
    return {};
}

} // namespace OutputFile
