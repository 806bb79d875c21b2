#include "core/HttpClient.h"

#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHttpServer>
#include <QHttpServerResponse>
#include <QTcpServer>
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

        // Connections are made (by the kernel) but never answered.
        ASSERT_TRUE(m_silent.listen(QHostAddress::LocalHost, 0));
    }

    QUrl url(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path));
    }
    QUrl silentUrl() const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/slow").arg(m_silent.serverPort()));
    }

    // Runs a request on a plain std::thread while this thread keeps serving.
    HttpClient::Response getOnThread(const QUrl& target, int timeoutMs) {
        HttpClient::Response result;
        std::atomic<bool> done{false};
        std::thread worker([&] {
            result = HttpClient::get(target, timeoutMs);
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

TEST_F(HttpClientTest, AnswersBodiesFollowsRedirectsAndReportsErrorsAndReadsFiles) {
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

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("body.bin"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("\x00\x01local", 7) == 7);
    file.close();
    const HttpClient::Response local = HttpClient::get(QUrl::fromLocalFile(path));
    EXPECT_EQ(local.status, 200);
    EXPECT_EQ(local.body, QByteArray("\x00\x01local", 7));
    for (const QUrl& bad : {QUrl::fromLocalFile(dir.filePath(QStringLiteral("absent.bin"))),
                            QUrl(QStringLiteral("ftp://127.0.0.1/ftp-only.bin"))}) {
        const HttpClient::Response r = HttpClient::get(bad);
        EXPECT_FALSE(r.ok());
        EXPECT_TRUE(r.error.contains(bad.fileName())) << r.error.toStdString();
    }
}

TEST_F(HttpClientTest, GivesUpOnASilentServerAtTheTimeoutOnAnyThread) {
    QElapsedTimer clock;
    clock.start();
    const HttpClient::Response response = HttpClient::get(silentUrl(), 300);
    EXPECT_FALSE(response.ok());
    EXPECT_TRUE(response.error.contains(QLatin1String("300 ms"))) << response.error.toStdString();
    EXPECT_GE(clock.elapsed(), 250);
    EXPECT_LT(clock.elapsed(), 5000);

    // A thread without an event loop.
    const HttpClient::Response ok = getOnThread(url("/ok"), 10000);
    EXPECT_EQ(ok.body, QByteArray("hello body")) << ok.error.toStdString();
    clock.restart();
    EXPECT_FALSE(getOnThread(silentUrl(), 300).ok());
    EXPECT_LT(clock.elapsed(), 5000);
}

TEST_F(HttpClientTest, ACancelledRequestEndsEarlyAndARefusedOneAtOnce) {
    std::atomic<bool> cancel{false};
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        cancel = true;
    });
    QElapsedTimer clock;
    clock.start();
    const HttpClient::Response response = HttpClient::get(silentUrl(), 30000, &cancel);
    canceller.join();
    EXPECT_TRUE(response.error.contains(QLatin1String("cancelled")))
        << response.error.toStdString();
    EXPECT_LT(clock.elapsed(), 5000);
    // Already cancelled: nothing is sent at all.
    EXPECT_TRUE(HttpClient::get(url("/ok"), 10000, &cancel).body.isEmpty());

    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
    const quint16 closedPort = probe.serverPort();
    probe.close();
    clock.restart();
    const HttpClient::Response refused =
        HttpClient::get(QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(closedPort)), 10000);
    EXPECT_FALSE(refused.ok());
    EXPECT_EQ(refused.status, 0);
    EXPECT_FALSE(refused.error.isEmpty());
    EXPECT_LT(clock.elapsed(), 5000);
}

} // namespace
