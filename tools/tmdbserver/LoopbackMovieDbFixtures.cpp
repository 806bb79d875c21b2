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

namespace {

QByteArray json(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

Answer errorAnswer(QHttpServerResponder::StatusCode status, int code, const QString& message) {
    Answer answer;
    answer.status = status;
    answer.body = json(QJsonObject{{QStringLiteral("success"), false},
                                   {QStringLiteral("status_code"), code},
                                   {QStringLiteral("status_message"), message}});
    return answer;
}

Answer notFound() {
    return errorAnswer(QHttpServerResponder::StatusCode::NotFound, 34,
                       QStringLiteral("The resource you requested could not be found."));
}

bool readJson(const QString& path, QJsonValue* value, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    QJsonParseError parse;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parse);
    if (parse.error != QJsonParseError::NoError) {
        *error = QStringLiteral("%1 is not valid JSON: %2").arg(path, parse.errorString());
        return false;
    }
    *value = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    return true;
}

// A stable colour per image so that different artwork is told apart.
QColor colourFor(const QString& path, int salt) {
    const uint hash = qHash(path, 0x5eed + salt);
    return QColor::fromHsv(int(hash % 360), 90 + int(hash / 360 % 120), 120 + int(hash / 7 % 120));
}

QImage drawImage(const QString& path, ImageKind kind) {
    const QSize size = kind == ImageKind::Poster     ? QSize(500, 750)
                       : kind == ImageKind::Backdrop ? QSize(1280, 720)
                                                     : QSize(400, 200);
    QImage image(size, kind == ImageKind::Logo ? QImage::Format_ARGB32 : QImage::Format_RGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    if (kind != ImageKind::Logo) {
        QLinearGradient sky(0, 0, 0, size.height());
        sky.setColorAt(0, colourFor(path, 1).darker(160));
        sky.setColorAt(1, colourFor(path, 2));
        painter.fillRect(image.rect(), sky);
        // A tower and its beam, so that scaling artefacts are visible.
        const int w = size.width(), h = size.height();
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(240, 236, 220));
        painter.drawPolygon(
            QPolygon({QPoint(w * 45 / 100, h * 85 / 100), QPoint(w * 55 / 100, h * 85 / 100),
                      QPoint(w * 53 / 100, h * 35 / 100), QPoint(w * 47 / 100, h * 35 / 100)}));
        painter.setBrush(QColor(255, 230, 120, 160));
        painter.drawPolygon(QPolygon(
            {QPoint(w / 2, h * 37 / 100), QPoint(w, h * 25 / 100), QPoint(w, h * 45 / 100)}));
        painter.setBrush(colourFor(path, 3).darker(200));
        painter.drawRect(0, h * 85 / 100, w, h);
    } else {
        painter.setPen(QPen(colourFor(path, 1), 12));
        painter.setBrush(colourFor(path, 2));
        painter.drawEllipse(image.rect().adjusted(20, 20, -20, -20));
    }
    return image;
}

QSet<QString> splitList(const QString& text) {
    QSet<QString> items;
    for (const QString& item : text.split(QLatin1Char(','), Qt::SkipEmptyParts))
        items.insert(item.trimmed());
    return items;
}

} // namespace

bool LoopbackMovieDb::Data::load(QString* error) {
    const QDir dir(folder);
    if (!dir.exists()) {
        *error = QStringLiteral("fixture folder %1 does not exist").arg(folder);
        return false;
    }
    QJsonValue value;
    if (!readJson(dir.filePath(QStringLiteral("configuration.json")), &value, error))
        return false;
    configuration = value.toObject();

    const QDir movieDir(dir.filePath(QStringLiteral("movie")));
    static const QRegularExpression movieName(QStringLiteral("^(\\d+)(?:\\.([a-z]{2}))?\\.json$"));
    for (const QString& name : movieDir.entryList({QStringLiteral("*.json")}, QDir::Files)) {
        const QRegularExpressionMatch match = movieName.match(name);
        if (!match.hasMatch())
            continue;
        if (!readJson(movieDir.filePath(name), &value, error))
            return false;
        const qint64 id = match.captured(1).toLongLong();
        if (match.captured(2).isEmpty())
            movies.insert(id, value.toObject());
        else
            overlays.insert(match.captured(1) + QLatin1Char('.') + match.captured(2),
                            value.toObject());
    }
    if (movies.isEmpty()) {
        *error = QStringLiteral("no movie fixtures in %1").arg(movieDir.path());
        return false;
    }

    const QDir genreDir(dir.filePath(QStringLiteral("genres")));
    for (const QString& name : genreDir.entryList({QStringLiteral("*.json")}, QDir::Files)) {
        if (!readJson(genreDir.filePath(name), &value, error))
            return false;
        genres.insert(QFileInfo(name).completeBaseName(), value.toObject());
    }

    if (QFile::exists(dir.filePath(QStringLiteral("search.json")))) {
        if (!readJson(dir.filePath(QStringLiteral("search.json")), &value, error))
            return false;
        const QJsonObject index = value.toObject();
        for (auto it = index.begin(); it != index.end(); ++it) {
            QList<qint64> ids;
            for (const QJsonValue& id : it.value().toArray())
                ids.append(id.toInteger());
            searchIndex.insert(it.key().toLower(), ids);
        }
    }
    if (QFile::exists(dir.filePath(QStringLiteral("special.json")))) {
        if (!readJson(dir.filePath(QStringLiteral("special.json")), &value, error))
            return false;
        const QJsonObject special = value.toObject();
        auto strings = [](const QJsonValue& list) {
            QSet<QString> set;
            for (const QJsonValue& item : list.toArray())
                set.insert(item.toVariant().toString().toLower());
            return set;
        };
        const QJsonObject slow = special.value(QStringLiteral("slow")).toObject();
        const QJsonObject malformed = special.value(QStringLiteral("malformed")).toObject();
        slowQueries = strings(slow.value(QStringLiteral("queries")));
        slowMovies = strings(slow.value(QStringLiteral("movies")));
        malformedQueries = strings(malformed.value(QStringLiteral("queries")));
        malformedMovies = strings(malformed.value(QStringLiteral("movies")));
        slowDelayMs = special.value(QStringLiteral("slowDelayMs")).toInt(slowDelayMs);
    }

    // Every image a fixture names is drawn now, once, at its largest size.
    for (const QJsonObject& movie : std::as_const(movies)) {
        noteImage(movie.value(QStringLiteral("poster_path")), ImageKind::Poster);
        noteImage(movie.value(QStringLiteral("backdrop_path")), ImageKind::Backdrop);
        for (const QJsonValue& company :
             movie.value(QStringLiteral("production_companies")).toArray())
            noteImage(company.toObject().value(QStringLiteral("logo_path")), ImageKind::Logo);
        const QJsonObject images = movie.value(QStringLiteral("images")).toObject();
        const std::pair<const char*, ImageKind> lists[] = {{"posters", ImageKind::Poster},
                                                           {"backdrops", ImageKind::Backdrop},
                                                           {"logos", ImageKind::Logo}};
        for (const auto& [key, kind] : lists) {
            for (const QJsonValue& image : images.value(QLatin1String(key)).toArray())
                noteImage(image.toObject().value(QStringLiteral("file_path")), kind);
        }
    }
    for (auto it = imagePaths.cbegin(); it != imagePaths.cend(); ++it)
        originals.insert(it.key(), drawImage(it.key(), it.value()));
    return true;
}

void LoopbackMovieDb::Data::noteImage(const QJsonValue& path, ImageKind kind) {
    if (path.isString() && !path.toString().isEmpty())
        imagePaths.insert(path.toString(), kind);
}

QJsonObject LoopbackMovieDb::Data::movieIn(qint64 id, const QString& language) const {
    QJsonObject movie = movies.value(id);
    const QJsonObject overlay = overlays.value(QString::number(id) + QLatin1Char('.') + language);
    for (auto it = overlay.begin(); it != overlay.end(); ++it)
        movie.insert(it.key(), it.value());
    return movie;
}

Answer LoopbackMovieDb::Data::answer(const QUrl& url) {
    const QString path = url.path();
    const QUrlQuery query(url);

    if (path.startsWith(kImagePrefix)) {
        const QString rest = path.mid(kImagePrefix.size());
        const qsizetype slash = rest.indexOf(QLatin1Char('/'));
        if (slash <= 0)
            return notFound();
        return answerImage(rest.left(slash), rest.mid(slash));
    }
    if (!path.startsWith(QLatin1String("/3/")))
        return notFound();

    LoopbackMovieDb::Mode current;
    {
        QMutexLocker lock(&mutex);
        current = mode;
    }
    switch (current) {
    case LoopbackMovieDb::Mode::Unauthorized:
        return errorAnswer(QHttpServerResponder::StatusCode::Unauthorized, 7,
                           QStringLiteral("Invalid API key: You must be granted a valid key."));
    case LoopbackMovieDb::Mode::ServerError:
        return errorAnswer(QHttpServerResponder::StatusCode::InternalServerError, 11,
                           QStringLiteral("Internal error: Something went wrong, contact TMDb."));
    default:
        break;
    }
    Answer api = answerApi(url);
    api.mode = current;
    return api;
}

Answer LoopbackMovieDb::Data::answerApi(const QUrl& url) {
    const QString path = url.path();
    const QUrlQuery query(url);
    {
        QMutexLocker lock(&mutex);
        if (query.queryItemValue(QStringLiteral("api_key"), QUrl::FullyDecoded) != apiKey)
            return errorAnswer(QHttpServerResponder::StatusCode::Unauthorized, 7,
                               QStringLiteral("Invalid API key: You must be granted a valid key."));
    }

    if (path == QLatin1String("/3/configuration")) {
        QJsonObject configured = configuration;
        QJsonObject images = configured.value(QStringLiteral("images")).toObject();
        QString base;
        {
            QMutexLocker lock(&mutex);
            base = baseURL + kImagePrefix;
        }
        // No TLS on loopback: both addresses are the plain one.
        images.insert(QStringLiteral("base_url"), base);
        images.insert(QStringLiteral("secure_base_url"), base);
        configured.insert(QStringLiteral("images"), images);
        Answer answer;
        answer.body = json(configured);
        return answer;
    }
    if (path == QLatin1String("/3/search/movie"))
        return answerSearch(query);
    if (path == QLatin1String("/3/genre/list") || path == QLatin1String("/3/genre/movie/list")) {
        const QString language =
            query.queryItemValue(QStringLiteral("language"), QUrl::FullyDecoded).left(2);
        Answer answer;
        answer.body = json(genres.value(language, genres.value(QStringLiteral("en"))));
        return answer;
    }
    static const QRegularExpression moviePath(QStringLiteral("^/3/movie/([^/]+)(/[a-z_]+)?$"));
    const QRegularExpressionMatch match = moviePath.match(path);
    if (match.hasMatch()) {
        const QString id = match.captured(1);
        Answer answer;
        bool isNumber = false;
        const qint64 number = id.toLongLong(&isNumber);
        if (malformedMovies.contains(id)) {
            answer.body = QByteArrayLiteral("{\"id\": ") + id.toUtf8() +
                          QByteArrayLiteral(", \"title\": \"Broken");
            return answer;
        }
        if (!isNumber)
            return notFound();
        answer = answerMovie(number, match.captured(2), query);
        if (slowMovies.contains(id)) {
            QMutexLocker lock(&mutex);
            answer.delayMs = slowDelayMs;
        }
        return answer;
    }
    return notFound();
}

Answer LoopbackMovieDb::Data::answerMovie(qint64 id, const QString& rest, const QUrlQuery& query) {
    if (!movies.contains(id))
        return notFound();
    const QString language =
        query.queryItemValue(QStringLiteral("language"), QUrl::FullyDecoded).left(2);
    const QJsonObject full = movieIn(id, language);
    Answer answer;

    if (rest == QLatin1String("/images") || rest == QLatin1String("/translations")) {
        // The standalone forms of appended objects carry the movie's id.
        QJsonObject part = full.value(rest.mid(1)).toObject();
        part.insert(QStringLiteral("id"), id);
        answer.body = json(part);
        return answer;
    }
    if (!rest.isEmpty())
        return notFound();

    const QSet<QString> appended =
        splitList(query.queryItemValue(QStringLiteral("append_to_response"), QUrl::FullyDecoded));
    QJsonObject movie = full;
    for (const char* key : {"casts", "releases", "trailers", "images", "translations"}) {
        if (!appended.contains(QLatin1String(key)))
            movie.remove(QLatin1String(key));
    }
    // Appended images follow the language, as the real service's do.
    if (movie.contains(QStringLiteral("images")) && !language.isEmpty()) {
        QJsonObject images = movie.value(QStringLiteral("images")).toObject();
        for (auto it = images.begin(); it != images.end(); ++it) {
            QJsonArray kept;
            for (const QJsonValue& image : it.value().toArray()) {
                if (image.toObject().value(QStringLiteral("iso_639_1")).toString() == language)
                    kept.append(image);
            }
            it.value() = kept;
        }
        movie.insert(QStringLiteral("images"), images);
    }
    answer.body = json(movie);
    return answer;
}

Answer LoopbackMovieDb::Data::answerSearch(const QUrlQuery& query) {
    const QString text = query.queryItemValue(QStringLiteral("query"), QUrl::FullyDecoded);
    const QString key = text.trimmed().toLower();
    const QString language =
        query.queryItemValue(QStringLiteral("language"), QUrl::FullyDecoded).left(2);
    const bool adult = query.queryItemValue(QStringLiteral("include_adult"), QUrl::FullyDecoded) ==
                       QLatin1String("true");
    Answer answer;
    if (malformedQueries.contains(key)) {
        answer.body = QByteArrayLiteral("{\"page\": 1, \"results\": [{\"id\": 1, \"title\": ");
        return answer;
    }

    QList<qint64> ids;
    if (searchIndex.contains(key)) {
        ids = searchIndex.value(key);
    } else if (!key.isEmpty()) {
        // Titles in any of their languages match, as on the real service.
        for (auto it = movies.cbegin(); it != movies.cend(); ++it) {
            QStringList titles = {
                it->value(QStringLiteral("title")).toString(),
                it->value(QStringLiteral("original_title")).toString(),
                movieIn(it.key(), language).value(QStringLiteral("title")).toString()};
            for (const QString& title : titles) {
                if (title.toLower().contains(key)) {
                    ids.append(it.key());
                    break;
                }
            }
        }
    }

    QJsonArray results;
    for (qint64 id : ids) {
        if (!movies.contains(id))
            continue;
        const QJsonObject movie = movieIn(id, language);
        if (movie.value(QStringLiteral("adult")).toBool() && !adult)
            continue;
        QJsonArray genreIds;
        for (const QJsonValue& genre : movie.value(QStringLiteral("genres")).toArray())
            genreIds.append(genre.toObject().value(QStringLiteral("id")));
        QJsonObject hit;
        for (const char* field : {"adult", "backdrop_path", "id", "original_language",
                                  "original_title", "overview", "popularity", "poster_path",
                                  "release_date", "title", "video", "vote_average", "vote_count"})
            hit.insert(QLatin1String(field), movie.value(QLatin1String(field)));
        hit.insert(QStringLiteral("genre_ids"), genreIds);
        results.append(hit);
    }
    answer.body = json(QJsonObject{{QStringLiteral("page"), 1},
                                   {QStringLiteral("results"), results},
                                   {QStringLiteral("total_pages"), 1},
                                   {QStringLiteral("total_results"), results.size()}});
    if (slowQueries.contains(key)) {
        QMutexLocker lock(&mutex);
        answer.delayMs = slowDelayMs;
    }
    return answer;
}

Answer LoopbackMovieDb::Data::answerImage(const QString& size, const QString& path) {
    const auto original = originals.constFind(path);
    if (original == originals.constEnd())
        return notFound();
    const ImageKind kind = imagePaths.value(path);
    const QJsonObject images = configuration.value(QStringLiteral("images")).toObject();
    const char* listKey = kind == ImageKind::Poster     ? "poster_sizes"
                          : kind == ImageKind::Backdrop ? "backdrop_sizes"
                                                        : "logo_sizes";
    if (!images.value(QLatin1String(listKey)).toArray().contains(size))
        return notFound();

    const bool png = path.endsWith(QLatin1String(".png"), Qt::CaseInsensitive);
    Answer answer;
    answer.contentType = png ? "image/png" : "image/jpeg";
    const QString cacheKey = size + path;
    QMutexLocker lock(&mutex);
    auto cached = encodedImages.constFind(cacheKey);
    if (cached != encodedImages.constEnd()) {
        answer.body = *cached;
        return answer;
    }
    QImage image = *original;
    bool isNumber = false;
    const int extent = size.mid(1).toInt(&isNumber);
    if (isNumber && extent > 0) {
        image = size.startsWith(QLatin1Char('h'))
                    ? image.scaledToHeight(extent, Qt::SmoothTransformation)
                    : image.scaledToWidth(extent, Qt::SmoothTransformation);
    }
    QBuffer buffer(&answer.body);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, png ? "PNG" : "JPEG", png ? -1 : 85);
    encodedImages.insert(cacheKey, answer.body);
    return answer;
}
