#include "lookup/MDB_TheMovieDb.h"

#include "core/HttpClient.h"
#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "lookup/MDB_TheMovieDbFields.h"
#include "metadata/MDB_Certifications.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "metadata/Utility.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QMetaObject>
#include <QMutex>
#include <QMutexLocker>

#include <atomic>
#include <mutex>
#include <thread>

struct MDB_TheMovieDb::Shared {
    // Held by cancel() and by a query while it writes the record, so that
    // after cancel() returns the record is no longer touched.
    QMutex lock;
    std::atomic<bool> isCancelled{false};
    Error lastError; // under `lock`

    void setLastError(const Error& error) {
        QMutexLocker locker(&lock);
        lastError = error;
    }
};

namespace {

const QString kTmdbSite = QStringLiteral("http://www.themoviedb.org");
const QString kImdbSite = QStringLiteral("http://www.imdb.com");
const QString kYouTubeSite = QStringLiteral("http://www.youtube.com");

// 0: not set here (the environment or the default decides).
std::atomic<int> g_requestTimeout{0};

using Error = MDB_TheMovieDb::Error;
using Failure = MDB_TheMovieDb::Failure;

// A database that did not answer (time-out) or could not be reached is not
// asked again for one request time-out: a lookup whose first request timed
// out gives up then, instead of waiting once more for each request it has.
struct Availability {
    QMutex mutex;
    QString base;
    QDeadlineTimer until;
    Error error;
};

Availability& availability() {
    static Availability state;
    return state;
}

std::optional<Error> knownUnavailable(const QString& base) {
    Availability& state = availability();
    QMutexLocker lock(&state.mutex);
    if (state.base.isEmpty() || state.base != base || state.until.hasExpired())
        return std::nullopt;
    return state.error;
}

void noteAnswer(const QString& base, const Error& error) {
    Availability& state = availability();
    QMutexLocker lock(&state.mutex);
    if (error.failure == Failure::TimedOut || error.failure == Failure::Unreachable) {
        state.base = base;
        state.until = QDeadlineTimer(MDB_TheMovieDb::requestTimeout());
        state.error = error;
    } else if (error.failure == Failure::None && state.base == base) {
        state.base.clear();
    }
}

Error classify(const HttpClient::Response& response) {
    Error error;
    error.httpStatus = response.status;
    error.detail = response.error;
    switch (response.failure) {
    case HttpClient::Failure::None:
        break;
    case HttpClient::Failure::Http:
        if (response.status == 401 || response.status == 403)
            error.failure = Failure::RefusedKey;
        else if (response.status >= 500)
            error.failure = Failure::ServerError;
        else
            error.failure = Failure::Rejected;
        break;
    case HttpClient::Failure::TimedOut:
        error.failure = Failure::TimedOut;
        break;
    case HttpClient::Failure::TooLarge:
        error.failure = Failure::TooLarge;
        break;
    case HttpClient::Failure::Cancelled:
        error.failure = Failure::Cancelled;
        break;
    case HttpClient::Failure::Invalid:
    case HttpClient::Failure::Unreachable:
    case HttpClient::Failure::Network:
        error.failure = Failure::Unreachable;
        break;
    }
    return error;
}

QString seconds(int milliseconds) {
    return QString::number(double(milliseconds) / 1000.0, 'g', 3) + QStringLiteral(" s");
}

struct ConfigurationCache {
    QMutex mutex;
    QJsonObject configuration;
    bool filled = false;
};

ConfigurationCache& configurationCache() {
    static ConfigurationCache cache;
    return cache;
}

using tmdb::tag;
using tmdb::text;

// Only the body of a successful answer counts: an error page (401, 404) is
// treated like no data, as is a body that is not JSON. Why, goes to `error`.
std::optional<QJsonDocument> fetchJSON(const QUrl& url, const std::atomic<bool>* cancel,
                                       Error* error) {
    const QString base = MDB_TheMovieDb::baseURL();
    Error result;
    std::optional<QJsonDocument> document;
    if (std::optional<Error> known = knownUnavailable(base)) {
        result = *known;
    } else {
        const HttpClient::Response response =
            HttpClient::get(url, MDB_TheMovieDb::requestTimeout(), cancel);
        result = classify(response);
        if (!result.failed()) {
            QJsonParseError parse;
            const QJsonDocument parsed = QJsonDocument::fromJson(response.body, &parse);
            if (parse.error != QJsonParseError::NoError) {
                result.failure = Failure::BadAnswer;
                result.detail = parse.errorString();
            } else {
                document = parsed;
            }
        }
        noteAnswer(base, result);
    }
    if (error)
        *error = result;
    return document;
}

std::optional<QJsonObject> fetchObject(const QUrl& url, const std::atomic<bool>* cancel = nullptr,
                                       Error* error = nullptr) {
    Error why;
    const std::optional<QJsonDocument> document = fetchJSON(url, cancel, &why);
    if (document && !document->isObject()) {
        why.failure = Failure::BadAnswer;
        why.detail = QStringLiteral("not a JSON object");
    }
    if (error)
        *error = why;
    if (!document || !document->isObject())
        return std::nullopt;
    return document->object();
}

// translationAvailable() with the query's cancel flag.
QString chooseTranslation(const QString& tmdbID, const QString& language,
                          const std::atomic<bool>* cancel) {
    const std::optional<QJsonObject> answer =
        fetchObject(MDB_TheMovieDb::translationsURL(tmdbID), cancel);
    if (!answer)
        return QStringLiteral("");
    bool english = false;
    for (const QJsonValue& value : answer->value(QStringLiteral("translations")).toArray()) {
        const QString code = value.toObject().value(QStringLiteral("iso_639_1")).toString();
        if (code == language)
            return language;
        if (code == QLatin1String("en"))
            english = true;
    }
    // An empty language asks the database for its default.
    return english ? QStringLiteral("en") : QStringLiteral("");
}

} // namespace

// --- instance --------------------------------------------------------------

MDB_TheMovieDb::MDB_TheMovieDb() : m_shared(std::make_shared<Shared>()) {
    installGenreSource();
    ConfigurationCache& cache = configurationCache();
    // Held across the fetch so that clients made together fetch only once.
    QMutexLocker lock(&cache.mutex);
    if (cache.filled)
        return;
    if (std::optional<QJsonObject> configuration = MDB_TheMovieDb::configuration()) {
        cache.configuration = *configuration;
        cache.filled = true;
    }
}

MDB_TheMovieDb::~MDB_TheMovieDb() {
    cancel();
}

void MDB_TheMovieDb::cancel() {
    if (!m_shared)
        return;
    QMutexLocker lock(&m_shared->lock);
    m_shared->isCancelled = true;
}

bool MDB_TheMovieDb::isCancelled() const {
    return m_shared->isCancelled;
}

MDB_TheMovieDb::Error MDB_TheMovieDb::lastError() const {
    QMutexLocker lock(&m_shared->lock);
    return m_shared->lastError;
}

QString MDB_TheMovieDb::Error::message() const {
    const QString base = MDB_TheMovieDb::baseURL();
    switch (failure) {
    case Failure::None:
        return {};
    case Failure::RefusedKey:
        return QStringLiteral("the movie database refused the API key (HTTP %1); set "
                              "TARNWICK_TMDB_API_KEY to a valid key")
            .arg(httpStatus);
    case Failure::ServerError:
        return QStringLiteral("the movie database failed with a server error (HTTP %1)")
            .arg(httpStatus);
    case Failure::TimedOut:
        return QStringLiteral("the movie database at %1 did not answer within %2")
            .arg(base, seconds(MDB_TheMovieDb::requestTimeout()));
    case Failure::Unreachable: {
        // "Cannot fetch ADDRESS: REASON": the reason is what the user can act on.
        const qsizetype colon = detail.lastIndexOf(QStringLiteral(": "));
        const QString reason = colon < 0 ? detail : detail.mid(colon + 2);
        return QStringLiteral("the movie database at %1 cannot be reached%2")
            .arg(base, reason.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(reason));
    }
    case Failure::TooLarge:
        return QStringLiteral("the movie database sent an answer larger than %1 MB; it was "
                              "dropped")
            .arg(HttpClient::DefaultMaxBodyBytes / (1024 * 1024));
    case Failure::BadAnswer:
        return QStringLiteral("the movie database sent an answer that is not valid JSON");
    case Failure::Rejected:
        return QStringLiteral("the movie database rejected the request (HTTP %1)").arg(httpStatus);
    case Failure::Cancelled:
        return QStringLiteral("the lookup was interrupted");
    }
    return {};
}

void MDB_TheMovieDb::search(const QString& title, const QString& languageRegion,
                            MDB_TheMovieDbDelegate* controller) {
    m_movieTitle = title;
    m_languageRegion = languageRegion;
    std::thread(&MDB_TheMovieDb::startSearch, m_shared, title, languageRegion, controller).detach();
    // The thread has its own copy; the title is not needed any more.
    m_movieTitle.clear();
}

void MDB_TheMovieDb::query(MDB_Metadata* metadata, const QString& languageRegion,
                           MDB_TheMovieDbDelegate* controller) {
    m_movieMetadata = metadata;
    m_languageRegion = languageRegion;
    m_tmdbID = metadata ? metadata->getTag(tag(TagName::TMDbID)) : QString();
    std::thread(&MDB_TheMovieDb::startQuery, m_shared, metadata, m_tmdbID, languageRegion,
                controller)
        .detach();
}

void MDB_TheMovieDb::startSearch(std::shared_ptr<Shared> shared, QString title,
                                 QString languageRegion, MDB_TheMovieDbDelegate* controller) {
    const QString encoded = MDB_Common::urlEncode(title);
    const bool adult = UserDefaults::standard().boolForKey(SettingsKey::AdultSearch);
    const QUrl url = searchURL(encoded, MDB_Utility::languageCode(languageRegion), adult);
    title.clear();

    const QString country = MDB_Utility::countryCode(languageRegion);
    auto results = std::make_shared<std::vector<std::unique_ptr<MDB_Metadata>>>();
    Error error;
    if (std::optional<QJsonObject> answer = fetchObject(url, &shared->isCancelled, &error)) {
        for (const QJsonValue& hit : answer->value(QStringLiteral("results")).toArray()) {
            if (hit.isObject())
                results->push_back(metadata(hit.toObject(), country));
        }
    }
    shared->setLastError(error);

    QCoreApplication* app = QCoreApplication::instance();
    if (shared->isCancelled || !app || !controller)
        return;
    QMetaObject::invokeMethod(
        app,
        [shared, results, controller] {
            // cancel() may have come while the call was queued.
            if (!shared->isCancelled)
                controller->searchComplete(std::move(*results));
        },
        Qt::QueuedConnection);
}

void MDB_TheMovieDb::startQuery(std::shared_ptr<Shared> shared, MDB_Metadata* metadata,
                                QString tmdbID, QString languageRegion,
                                MDB_TheMovieDbDelegate* controller) {
    const QString country = MDB_Utility::countryCode(languageRegion);
    // Fills under the lock, and only while not cancelled: the owner may drop
    // the record once it has cancelled.
    auto fill = [&](const QJsonObject& node) {
        QMutexLocker lock(&shared->lock);
        if (shared->isCancelled || !metadata)
            return;
        MDB_TheMovieDb::metadata(*metadata, node, country);
    };

    Error error;
    if (!tmdbID.isEmpty() && !shared->isCancelled) {
        const QString language = chooseTranslation(
            tmdbID, MDB_Utility::languageCode(languageRegion), &shared->isCancelled);
        if (std::optional<QJsonObject> movie =
                fetchObject(movieURL(tmdbID, language), &shared->isCancelled, &error)) {
            fill(*movie);
            // Images of every language, and the only source of backdrops.
            if (std::optional<QJsonObject> images =
                    fetchObject(movieImagesURL(tmdbID), &shared->isCancelled, &error))
                fill(*images);
        }
    }
    shared->setLastError(error);

    QCoreApplication* app = QCoreApplication::instance();
    if (shared->isCancelled || !app || !controller)
        return;
    // The record is shared with the main thread: wait until it is handled.
    QMetaObject::invokeMethod(
        app,
        [shared, metadata, controller] {
            if (!shared->isCancelled)
                controller->queryComplete(metadata);
        },
        Qt::BlockingQueuedConnection);
}

// --- class operations --------------------------------------------------------

std::optional<QJsonObject> MDB_TheMovieDb::configuration(Error* error) {
    return fetchObject(configurationURL(), nullptr, error);
}

QJsonObject MDB_TheMovieDb::cachedConfiguration() {
    ConfigurationCache& cache = configurationCache();
    QMutexLocker lock(&cache.mutex);
    return cache.configuration;
}

void MDB_TheMovieDb::clearCachedConfiguration() {
    ConfigurationCache& cache = configurationCache();
    QMutexLocker lock(&cache.mutex);
    cache.configuration = QJsonObject();
    cache.filled = false;
    Availability& state = availability();
    QMutexLocker stateLock(&state.mutex);
    state.base.clear();
}

QString MDB_TheMovieDb::translationAvailable(const QString& tmdbID, const QString& language) {
    return chooseTranslation(tmdbID, language, nullptr);
}

std::unique_ptr<MDB_Metadata> MDB_TheMovieDb::movie(const QString& tmdbID,
                                                    const QString& languageRegion) {
    const QString language =
        translationAvailable(tmdbID, MDB_Utility::languageCode(languageRegion));
    const std::optional<QJsonObject> answer = fetchObject(plainMovieURL(tmdbID, language));
    if (!answer)
        return nullptr;
    return metadata(*answer, MDB_Utility::countryCode(languageRegion));
}

QStringList MDB_TheMovieDb::getGenres(const QString& language) {
    QStringList names;
    const std::optional<QJsonObject> answer = fetchObject(genresURL(language));
    if (!answer)
        return names;
    for (const QJsonValue& genre : answer->value(QStringLiteral("genres")).toArray())
        names.append(text(genre.toObject().value(QStringLiteral("name"))));
    return names;
}

void MDB_TheMovieDb::installGenreSource() {
    static std::once_flag once;
    std::call_once(once, [] { Utility::setGenreSource(&MDB_TheMovieDb::getGenres); });
}

// --- addresses -----------------------------------------------------------------

QString MDB_TheMovieDb::baseURL() {
    QString base = qEnvironmentVariable("TARNWICK_TMDB_URL");
    if (base.isEmpty())
        base = QString::fromLatin1(DefaultBaseURL);
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    return base;
}

QString MDB_TheMovieDb::apiKey() {
    const QString key = qEnvironmentVariable("TARNWICK_TMDB_API_KEY");
    return key.isEmpty() ? QString::fromLatin1(DefaultAPIKey) : key;
}

int MDB_TheMovieDb::requestTimeout() {
    if (const int set = g_requestTimeout; set > 0)
        return set;
    bool ok = false;
    const int fromEnvironment = qEnvironmentVariableIntValue("TARNWICK_TMDB_TIMEOUT_MS", &ok);
    return ok && fromEnvironment > 0 ? fromEnvironment : HttpClient::DefaultTimeoutMs;
}

void MDB_TheMovieDb::setRequestTimeout(int milliseconds) {
    g_requestTimeout = milliseconds > 0 ? milliseconds : 0;
}

namespace {

// The path is already percent-encoded where it needs to be.
QUrl apiURL(const QString& pathAndQuery) {
    return QUrl(MDB_TheMovieDb::baseURL() + pathAndQuery, QUrl::TolerantMode);
}

} // namespace

QUrl MDB_TheMovieDb::configurationURL() {
    return apiURL(QStringLiteral("/3/configuration?api_key=%1").arg(apiKey()));
}

QUrl MDB_TheMovieDb::searchURL(const QString& encodedTitle, const QString& language, bool adult) {
    return apiURL(QStringLiteral("/3/search/movie?api_key=%1&query=%2&language=%3&include_adult=%4")
                      .arg(apiKey(), encodedTitle, language,
                           adult ? QStringLiteral("true") : QStringLiteral("false")));
}

QUrl MDB_TheMovieDb::movieURL(const QString& tmdbID, const QString& language) {
    return apiURL(QStringLiteral("/3/movie/%1?api_key=%2&language=%3"
                                 "&append_to_response=casts,releases,trailers,images")
                      .arg(tmdbID, apiKey(), language));
}

QUrl MDB_TheMovieDb::movieImagesURL(const QString& tmdbID) {
    return apiURL(QStringLiteral("/3/movie/%1/images?api_key=%2").arg(tmdbID, apiKey()));
}

QUrl MDB_TheMovieDb::plainMovieURL(const QString& tmdbID, const QString& language) {
    return apiURL(
        QStringLiteral("/3/movie/%1?api_key=%2&language=%3").arg(tmdbID, apiKey(), language));
}

QUrl MDB_TheMovieDb::translationsURL(const QString& tmdbID) {
    return apiURL(QStringLiteral("/3/movie/%1/translations?api_key=%2").arg(tmdbID, apiKey()));
}

QUrl MDB_TheMovieDb::genresURL(const QString& language) {
    return apiURL(QStringLiteral("/3/genre/list?api_key=%1&language=%2").arg(apiKey(), language));
}

QUrl MDB_TheMovieDb::tmdbPage(const QString& tmdbID) {
    return QUrl(kTmdbSite + QStringLiteral("/movie/%1").arg(tmdbID));
}

QUrl MDB_TheMovieDb::imdbPage(const QString& imdbID) {
    return QUrl(kImdbSite + QStringLiteral("/title/%1/").arg(imdbID));
}

QUrl MDB_TheMovieDb::youTubePage(const QString& source) {
    return QUrl(kYouTubeSite + QStringLiteral("/watch?v=%1").arg(source));
}
