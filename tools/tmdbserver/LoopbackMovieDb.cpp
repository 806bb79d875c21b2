#include "tools/tmdbserver/LoopbackMovieDb.h"

#include "tools/tmdbserver/LoopbackMovieDbData.h"

#include <QAbstractHttpServer>
#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLinearGradient>
#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <QPainter>
#include <QPointer>
#include <QRegularExpression>
#include <QSet>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>
#include <QUrlQuery>

#include <algorithm>
#include <atomic>
#include <memory>
using namespace loopback;

// --- the server on its own thread -------------------------------------------------

namespace {

class Server : public QAbstractHttpServer {
public:
    explicit Server(std::shared_ptr<LoopbackMovieDb::Data> data) : m_data(std::move(data)) {}

protected:
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override {
        const QUrl url = request.url();
        {
            QMutexLocker lock(&m_data->mutex);
            m_data->requests.append(url);
        }
        const Answer answer = m_data->answer(url);
        switch (answer.mode) {
        case LoopbackMovieDb::Mode::Hang:
            // Kept open, never answered: the client's budget must end it.
            return true;
        case LoopbackMovieDb::Mode::Close:
            socket->abort();
            return true;
        case LoopbackMovieDb::Mode::Drip:
            drip(socket, answer);
            return true;
        case LoopbackMovieDb::Mode::Oversize:
            oversize(socket, answer);
            return true;
        default:
            break;
        }
        if (answer.delayMs <= 0) {
            QHttpServerResponder responder = makeResponder(request, socket);
            responder.write(answer.body, answer.contentType, answer.status);
            return true;
        }
        // A responder must not outlive its request, so the late answer is
        // written by hand; by then the client has usually hung up.
        QPointer<QTcpSocket> guarded(socket);
        QTimer::singleShot(answer.delayMs, this, [guarded, answer] {
            if (!guarded || guarded->state() != QAbstractSocket::ConnectedState)
                return;
            QByteArray head = QByteArrayLiteral("HTTP/1.1 200 OK\r\nContent-Type: ") +
                              answer.contentType + QByteArrayLiteral("\r\nContent-Length: ") +
                              QByteArray::number(answer.body.size()) +
                              QByteArrayLiteral("\r\nConnection: close\r\n\r\n");
            guarded->write(head + answer.body);
            guarded->disconnectFromHost();
        });
        return true;
    }

    static QByteArray head(const Answer& answer, qint64 length) {
        const int status = int(answer.status);
        QByteArray text = QByteArrayLiteral("HTTP/1.1 ") + QByteArray::number(status) +
                          (status == 200 ? QByteArrayLiteral(" OK") : QByteArrayLiteral(" Error")) +
                          QByteArrayLiteral("\r\nContent-Type: ") + answer.contentType +
                          QByteArrayLiteral("\r\n");
        if (length >= 0)
            text += QByteArrayLiteral("Content-Length: ") + QByteArray::number(length) +
                    QByteArrayLiteral("\r\n");
        return text + QByteArrayLiteral("Connection: close\r\n\r\n");
    }

    // The whole answer announced, then one byte a second until the client
    // gives up (the timer goes with the socket).
    static void drip(QTcpSocket* socket, const Answer& answer) {
        socket->write(head(answer, answer.body.size()));
        auto* timer = new QTimer(socket);
        auto sent = std::make_shared<qsizetype>(0);
        QObject::connect(timer, &QTimer::timeout, socket, [socket, timer, sent, answer] {
            if (socket->state() != QAbstractSocket::ConnectedState || *sent >= answer.body.size()) {
                timer->stop();
                return;
            }
            socket->write(answer.body.mid((*sent)++, 1));
        });
        timer->start(1000);
    }

    // No length, then more blanks than the client accepts before the
    // answer; the connection's end marks the body's end.
    static void oversize(QTcpSocket* socket, const Answer& answer) {
        socket->write(head(answer, -1));
        QPointer<QTcpSocket> guarded(socket);
        auto left = std::make_shared<qsizetype>(kOversizePadding);
        auto feed = [guarded, left, answer] {
            if (!guarded || guarded->state() != QAbstractSocket::ConnectedState)
                return;
            // A megabyte at a time, as the client takes it.
            if (guarded->bytesToWrite() > 4 * 1024 * 1024)
                return;
            if (*left > 0) {
                const qsizetype chunk = std::min<qsizetype>(*left, 1024 * 1024);
                *left -= chunk;
                guarded->write(QByteArray(chunk, ' '));
                return;
            }
            if (*left == 0) {
                *left = -1;
                guarded->write(answer.body);
                guarded->disconnectFromHost();
            }
        };
        QObject::connect(socket, &QTcpSocket::bytesWritten, socket, feed);
        feed();
    }

    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override {
        makeResponder(request, socket).write(QHttpServerResponder::StatusCode::NotFound);
    }

private:
    std::shared_ptr<LoopbackMovieDb::Data> m_data;
};

} // namespace

class LoopbackMovieDb::Thread : public QThread {
public:
    Server* server = nullptr;
};

LoopbackMovieDb::LoopbackMovieDb(const QString& fixtureFolder) : m_data(std::make_shared<Data>()) {
    m_data->folder = fixtureFolder;
}

LoopbackMovieDb::~LoopbackMovieDb() {
    if (!m_thread)
        return;
    Server* server = m_thread->server;
    QMetaObject::invokeMethod(
        server, [server] { delete server; }, Qt::BlockingQueuedConnection);
    m_thread->quit();
    m_thread->wait();
}

bool LoopbackMovieDb::listen(quint16 port, QString* error) {
    QString message;
    if (m_thread) {
        message = QStringLiteral("already listening on port %1").arg(m_port);
    } else if (m_data->load(&message)) {
        m_thread = std::make_unique<Thread>();
        m_thread->setObjectName(QStringLiteral("LoopbackMovieDb"));
        m_thread->server = new Server(m_data);
        m_thread->server->moveToThread(m_thread.get());
        m_thread->start();
        Server* server = m_thread->server;
        quint16 bound = 0;
        QMetaObject::invokeMethod(
            server,
            [server, port, &bound] { bound = server->listen(QHostAddress::LocalHost, port); },
            Qt::BlockingQueuedConnection);
        if (bound != 0) {
            m_port = bound;
            QMutexLocker lock(&m_data->mutex);
            m_data->baseURL = QStringLiteral("http://127.0.0.1:%1").arg(bound);
            return true;
        }
        message = QStringLiteral("cannot listen on 127.0.0.1 port %1").arg(port);
    }
    if (error)
        *error = message;
    return false;
}

quint16 LoopbackMovieDb::port() const {
    return m_port;
}

QString LoopbackMovieDb::baseURL() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

QString LoopbackMovieDb::fixtureFolder() const {
    return m_data->folder;
}

int LoopbackMovieDb::requestCount() const {
    QMutexLocker lock(&m_data->mutex);
    return int(m_data->requests.size());
}

QList<QUrl> LoopbackMovieDb::requests() const {
    QMutexLocker lock(&m_data->mutex);
    return m_data->requests;
}

void LoopbackMovieDb::clearRequests() {
    QMutexLocker lock(&m_data->mutex);
    m_data->requests.clear();
}

void LoopbackMovieDb::setApiKey(const QString& key) {
    QMutexLocker lock(&m_data->mutex);
    m_data->apiKey = key;
}

void LoopbackMovieDb::setSlowDelay(int milliseconds) {
    QMutexLocker lock(&m_data->mutex);
    m_data->slowDelayMs = milliseconds;
}

void LoopbackMovieDb::setMode(Mode mode) {
    QMutexLocker lock(&m_data->mutex);
    m_data->mode = mode;
}

LoopbackMovieDb::Mode LoopbackMovieDb::mode() const {
    QMutexLocker lock(&m_data->mutex);
    return m_data->mode;
}

namespace {

const std::pair<const char*, LoopbackMovieDb::Mode> kModes[] = {
    {"normal", LoopbackMovieDb::Mode::Normal},   {"401", LoopbackMovieDb::Mode::Unauthorized},
    {"500", LoopbackMovieDb::Mode::ServerError}, {"hang", LoopbackMovieDb::Mode::Hang},
    {"drip", LoopbackMovieDb::Mode::Drip},       {"oversize", LoopbackMovieDb::Mode::Oversize},
    {"close", LoopbackMovieDb::Mode::Close},
};

} // namespace

std::optional<LoopbackMovieDb::Mode> LoopbackMovieDb::modeNamed(const QString& name) {
    for (const auto& [text, mode] : kModes) {
        if (name == QLatin1String(text))
            return mode;
    }
    return std::nullopt;
}

QStringList LoopbackMovieDb::modeNames() {
    QStringList names;
    for (const auto& entry : kModes)
        names << QLatin1String(entry.first);
    return names;
}

QString LoopbackMovieDb::defaultFixtureFolder() {
    const QString fromEnvironment = qEnvironmentVariable("TARNWICK_TMDB_FIXTURES");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    if (QCoreApplication::instance()) {
        const QString beside = QCoreApplication::applicationDirPath() +
                               QStringLiteral("/../share/tarnwick/tmdb-fixtures");
        if (QFileInfo(beside).isDir())
            return QDir::cleanPath(beside);
    }
    return QStringLiteral(TARNWICK_TMDB_FIXTURES);
}
