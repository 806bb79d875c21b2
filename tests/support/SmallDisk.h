#pragma once

// A tiny file system of the test's own (tmpfs), for the "disk full" and
// "read-only folder" cases. Mounting needs root (CI runs as root); where it
// is not allowed, the test skips with the reason. Unmounted on every path.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace testsupport {

class SmallDisk {
public:
    explicit SmallDisk(const QString& folder, const char* size = "64k", bool readOnly = false)
        : m_folder(folder) {
        QDir().mkpath(folder);
        const QByteArray options = QByteArray("size=") + size;
        if (::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs",
                    MS_NOSUID | MS_NODEV | (readOnly ? MS_RDONLY : 0), options.constData()) == 0)
            m_mounted = true;
        else
            m_why = QString::fromLocal8Bit(std::strerror(errno));
    }
    ~SmallDisk() {
        if (m_mounted)
            ::umount2(QFile::encodeName(m_folder).constData(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool mounted() const { return m_mounted; }
    std::string skipReason() const {
        return "cannot mount a small tmpfs on " + m_folder.toStdString() + " (" +
               m_why.toStdString() + "); the full-disk cases need root";
    }
    // Takes every free byte, so the next write fails with "No space left".
    void fill() const {
        const QByteArray path = QFile::encodeName(m_folder + QStringLiteral("/.filler"));
        const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        char block[4096] = {};
        for (size_t size = sizeof block; size > 0; size /= 2)
            while (::write(fd, block, size) == ssize_t(size)) {
            }
        ::close(fd);
    }

private:
    QString m_folder;
    QString m_why;
    bool m_mounted = false;
};

} // namespace testsupport

// Skips the test when the disk could not be mounted.
#define SKIP_WITHOUT_SMALL_DISK(disk)                                                              \
    if (!(disk).mounted())                                                                         \
    GTEST_SKIP() << (disk).skipReason()
