#pragma once

// The fixtures behind the loopback server and the answers made from them;
// LoopbackMovieDb.cpp serves them, LoopbackMovieDbFixtures.cpp reads and
// answers.

#include "tools/tmdbserver/LoopbackMovieDb.h"

#include <QHash>
#include <QHttpServerResponder>
#include <QImage>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QSet>
#include <QUrl>
#include <QUrlQuery>

namespace loopback {

constexpr char kDefaultApiKey[] = "5f0c9e2b7a41d8e36c2f9a0b1d4e7c83";
const QString kImagePrefix = QStringLiteral("/t/p/");

enum class ImageKind { Poster, Backdrop, Logo };

struct Answer {
    QHttpServerResponder::StatusCode status = QHttpServerResponder::StatusCode::Ok;
    QByteArray body;
    QByteArray contentType = "application/json;charset=utf-8";
    int delayMs = 0;
    // How it is delivered (an API answer in a failure mode).
    LoopbackMovieDb::Mode mode = LoopbackMovieDb::Mode::Normal;
};

// Blanks before the oversized answer: more than the client's 20 MB cap.
constexpr qsizetype kOversizePadding = 24 * 1024 * 1024;

} // namespace loopback

struct LoopbackMovieDb::Data {
    QString folder;

    // Fixtures, read once by listen() and then only read.
    QJsonObject configuration;
    QMap<qint64, QJsonObject> movies;         // id -> full document
    QHash<QString, QJsonObject> overlays;     // "ID.lang" -> keys of that language
    QMap<QString, QList<qint64>> searchIndex; // lower-cased query -> ids
    QHash<QString, QJsonObject> genres;       // language -> list
    QSet<QString> slowQueries, slowMovies, malformedQueries, malformedMovies;
    QHash<QString, loopback::ImageKind> imagePaths; // file path -> kind
    QHash<QString, QImage> originals;

    mutable QMutex mutex; // guards everything below
    QString apiKey = QString::fromLatin1(loopback::kDefaultApiKey);
    int slowDelayMs = 20000;
    LoopbackMovieDb::Mode mode = LoopbackMovieDb::Mode::Normal;
    QList<QUrl> requests;
    QString baseURL;
    QHash<QString, QByteArray> encodedImages;

    bool load(QString* error);
    void noteImage(const QJsonValue& path, loopback::ImageKind kind);
    loopback::Answer answer(const QUrl& url);
    loopback::Answer answerApi(const QUrl& url);
    loopback::Answer answerMovie(qint64 id, const QString& rest, const QUrlQuery& query);
    loopback::Answer answerSearch(const QUrlQuery& query);
    loopback::Answer answerImage(const QString& size, const QString& path);
    QJsonObject movieIn(qint64 id, const QString& language) const;
};
