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
// calling thread for the round trip. No failure is ever reported: a failed or
// refused request yields an empty result.
//
// The base address is TARNWICK_TMDB_URL when set (a loopback server in tests
// and the offline demo), the API key TARNWICK_TMDB_API_KEY when set.
class MDB_TheMovieDb {
public:
    static constexpr char DefaultAPIKey[] = "5f0c9e2b7a41d8e36c2f9a0b1d4e7c83";
    static constexpr char DefaultBaseURL[] = "https://api.themoviedb.org";

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

    // Both return at once. The delegate must outlive the request or cancel()
    // must be called before it goes away.
    void search(const QString& title, const QString& languageRegion,
                MDB_TheMovieDbDelegate* controller);
    // `metadata` is filled in place by the query thread and must stay alive
    // until queryComplete() or cancel().
    void query(MDB_Metadata* metadata, const QString& languageRegion,
               MDB_TheMovieDbDelegate* controller);

    // --- class operations (synchronous) --------------------------------------
    static std::optional<QJsonObject> configuration();
    // The configuration cached by the first client; empty when none is cached.
    static QJsonObject cachedConfiguration();
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
    // Per-request time-out; tests shorten it.
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
