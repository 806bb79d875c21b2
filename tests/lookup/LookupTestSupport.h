#pragma once

#include "lookup/MDB_TheMovieDb.h"
#include "support/TestSupport.h"
#include "tools/tmdbserver/LoopbackMovieDb.h"

#include <QCoreApplication>
#include <QThread>
#include <QUrlQuery>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace lookuptest {

// One loopback database for the whole test program; it serves from a thread
// of its own, so tests may block the main thread.
inline LoopbackMovieDb& server() {
    static LoopbackMovieDb* instance = [] {
        auto* db = new LoopbackMovieDb();
        QString error;
        if (!db->listen(0, &error))
            ADD_FAILURE() << "loopback server: " << error.toStdString();
        return db;
    }();
    return *instance;
}

// Records every callback and the thread it came on.
class RecordingDelegate : public MDB_TheMovieDbDelegate {
public:
    void searchComplete(std::vector<std::unique_ptr<MDB_Metadata>> results) override {
        hits = std::move(results);
        ++searches;
        onMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
    }
    void queryComplete(MDB_Metadata* metadata) override {
        queried = metadata;
        ++queries;
        onMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
    }

    std::vector<std::unique_ptr<MDB_Metadata>> hits;
    MDB_Metadata* queried = nullptr;
    int searches = 0;
    int queries = 0;
    bool onMainThread = false;
};

// Points the client at the loopback server with a clean configuration cache,
// the built-in key and a short time-out.
class LookupTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(server().port(), 0);
        qputenv("TARNWICK_TMDB_URL", server().baseURL().toUtf8());
        qunsetenv("TARNWICK_TMDB_API_KEY");
        server().setApiKey(QString::fromLatin1(MDB_TheMovieDb::DefaultAPIKey));
        server().setSlowDelay(20000);
        MDB_TheMovieDb::clearCachedConfiguration();
        MDB_TheMovieDb::setRequestTimeout(5000);
        server().clearRequests();
    }
    void TearDown() override {
        qunsetenv("TARNWICK_TMDB_API_KEY");
        MDB_TheMovieDb::setRequestTimeout(0);
    }

    // The requests since SetUp (or the last clear) whose path is `path`.
    static QList<QUrlQuery> requestsTo(const QString& path) {
        QList<QUrlQuery> found;
        for (const QUrl& url : server().requests()) {
            if (url.path() == path)
                found.append(QUrlQuery(url));
        }
        return found;
    }

    static std::vector<std::unique_ptr<MDB_Metadata>>
    searchFor(MDB_TheMovieDb& client, const QString& title, const QString& region) {
        RecordingDelegate delegate;
        client.search(title, region, &delegate);
        EXPECT_TRUE(testsupport::waitUntil([&] { return delegate.searches > 0; }, 15000));
        return std::move(delegate.hits);
    }

    static void queryInto(MDB_TheMovieDb& client, MDB_Metadata& record, const QString& region) {
        RecordingDelegate delegate;
        client.query(&record, region, &delegate);
        EXPECT_TRUE(testsupport::waitUntil([&] { return delegate.queries > 0; }, 15000));
        EXPECT_EQ(delegate.queried, &record);
    }

    // Keeps the event loop turning for a while, so that anything queued arrives.
    static void settle(int milliseconds) {
        testsupport::waitUntil([] { return false; }, milliseconds);
    }
};

} // namespace lookuptest
