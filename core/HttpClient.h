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
    // Why a request gave no usable answer.
    enum class Failure {
        None,        // a 2xx answer (or a file read)
        Invalid,     // an address that cannot be fetched, or a file that cannot be read
        Http,        // an answer with another status (see `status`)
        TimedOut,    // the whole request (connect and body) did not end within its budget
        Unreachable, // no connection: refused, no such host, no route
        TooLarge,    // the body passed the size cap; it was dropped
        Cancelled,   // the caller's cancel flag or interruptAll()
        Network,     // any other transport failure (connection closed mid-answer...)
    };

    struct Response {
        int status = 0;  // HTTP status code; 200 for a file read, 0 when nothing came back
        QByteArray body; // the whole body, also of an error page; empty on a transport failure
        QString error;   // empty only when the transfer completed with a 2xx status
        QUrl url;        // the address finally answered, after redirects
        Failure failure = Failure::None;

        bool ok() const { return error.isEmpty(); }
    };

    // The budget of one request, from the first connect to the last byte of
    // the body (not per read).
    static constexpr int DefaultTimeoutMs = 15000;
    // Bodies larger than this are refused (20 MB).
    static constexpr qint64 DefaultMaxBodyBytes = 20 * 1024 * 1024;

    // Fetches the whole body of `url` (http, https or file). Redirects are
    // followed. The request is aborted once `timeoutMs` has passed in all,
    // once the body passes `maxBodyBytes` (or announces more), or soon
    // after `*cancel` turns true or interruptAll() is called; the answer then
    // carries an error and its failure kind.
    static Response get(const QUrl& url, int timeoutMs = DefaultTimeoutMs,
                        const std::atomic<bool>* cancel = nullptr,
                        qint64 maxBodyBytes = DefaultMaxBodyBytes);

    // Ends every pending request within a few milliseconds and fails every
    // later one as cancelled, until clearInterrupt(). Async-signal-safe: a
    // SIGINT handler calls it.
    static void interruptAll() noexcept;
    static void clearInterrupt() noexcept;
    static bool interrupted() noexcept;
};
