// `tarnwick-cli scan SOURCE... [options]`: runs the encode browser's scan
// session over the sources with the encoder tool, one after another, matches
// each against the movie database, and prints per item its status, source
// type, main title, tracks in order with their include flags, the match and
// the encoder command line the item would run. The options and the exit
// status are in the command's help below.
#include "cli/BrowserPrompts.h"
#include "cli/Commands.h"
#include "cli/Describe.h"
#include "cli/Terminal.h"

#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/EncodeBrowserController.h"
#include "metadata/TagNames.h"

#include <QEventLoop>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

namespace {

const QString kCommand = QStringLiteral("scan");

QString tagText(const MDI_Media& item, const char* name) {
    return item.getTag(QString::fromLatin1(name));
}

QString statusName(qint32 status) {
    switch (status) {
    case 0:
        return QStringLiteral("failed");
    case 2:
        return QStringLiteral("waiting");
    case 8:
        return QStringLiteral("ready");
    default:
        return QStringLiteral("busy");
    }
}

void printItem(MDI_Media& item, const QString& lookupOutcome) {
    QTextStream& out = cli::out();
    out << item.name() << Qt::endl;
    out << "  source:     " << item.inPath() << " (" << cli::sourceTypeName(item.sourceType())
        << ")" << Qt::endl;
    if (!item.isValid()) {
        out << "  status:     failed: " << item.warnings() << Qt::endl;
        return;
    }
    out << "  status:     " << statusName(item.status()) << " (" << item.status() << ")"
        << Qt::endl;
    out << "  output:     " << item.outPath() << Qt::endl;
    if (const Title* title = item.getMainTitle()) {
        out << "  main title: " << title->ID() << " (" << title->duration() << ", " << title->size()
            << ", " << title->codec() << ")" << Qt::endl;
        const char* label = "  audio:      ";
        for (const auto& track : title->audioTracks()) {
            out << label << (track->include() ? "[x] " : "[ ] ") << track->origIndex() << " "
                << track->name() << " (" << track->isoName() << ", " << track->codec() << ", "
                << track->channels() << ")" << Qt::endl;
            label = "              ";
        }
        label = "  subtitles:  ";
        for (const auto& track : title->subtitleTracks()) {
            out << label << (track->include() ? "[x] " : "[ ] ") << track->origIndex() << " "
                << track->name() << " (" << track->isoName() << ")"
                << (track->burn() ? " burn" : "") << Qt::endl;
            label = "              ";
        }
    }
    if (lookupOutcome == QLatin1String(cli::lookup::Matched)) {
        const QString year = tagText(item, TagName::ReleaseDate).left(4);
        out << "  match:      " << tagText(item, TagName::Name)
            << (year.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(year)) << Qt::endl;
        out << "  rating:     " << cli::ratingLabel(tagText(item, TagName::Rating)) << Qt::endl;
        out << "  genre:      " << tagText(item, TagName::Genre) << Qt::endl;
        out << "  TMDb ID:    " << tagText(item, TagName::TMDbID) << Qt::endl;
        out << "  IMDb ID:    " << tagText(item, TagName::IMDbID) << Qt::endl;
        if (const MDB_Metadata* record = item.metaData())
            out << "  poster:     " << record->getArtworkURL().toString() << Qt::endl;
    } else if (lookupOutcome == QLatin1String(cli::lookup::Failed)) {
        out << "  match:      none: lookup failed: " << item.lookupError() << Qt::endl;
    } else if (lookupOutcome == QLatin1String(cli::lookup::Skipped)) {
        out << "  match:      none (not looked up: --skip-tagging)" << Qt::endl;
    } else {
        out << "  match:      none" << Qt::endl;
    }
    out << "  passthru:   "
        << (item.passthruVideo() ? (item.canPassthru() ? "yes (source video kept)"
                                                       : "no (the source's video cannot be kept)")
                                 : "no")
        << Qt::endl;
    QStringList quoted;
    for (const QString& arg : cli::encoderCommand(item))
        quoted << cli::shellQuoted(arg);
    out << "  command:    " << quoted.join(u' ') << Qt::endl;
}

int runScan(cli::Invocation& run) {
    const QStringList sources = run.positional();
    std::optional<qint64> title;
    if (run.isSet(QStringLiteral("title"))) {
        bool ok = false;
        const qint64 n = run.value(QStringLiteral("title")).toLongLong(&ok);
        if (!ok || n < 0)
            return cli::usageError(kCommand,
                                   QStringLiteral("--title needs a title number (0 = all)"));
        title = n;
    }
    const bool skipTagging = run.isSet(QStringLiteral("skip-tagging"));
    const bool assumeYes = run.isSet(QStringLiteral("yes"));
    if (run.isSet(QStringLiteral("passthru")) && run.isSet(QStringLiteral("no-passthru")))
        return cli::usageError(kCommand,
                               QStringLiteral("--passthru and --no-passthru exclude each other"));
    if (sources.isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no source given"));
    QString id;
    if (run.isSet(QStringLiteral("id"))) {
        id = cli::movieIDOption(run);
        if (id.isEmpty())
            return cli::usageError(kCommand, QStringLiteral("--id needs a movie database id"));
        if (sources.size() > 1)
            return cli::usageError(kCommand, QStringLiteral("--id takes one source"));
        if (skipTagging)
            return cli::usageError(kCommand,
                                   QStringLiteral("--id and --skip-tagging exclude each other"));
    }
    for (const QString& source : sources) {
        if (!QFileInfo::exists(source))
            return cli::failure(QStringLiteral("%1: no such file or folder").arg(source));
    }

    QString error;
    cli::StartupScope startup;
    if (!startup.begin(&error))
        return cli::failure(error);

    // --skip-tagging holds for this run only: the stored setting comes back
    // before the settings are written at exit.
    cli::RunSettings runSettings;
    if (skipTagging)
        runSettings.set(QString::fromLatin1(SettingsKey::SkipTagging), true);
    if (run.isSet(QStringLiteral("passthru")) || run.isSet(QStringLiteral("no-passthru")))
        runSettings.set(QString::fromLatin1(SettingsKey::PassthruVideo),
                        run.isSet(QStringLiteral("passthru")));

    cli::ProgressLine progress(cli::stderrIsTerminal());
    cli::TerminalBrowserDelegate delegate(assumeYes, cli::interactive(), progress);
    auto list = std::make_shared<MediaItemList>();
    EncodeBrowserController browser(list);
    browser.setViewVisible(false);
    browser.setBrowserDelegate(&delegate);
    delegate.setBrowser(&browser);

    QObject::connect(&browser, &EncodeBrowserController::scanStatusChanged, [&] {
        if (browser.scanStatusVisible() && !browser.scanStatus().isEmpty())
            progress.show(browser.scanTitle().isEmpty()
                              ? browser.scanStatus()
                              : browser.scanTitle() + QStringLiteral(": ") + browser.scanStatus());
    });

    // Ctrl-C also ends a pending answer to the no-hits question.
    cli::InterruptWatcher interrupts;
    QList<qint64> titles;
    if (title)
        titles = QList<qint64>(sources.size(), *title);
    const int added = browser.loadFiles(sources, titles);
    if (added < sources.size())
        cli::err() << "Note: " << sources.size() - added
                   << " source(s) skipped: application or bundle folders are not movies."
                   << Qt::endl;
    // Matched to the id after its scan, instead of searched.
    if (!id.isEmpty() && !list->isEmpty() && !browser.pickMovieID(list->first(), id))
        return cli::failure(
            QStringLiteral("%1: cannot be matched to TMDb id %2").arg(sources.first(), id));

    QEventLoop loop;
    QTimer poll;
    bool interrupted = false;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        interrupts.poll();
        if (interrupts.count() > 0) {
            interrupted = true;
            browser.stopScanning();
            loop.quit();
            return;
        }
        if (cli::scanSessionSettled(browser, delegate.alerted()))
            loop.quit();
    });
    poll.start(50);
    loop.exec();
    progress.finish();

    if (interrupted) {
        cli::err() << "tarnwick-cli: interrupted" << Qt::endl;
        return interrupts.exitStatus();
    }
    bool allReady = true;
    QJsonArray items;
    bool first = true;
    for (const auto& item : *list) {
        const QString outcome = delegate.lookupOutcome(*item, skipTagging);
        allReady = allReady && item->status() == 8 && outcome != QLatin1String(cli::lookup::Failed);
        if (run.json()) {
            items.append(cli::itemJson(
                *item,
                {statusName(item->status()), outcome, {}, QStringList{item->outPath()}, true}));
            continue;
        }
        if (!first)
            cli::out() << Qt::endl;
        first = false;
        printItem(*item, outcome);
    }
    if (run.json())
        cli::setJsonMember(QStringLiteral("items"), items);
    cli::out().flush();
    return allReady ? cli::kExitOk : cli::kExitFailure;
}

const cli::CommandRegistration registration(
    {kCommand,
     {QStringLiteral("scan SOURCE... [options]"),
      QStringLiteral("scan SOURCE --id TMDB_ID [options]")},
     QStringLiteral("scan and match sources; show their tracks, match and encoder command"),
     QStringLiteral(
         "Scans each source with the encoder tool, one after another, looks it up in the movie "
         "database, and prints per source its status, source type, main title, audio and "
         "subtitle tracks in order with their include flags ([x]), the match and the encoder "
         "command line an encode would run. Progress goes to standard error.\n\n"
         "A source the database finds nothing for is asked about on a terminal (a name to search "
         "for instead, or empty to skip it); with --yes, or without a terminal, it is skipped. A "
         "lookup that failed (a refused key, a server error, no answer, no connection) is not "
         "asked about: its message is shown and the source counts as failed."),
     {{QStringLiteral("SOURCE"), QStringLiteral("a video file, a DVD folder (VIDEO_TS) or an "
                                                "unprotected Blu-ray folder (BDMV)")}},
     {{{QStringLiteral("title")},
       QStringLiteral("N"),
       QStringLiteral("scan title N of every source; 0, the default, scans all titles and takes "
                      "the longest as the main title")},
      {{QStringLiteral("id")},
       QStringLiteral("TMDB_ID"),
       QStringLiteral("match the source to the movie with this movie database id instead of "
                      "searching, as picked by hand (one SOURCE only)")},
      {{QStringLiteral("skip-tagging")},
       {},
       QStringLiteral("do not look the sources up in the movie database (this run only)")},
      {{QStringLiteral("passthru")},
       {},
       QStringLiteral("keep the source's H.264 video where it fits the preset (this run only; "
                      "the setting \"Passthru Video\" otherwise decides)")},
      {{QStringLiteral("no-passthru")},
       {},
       QStringLiteral("always encode the video (this run only)")},
      {{QStringLiteral("y"), QStringLiteral("yes")},
       {},
       QStringLiteral("ask nothing: a source without a match is skipped")}},
     true,
     QStringLiteral("0 every source scanned and looked up (a source the database found nothing "
                    "for counts as done), 1 some source failed its scan or its lookup, or does "
                    "not exist, 2 usage error, 130 interrupted."),
     runScan,
     QJsonObject{{QStringLiteral("items"), QJsonArray()}}});

} // namespace
