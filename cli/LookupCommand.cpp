// `tarnwick-cli lookup TITLE [--language xx-YY] [--json]`: searches the movie
// database for TITLE, takes the first hit as the match (as the browsers do),
// queries its full record and prints it: one "Tag: value" line per non-empty
// tag, or with --json one object keyed by tag names with the artwork lists,
// web links and the names of all hits ("searchHits").
//
// The language region defaults to the "Language Region" setting. The database
// is the one named by TARNWICK_TMDB_URL when set (the loopback server of the
// offline demo).
#include "cli/Commands.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "lookup/MDB_TheMovieDb.h"
#include "metadata/TagNames.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>

namespace {

const QString kCommand = QStringLiteral("lookup");

// Collects the client's callbacks and ends the wait for them.
class Waiter : public MDB_TheMovieDbDelegate {
public:
    void searchComplete(std::vector<std::unique_ptr<MDB_Metadata>> results) override {
        hits = std::move(results);
        m_loop.quit();
    }
    void queryComplete(MDB_Metadata*) override { m_loop.quit(); }
    void wait() { m_loop.exec(); }

    std::vector<std::unique_ptr<MDB_Metadata>> hits;

private:
    QEventLoop m_loop;
};

QJsonValue urlValue(const QVariant& value) {
    const QUrl url = value.toUrl();
    if (!value.isValid() || url.isEmpty())
        return QJsonValue::Null;
    return url.toString();
}

QJsonArray urlList(const QList<QUrl>& urls) {
    QJsonArray list;
    for (const QUrl& url : urls)
        list.append(url.toString());
    return list;
}

QJsonObject toJson(const MDB_Metadata& record, const QStringList& hitNames) {
    QJsonObject object;
    for (auto it = record.tagsDict().cbegin(); it != record.tagsDict().cend(); ++it)
        object.insert(it.key(), it.value());
    object.insert(QStringLiteral("artworkFullsizeURLs"), urlList(record.artworkFullsizeURLs()));
    object.insert(QStringLiteral("artworkThumbURLs"), urlList(record.artworkThumbURLs()));
    object.insert(QStringLiteral("backdropFullsizeURLs"), urlList(record.backdropFullsizeURLs()));
    object.insert(QStringLiteral("tmdb"), urlValue(record.tmdb()));
    object.insert(QStringLiteral("imdb"), urlValue(record.imdb()));
    object.insert(QStringLiteral("trailer"), urlValue(record.trailer()));
    object.insert(QStringLiteral("homepage"), urlValue(record.homepage()));
    object.insert(QStringLiteral("tagLine"), record.tagLine().isValid()
                                                 ? QJsonValue(record.tagLine().toString())
                                                 : QJsonValue(QJsonValue::Null));
    object.insert(QStringLiteral("searchHits"), QJsonArray::fromStringList(hitNames));
    return object;
}

void printText(const MDB_Metadata& record, const QStringList& hitNames) {
    QTextStream& out = cli::out();
    const QMap<QString, QString>& tags = record.tagsDict();
    QStringList order = MDB_Metadata::availableMetadata();
    // Tags outside the display list (database ids and the like) come last.
    QStringList rest;
    for (auto it = tags.cbegin(); it != tags.cend(); ++it) {
        if (!order.contains(it.key()))
            rest.append(it.key());
    }
    order += rest;
    for (const QString& key : std::as_const(order)) {
        const QString value = tags.value(key);
        if (!value.isEmpty())
            out << key << ": " << value << '\n';
    }
    auto line = [&out](const char* label, const QString& value) {
        if (!value.isEmpty())
            out << label << ": " << value << '\n';
    };
    line("Tag Line", record.tagLine().toString());
    line("Homepage", record.homepage().toUrl().toString());
    line("TMDb Page", record.tmdb().toUrl().toString());
    line("IMDb Page", record.imdb().toUrl().toString());
    line("Trailer", record.trailer().toUrl().toString());
    for (const QUrl& url : record.artworkFullsizeURLs())
        line("Poster", url.toString());
    for (const QUrl& url : record.backdropFullsizeURLs())
        line("Backdrop", url.toString());
    if (hitNames.size() > 1)
        line("Other Hits", hitNames.mid(1).join(QStringLiteral("; ")));
    out.flush();
}

int runLookup(const QStringList& args) {
    QString title;
    QString language;
    bool json = false;
    bool titleSeen = false;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args.at(i);
        if (arg == QLatin1String("--json")) {
            json = true;
        } else if (arg == QLatin1String("--language")) {
            if (i + 1 >= args.size())
                return cli::usageError(kCommand, QStringLiteral("--language needs a value"));
            language = args.at(++i);
            static const QRegularExpression region(QStringLiteral("^[a-z]{2}-[A-Za-z]{2,3}$"));
            if (!region.match(language).hasMatch())
                return cli::usageError(
                    kCommand,
                    QStringLiteral("not a language region (such as en-US): \"%1\"").arg(language));
        } else if (arg.startsWith(QLatin1String("--"))) {
            return cli::usageError(kCommand, QStringLiteral("unknown option \"%1\"").arg(arg));
        } else if (titleSeen) {
            return cli::usageError(kCommand,
                                   QStringLiteral("one title only (quote a title with spaces)"));
        } else {
            title = arg;
            titleSeen = true;
        }
    }
    if (title.trimmed().isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no title given"));

    QString error;
    cli::StartupScope startup;
    if (!startup.begin(&error))
        return cli::failure(error);
    if (language.isEmpty())
        language = UserDefaults::standard().stringForKey(SettingsKey::LanguageRegion);
    if (language.size() < 5)
        language = QStringLiteral("en-US");

    MDB_TheMovieDb client;
    Waiter waiter;
    client.search(title, language, &waiter);
    waiter.wait();
    if (waiter.hits.empty()) {
        if (MDB_TheMovieDb::cachedConfiguration().isEmpty())
            return cli::failure(QStringLiteral("no match for \"%1\": the movie database at %2 "
                                               "did not answer")
                                    .arg(title, MDB_TheMovieDb::baseURL()));
        return cli::failure(QStringLiteral("no match for \"%1\" in the movie database").arg(title));
    }

    QStringList hitNames;
    for (const auto& hit : waiter.hits)
        hitNames.append(hit->getTag(QString::fromLatin1(TagName::Name)));

    // The first hit is the match; the query fills it in place.
    MDB_Metadata* match = waiter.hits.front().get();
    client.query(match, language, &waiter);
    waiter.wait();

    if (json) {
        cli::out() << QJsonDocument(toJson(*match, hitNames)).toJson(QJsonDocument::Indented);
        cli::out().flush();
    } else {
        printText(*match, hitNames);
    }
    return cli::kExitOk;
}

const cli::CommandRegistration registration({
    kCommand,
    QStringLiteral("lookup TITLE [--language xx-YY] [--json]"),
    runLookup,
});

} // namespace
