// `tarnwick-cli retag FILE... [--search TITLE] [--yes] [--json]`: looks
// existing movie files up in the movie database through the retag browser
// (scan, search, match; the file's own tags win over the match, as in the
// tag editor), shows per file what will be written, asks once for all files
// and writes the tags back into the same files.
//
// Each file is searched under its file name without the extension.
// --search TITLE searches TITLE instead and takes its first hit as picked by
// hand (the retag browser's searchByHand): the match then replaces the
// file's old tags. It takes exactly one file, since one title for several
// files would give them all the same movie. A file without hits is asked
// about on the terminal (a new name, or empty to skip it); with --yes, or
// without a terminal, it is skipped. A file whose lookup found nothing or
// failed is not written. Writing needs a "y" on the terminal or --yes;
// without a terminal and without --yes nothing is written. Progress goes to
// stderr. Ctrl-C during the lookup writes nothing; during the writing it
// stops before the next file (each write is whole or not at all); the exit
// status is then 128 + the signal. Otherwise it is 0 only when every file
// was written.
#include "cli/BrowserPrompts.h"
#include "cli/Commands.h"
#include "cli/Describe.h"
#include "cli/Terminal.h"

#include "core/Resources.h"
#include "library/RetagBrowserController.h"
#include "metadata/TagNames.h"

#include <QEventLoop>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <optional>

namespace {

const QString kCommand = QStringLiteral("retag");

QString tagText(const MDI_Media& item, const char* name) {
    return item.getTag(QString::fromLatin1(name));
}

int peopleCount(const QString& people) {
    return people.trimmed().isEmpty() ? 0 : int(MDB_Metadata::dictArrayFromString(people).size());
}

// Which cover the file will carry after the write.
QString coverText(const MDI_Media& item) {
    const MDB_Metadata* record = item.metaData();
    if (!record || record->artwork().isNull())
        return QStringLiteral("no");
    if (!record->isArtworkEdited())
        return QStringLiteral("yes (unchanged)");
    const QUrl url = record->getArtworkURL();
    if (url.scheme().startsWith(QLatin1String("http")))
        return QStringLiteral("yes (movie database)");
    if (url.isLocalFile() &&
        url.toLocalFile() == Resources::path(QStringLiteral("MovieTicket.png")))
        return QStringLiteral("placeholder (no poster found)");
    return QStringLiteral("yes (the file's own)");
}

// Where the lookup of one item stands, 0 to 100.
int lookupPercent(qint32 status) {
    switch (status) {
    case 2:
        return 0;
    case 3:
        return 10;
    case 4:
        return 35;
    case 5:
        return 45;
    case 6:
        return 60;
    case 7:
        return 70;
    default:
        return 100;
    }
}

QString orDash(const QString& text) {
    return text.isEmpty() ? QStringLiteral("-") : text;
}

void printPlan(const MDI_Media& item, const QString& outcome) {
    QTextStream& out = cli::out();
    out << item.inPath() << Qt::endl;
    if (item.status() != 8) {
        out << "  failed:     " << item.warnings() << Qt::endl;
        return;
    }
    if (outcome == QLatin1String(cli::lookup::Failed)) {
        out << "  lookup failed: " << item.lookupError() << Qt::endl
            << "  nothing will be written" << Qt::endl;
        return;
    }
    if (outcome == QLatin1String(cli::lookup::NoMatch)) {
        out << "  match:      none: nothing found for \"" << item.name() << "\"" << Qt::endl
            << "  nothing will be written" << Qt::endl;
        return;
    }
    out << "  name:       " << orDash(tagText(item, TagName::Name)) << Qt::endl;
    out << "  released:   " << orDash(tagText(item, TagName::ReleaseDate)) << Qt::endl;
    out << "  genre:      " << orDash(tagText(item, TagName::Genre)) << Qt::endl;
    out << "  rating:     " << orDash(cli::ratingLabel(tagText(item, TagName::Rating))) << Qt::endl;
    out << "  director:   " << orDash(tagText(item, TagName::Director)) << Qt::endl;
    out << "  cast:       " << peopleCount(tagText(item, TagName::Cast)) << " people" << Qt::endl;
    out << "  cover:      " << coverText(item) << Qt::endl;
    const QString id = tagText(item, TagName::TMDbID);
    out << "  match:      "
        << (id.isEmpty() ? QStringLiteral("none") : QStringLiteral("TMDb ") + id) << Qt::endl;
}

int runRetag(cli::Invocation& run) {
    const QStringList files = run.positional();
    std::optional<QString> search;
    if (run.isSet(QStringLiteral("search"))) {
        if (run.value(QStringLiteral("search")).trimmed().isEmpty())
            return cli::usageError(kCommand, QStringLiteral("--search needs a title"));
        search = run.value(QStringLiteral("search")).trimmed();
    }
    std::optional<qint64> pick;
    if (run.isSet(QStringLiteral("pick"))) {
        bool ok = false;
        pick = run.value(QStringLiteral("pick")).toLongLong(&ok);
        if (!ok || *pick < 1)
            return cli::usageError(kCommand,
                                   QStringLiteral("--pick needs a hit number (1 = the first)"));
    }
    std::optional<QString> id;
    if (run.isSet(QStringLiteral("id"))) {
        id = cli::movieIDOption(run);
        if (id->isEmpty())
            return cli::usageError(kCommand, QStringLiteral("--id needs a movie database id"));
    }
    const bool json = run.json();
    const bool assumeYes = run.isSet(QStringLiteral("yes"));
    if (files.isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no file given"));
    if (id && (search || pick))
        return cli::usageError(
            kCommand, QStringLiteral("--id names the movie; it takes no --search or --pick"));
    for (const auto& [given, name] :
         {std::pair{search.has_value(), "--search"}, std::pair{pick.has_value(), "--pick"},
          std::pair{id.has_value(), "--id"}}) {
        if (given && files.size() > 1)
            return cli::usageError(kCommand,
                                   QStringLiteral("%1 takes one file; with several files each "
                                                  "is searched under its own name")
                                       .arg(QLatin1String(name)));
    }
    for (const QString& file : files) {
        const QFileInfo info(file);
        if (!info.exists())
            return cli::failure(QStringLiteral("%1: no such file").arg(file));
        if (!info.isFile())
            return cli::failure(QStringLiteral("%1: not a movie file (a folder)").arg(file));
    }

    QString error;
    cli::StartupScope startup;
    if (!startup.begin(&error))
        return cli::failure(error);

    cli::ProgressLine progress(cli::stderrIsTerminal());
    const bool terminal = cli::interactive();
    cli::TerminalBrowserDelegate delegate(assumeYes, terminal, progress);
    auto list = std::make_shared<MediaItemList>();
    RetagBrowserController browser(list);
    browser.setViewVisible(false);
    browser.setBrowserDelegate(&delegate);
    delegate.setBrowser(&browser);

    auto lookupProgress = [&] {
        if (!browser.scanStatusVisible() || browser.scanStatus().isEmpty())
            return;
        int sum = 0;
        for (const auto& item : *list)
            sum += lookupPercent(item->status());
        const QString title = browser.scanTitle();
        progress.showProgress(title.isEmpty() ? browser.scanStatus()
                                              : title + QStringLiteral(": ") + browser.scanStatus(),
                              list->isEmpty() ? 0.0 : double(sum) / double(list->size()));
    };
    QObject::connect(&browser, &EncodeBrowserController::scanStatusChanged, lookupProgress);

    // Ctrl-C also ends a pending answer on the terminal.
    cli::InterruptWatcher interrupts;
    browser.loadFiles(files);
    // The search follows the scan, so the title is in place in time; its hit
    // counts as picked by hand and replaces the file's old tags.
    if (search && !list->isEmpty() && !browser.searchByHand(list->first(), *search))
        return cli::failure(
            QStringLiteral("%1: cannot be searched as \"%2\"").arg(files.first(), *search));
    if (id && !list->isEmpty() && !browser.pickMovieID(list->first(), *id))
        return cli::failure(
            QStringLiteral("%1: cannot be matched to TMDb id %2").arg(files.first(), *id));

    // False when Ctrl-C ended the wait.
    auto settle = [&] {
        QEventLoop loop;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, [&] {
            interrupts.poll();
            if (interrupts.count() > 0) {
                browser.stopScanning();
                loop.quit();
                return;
            }
            lookupProgress();
            if (cli::scanSessionSettled(browser, delegate.alerted()))
                loop.quit();
        });
        poll.start(50);
        loop.exec();
        progress.finish();
        return interrupts.count() == 0;
    };
    bool settled = settle();
    // The N-th hit of the search that just ran, picked by hand.
    if (settled && pick && !list->isEmpty()) {
        const std::shared_ptr<MDI_Media>& item = list->first();
        const QString outcome = delegate.lookupOutcome(*item, false);
        if (outcome == QLatin1String(cli::lookup::Matched) ||
            outcome == QLatin1String(cli::lookup::NoMatch)) {
            const qsizetype hits =
                outcome == QLatin1String(cli::lookup::Matched) ? item->searchList().size() : 0;
            if (*pick > hits)
                return cli::failure(
                    QStringLiteral("%1: --pick %2: the search for \"%3\" found %4 hit(s); "
                                   "nothing written")
                        .arg(files.first())
                        .arg(*pick)
                        .arg(item->name())
                        .arg(hits));
            if (!browser.pickSearchHit(item, *pick - 1))
                return cli::failure(
                    QStringLiteral("%1: hit %2 cannot be picked").arg(files.first()).arg(*pick));
            settled = settle();
        }
    }
    if (!settled) {
        cli::err() << "tarnwick-cli: interrupted; no file was written" << Qt::endl;
        return interrupts.exitStatus();
    }
    // An id the database does not know, or a failed lookup of it: one line.
    if (id && !list->isEmpty() && !list->first()->lookupError().isEmpty())
        return cli::failure(QStringLiteral("%1: TMDb id %2: %3; nothing written")
                                .arg(files.first(), *id, list->first()->lookupError()));

    // A file is written only when its lookup found its movie.
    QStringList outcomes;
    QList<std::shared_ptr<MDI_Media>> ready;
    for (const auto& item : *list) {
        outcomes << delegate.lookupOutcome(*item, false);
        if (item->status() == 8 && outcomes.constLast() == QLatin1String(cli::lookup::Matched))
            ready << item;
    }
    if (!json) {
        bool first = true;
        for (qsizetype i = 0; i < list->size(); ++i) {
            if (!first)
                cli::out() << Qt::endl;
            first = false;
            printPlan(*list->at(i), outcomes.at(i));
        }
        cli::out().flush();
    }

    // Per file: "written", "failed", "no match" or "not written", and the message.
    QList<QPair<QString, QString>> results(list->size(), {QStringLiteral("not written"), {}});
    for (qsizetype i = 0; i < list->size(); ++i) {
        const MDI_Media& item = *list->at(i);
        if (item.status() != 8)
            results[i] = {QStringLiteral("failed"), item.warnings()};
        else if (outcomes.at(i) == QLatin1String(cli::lookup::Failed))
            results[i] = {
                QStringLiteral("failed"),
                QStringLiteral("lookup failed: %1; nothing written").arg(item.lookupError())};
        else if (outcomes.at(i) == QLatin1String(cli::lookup::NoMatch))
            results[i] = {
                QStringLiteral("no match"),
                QStringLiteral("nothing found for \"%1\"; nothing written").arg(item.name())};
    }

    bool write = !ready.isEmpty();
    QString reason;
    if (write && !assumeYes) {
        if (!terminal) {
            write = false;
            reason = QStringLiteral("Nothing written: no terminal to confirm on; run with --yes "
                                    "to write the tags.");
        } else if (!cli::askYesNo(QStringLiteral("Write tags to %1 file(s)?").arg(ready.size()))) {
            write = false;
            reason = cli::InterruptWatcher::pending()
                         ? QStringLiteral("Interrupted; nothing written.")
                         : QStringLiteral("Nothing written.");
        }
    }

    int written = 0;
    if (write) {
        for (qsizetype i = 0; i < list->size(); ++i) {
            const std::shared_ptr<MDI_Media>& item = list->at(i);
            if (!ready.contains(item))
                continue;
            // A write is whole or not at all; Ctrl-C stops before the next one.
            interrupts.poll();
            if (interrupts.count() > 0) {
                reason = QStringLiteral("Interrupted; the remaining files were not written.");
                break;
            }
            progress.showProgress(QStringLiteral("Writing %1 [%2 of %3]")
                                      .arg(QFileInfo(item->outPath()).fileName())
                                      .arg(written + 1)
                                      .arg(ready.size()),
                                  100.0 * written / double(ready.size()));
            QString message;
            if (browser.saveItem(item, &message)) {
                results[i] = {QStringLiteral("written"), {}};
                ++written;
            } else {
                results[i] = {QStringLiteral("failed"), message};
            }
        }
        progress.finish();
    }
    if (!reason.isEmpty())
        cli::warning(reason);

    if (json) {
        QJsonArray array;
        for (qsizetype i = 0; i < list->size(); ++i) {
            MDI_Media& item = *list->at(i);
            // The item's own warning already says why its lookup failed.
            const QString message =
                !item.lookupError().isEmpty() && results[i].second.contains(item.lookupError())
                    ? QStringLiteral("nothing written")
                    : results[i].second;
            array.append(
                cli::itemJson(item, {results[i].first, outcomes.at(i), QStringList{message},
                                     QStringList{item.outPath()}, false}));
        }
        cli::setJsonMember(QStringLiteral("items"), array);
    } else {
        cli::out() << Qt::endl << "Summary:" << Qt::endl;
        for (qsizetype i = 0; i < list->size(); ++i) {
            cli::out() << "  " << list->at(i)->inPath() << ": " << results[i].first;
            if (!results[i].second.isEmpty())
                cli::out() << " (" << results[i].second << ")";
            cli::out() << Qt::endl;
        }
    }
    cli::out().flush();
    if (interrupts.count() > 0)
        return interrupts.exitStatus();
    return written == list->size() ? cli::kExitOk : cli::kExitFailure;
}

const cli::CommandRegistration registration(
    {kCommand,
     {QStringLiteral("retag FILE... [--search TITLE] [--yes] [--json]"),
      QStringLiteral("retag FILE [--search TITLE] --pick N [--yes] [--json]"),
      QStringLiteral("retag FILE --id TMDB_ID [--yes] [--json]")},
     QStringLiteral("look .m4v files up again and write the match into them in place"),
     QStringLiteral(
         "Scans each file, looks it up in the movie database under its file name and shows what "
         "will be written: the match, with the file's own tags winning over it (as in the tag "
         "editor). After one confirmation for all files (a \"y\" on the terminal, or --yes) the "
         "tags are written back into the same files; nothing is converted.\n\n"
         "A file the database finds nothing for is asked about on a terminal (a name to search "
         "for instead, or empty to skip it). A file whose lookup found nothing or failed is not "
         "written, and the summary says why. Ctrl-C during the lookup writes nothing; during the "
         "writing it stops before the next file (each write is whole or not at all)."),
     {{QStringLiteral("FILE"), QStringLiteral("an MP4 movie file (.m4v, .mp4)")}},
     {{{QStringLiteral("search")},
       QStringLiteral("TITLE"),
       QStringLiteral("search TITLE instead of the file name and take its first hit as picked by "
                      "hand: the match replaces the file's old tags and cover (one FILE only)")},
      {{QStringLiteral("pick")},
       QStringLiteral("N"),
       QStringLiteral("take the N-th hit of the search (1 = the first, in the order the "
                      "database lists them; see tarnwick-cli lookup) as picked by hand: it "
                      "replaces the file's old tags and cover; with --search, the N-th hit of "
                      "TITLE (one FILE only)")},
      {{QStringLiteral("id")},
       QStringLiteral("TMDB_ID"),
       QStringLiteral("match the file to the movie with this movie database id instead of "
                      "searching, as picked by hand (one FILE only)")},
      {{QStringLiteral("y"), QStringLiteral("yes")},
       {},
       QStringLiteral("write without asking; a file without a match is skipped")}},
     true,
     QStringLiteral("0 every file written, 1 some file not written (no match, lookup or write "
                    "failed, not confirmed) or missing, 2 usage error, 130 interrupted."),
     runRetag,
     QJsonObject{{QStringLiteral("items"), QJsonArray()}}});

} // namespace
