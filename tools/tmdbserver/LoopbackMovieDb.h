#pragma once

#include <QList>
#include <QString>
#include <QUrl>

#include <QStringList>

#include <memory>
#include <optional>

// A stand-in for the online movie database on 127.0.0.1, for tests and the
// offline demo. It answers the API version 3 requests the client makes from
// JSON fixtures in the real API's shapes, and serves artwork (real PNG and
// JPEG images drawn at start-up) from the image address its configuration
// names, which is its own.
//
// Fixture folder:
//   configuration.json          the configuration; its image addresses are replaced
//   search.json                 lower-cased query -> ids of the hits, in order; other
//                               queries match titles containing them
//   movie/ID.json               the full movie document with "casts", "releases",
//                               "trailers", "images" and "translations" as appended;
//                               what a request does not append is left out
//   movie/ID.LANG.json          keys that differ in that language (title, overview...)
//   genres/LANG.json            the genre list; English for other languages
//   special.json                queries and ids answered late or with a broken body
//
// Requests with another api_key get 401, unknown ids 404, both with the API's
// error bodies. The server runs on a thread of its own, so the thread that
// made it may block.
//
// A failure mode, switched for tests, makes every API request (not the
// artwork) fail one way: see Mode.
class LoopbackMovieDb {
public:
    enum class Mode {
        Normal,       // answers from the fixtures
        Unauthorized, // "401": 401 with the API's invalid-key body
        ServerError,  // "500": 500 with the API's internal-error body
        Hang,         // "hang": takes the request and never answers
        Drip,         // "drip": the right answer, one byte per second
        Oversize,     // "oversize": the right answer after 24 MB of blanks, without a length
        Close,        // "close": hangs up without a word
    };
    // "normal", "401", "500", "hang", "drip", "oversize", "close"; none for another name.
    static std::optional<Mode> modeNamed(const QString& name);
    static QStringList modeNames();

    explicit LoopbackMovieDb(const QString& fixtureFolder = defaultFixtureFolder());
    ~LoopbackMovieDb();

    LoopbackMovieDb(const LoopbackMovieDb&) = delete;
    LoopbackMovieDb& operator=(const LoopbackMovieDb&) = delete;

    // Loads the fixtures and listens on 127.0.0.1 (port 0: any free port).
    // False, with a message, when the fixtures are unusable or the port is taken.
    bool listen(quint16 port = 0, QString* error = nullptr);
    quint16 port() const;
    // "http://127.0.0.1:PORT"
    QString baseURL() const;
    QString fixtureFolder() const;

    // Requests answered so far (artwork included), and their addresses in
    // order of arrival.
    int requestCount() const;
    QList<QUrl> requests() const;
    void clearRequests();

    // The key it accepts; the client's built-in key unless changed.
    void setApiKey(const QString& key);
    // How late the slow answers come (the fixtures' value unless changed).
    void setSlowDelay(int milliseconds);
    // How the API requests are answered from now on.
    void setMode(Mode mode);
    Mode mode() const;

    // TARNWICK_TMDB_FIXTURES, else the fixtures beside the program, else the
    // fixtures of the source tree.
    static QString defaultFixtureFolder();

    struct Data;

private:
    std::shared_ptr<Data> m_data;
    class Thread;
    std::unique_ptr<Thread> m_thread;
    quint16 m_port = 0;
};
