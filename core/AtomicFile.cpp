#include "core/AtomicFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace AtomicFile {

namespace {

QString systemError(const char* step, int error) {
    return QStringLiteral("%1: %2").arg(QLatin1String(step),
                                        QString::fromLocal8Bit(std::strerror(error)));
}

bool fail(QString* error, const char* step, int code) {
    if (error)
        *error = systemError(step, code);
    return false;
}

} // namespace

bool write(const QString& path, const QByteArray& bytes, QString* error) {
    const QFileInfo target(path);
    const QString folder = target.absolutePath();
    QByteArray temp = QFile::encodeName(folder + QStringLiteral("/.") + target.fileName() +
                                        QStringLiteral(".XXXXXX"));
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0)
        return fail(error, "cannot create a temporary file", errno);
    auto abandon = [&](const char* step, int code) {
        ::close(fd);
        ::unlink(temp.constData());
        return fail(error, step, code);
    };
    // The file keeps its permissions; a new one gets the usual ones.
    struct stat old {};
    const mode_t umaskNow = ::umask(0);
    ::umask(umaskNow);
    const mode_t mode = ::stat(QFile::encodeName(path).constData(), &old) == 0
                            ? (old.st_mode & 07777)
                            : (0666 & ~umaskNow);
    if (::fchmod(fd, mode) != 0)
        return abandon("cannot set the permissions", errno);
    const char* p = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, size_t(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return abandon("cannot write", n < 0 ? errno : ENOSPC);
        p += n;
        left -= n;
    }
    if (::fsync(fd) != 0)
        return abandon("cannot flush to disk", errno);
    if (::close(fd) != 0) {
        const int code = errno;
        ::unlink(temp.constData());
        return fail(error, "cannot write", code);
    }
    if (::rename(temp.constData(), QFile::encodeName(path).constData()) != 0) {
        const int code = errno;
        ::unlink(temp.constData());
        return fail(error, "cannot replace the file", code);
    }
    // The rename itself reaches the disk with the folder.
    const int dir =
        ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

Lock::Lock(const QString& lockPath) {
    QDir().mkpath(QFileInfo(lockPath).absolutePath());
    m_fd = ::open(QFile::encodeName(lockPath).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (m_fd < 0)
        return;
    while (::flock(m_fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            ::close(m_fd);
            m_fd = -1;
            return;
        }
    }
}

Lock::~Lock() {
    if (m_fd >= 0)
        ::close(m_fd); // releases the lock
}

} // namespace AtomicFile
