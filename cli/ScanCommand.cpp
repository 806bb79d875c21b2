// `tarnwick-cli scan SOURCE... [--title N] [--skip-tagging] [--json] [--yes]`:
// runs the encode browser's scan session over the sources with the encoder
// tool, one after another, matches each against the movie database, and
// prints per item its status, source type, main title, tracks in order with
// their include flags, the match and the encoder command line the item would
// run. A source without hits is asked about on the terminal (a new name to
// search for, or empty to skip); with --yes, or without a terminal, it is
// skipped as the panel's Skip button does. --title N scans title N of every
// source (0, the default, scans all titles and picks the longest);
// --skip-tagging holds for this run only. Progress goes to stderr. The exit
// status is 0 when every source ended ready, 1 otherwise.
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

// "mpaa|PG-13|300|" -> "PG-13"
QString ratingLabel(const QString& rating) {
    const QStringList parts = rating.split(QLatin1Char('|'));
    return parts.size() > 1 ? parts.at(1) : rating;
}

QStringList commandLine(MDI_Media& item) {
    if (!item.isValid() || !item.getMainTitle())
        return {};
    const bool passThru = item.passthruVideo() && item.canPassthru();
    return item.getCmdArgs(item.primaryDevice(), passThru,
                           Resources::auxiliaryExecutable(QStringLiteral("Tarnwick_Pro_Encoder")),
                           item.outPath());
}

QJsonObject itemJson(MDI_Media& item) {
    QJsonObject o;
    o.insert("source", item.inPath());
    o.insert("name", item.name());
    o.insert("status", item.status());
    o.insert("state", statusName(item.status()));
    if (!item.warnings().isEmpty())
        o.insert("warning", item.warnings());
    o.insert("sourceType", cli::sourceTypeName(item.sourceType()));
    o.insert("output", item.outPath());
    if (const Title* title = item.getMainTitle()) {
        QJsonObject t;
        t.insert("title", title->ID());
        t.insert("duration", title->duration());
        t.insert("size", title->size());
        t.insert("codec", title->codec());
        QJsonArray audio;
        for (const auto& track : title->audioTracks()) {
            audio.append(QJsonObject{{"track", track->origIndex()},
                                     {"name", track->name()},
                                     {"language", track->isoName()},
                                     {"codec", track->codec()},
                                     {"channels", track->channels()},
                                     {"include", track->include()}});
        }
        QJsonArray subtitles;
        for (const auto& track : title->subtitleTracks()) {
            subtitles.append(QJsonObject{{"track", track->origIndex()},
                                         {"name", track->name()},
                                         {"language", track->isoName()},
                                         {"type", track->type()},
                                         {"include", track->include()},
                                         {"burn", track->burn()}});
        }
        t.insert("audio", audio);
        t.insert("subtitles", subtitles);
        o.insert("mainTitle", t);
    }
    if (item.isValid() && !tagText(item, TagName::TMDbID).isEmpty()) {
        const MDB_Metadata* record = item.metaData();
        o.insert("match",
                 QJsonObject{{"name", tagText(item, TagName::Name)},
                             {"year", tagText(item, TagName::ReleaseDate).left(4)},
                             {"rating", tagText(item, TagName::Rating)},
                             {"genre", tagText(item, TagName::Genre)},
                             {"tmdbID", tagText(item, TagName::TMDbID)},
                             {"imdbID", tagText(item, TagName::IMDbID)},
                             {"poster", record ? record->getArtworkURL().toString() : QString()}});
    }
    const QStringList args = commandLine(item);
    if (!args.isEmpty())
        o.insert("command", QJsonArray::fromStringList(args));
    return o;
}

void printItem(MDI_Media& item) {
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
    if (!tagText(item, TagName::TMDbID).isEmpty()) {
        const QString year = tagText(item, TagName::ReleaseDate).left(4);
        out << "  match:      " << tagText(item, TagName::Name)
            << (year.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(year)) << Qt::endl;
        out << "  rating:     " << ratingLabel(tagText(item, TagName::Rating)) << Qt::endl;
        out << "  genre:      " << tagText(item, TagName::Genre) << Qt::endl;
        out << "  TMDb ID:    " << tagText(item, TagName::TMDbID) << Qt::endl;
        out << "  IMDb ID:    " << tagText(item, TagName::IMDbID) << Qt::endl;
        if (const MDB_Metadata* record = item.metaData())
            out << "  poster:     " << record->getArtworkURL().toString() << Qt::endl;
    } else {
        out << "  match:      none" << Qt::endl;
    }
    QStringList quoted;
    for (const QString& arg : commandLine(item))
        quoted << cli::shellQuoted(arg);
    out << "  command:    " << quoted.join(u' ') << Qt::endl;
}

int runScan(const QStringList& args) {
    QStringList sources;
    std::optional<qint64> title;
    bool skipTagging = false;
    bool json = false;
    bool assumeYes = false;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& a = args.at(i);
        if (a == QLatin1String("--title")) {
            bool ok = false;
            const qint64 n = i + 1 < args.size() ? args.at(i + 1).toLongLong(&ok) : 0;
            if (!ok || n < 0)
                return cli::usageError(kCommand,
                                       QStringLiteral("--title needs a title number (0 = all)"));
            title = n;
            ++i;
        } else if (a == QLatin1String("--skip-tagging")) {
            skipTagging = true;
        } else if (a == QLatin1String("--json")) {
            json = true;
        } else if (a == QLatin1String("--yes") || a == QLatin1String("-y")) {
            assumeYes = true;
        } else if (a.startsWith(QLatin1String("--"))) {
            return cli::usageError(kCommand, QStringLiteral("unknown option %1").arg(a));
        } else {
            sources << a;
        }
    }
    if (sources.isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no source given"));
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

    cli::ProgressLine progress(cli::stderrIsTerminal());
    cli::TerminalBrowserDelegate delegate(assumeYes, cli::interactive(), progress);
    auto list = std::make_shared<MediaItemList>();
    EncodeBrowserController browser(list);
    browser.setViewVisible(false);
    browser.setBrowserDelegate(&delegate);

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

    QEventLoop loop;
    QTimer poll;
    bool interrupted = false;
    QObject::connect(&poll, &QTimer::timeout, [&] {
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

    if (interrupted)
        return cli::failure(QStringLiteral("interrupted"));
    if (json) {
        QJsonArray items;
        for (const auto& item : *list)
            items.append(itemJson(*item));
        cli::out() << QJsonDocument(items).toJson(QJsonDocument::Indented);
    } else {
        bool first = true;
        for (const auto& item : *list) {
            if (!first)
                cli::out() << Qt::endl;
            first = false;
            printItem(*item);
        }
    }
    cli::out().flush();
    for (const auto& item : *list) {
        if (item->status() != 8)
            return cli::kExitFailure;
    }
    return cli::kExitOk;
}

const cli::CommandRegistration registration({
    kCommand,
    QStringLiteral("scan SOURCE... [--title N] [--skip-tagging] [--json] [--yes]"),
    runScan,
});

} // namespace
