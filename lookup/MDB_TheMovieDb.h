#pragma once

#include "metadata/MDB_Metadata.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <optional>
#include <vector>

// What a search or query reports back, always on the main thread.
class MDB_TheMovieDbDelegate {
public:
    virtual ~MDB_TheMovieDbDelegate() = default;
    // One record per hit in the database's order, possibly none; the records
    // are handed over.
    virtual void searchComplete(std::vector<std::unique_ptr<MDB_Metadata>> results) = 0;
    // The record given to query(), filled in place; the query thread waits
    // until this returns.
    virtual void queryComplete(MDB_Metadata* metadata) = 0;
};

// The client of the online movie database (API version 3). Searches and
// queries run on detached threads of their own; class operations block the
// calling thread for the round trip. A failed or refused
// request yields an empty result, and the matching logic sees nothing else;
// why it failed is kept beside the result, as the client's lastError().
//
// The base address is TARNWICK_TMDB_URL when set (a loopback server in tests
// and the offline demo), the API key TARNWICK_TMDB_API_KEY when set. Every
// request gives up after the request time-out in all (15 s; a test may set
// TARNWICK_TMDB_TIMEOUT_MS), and a database that timed out or could not be
// reached is not asked again for that long: its next requests fail at once.
class MDB_TheMovieDb {
public:
    static constexpr char DefaultAPIKey[] = "5f0c9e2b7a41d8e36c2f9a0b1d4e7c83";
    static constexpr char DefaultBaseURL[] = "https://api.themoviedb.org";

    // Why a lookup came back empty although the database may know the movie.
    enum class Failure {
        None,        // the database answered (with or without hits)
        RefusedKey,  // 401 or 403: the API key was refused
        ServerError, // a 5xx answer
        TimedOut,    // no complete answer within the request time-out
        Unreachable, // no connection (refused, no such host, no route)
        TooLarge,    // an answer larger than the body cap
        BadAnswer,   // an answer that is not the JSON asked for
        Rejected,    // another 4xx answer (an unknown id...)
        Cancelled,   // interrupted (Ctrl-C) or cancelled
    };
    struct Error {
        Failure failure = Failure::None;
        int httpStatus = 0; // the answer's status when there was one
        QString detail;     // the transport's own words
        bool failed() const { return failure != Failure::None; }
        // One line for the user, such as "the movie database refused the API
        // key (HTTP 401)"; empty for None.
        QString message() const;
    };

    // Fetches and caches the image configuration when none is cached yet.
    MDB_TheMovieDb();
    // Cancels: a thread still running delivers nothing once its client is gone.
    ~MDB_TheMovieDb();

    MDB_TheMovieDb(const MDB_TheMovieDb&) = delete;
    MDB_TheMovieDb& operator=(const MDB_TheMovieDb&) = delete;

    // Permanent: no callback of this client is delivered after it returns, and
    // a running query no longer touches its record, so the owner may drop it.
    void cancel();
    bool isCancelled() const;

    MDB_Metadata* movieMetadata() const { return m_movieMetadata; }

    // Why the last search or query of this client came back empty or
    // unfilled (None when the database answered). Set before the callback is
    // delivered, so a controller can read it in searchComplete/queryComplete.
    Error lastError() const;

    // Both return at once. The delegate must outlive the request or cancel()
    // must be called before it goes away.
    void search(const QString& title, const QString& languageRegion,
                MDB_TheMovieDbDelegate* controller);
    // `metadata` is filled in place by the query thread and must stay alive
    // until queryComplete() or cancel().
    void query(MDB_Metadata* metadata, const QString& languageRegion,
               MDB_TheMovieDbDelegate* controller);

    // --- class operations (synchronous) --------------------------------------
    static std::optional<QJsonObject> configuration(Error* error = nullptr);
    // The configuration cached by the first client; empty when none is cached.
    static QJsonObject cachedConfiguration();
    // Also forgets a database that did not answer (see the class comment).
    static void clearCachedConfiguration();

    // The language code to request for a movie: `language`, "en" or "".
    static QString translationAvailable(const QString& tmdbID, const QString& language);
    // A new record from the plain movie document; null when nothing came back.
    static std::unique_ptr<MDB_Metadata> movie(const QString& tmdbID,
                                               const QString& languageRegion);
    // The database's genre names in a language, in its order; empty on failure.
    static QStringList getGenres(const QString& language);
    // Makes getGenres() the source of Utility's database genre lists.
    static void installGenreSource();

    // Fills `record` from one JSON movie object (search hit, full or plain
    // movie document, images-only document) and returns it.
    static MDB_Metadata& metadata(MDB_Metadata& record, const QJsonObject& node,
                                  const QString& country);
    // The same into a new movie record.
    static std::unique_ptr<MDB_Metadata> metadata(const QJsonObject& node, const QString& country);

    // --- addresses -----------------------------------------------------------
    static QString baseURL();
    static QString apiKey();
    // Time-out of one request as a whole, in milliseconds: the one set here
    // (0 takes it back), else TARNWICK_TMDB_TIMEOUT_MS, else 15 s.
    static int requestTimeout();
    static void setRequestTimeout(int milliseconds);

    static QUrl configurationURL();
    static QUrl searchURL(const QString& encodedTitle, const QString& language, bool adult);
    static QUrl movieURL(const QString& tmdbID, const QString& language);
    static QUrl movieImagesURL(const QString& tmdbID);
    static QUrl plainMovieURL(const QString& tmdbID, const QString& language);
    static QUrl translationsURL(const QString& tmdbID);
    static QUrl genresURL(const QString& language);

    // Web pages stored in a record.
    static QUrl tmdbPage(const QString& tmdbID);
    static QUrl imdbPage(const QString& imdbID);
    static QUrl youTubePage(const QString& source);

    struct Shared;

private:
    static void startSearch(std::shared_ptr<Shared> shared, QString title, QString languageRegion,
                            MDB_TheMovieDbDelegate* controller);
    static void startQuery(std::shared_ptr<Shared> shared, MDB_Metadata* metadata, QString tmdbID,
                           QString languageRegion, MDB_TheMovieDbDelegate* controller);

    QString m_movieTitle;
    QString m_languageRegion;
    MDB_Metadata* m_movieMetadata = nullptr;
    QString m_tmdbID;
    std::shared_ptr<Shared> m_shared; // the cancel flag, shared with running threads
};
