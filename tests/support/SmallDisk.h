#pragma once

// A tiny tmpfs for full-disk cases, mounted by the test itself and unmounted
// on every way out of the scope. Where mounting is not allowed (not root, no
// CAP_SYS_ADMIN) it stays unmounted and says why, for a GTEST_SKIP.

#include <QDir>
#include <QFile>
#include <QString>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/mount.h>

namespace testsupport {

class SmallDisk {
public:
    SmallDisk(const QString& path, const char* size = "1m") : m_point(QFile::encodeName(path)) {
        QDir().mkpath(path);
        const std::string options = std::string("size=") + size;
        if (::mount("tmpfs", m_point.constData(), "tmpfs", 0, options.c_str()) == 0)
            m_mounted = true;
        else
            m_why = std::string("cannot mount a small tmpfs here (") + std::strerror(errno) +
                    "); the full-disk case needs root allowed to mount";
    }
    ~SmallDisk() {
        if (m_mounted)
            ::umount2(m_point.constData(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool mounted() const { return m_mounted; }
    const std::string& why() const { return m_why; }
    // Fills what is left of the disk with a file of that name.
    void fill(const QString& name = QStringLiteral("filler")) const {
        QFile filler(QFile::decodeName(m_point) + QLatin1Char('/') + name);
        if (!filler.open(QIODevice::WriteOnly))
            return;
        const QByteArray block(4096, 'x');
        while (filler.write(block) == block.size() && filler.flush()) {
        }
    }

private:
    QByteArray m_point;
    bool m_mounted = false;
    std::string m_why;
};

} // namespace testsupport
