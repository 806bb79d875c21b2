#include "core/HttpClient.h"

#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHttpServer>
#include <QHttpServerResponse>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

class HttpClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_server.route("/ok", [] { return QHttpServerResponse("text/plain", "hello body"); });
        m_server.route("/missing", [] {
            return QHttpServerResponse("text/plain", "no such page",
                                       QHttpServerResponse::StatusCode::NotFound);
        });
        m_server.route("/redirect", [this] {
            QHttpServerResponse response(QHttpServerResponse::StatusCode::Found);
            response.setHeader("Location", url("/ok").toEncoded());
            return response;
        });
        m_port = m_server.listen(QHostAddress::LocalHost, 0);
        ASSERT_NE(m_port, 0);

        // Accepts connections and never answers.
        ASSERT_TRUE(m_silent.listen(QHostAddress::LocalHost, 0));
        QObject::connect(&m_silent, &QTcpServer::newConnection, [this] {
            while (QTcpSocket* socket = m_silent.nextPendingConnection())
                socket->setParent(&m_silent);
        });
    }

    QUrl url(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path));
    }
    QUrl silentUrl() const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/slow").arg(m_silent.serverPort()));
    }

    // Runs a request on a plain std::thread while this thread keeps serving.
    HttpClient::Response getOnThread(const QUrl& target, int timeoutMs,
                                     const std::atomic<bool>* cancel = nullptr) {
        HttpClient::Response result;
        std::atomic<bool> done{false};
        std::thread worker([&] {
            result = HttpClient::get(target, timeoutMs, cancel);
            done = true;
        });
        const bool finished = testsupport::waitUntil([&] { return done.load(); }, 20000);
        worker.join();
        EXPECT_TRUE(finished);
        return result;
    }

    QHttpServer m_server;
    QTcpServer m_silent;
    quint16 m_port = 0;
};

TEST_F(HttpClientTest, AnswersBodiesFollowsRedirectsAndReportsErrorStatus) {
    const HttpClient::Response response = HttpClient::get(url("/redirect"));
    EXPECT_TRUE(response.ok()) << response.error.toStdString();
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, QByteArray("hello body"));
    EXPECT_EQ(response.url.path(), QStringLiteral("/ok"));

    const HttpClient::Response missing = HttpClient::get(url("/missing"));
    EXPECT_FALSE(missing.ok());
    EXPECT_EQ(missing.status, 404);
    EXPECT_TRUE(missing.error.contains(QLatin1String("404"))) << missing.error.toStdString();
    EXPECT_EQ(missing.body, QByteArray("no such page"));
}

TEST_F(HttpClientTest, GivesUpOnASilentServerAtTheTimeout) {
    QElapsedTimer clock;
    clock.start();
    const HttpClient::Response response = HttpClient::get(silentUrl(), 300);
    const qint64 elapsed = clock.elapsed();
    EXPECT_FALSE(response.ok());
    EXPECT_TRUE(response.body.isEmpty());
    EXPECT_TRUE(response.error.contains(QLatin1String("300 ms"))) << response.error.toStdString();
    EXPECT_GE(elapsed, 250);
    EXPECT_LT(elapsed, 5000);
}

TEST_F(HttpClientTest, WorksFromAThreadWithoutAnEventLoop) {
    const HttpClient::Response ok = getOnThread(url("/ok"), 10000);
    EXPECT_TRUE(ok.ok()) << ok.error.toStdString();
    EXPECT_EQ(ok.body, QByteArray("hello body"));

    QElapsedTimer clock;
    clock.start();
    const HttpClient::Response slow = getOnThread(silentUrl(), 300);
    EXPECT_FALSE(slow.ok());
    EXPECT_LT(clock.elapsed(), 5000);
}

TEST_F(HttpClientTest, ACancelledRequestEndsEarly) {
    std::atomic<bool> cancel{false};
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        cancel = true;
    });
    QElapsedTimer clock;
    clock.start();
    const HttpClient::Response response = HttpClient::get(silentUrl(), 30000, &cancel);
    canceller.join();
    EXPECT_FALSE(response.ok());
    EXPECT_TRUE(response.error.contains(QLatin1String("cancelled")))
        << response.error.toStdString();
    EXPECT_LT(clock.elapsed(), 5000);

    // Already cancelled: nothing is sent at all.
    const HttpClient::Response early = HttpClient::get(url("/ok"), 10000, &cancel);
    EXPECT_FALSE(early.ok());
    EXPECT_TRUE(early.body.isEmpty());
}

TEST_F(HttpClientTest, ReportsARefusedConnection) {
    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
    const quint16 closedPort = probe.serverPort();
    probe.close();

    QElapsedTimer clock;
    clock.start();
    const HttpClient::Response response =
        HttpClient::get(QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(closedPort)), 10000);
    EXPECT_FALSE(response.ok());
    EXPECT_EQ(response.status, 0);
    EXPECT_FALSE(response.error.isEmpty());
    EXPECT_LT(clock.elapsed(), 5000);
}

TEST(HttpClientLocalTest, ReadsFileUrlsAndReportsMissingFiles) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("body.bin"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray("\x00\x01local", 7));
    file.close();

    const HttpClient::Response local = HttpClient::get(QUrl::fromLocalFile(path));
    EXPECT_TRUE(local.ok());
    EXPECT_EQ(local.status, 200);
    EXPECT_EQ(local.body, QByteArray("\x00\x01local", 7));

    const HttpClient::Response missing =
        HttpClient::get(QUrl::fromLocalFile(dir.filePath(QStringLiteral("absent.bin"))));
    EXPECT_FALSE(missing.ok());
    EXPECT_TRUE(missing.error.contains(QLatin1String("absent.bin")));

    const HttpClient::Response ftp = HttpClient::get(QUrl(QStringLiteral("ftp://127.0.0.1/x")));
    EXPECT_FALSE(ftp.ok());
    EXPECT_TRUE(ftp.error.contains(QLatin1String("ftp://127.0.0.1/x")));
}

} // namespace
