#pragma once

#include <QByteArray>
#include <QString>

// Whole-file writes that never leave a half-written file under the final
// name: the bytes go to a temporary file in the same folder, every write,
// the flush to disk and the close are checked, and only a complete file is
// renamed over the target. On any failure the old file is left as it was,
// the temporary file is removed and `error` says why (the system's words,
// "No space left on device" on a full disk). The folder must exist.
namespace AtomicFile {

bool write(const QString& path, const QByteArray& bytes, QString* error = nullptr);

// An exclusive advisory lock (flock) on a lock file, held for the object's
// lifetime. Concurrent processes that take the same lock around a read and
// the write that follows lose none of each other's changes. `locked()` is
// false when the lock file cannot be made (a read-only folder): callers go
// on without it.
class Lock {
public:
    explicit Lock(const QString& lockPath);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    bool locked() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

} // namespace AtomicFile
