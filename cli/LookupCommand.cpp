// `tarnwick-cli lookup TITLE [--language xx-YY] [--json]`: searches the movie
// database for TITLE, takes the first hit as the match (as the browsers do),
// queries its full record and prints it: one "Tag: value" line per non-empty
// tag, or with --json the match and all hits in the shapes of cli/Describe.
//
// The language region defaults to the "Language Region" setting. The database
// is the one named by TARNWICK_TMDB_URL when set (the loopback server of the
// offline demo). A failed lookup (refused key, server error, time-out, no
// connection) is told apart from "no match"; Ctrl-C ends it at once.
#include "cli/Commands.h"
#include "cli/Describe.h"
#include "cli/Terminal.h"

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

int runLookup(cli::Invocation& run) {
    if (run.positional().isEmpty() || run.positional().constFirst().trimmed().isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no title given"));
    if (run.positional().size() > 1)
        return cli::usageError(kCommand,
                               QStringLiteral("one title only (quote a title with spaces)"));
    const QString title = run.positional().constFirst();
    QString language = run.value(QStringLiteral("language"));
    if (run.isSet(QStringLiteral("language"))) {
        static const QRegularExpression region(QStringLiteral("^[a-z]{2}-[A-Za-z]{2,3}$"));
        if (!region.match(language).hasMatch())
            return cli::usageError(
                kCommand,
                QStringLiteral("not a language region (such as en-US): \"%1\"").arg(language));
    }

    QString error;
    cli::StartupScope startup;
    if (!startup.begin(&error))
        return cli::failure(error);
    if (language.isEmpty())
        language = UserDefaults::standard().stringForKey(SettingsKey::LanguageRegion);
    if (language.size() < 5)
        language = QStringLiteral("en-US");
    if (run.json()) {
        cli::setJsonMember(QStringLiteral("query"), title);
        cli::setJsonMember(QStringLiteral("language"), language);
        cli::setJsonMember(QStringLiteral("match"), QJsonValue::Null);
        cli::setJsonMember(QStringLiteral("hits"), QJsonArray());
    }

    // Ctrl-C ends a pending request at once.
    cli::InterruptWatcher interrupts;
    auto interrupted = [&] {
        interrupts.poll();
        if (interrupts.count() == 0 && !cli::InterruptWatcher::pending())
            return false;
        cli::err() << "tarnwick-cli: interrupted" << Qt::endl;
        return true;
    };
    auto exitStatus = [&] {
        return interrupts.exitStatus() ? interrupts.exitStatus() : cli::kExitInterrupted;
    };
    MDB_TheMovieDb client;
    if (interrupted())
        return exitStatus();
    Waiter waiter;
    client.search(title, language, &waiter);
    waiter.wait();
    if (interrupted())
        return exitStatus();
    if (waiter.hits.empty()) {
        const MDB_TheMovieDb::Error why = client.lastError();
        if (why.failed())
            return cli::failure(
                QStringLiteral("lookup of \"%1\" failed: %2").arg(title, why.message()));
        return cli::failure(QStringLiteral("no match for \"%1\" in the movie database").arg(title));
    }

    QStringList hitNames;
    QJsonArray hits;
    for (const auto& hit : waiter.hits) {
        hitNames.append(hit->getTag(QString::fromLatin1(TagName::Name)));
        hits.append(cli::matchJson(*hit));
    }

    // The first hit is the match; the query fills it in place.
    MDB_Metadata* match = waiter.hits.front().get();
    client.query(match, language, &waiter);
    waiter.wait();
    if (interrupted())
        return exitStatus();
    const MDB_TheMovieDb::Error why = client.lastError();
    if (why.failed())
        return cli::failure(
            QStringLiteral("lookup of \"%1\" failed: %2").arg(title, why.message()));

    if (run.json()) {
        cli::setJsonMember(QStringLiteral("match"), cli::matchJson(*match));
        cli::setJsonMember(QStringLiteral("hits"), hits);
    } else {
        printText(*match, hitNames);
    }
    return cli::kExitOk;
}

const cli::CommandRegistration registration(
    {kCommand,
     {QStringLiteral("lookup TITLE [--language xx-YY] [--json]")},
     QStringLiteral("look one title up in the movie database and print the match"),
     QStringLiteral(
         "Searches the movie database for TITLE, takes the first hit as the match (as scan and "
         "encode do), fetches its full record and prints one \"Tag: value\" line per tag, the "
         "web links, posters and backdrops, and the other hits.\n\n"
         "The database is TheMovieDb unless TARNWICK_TMDB_URL names another address; "
         "TARNWICK_TMDB_API_KEY replaces the built-in key. A lookup that failed (a refused key, a "
         "server error, no answer within 15 s, no connection) says so, apart from \"no match\"."),
     {{QStringLiteral("TITLE"), QStringLiteral("the title to search for (quote it when it has "
                                               "spaces)")}},
     {{{QStringLiteral("language")},
       QStringLiteral("xx-YY"),
       QStringLiteral("the language and region of the texts and the rating, such as de-DE "
                      "(default: the \"Language Region\" setting)")}},
     true,
     QStringLiteral("0 a match was found, 1 no match or the lookup failed, 2 usage error, 130 "
                    "interrupted."),
     runLookup,
     QJsonObject{{QStringLiteral("query"), QJsonValue::Null},
                 {QStringLiteral("language"), QJsonValue::Null},
                 {QStringLiteral("match"), QJsonValue::Null},
                 {QStringLiteral("hits"), QJsonArray()}}});

} // namespace
