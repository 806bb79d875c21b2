// `tarnwick-cli encode SOURCE... [options]`: the whole road of a movie
// through the application controller. Every source is scanned and matched,
// then the processing queue converts the ready ones one after another
// (encode, tags, muxing, iTunes move) while a progress line runs on stderr; a
// summary of every source goes to stdout.
//
// The options hold for this run only: the stored settings they stand for are
// put back before the settings are written at exit. Ctrl-C or SIGTERM stops
// the queue as the stop command does (the movie being converted goes back to
// the queue and its unfinished file is removed); a second Ctrl-C quits at
// once. A source whose lookup failed is encoded, but its file keeps the tags
// the encoder wrote (nothing is written over them as if it were matched).
// Exit status: 0 when every source ended done, 1 otherwise, 2 for bad
// arguments, 128 + the signal after an interrupt.
//
// Kept in one file, longer than most: the options, the progress display, the
// signal handling and the summary all work on the one EncodeRun below, which
// no other command uses, so splitting it would only move it into a header.
#include "cli/BrowserPrompts.h"
#include "cli/Commands.h"
#include "cli/Describe.h"
#include "cli/Terminal.h"

#include "core/Bookmark.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/Startup.h"
#include "core/UserDefaults.h"
#include "media/EncodeBrowserController.h"
#include "metadata/MDB_Metadata.h"
#include "mp4/mp4.h"
#include "presets/MDB_Devices.h"
#include "processing/AppDelegate.h"
#include "processing/EncoderController.h"
#include "processing/ITunesFolder.h"
#include "processing/MuxerController.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTimer>

#include <map>
#include <optional>

namespace {

const QString kCommand = QStringLiteral("encode");
// How long a stopped tool gets to end before it is killed.
constexpr int kStopGraceMs = 20000;

QString key(const char* name) {
    return QString::fromLatin1(name);
}

struct Options {
    QStringList sources;
    QString dest;
    QString preset;
    QString secondary;
    QString iTunes;
    QString id;
    std::optional<qint64> title;
    bool hdsd = false;
    bool skipTagging = false;
    std::optional<bool> passthru;
    bool assumeYes = false;
    bool json = false;
};

// Answers the exit status of a bad command line, or nothing when the options are good.
std::optional<int> parse(const cli::Invocation& run, Options& o) {
    o.sources = run.positional();
    struct Valued {
        const char* name;
        QString* into;
    };
    for (const Valued& v : {Valued{"dest", &o.dest}, Valued{"preset", &o.preset},
                            Valued{"secondary", &o.secondary}, Valued{"add-itunes", &o.iTunes}}) {
        const QString name = QLatin1String(v.name);
        if (!run.isSet(name))
            continue;
        *v.into = run.value(name);
        if (v.into->isEmpty())
            return cli::usageError(kCommand, QStringLiteral("--%1 needs a value").arg(name));
    }
    if (run.isSet(QStringLiteral("title"))) {
        bool ok = false;
        const qint64 n = run.value(QStringLiteral("title")).toLongLong(&ok);
        if (!ok || n < 0)
            return cli::usageError(kCommand,
                                   QStringLiteral("--title needs a title number (0 = all)"));
        o.title = n;
    }
    o.hdsd = run.isSet(QStringLiteral("hd-sd"));
    o.skipTagging = run.isSet(QStringLiteral("skip-tagging"));
    o.assumeYes = run.isSet(QStringLiteral("yes"));
    o.json = run.json();
    if (run.isSet(QStringLiteral("passthru")) && run.isSet(QStringLiteral("no-passthru")))
        return cli::usageError(kCommand,
                               QStringLiteral("--passthru and --no-passthru exclude each other"));
    if (run.isSet(QStringLiteral("passthru")) || run.isSet(QStringLiteral("no-passthru")))
        o.passthru = run.isSet(QStringLiteral("passthru"));
    if (o.sources.isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no source given"));
    if (run.isSet(QStringLiteral("id"))) {
        o.id = cli::movieIDOption(run);
        if (o.id.isEmpty())
            return cli::usageError(kCommand, QStringLiteral("--id needs a movie database id"));
        if (o.sources.size() > 1)
            return cli::usageError(kCommand, QStringLiteral("--id takes one source"));
        if (o.skipTagging)
            return cli::usageError(kCommand,
                                   QStringLiteral("--id and --skip-tagging exclude each other"));
    }
    for (const QString* folder : {&o.dest, &o.iTunes}) {
        if (folder->isEmpty())
            continue;
        const QFileInfo info(*folder);
        if (info.exists() && !info.isDir())
            return cli::usageError(kCommand, QStringLiteral("%1: not a folder").arg(*folder));
    }
    // A source that is not there is a failed source, not a bad command line.
    for (const QString& source : std::as_const(o.sources)) {
        if (!QFileInfo::exists(source))
            return cli::failure(QStringLiteral("%1: no such file or folder").arg(source));
    }
    return std::nullopt;
}

// Makes a folder named on the command line, answers its absolute path.
std::optional<QString> makeFolder(const QString& path, QString* error) {
    const QString absolute = QFileInfo(path).absoluteFilePath();
    if (!QDir().mkpath(absolute)) {
        *error = QStringLiteral("%1: cannot create the folder").arg(path);
        return std::nullopt;
    }
    return QDir::cleanPath(absolute);
}

// The "Update Notice" on the terminal; --yes accepts it, and without a
// terminal it is refused (updating resets the user's own presets).
class TerminalPanels : public AppPanelDelegate {
public:
    TerminalPanels(bool assumeYes, cli::ProgressLine& progress)
        : m_assumeYes(assumeYes), m_progress(progress) {}

    bool runUpdateNotice(const QString& title, const QString& text) override {
        m_progress.message(title + QStringLiteral(": ") + text);
        if (m_assumeYes) {
            m_progress.message(QStringLiteral("Presets updated (--yes)."));
            return true;
        }
        if (!cli::interactive()) {
            refused = true;
            return false;
        }
        const bool ok = cli::askYesNo(QStringLiteral("Update the device presets now?"));
        refused = !ok;
        return ok;
    }

    bool refused = false;

private:
    bool m_assumeYes;
    cli::ProgressLine& m_progress;
};

// What became of one source, for the summary.
struct Outcome {
    QString source;
    QString name;
    QString state; // done, untagged, failed, partial, stopped
    qint32 status = 0;
    QStringList outputs;
    QStringList warnings;
    std::shared_ptr<MDI_Media> item;
    QString lookup;
};

QString etaText(const QString& timeField) {
    static const QRegularExpression remaining(
        QStringLiteral("^\\((\\d+)h (\\d+)m (\\d+)s remaining\\)$"));
    const QRegularExpressionMatch m = remaining.match(timeField);
    if (m.hasMatch())
        return QStringLiteral("ETA %1h%2m%3s").arg(m.captured(1), m.captured(2), m.captured(3));
    // "(Estimating...)", "(Transcoding Complete)" and the like add nothing to the line.
    return QString();
}

QString scanPhase(const QString& scanStatus) {
    if (scanStatus.startsWith(QLatin1String("Searching")) ||
        scanStatus.startsWith(QLatin1String("Querying")))
        return QStringLiteral("searching");
    return QStringLiteral("scanning");
}

QString jobPhase(const QString& statusField) {
    if (statusField == QLatin1String("(Tagging)"))
        return QStringLiteral("tagging");
    if (statusField == QLatin1String("(Moving to iTunes)"))
        return QStringLiteral("moving");
    if (statusField == QLatin1String("(Paused)"))
        return QStringLiteral("paused");
    return QStringLiteral("encoding");
}

// One run of the command: the application controller, its queue and what
// the terminal shows of it.
class EncodeRun : public QObject {
public:
    EncodeRun(const Options& options, cli::ProgressLine& progress)
        : m_options(options), m_progress(progress), m_panels(options.assumeYes, progress),
          m_browserPrompts(options.assumeYes, cli::interactive(), progress) {}

    int run();

private:
    bool applyOptions(QString* error);
    void connectDisplay();
    void scheduleRedraw();
    void redraw();
    void noteStatusChanges();
    int position(const MDI_Media* item) const;
    QString counter(const MDI_Media* item) const;
    void onInterrupt(int count);
    bool toolsStopped() const;
    void forceStop();
    QList<Outcome> outcomes() const;
    QStringList outputsOf(const MDI_Media& item) const;
    void printSummary(const QList<Outcome>& results) const;

    const Options& m_options;
    cli::ProgressLine& m_progress;
    TerminalPanels m_panels;
    cli::TerminalBrowserDelegate m_browserPrompts;
    cli::RunSettings m_runSettings;
    std::unique_ptr<AppDelegate> m_app;
    // Kept past the controller, for the summary.
    MediaItemList m_items;
    cli::InterruptWatcher m_interrupts;
    QEventLoop m_loop;
    enum class Stage { Scanning, Encoding, Stopping, Done } m_stage = Stage::Scanning;
    bool m_forced = false;
    bool m_redrawPending = false;
    // The file of the pass that was running when the stop came.
    QString m_stoppedOutput;
    QSet<const MDI_Media*> m_partial;
    QSet<const MDI_Media*> m_encoded;
    std::map<const MDI_Media*, qint32> m_lastStatus;
    QString m_iTunesFolder;
};

bool EncodeRun::applyOptions(QString* error) {
    UserDefaults& defaults = UserDefaults::standard();
    const QStringList presets = MDB_Devices::deviceNames();
    for (const QString* name : {&m_options.preset, &m_options.secondary}) {
        if (!name->isEmpty() && !presets.contains(*name)) {
            *error = QStringLiteral("unknown preset \"%1\"; known presets: %2")
                         .arg(*name, presets.join(QStringLiteral(", ")));
            return false;
        }
    }
    QString dest;
    if (!m_options.dest.isEmpty()) {
        const std::optional<QString> made = makeFolder(m_options.dest, error);
        if (!made)
            return false;
        dest = *made;
    } else if (Bookmark::resolve(defaults.dataForKey(key(SettingsKey::DestinationPathBookmark)))
                   .isEmpty()) {
        // The movies must land somewhere the user can find them.
        dest = QDir::currentPath();
        m_progress.message(QStringLiteral("Note: no destination folder is set (--dest, or "
                                          "tarnwick-cli settings); writing to %1")
                               .arg(dest));
    }
    if (!dest.isEmpty())
        m_runSettings.set(key(SettingsKey::DestinationPathBookmark), Bookmark::create(dest));
    if (!m_options.preset.isEmpty())
        m_runSettings.set(key(SettingsKey::PrimaryDevice), m_options.preset);
    if (!m_options.secondary.isEmpty())
        m_runSettings.set(key(SettingsKey::SecondaryDevice), m_options.secondary);
    if (m_options.hdsd)
        m_runSettings.set(key(SettingsKey::HDSD), true);
    if (m_options.skipTagging)
        m_runSettings.set(key(SettingsKey::SkipTagging), true);
    if (m_options.passthru)
        m_runSettings.set(key(SettingsKey::PassthruVideo), *m_options.passthru);
    if (!m_options.iTunes.isEmpty()) {
        const std::optional<QString> root = makeFolder(m_options.iTunes, error);
        if (!root)
            return false;
        m_runSettings.set(key(SettingsKey::ITunesPathBookmark), Bookmark::create(*root));
        m_runSettings.set(key(SettingsKey::AddITunes), true);
        if (ITunesFolder::addFolder().isEmpty()) {
            // The folder iTunes watches for new movies.
            const QString watched = *root + QStringLiteral("/Automatically Add to iTunes");
            if (!QDir().mkpath(watched)) {
                *error = QStringLiteral("%1: cannot create the folder").arg(watched);
                return false;
            }
        }
    }
    if (defaults.boolForKey(key(SettingsKey::AddITunes)))
        m_iTunesFolder = ITunesFolder::addFolder();
    return true;
}

int EncodeRun::position(const MDI_Media* item) const {
    const MediaItemList& list = m_app->encodeBrowseController()->movieList();
    for (qsizetype i = 0; i < list.size(); ++i) {
        if (list.at(i).get() == item)
            return int(i) + 1;
    }
    return 0;
}

QString EncodeRun::counter(const MDI_Media* item) const {
    const int at = position(item);
    const int count = m_app->encodeBrowseController()->count();
    return at ? QStringLiteral("[%1 of %2] ").arg(at).arg(count) : QString();
}

void EncodeRun::scheduleRedraw() {
    // A job changes several fields in one go; drawing once they are all set
    // keeps half-updated states (a new title with the old status) off the line.
    if (m_redrawPending)
        return;
    m_redrawPending = true;
    QTimer::singleShot(0, this, [this] {
        m_redrawPending = false;
        redraw();
    });
}

void EncodeRun::redraw() {
    if (m_stage == Stage::Stopping || m_stage == Stage::Done || !m_app)
        return;
    EncoderController* encoder = m_app->encodeController();
    MuxerController* muxer = encoder->muxController();
    if (muxer->progressViewVisible() || encoder->progressViewVisible()) {
        const MDI_Media* movie = encoder->curMovie().get();
        const bool muxing = muxer->progressViewVisible();
        const JobDisplay* job = muxing ? static_cast<const JobDisplay*>(muxer) : encoder;
        const QString phase = muxing ? QStringLiteral("muxing") : jobPhase(job->statusField());
        const QString prefix = counter(movie) + phase + QStringLiteral("  ") + job->titleField() +
                               QStringLiteral("  ") + job->statusField();
        m_progress.showProgress(prefix, job->progressIndicator(), etaText(job->timeField()));
        return;
    }
    EncodeBrowserController* browser = m_app->encodeBrowseController();
    if (browser->scanStatusVisible() && !browser->scanStatus().isEmpty()) {
        // The item being worked on, or the one the session turns to next.
        const MDI_Media* item = nullptr;
        for (const std::shared_ptr<MDI_Media>& candidate : browser->movieList()) {
            const qint32 status = candidate->status();
            if (status >= 3 && status <= 7) {
                item = candidate.get();
                break;
            }
            if (status == 2 && !item)
                item = candidate.get();
        }
        m_progress.show(counter(item) + scanPhase(browser->scanStatus()) + QStringLiteral("  ") +
                        browser->scanTitle() + QStringLiteral("  (") + browser->scanStatus() +
                        u')');
    }
}

void EncodeRun::noteStatusChanges() {
    EncoderController* encoder = m_app->encodeController();
    if (const MDI_Media* current = encoder->curMovie().get()) {
        m_encoded.insert(current);
        // The job shows "(Invalid)" exactly when a pass ended with too few frames.
        if (encoder->statusField() == QLatin1String("(Invalid)"))
            m_partial.insert(current);
    }
    for (const std::shared_ptr<MDI_Media>& item : m_app->encodeBrowseController()->movieList()) {
        const qint32 status = item->status();
        qint32& last = m_lastStatus[item.get()];
        if (status == last)
            continue;
        last = status;
        if (!m_encoded.contains(item.get()))
            continue;
        if (status == 19 && !item->lookupError().isEmpty())
            m_progress.message(item->name() +
                               QStringLiteral(": done, but not tagged (the lookup failed)"));
        else if (status == 19)
            m_progress.message(item->name() + QStringLiteral(": done"));
        else if (status == 0)
            m_progress.message(item->name() +
                               (m_partial.contains(item.get()) ? QStringLiteral(": partial: ")
                                                               : QStringLiteral(": failed: ")) +
                               item->warnings());
    }
}

void EncodeRun::connectDisplay() {
    EncoderController* encoder = m_app->encodeController();
    MuxerController* muxer = encoder->muxController();
    EncodeBrowserController* browser = m_app->encodeBrowseController();
    for (JobDisplay* job : {static_cast<JobDisplay*>(encoder), static_cast<JobDisplay*>(muxer)}) {
        connect(job, &JobDisplay::statusFieldChanged, this, [this](const QString& text) {
            noteStatusChanges();
            // Tagging and the move run within the job's callback: shown now or never.
            if (text == QLatin1String("(Tagging)") || text == QLatin1String("(Moving to iTunes)"))
                redraw();
            else
                scheduleRedraw();
        });
        connect(job, &JobDisplay::titleFieldChanged, this, [this] { scheduleRedraw(); });
        connect(job, &JobDisplay::timeFieldChanged, this, [this] { scheduleRedraw(); });
        connect(job, &JobDisplay::progressIndicatorChanged, this, [this] { scheduleRedraw(); });
        connect(job, &JobDisplay::progressViewVisibleChanged, this, [this] {
            scheduleRedraw();
            // A stop is over once the stopped tool has ended.
            if (m_stage == Stage::Stopping && toolsStopped())
                m_loop.quit();
        });
    }
    connect(browser, &EncodeBrowserController::scanStatusChanged, this,
            [this] { scheduleRedraw(); });
    connect(browser, &EncodeBrowserController::scanTitleChanged, this,
            [this] { scheduleRedraw(); });
    auto settled = [this, browser] {
        noteStatusChanges();
        if (m_stage == Stage::Scanning &&
            cli::scanSessionSettled(*browser, m_browserPrompts.alerted()))
            m_loop.quit();
    };
    connect(browser, &EncodeBrowserController::reloaded, this, settled);
    connect(browser, &EncodeBrowserController::isScanningChanged, this, settled);
    connect(m_app.get(), &AppDelegate::processingChanged, this, [this](bool processing) {
        noteStatusChanges();
        if (!processing && m_stage == Stage::Encoding)
            m_loop.quit();
    });
    connect(&m_interrupts, &cli::InterruptWatcher::interrupted, this,
            [this](int, int count) { onInterrupt(count); });
}

bool EncodeRun::toolsStopped() const {
    const EncoderController* encoder = m_app->encodeController();
    return !encoder->progressViewVisible() && !encoder->muxController()->progressViewVisible();
}

void EncodeRun::onInterrupt(int count) {
    if (count > 1 || m_stage == Stage::Done) {
        m_forced = true;
        m_loop.quit();
        return;
    }
    const Stage was = m_stage;
    m_stage = Stage::Stopping;
    m_progress.message(QStringLiteral("Stopping... (press Ctrl-C again to quit at once)"));
    EncoderController* encoder = m_app->encodeController();
    if (encoder->curMovie())
        m_stoppedOutput = encoder->curMovie()->outPath();
    if (was == Stage::Encoding || m_app->processing())
        m_app->stopProcessing();
    EncodeBrowserController* browser = m_app->encodeBrowseController();
    if (browser->isScanning())
        browser->stopScanning();
    if (toolsStopped()) {
        m_loop.quit();
        return;
    }
    // A tool that does not end on its own is killed with the controller.
    QTimer::singleShot(kStopGraceMs, this, [this] {
        m_forced = true;
        m_loop.quit();
    });
}

void EncodeRun::forceStop() {
    // Destroying the controller kills what still runs (the tools' whole
    // process groups) without waiting; the file of the stopped pass is
    // removed here instead of by the job.
    m_app.reset();
    if (!m_stoppedOutput.isEmpty())
        QFile::remove(m_stoppedOutput);
}

QStringList EncodeRun::outputsOf(const MDI_Media& item) const {
    QStringList candidates;
    const QString out = item.outPath();
    if (out.isEmpty())
        return {};
    if (item.createHDSD() && !out.contains(QLatin1String("(HD).m4v"))) {
        QString hd = out;
        candidates << hd.replace(QLatin1String(".m4v"), QLatin1String("(HD).m4v"));
    }
    candidates << out;
    QStringList found;
    for (const QString& path : std::as_const(candidates)) {
        if (QFileInfo::exists(path)) {
            found << path;
            continue;
        }
        if (!m_iTunesFolder.isEmpty()) {
            const QString moved = QDir(m_iTunesFolder).filePath(QFileInfo(path).fileName());
            if (QFileInfo::exists(moved))
                found << moved;
        }
    }
    return found;
}

QList<Outcome> EncodeRun::outcomes() const {
    QList<Outcome> results;
    for (const std::shared_ptr<MDI_Media>& item : m_items) {
        Outcome o;
        o.item = item;
        o.source = item->inPath();
        o.name = item->name();
        o.status = item->status();
        o.lookup = m_browserPrompts.lookupOutcome(*item, m_options.skipTagging);
        o.warnings = cli::itemWarnings(*item);
        if (o.status == 19 && !item->lookupError().isEmpty()) {
            // Encoded, but nothing was written over the encoder's tags.
            o.state = QStringLiteral("untagged");
            o.warnings << QStringLiteral("the file keeps the tags the encoder wrote");
        } else if (o.status == 19) {
            o.state = QStringLiteral("done");
        } else if (o.status == 0) {
            o.state = m_partial.contains(item.get()) ? QStringLiteral("partial")
                                                     : QStringLiteral("failed");
        } else {
            o.state = QStringLiteral("stopped");
        }
        // A failed scan never wrote anything; a name it would have used may
        // belong to another file.
        if (m_encoded.contains(item.get()))
            o.outputs = outputsOf(*item);
        results << o;
    }
    return results;
}

void EncodeRun::printSummary(const QList<Outcome>& results) const {
    QTextStream& out = cli::out();
    if (m_options.json) {
        QJsonArray items;
        for (const Outcome& o : results)
            items.append(cli::itemJson(*o.item, {o.state, o.lookup, o.warnings, o.outputs, false}));
        cli::setJsonMember(QStringLiteral("items"), items);
        return;
    }
    const QStringList header{QStringLiteral("SOURCE"), QStringLiteral("STATUS"),
                             QStringLiteral("OUTPUT"), QStringLiteral("WARNINGS")};
    QList<QStringList> rows{header};
    for (const Outcome& o : results)
        rows << QStringList{o.source, o.state,
                            o.outputs.isEmpty() ? QStringLiteral("-")
                                                : o.outputs.join(QStringLiteral(", ")),
                            o.warnings.join(QStringLiteral("; "))};
    QList<qsizetype> widths(header.size() - 1, 0);
    for (const QStringList& row : std::as_const(rows))
        for (qsizetype c = 0; c < widths.size(); ++c)
            widths[c] = std::max(widths[c], row.at(c).size());
    for (const QStringList& row : std::as_const(rows)) {
        QString line;
        for (qsizetype c = 0; c < widths.size(); ++c)
            line += row.at(c).leftJustified(widths[c]) + QStringLiteral("  ");
        line += row.last();
        out << line.trimmed() << Qt::endl;
    }
    out.flush();
}

int EncodeRun::run() {
    QString error;
    if (!Startup::run(&error))
        return cli::failure(error);

    m_app = std::make_unique<AppDelegate>();
    m_app->setPanelDelegate(&m_panels);
    m_app->setBrowserDelegate(&m_browserPrompts);
    m_app->applicationWillFinishLaunching();
    m_app->encodeBrowseController()->setViewVisible(false);
    m_browserPrompts.setBrowser(m_app->encodeBrowseController());
    m_interrupts.poll();

    auto finish = [&](int exitStatus) {
        if (m_forced && m_app)
            forceStop();
        m_runSettings.restore();
        if (m_app)
            m_app->applicationWillTerminate();
        else
            Startup::cleanupAtExit();
        m_app.reset();
        return exitStatus;
    };

    // The notice came at launch; nothing is converted with out-of-date presets.
    if (Startup::presetUpdateNeeded()) {
        m_progress.finish();
        if (m_interrupts.count() > 0)
            return finish(m_interrupts.exitStatus());
        return finish(cli::failure(
            m_panels.refused && !cli::interactive() && !m_options.assumeYes
                ? QStringLiteral("the device presets are out of date and must be updated "
                                 "first (Update Notice): run again with --yes to accept, or "
                                 "on a terminal to be asked; nothing was encoded")
                : QStringLiteral("the device presets were not updated; nothing was encoded")));
    }
    if (!applyOptions(&error)) {
        m_progress.finish();
        return finish(cli::usageError(kCommand, error));
    }
    connectDisplay();

    if (m_options.title) {
        for (const QString& source : m_options.sources)
            m_app->loadMovie(source, *m_options.title);
    } else {
        m_app->openFiles(m_options.sources);
    }
    EncodeBrowserController* browser = m_app->encodeBrowseController();
    m_items = browser->movieList();
    if (browser->count() < m_options.sources.size())
        m_progress.message(QStringLiteral("Note: %1 source(s) skipped: application or bundle "
                                          "folders are not movies.")
                               .arg(m_options.sources.size() - browser->count()));
    // Matched to the id after its scan, instead of searched.
    if (!m_options.id.isEmpty() && !m_items.isEmpty() &&
        !browser->pickMovieID(m_items.first(), m_options.id)) {
        m_progress.finish();
        return finish(cli::failure(QStringLiteral("%1: cannot be matched to TMDb id %2")
                                       .arg(m_options.sources.first(), m_options.id)));
    }

    if (m_interrupts.count() == 0 && !cli::scanSessionSettled(*browser, m_browserPrompts.alerted()))
        m_loop.exec();
    m_items = browser->movieList();

    // A movie picked by an id the database does not give is not encoded
    // untagged: the id was most likely mistyped.
    if (m_stage == Stage::Scanning && !m_options.id.isEmpty() && !m_items.isEmpty() &&
        !m_items.first()->lookupError().isEmpty()) {
        m_progress.finish();
        return finish(cli::failure(
            QStringLiteral("%1: TMDb id %2: %3; nothing was encoded")
                .arg(m_options.sources.first(), m_options.id, m_items.first()->lookupError())));
    }

    if (m_stage == Stage::Scanning) {
        bool anyReady = false;
        for (const std::shared_ptr<MDI_Media>& item : m_items)
            anyReady = anyReady || item->status() == 8;
        if (anyReady) {
            m_stage = Stage::Encoding;
            if (!m_app->startProcessing()) {
                m_progress.finish();
                return finish(cli::failure(QStringLiteral("the queue could not be started")));
            }
            // The job leaves a movie it could not start the tool for in status 9.
            if (m_app->processing() && !m_app->encodeController()->isEncoding() &&
                m_app->encodeController()->curMovie()) {
                m_progress.finish();
                m_app->stopProcessing();
                return finish(cli::failure(
                    QStringLiteral("cannot run the encoder tool %1")
                        .arg(Resources::auxiliaryExecutable(EncoderController::encoderName()))));
            }
            if (m_app->processing())
                m_loop.exec();
        }
    }
    if (m_stage != Stage::Stopping)
        m_stage = Stage::Done;
    noteStatusChanges();
    m_progress.finish();

    if (m_forced)
        forceStop();
    printSummary(outcomes());

    m_interrupts.poll();
    if (m_interrupts.count() > 0)
        return finish(m_interrupts.exitStatus());
    bool allDone = !m_items.isEmpty();
    for (const std::shared_ptr<MDI_Media>& item : m_items)
        allDone = allDone && item->status() == 19 && item->lookupError().isEmpty();
    return finish(allDone ? cli::kExitOk : cli::kExitFailure);
}

int runEncode(cli::Invocation& invocation) {
    Options options;
    if (const std::optional<int> status = parse(invocation, options))
        return *status;
    cli::ProgressLine progress(cli::stderrIsTerminal());
    EncodeRun run(options, progress);
    return run.run();
}

const cli::CommandRegistration registration(
    {kCommand,
     {QStringLiteral("encode SOURCE... [options]"),
      QStringLiteral("encode SOURCE --id TMDB_ID [options]")},
     QStringLiteral("scan, match, encode, tag and file every source"),
     QStringLiteral(
         "Scans and matches every source as scan does, then converts the ready ones one after "
         "another with the device preset: encode, tags, cover art and track names, the muxer "
         "where the source's video is passed through, and the move into the iTunes folder. A "
         "progress line runs on standard error; a summary of every source (SOURCE, STATUS, "
         "OUTPUT, WARNINGS) goes to standard output.\n\n"
         "The options hold for this run only: the settings they stand for are put back "
         "afterwards. A source whose lookup failed (a refused key, a server error, no answer, no "
         "connection) is still encoded, but its file keeps the tags the encoder wrote; its "
         "status is \"untagged\" and the run fails. Ctrl-C stops the queue as the stop command "
         "does (the unfinished file is removed); a second Ctrl-C quits at once."),
     {{QStringLiteral("SOURCE"), QStringLiteral("a video file, a DVD folder (VIDEO_TS) or an "
                                                "unprotected Blu-ray folder (BDMV)")}},
     {{{QStringLiteral("dest")},
       QStringLiteral("DIR"),
       QStringLiteral("the folder the movies go to (made when missing; default: the "
                      "\"Destination Path Bookmark\" setting, else the current folder)")},
      {{QStringLiteral("preset")},
       QStringLiteral("NAME"),
       QStringLiteral("the device preset to encode with (see tarnwick-cli presets list)")},
      {{QStringLiteral("secondary")},
       QStringLiteral("NAME"),
       QStringLiteral("the preset of the second, SD version made with --hd-sd")},
      {{QStringLiteral("hd-sd")},
       {},
       QStringLiteral("make an SD version beside the HD one of every HD source")},
      {{QStringLiteral("title")},
       QStringLiteral("N"),
       QStringLiteral("encode title N of every source; 0, the default, takes the longest")},
      {{QStringLiteral("add-itunes")},
       QStringLiteral("DIR"),
       QStringLiteral("move the finished movies into the \"Automatically Add to iTunes\" "
                      "folder of the iTunes folder DIR")},
      {{QStringLiteral("id")},
       QStringLiteral("TMDB_ID"),
       QStringLiteral("match the source to the movie with this movie database id instead of "
                      "searching, as picked by hand; an id the database does not give stops "
                      "the run before anything is encoded (one SOURCE only)")},
      {{QStringLiteral("skip-tagging")},
       {},
       QStringLiteral("do not look the sources up in the movie database")},
      {{QStringLiteral("passthru")},
       {},
       QStringLiteral("keep the source's H.264 video where it fits the preset (the setting "
                      "\"Passthru Video\" otherwise decides)")},
      {{QStringLiteral("no-passthru")}, {}, QStringLiteral("always encode the video")},
      {{QStringLiteral("y"), QStringLiteral("yes")},
       {},
       QStringLiteral("ask nothing: a source without a match is skipped, and the presets' "
                      "Update Notice is accepted")}},
     true,
     QStringLiteral("0 every source done, 1 some source failed, was encoded only in part, was not "
                    "tagged because its lookup failed, or does not exist, 2 usage error, 130 "
                    "interrupted (143 after SIGTERM)."),
     runEncode,
     QJsonObject{{QStringLiteral("items"), QJsonArray()}}});

} // namespace
