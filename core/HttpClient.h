#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <atomic>

// The program's one way to fetch a URL: synchronous, usable from any thread
// (the main thread, a QThread or a plain std::thread), never blocking longer
// than its time-out.
class HttpClient {
public:
    struct Response {
        int status = 0;  // HTTP status code; 200 for a file read, 0 when nothing came back
        QByteArray body; // the whole body, also of an error page
        QString error;   // empty only when the transfer completed with a 2xx status
        QUrl url;        // the address finally answered, after redirects

        bool ok() const { return error.isEmpty(); }
    };

    static constexpr int DefaultTimeoutMs = 15000;

    // Fetches the whole body of `url` (http, https or file). Redirects are
    // followed. The request is aborted once `timeoutMs` has passed, or soon
    // after `*cancel` turns true; the answer then carries an error.
    static Response get(const QUrl& url, int timeoutMs = DefaultTimeoutMs,
                        const std::atomic<bool>* cancel = nullptr);
};
