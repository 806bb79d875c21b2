#pragma once

// The JSON documents of `tarnwick-cli ... --json`, checked against the shapes
// the README's JSON section documents. One check for every command: each
// thing (item, source, title, track, match, output) has one shape wherever it
// appears.

#include <algorithm>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

namespace testsupport {

namespace clijson {

// A shape is "name:kind name:kind ...", the kinds: s string, S string or null,
// n number, N number or null, b bool, o object, a array of strings, x any
// (checked by the caller).
inline bool hasKind(const QJsonValue& v, QChar kind) {
    const QJsonArray list = v.toArray();
    switch (kind.unicode()) {
    case 's':
        return v.isString();
    case 'S':
        return v.isString() || v.isNull();
    case 'n':
        return v.isDouble();
    case 'N':
        return v.isDouble() || v.isNull();
    case 'b':
        return v.isBool();
    case 'o':
        return v.isObject();
    case 'a':
        return v.isArray() && std::all_of(list.begin(), list.end(),
                                          [](const QJsonValue& s) { return s.isString(); });
    default:
        return true;
    }
}

// Exactly the members of `shape`, each of its kind.
inline void expectShape(const QJsonObject& o, const QString& shape, const QString& where) {
    const std::string text = QJsonDocument(o).toJson(QJsonDocument::Compact).toStdString();
    QSet<QString> expected;
    for (const QString& member : shape.split(u' ')) {
        const QString key = member.section(u':', 0, 0);
        expected.insert(key);
        EXPECT_TRUE(hasKind(o.value(key), member.back()))
            << where.toStdString() << "." << key.toStdString() << ": " << text;
    }
    const QStringList keys = o.keys();
    EXPECT_EQ(QSet<QString>(keys.begin(), keys.end()), expected)
        << where.toStdString() << ": " << text;
}

inline void expectTrack(const QJsonObject& t, bool scanned, const QString& where) {
    expectShape(
        t,
        QStringLiteral("id:n type:s language:s name:s channels:S") +
            (scanned ? " codec:s frequency:S bitrate:S include:b native:b burn:b duplicate:b" : ""),
        where);
    const QString type = t.value("type").toString();
    EXPECT_TRUE(QStringList({"video", "audio", "subtitle", "text"}).contains(type))
        << where.toStdString();
    if (type != "audio")
        EXPECT_TRUE(t.value("channels").isNull()) << where.toStdString();
}

inline void expectMatch(const QJsonObject& m, const QString& where) {
    expectShape(m,
                "tmdbID:S imdbID:S name:s releaseDate:S year:S genre:s rating:s ratingCode:s "
                "director:s poster:S posters:a backdrops:a links:o tagLine:S tags:o",
                where);
    expectShape(m.value("links").toObject(), "tmdb:x imdb:x trailer:x homepage:x",
                where + ".links");
    for (const QJsonValue& tag : m.value("tags").toObject())
        EXPECT_TRUE(tag.isString()) << where.toStdString() << ".tags";
}

inline void expectItem(const QJsonObject& item, const QString& where) {
    expectShape(item,
                "source:o state:s status:n warnings:a lookup:s match:x mainTitle:N titles:x "
                "filters:o passthru:b outputs:x command:a",
                where);
    const QJsonObject source = item.value("source").toObject();
    expectShape(source, "path:s name:s sourceType:s", where + ".source");
    EXPECT_TRUE(QStringList({"video file", "DVD", "Blu-ray", "not scanned"})
                    .contains(source.value("sourceType").toString()));
    EXPECT_TRUE(QStringList({"matched", "no match", "failed", "skipped", "not looked up"})
                    .contains(item.value("lookup").toString()))
        << item.value("lookup").toString().toStdString();
    if (item.value("match").isObject())
        expectMatch(item.value("match").toObject(), where + ".match");
    else
        EXPECT_TRUE(item.value("match").isNull()) << where.toStdString();
    for (const QJsonValue& value : item.value("titles").toArray()) {
        const QJsonObject title = value.toObject();
        expectShape(title,
                    "id:n main:b duration:s seconds:n size:x codec:x fps:x combing:x stream:S "
                    "audio:x subtitles:x",
                    where + ".titles");
        for (const char* list : {"audio", "subtitles"})
            for (const QJsonValue& track : title.value(list).toArray())
                expectTrack(track.toObject(), true, where + ".titles." + list);
    }
    expectShape(item.value("filters").toObject(), "decomb:x denoise:x detelecine:x deblock:x",
                where + ".filters");
    for (const QJsonValue& output : item.value("outputs").toArray())
        expectShape(output.toObject(), "path:s exists:b", where + ".outputs");
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
    const QJsonObject o = doc.object();
    EXPECT_EQ(o.value("command").toString(), command);
    EXPECT_EQ(o.value("exitStatus").toInt(-1), exitStatus) << out.toStdString();
    if (exitStatus == 2 || exitStatus >= 128)
        EXPECT_TRUE(o.value("error").isString()) << out.toStdString();
    if (exitStatus == 0)
        EXPECT_TRUE(o.value("error").isNull()) << out.toStdString();

    const QString common = QStringLiteral("command:s exitStatus:n error:S warnings:a ");
    if (QStringList({"scan", "report", "encode", "retag"}).contains(command)) {
        expectShape(o, common + "items:x", command);
        for (const QJsonValue& item : o.value("items").toArray())
            expectItem(item.toObject(), command + ".items");
    } else if (command == "lookup") {
        expectShape(o, common + "query:x language:x match:x hits:x", command);
        if (!o.value("match").isNull())
            expectMatch(o.value("match").toObject(), "lookup.match");
        for (const QJsonValue& hit : o.value("hits").toArray())
            expectMatch(hit.toObject(), "lookup.hits");
    } else if (command == "library") {
        expectShape(o, common + "folder:x genres:o", command);
    } else if (command == "tags") {
        expectShape(o, common + "file:x tags:x", command);
        const QJsonObject tags = o.value("tags").toObject();
        for (auto [tag, kind] : {std::pair{"Media Kind", 's'},
                                 {"HD Video", 'n'},
                                 {"Content Rating", 's'},
                                 {"Gapless", 'b'},
                                 {"Podcast", 'b'},
                                 {"Artwork", 'b'}})
            EXPECT_TRUE(tags.isEmpty() ||
                        hasKind(tags.value(QLatin1String(tag)), QLatin1Char(kind)))
                << tag;
    } else if (command == "tracks") {
        expectShape(o, common + "file:x tracks:x", command);
        for (const QJsonValue& track : o.value("tracks").toArray())
            expectTrack(track.toObject(), false, "tracks");
    } else {
        ADD_FAILURE() << "no JSON shape known for " << command.toStdString();
    }
    return o;
}

} // namespace testsupport
