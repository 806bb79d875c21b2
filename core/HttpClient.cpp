#include "core/HttpClient.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

#include <memory>

namespace {

constexpr int CancelPollMs = 50;
constexpr int MaxRedirects = 10;

HttpClient::Response readLocalFile(const QUrl& url) {
    HttpClient::Response response;
    response.url = url;
    const QString path = url.toLocalFile();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        response.error = QStringLiteral("Cannot read %1: %2").arg(path, file.errorString());
        return response;
    }
    response.body = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        response.error = QStringLiteral("Cannot read %1: %2").arg(path, file.errorString());
        response.body.clear();
        return response;
    }
    response.status = 200;
    return response;
}

} // namespace

namespace {

std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "interruptAll() must be signal-safe");

bool unreachable(QNetworkReply::NetworkError error) {
    switch (error) {
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::ProxyConnectionRefusedError:
    case QNetworkReply::ProxyNotFoundError:
        return true;
    default:
        return false;
    }
}

QString megabytes(qint64 bytes) {
    return QString::number(double(bytes) / (1024.0 * 1024.0), 'g', 3) + QStringLiteral(" MB");
}

} // namespace

void HttpClient::interruptAll() noexcept {
    g_interrupted.store(true);
}

void HttpClient::clearInterrupt() noexcept {
    g_interrupted.store(false);
}

bool HttpClient::interrupted() noexcept {
    return g_interrupted.load();
}

HttpClient::Response HttpClient::get(const QUrl& url, int timeoutMs,
                                     const std::atomic<bool>* cancel, qint64 maxBodyBytes) {
    Response response;
    response.url = url;
    auto fail = [&response](Failure failure, const QString& message) {
        response.failure = failure;
        response.error = message;
        return response;
    };
    if (!url.isValid() || url.isEmpty())
        return fail(Failure::Invalid,
                    QStringLiteral("Invalid address: \"%1\"").arg(url.toString()));
    if (url.isLocalFile()) {
        response = readLocalFile(url);
        if (!response.ok())
            response.failure = Failure::Invalid;
        return response;
    }
    const QString scheme = url.scheme().toLower();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
        return fail(Failure::Invalid,
                    QStringLiteral("Unsupported address: %1").arg(url.toString()));
    if (!QCoreApplication::instance())
        return fail(Failure::Invalid,
                    QStringLiteral("No application object: cannot fetch %1").arg(url.toString()));
    if ((cancel && cancel->load()) || g_interrupted.load())
        return fail(Failure::Cancelled,
                    QStringLiteral("Request cancelled: %1").arg(url.toString()));
    if (maxBodyBytes <= 0)
        maxBodyBytes = DefaultMaxBodyBytes;

    // Everything lives on the calling thread, so a thread without a running
    // event loop can still fetch: the local loop below drives it.
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(MaxRedirects);
    request.setHeader(QNetworkRequest::UserAgentHeader, QByteArrayLiteral("Tarnwick"));

    std::unique_ptr<QNetworkReply> reply(manager.get(request));
    QEventLoop loop;
    enum class Abort { None, TimedOut, Cancelled, TooLarge } aborted = Abort::None;
    auto abort = [&](Abort why) {
        if (aborted != Abort::None)
            return;
        aborted = why;
        reply->abort();
    };

    // One deadline for the whole request: a server that drips its answer a
    // byte at a time is cut off as surely as one that never answers.
    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, &loop, [&] { abort(Abort::TimedOut); });
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if ((cancel && cancel->load()) || g_interrupted.load())
            abort(Abort::Cancelled);
    });
    // A body announced or grown past the cap is dropped at once.
    QObject::connect(reply.get(), &QNetworkReply::metaDataChanged, &loop, [&] {
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        if (length.isValid() && length.toLongLong() > maxBodyBytes)
            abort(Abort::TooLarge);
    });
    QObject::connect(reply.get(), &QNetworkReply::downloadProgress, &loop,
                     [&](qint64 received, qint64 total) {
                         if (received > maxBodyBytes || total > maxBodyBytes)
                             abort(Abort::TooLarge);
                     });
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished()) {
        deadline.start(qMax(timeoutMs, 0));
        poll.start(CancelPollMs);
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    }
    deadline.stop();
    poll.stop();

    response.url = reply->url();
    response.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    switch (aborted) {
    case Abort::TimedOut:
        return fail(Failure::TimedOut, QStringLiteral("No complete answer from %1 within %2 ms")
                                           .arg(url.toString())
                                           .arg(timeoutMs));
    case Abort::Cancelled:
        return fail(Failure::Cancelled,
                    QStringLiteral("Request cancelled: %1").arg(url.toString()));
    case Abort::TooLarge:
        return fail(Failure::TooLarge, QStringLiteral("The answer from %1 is larger than %2")
                                           .arg(url.toString(), megabytes(maxBodyBytes)));
    case Abort::None:
        break;
    }
    response.body = reply->readAll();
    if (response.body.size() > maxBodyBytes) {
        response.body.clear();
        return fail(Failure::TooLarge, QStringLiteral("The answer from %1 is larger than %2")
                                           .arg(url.toString(), megabytes(maxBodyBytes)));
    }
    if (response.status != 0 && (response.status < 200 || response.status >= 300)) {
        const QString reason =
            reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        return fail(Failure::Http,
                    QStringLiteral("HTTP %1%2 from %3")
                        .arg(response.status)
                        .arg(reason.isEmpty() ? QString() : QLatin1Char(' ') + reason)
                        .arg(url.toString()));
    }
    if (reply->error() != QNetworkReply::NoError) {
        const Failure kind = unreachable(reply->error())                     ? Failure::Unreachable
                             : reply->error() == QNetworkReply::TimeoutError ? Failure::TimedOut
                                                                             : Failure::Network;
        response.body.clear();
        return fail(
            kind, QStringLiteral("Cannot fetch %1: %2").arg(url.toString(), reply->errorString()));
    }
    return response;
}
