#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QString>
#include <QThread>

#include <functional>

namespace testsupport {

// Runs the event loop until `done` holds or `timeoutMs` passes; answers `done()`.
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 10000) {
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(1);
    }
    return true;
}

// Path of a file under tests/data.
inline QString dataPath(const QString& name) {
    return QStringLiteral(TARNWICK_TEST_DATA "/") + name;
}

} // namespace testsupport
