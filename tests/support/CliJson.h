#pragma once

// The JSON documents of `tarnwick-cli ... --json`, checked against the shapes
// the README's JSON section documents. One check for every command: each
// thing (item, source, title, track, match, output) has one shape wherever it
// appears.

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

namespace testsupport {

namespace clijson {

inline QSet<QString> keysOf(const QJsonObject& o) {
    const QStringList keys = o.keys();
    return QSet<QString>(keys.begin(), keys.end());
}

inline void expectKeys(const QJsonObject& o, const QStringList& keys, const QString& where) {
    EXPECT_EQ(keysOf(o), QSet<QString>(keys.begin(), keys.end()))
        << where.toStdString() << ": " << QJsonDocument(o).toJson().toStdString();
}

inline bool stringOrNull(const QJsonValue& v) {
    return v.isString() || v.isNull();
}

inline void expectStrings(const QJsonValue& v, const QString& where) {
    EXPECT_TRUE(v.isArray()) << where.toStdString();
    for (const QJsonValue& s : v.toArray())
        EXPECT_TRUE(s.isString()) << where.toStdString();
}

inline void expectTrack(const QJsonObject& t, bool scanned, const QString& where) {
    QStringList keys = {"id", "type", "language", "name", "channels"};
    if (scanned)
        keys +=
            QStringList{"codec", "frequency", "bitrate", "include", "native", "burn", "duplicate"};
    expectKeys(t, keys, where);
    EXPECT_TRUE(t.value("id").isDouble()) << where.toStdString();
    EXPECT_TRUE(
        QStringList({"video", "audio", "subtitle", "text"}).contains(t.value("type").toString()))
        << where.toStdString() << ": " << t.value("type").toString().toStdString();
    EXPECT_TRUE(t.value("language").isString()) << where.toStdString();
    EXPECT_TRUE(t.value("name").isString()) << where.toStdString();
    EXPECT_TRUE(stringOrNull(t.value("channels"))) << where.toStdString();
    if (t.value("type").toString() != "audio")
        EXPECT_TRUE(t.value("channels").isNull()) << where.toStdString();
    if (scanned) {
        EXPECT_TRUE(t.value("codec").isString()) << where.toStdString();
        EXPECT_TRUE(stringOrNull(t.value("frequency")) && stringOrNull(t.value("bitrate")));
        for (const char* flag : {"include", "native", "burn", "duplicate"})
            EXPECT_TRUE(t.value(flag).isBool()) << where.toStdString() << " " << flag;
    }
}

inline void expectTitle(const QJsonObject& t, const QString& where) {
    expectKeys(t,
               {"id", "main", "duration", "seconds", "size", "codec", "fps", "combing", "stream",
                "audio", "subtitles"},
               where);
    EXPECT_TRUE(t.value("id").isDouble());
    EXPECT_TRUE(t.value("main").isBool());
    EXPECT_TRUE(t.value("duration").isString());
    EXPECT_TRUE(t.value("seconds").isDouble());
    EXPECT_TRUE(stringOrNull(t.value("stream")));
    for (const char* list : {"audio", "subtitles"}) {
        EXPECT_TRUE(t.value(list).isArray());
        for (const QJsonValue& track : t.value(list).toArray())
            expectTrack(track.toObject(), true, where + "." + list);
    }
}

inline void expectMatch(const QJsonObject& m, const QString& where) {
    expectKeys(m,
               {"tmdbID", "imdbID", "name", "releaseDate", "year", "genre", "rating", "ratingCode",
                "director", "poster", "posters", "backdrops", "links", "tagLine", "tags"},
               where);
    for (const char* key : {"tmdbID", "imdbID", "releaseDate", "year", "poster", "tagLine"})
        EXPECT_TRUE(stringOrNull(m.value(key))) << where.toStdString() << " " << key;
    for (const char* key : {"name", "genre", "rating", "ratingCode", "director"})
        EXPECT_TRUE(m.value(key).isString()) << where.toStdString() << " " << key;
    expectStrings(m.value("posters"), where + ".posters");
    expectStrings(m.value("backdrops"), where + ".backdrops");
    expectKeys(m.value("links").toObject(), {"tmdb", "imdb", "trailer", "homepage"},
               where + ".links");
    const QJsonObject tags = m.value("tags").toObject();
    for (auto it = tags.begin(); it != tags.end(); ++it)
        EXPECT_TRUE(it.value().isString())
            << where.toStdString() << ".tags." << it.key().toStdString();
}

inline void expectItem(const QJsonObject& item, const QString& where) {
    expectKeys(item,
               {"source", "state", "status", "warnings", "lookup", "match", "mainTitle", "titles",
                "filters", "passthru", "outputs", "command"},
               where);
    expectKeys(item.value("source").toObject(), {"path", "name", "sourceType"}, where + ".source");
    EXPECT_TRUE(QStringList({"video file", "DVD", "Blu-ray", "not scanned"})
                    .contains(item.value("source").toObject().value("sourceType").toString()));
    EXPECT_TRUE(item.value("state").isString());
    EXPECT_TRUE(item.value("status").isDouble());
    expectStrings(item.value("warnings"), where + ".warnings");
    EXPECT_TRUE(QStringList({"matched", "no match", "failed", "skipped", "not looked up"})
                    .contains(item.value("lookup").toString()))
        << item.value("lookup").toString().toStdString();
    if (item.value("match").isObject())
        expectMatch(item.value("match").toObject(), where + ".match");
    else
        EXPECT_TRUE(item.value("match").isNull()) << where.toStdString();
    EXPECT_TRUE(item.value("mainTitle").isDouble() || item.value("mainTitle").isNull());
    for (const QJsonValue& title : item.value("titles").toArray())
        expectTitle(title.toObject(), where + ".titles");
    expectKeys(item.value("filters").toObject(), {"decomb", "denoise", "detelecine", "deblock"},
               where + ".filters");
    EXPECT_TRUE(item.value("passthru").isBool());
    for (const QJsonValue& output : item.value("outputs").toArray()) {
        expectKeys(output.toObject(), {"path", "exists"}, where + ".outputs");
        EXPECT_TRUE(output.toObject().value("path").isString());
        EXPECT_TRUE(output.toObject().value("exists").isBool());
    }
    expectStrings(item.value("command"), where + ".command");
}

} // namespace clijson

// Parses the whole standard output of a --json run as exactly one JSON
// object and checks it: the members every document has, the command's own,
// and the shape of every thing in it. Answers the document.
inline QJsonObject expectCliJson(const QString& out, const QString& command, int exitStatus) {
    using namespace clijson;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(out.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError)
        << command.toStdString() << ": not one JSON document: " << out.toStdString();
    EXPECT_TRUE(doc.isObject()) << out.toStdString();
    const QJsonObject o = doc.object();
    EXPECT_EQ(o.value("command").toString(), command);
    EXPECT_EQ(o.value("exitStatus").toInt(-1), exitStatus) << out.toStdString();
    EXPECT_TRUE(stringOrNull(o.value("error"))) << out.toStdString();
    if (exitStatus == 2 || exitStatus >= 128)
        EXPECT_TRUE(o.value("error").isString()) << out.toStdString();
    if (exitStatus == 0)
        EXPECT_TRUE(o.value("error").isNull()) << out.toStdString();
    expectStrings(o.value("warnings"), command + ".warnings");

    const QStringList common = {"command", "exitStatus", "error", "warnings"};
    if (QStringList({"scan", "report", "encode", "retag"}).contains(command)) {
        expectKeys(o, common + QStringList{"items"}, command);
        for (const QJsonValue& item : o.value("items").toArray())
            expectItem(item.toObject(), command + ".items");
    } else if (command == "lookup") {
        expectKeys(o, common + QStringList{"query", "language", "match", "hits"}, command);
        if (!o.value("match").isNull())
            expectMatch(o.value("match").toObject(), "lookup.match");
        for (const QJsonValue& hit : o.value("hits").toArray())
            expectMatch(hit.toObject(), "lookup.hits");
    } else if (command == "library") {
        expectKeys(o, common + QStringList{"folder", "genres"}, command);
        EXPECT_TRUE(o.value("genres").isObject());
    } else if (command == "tags") {
        expectKeys(o, common + QStringList{"file", "tags"}, command);
        if (!o.value("tags").isNull()) {
            const QJsonObject tags = o.value("tags").toObject();
            EXPECT_TRUE(tags.value("Media Kind").isString());
            EXPECT_TRUE(tags.value("HD Video").isDouble());
            EXPECT_TRUE(tags.value("Content Rating").isString());
            for (const char* flag : {"Gapless", "Podcast", "Artwork"})
                EXPECT_TRUE(tags.value(flag).isBool()) << flag;
        }
    } else if (command == "tracks") {
        expectKeys(o, common + QStringList{"file", "tracks"}, command);
        for (const QJsonValue& track : o.value("tracks").toArray())
            expectTrack(track.toObject(), false, "tracks");
    } else {
        ADD_FAILURE() << "no JSON shape known for " << command.toStdString();
    }
    return o;
}

} // namespace testsupport
