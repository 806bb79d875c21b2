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

HttpClient::Response HttpClient::get(const QUrl& url, int timeoutMs,
                                     const std::atomic<bool>* cancel) {
    Response response;
    response.url = url;
    if (!url.isValid() || url.isEmpty()) {
        response.error = QStringLiteral("Invalid address: \"%1\"").arg(url.toString());
        return response;
    }
    if (url.isLocalFile())
        return readLocalFile(url);
    const QString scheme = url.scheme().toLower();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https")) {
        response.error = QStringLiteral("Unsupported address: %1").arg(url.toString());
        return response;
    }
    if (!QCoreApplication::instance()) {
        response.error =
            QStringLiteral("No application object: cannot fetch %1").arg(url.toString());
        return response;
    }
    if (cancel && cancel->load()) {
        response.error = QStringLiteral("Request cancelled: %1").arg(url.toString());
        return response;
    }

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
    bool timedOut = false;
    bool cancelled = false;

    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, &loop, [&] {
        timedOut = true;
        reply->abort();
    });
    QTimer poll;
    if (cancel) {
        QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
            if (cancel->load() && !cancelled) {
                cancelled = true;
                reply->abort();
            }
        });
        poll.start(CancelPollMs);
    }
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished()) {
        deadline.start(qMax(timeoutMs, 0));
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    }
    deadline.stop();
    poll.stop();

    response.url = reply->url();
    response.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (timedOut) {
        response.error =
            QStringLiteral("No answer from %1 within %2 ms").arg(url.toString()).arg(timeoutMs);
        return response;
    }
    if (cancelled) {
        response.error = QStringLiteral("Request cancelled: %1").arg(url.toString());
        return response;
    }
    response.body = reply->readAll();
    if (response.status != 0 && (response.status < 200 || response.status >= 300)) {
        const QString reason =
            reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        response.error = QStringLiteral("HTTP %1%2 from %3")
                             .arg(response.status)
                             .arg(reason.isEmpty() ? QString() : QLatin1Char(' ') + reason)
                             .arg(url.toString());
    } else if (reply->error() != QNetworkReply::NoError) {
        response.error =
            QStringLiteral("Cannot fetch %1: %2").arg(url.toString(), reply->errorString());
    }
    return response;
}
