// `tarnwick-cli report REPORT_FILE [--preset NAME] [--output PATH] [--json]`:
// reads a saved scan report of the encoder tool the way a scan reads it, picks
// the main title, applies the processing settings, and prints the titles with
// their tracks and the encoder command line the item would run.
//
// The source is the report's "+ stream:" path when it has one, else the
// report's own path without ".txt" (a report saved beside its disc folder).
// A report in which the tool found no title prints what is known and exits 1.
#include "cli/Commands.h"
#include "cli/Describe.h"

#include "core/Bookmark.h"
#include "core/MDB_Utility.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/Startup.h"
#include "core/UserDefaults.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "presets/MDB_Devices.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString kCommand = QStringLiteral("report");

QString flags(bool include, bool native, const QString& extra = QString()) {
    QStringList words;
    words << (include ? QStringLiteral("included") : QStringLiteral("excluded"));
    if (native)
        words << QStringLiteral("native");
    if (!extra.isEmpty())
        words << extra;
    return QLatin1Char('[') + words.join(QStringLiteral(", ")) + QLatin1Char(']');
}

// The settings a finished scan hands to the item. Decomb and detelecine are
// exclusive-or with what the scan found in the main title.
void applyProcessingSwitches(MDI_Media& movie) {
    const auto& defaults = UserDefaults::standard();
    const auto on = [&](const char* key) { return defaults.boolForKey(QLatin1String(key)); };
    movie.setDecomb(movie.decomb() != on(SettingsKey::Decomb));
    movie.setDenoise(on(SettingsKey::Denoise));
    movie.setDetelecine(movie.detelecine() != on(SettingsKey::Detelecine));
    movie.setDeblock(on(SettingsKey::Deblock));
    movie.setPassthruVideo(on(SettingsKey::PassthruVideo));
}

QString streamPath(const MDI_Media& movie) {
    for (const auto& title : movie.getTitles()) {
        if (title->isStreaming() && !title->stream().trimmed().isEmpty())
            return title->stream().trimmed();
    }
    return {};
}

QString defaultOutputFolder() {
    const QString destination = Bookmark::resolve(
        UserDefaults::standard().dataForKey(QLatin1String(SettingsKey::DestinationPathBookmark)));
    return destination.isEmpty() ? QDir::currentPath() : destination;
}

void printText(const MDI_Media& movie, const QStringList& commandLine) {
    QTextStream& out = cli::out();
    out << "Source: " << cli::sourceTypeName(movie.sourceType()) << " (" << movie.sourceType()
        << ")\n";
    out << "Input: " << movie.inPath() << '\n';
    if (!movie.isValid()) {
        out << "Status: " << movie.status() << '\n';
        return;
    }
    out << "Titles: " << movie.getTitles().size() << '\n';
    const Title* main = movie.getMainTitle();
    for (const auto& title : movie.getTitles()) {
        out << "Title " << title->ID() << (title.get() == main ? " (main)" : "") << ": "
            << title->duration() << " (" << title->getDuration() << " s), " << title->size() << ", "
            << title->codec() << ", " << title->FPS().trimmed() << " fps"
            << (title->combing() ? ", combing" : "") << '\n';
        if (title->isStreaming())
            out << "  Stream: " << title->stream() << '\n';
        out << "  Audio tracks:" << (title->audioTracks().empty() ? " none" : "") << '\n';
        for (const auto& t : title->audioTracks()) {
            out << "    " << t->origIndex() << ", " << t->name() << " (" << t->codec() << ") ("
                << t->channels() << ") (" << t->isoType() << ": " << t->isoName() << ")";
            if (!t->freq().isEmpty() || !t->bps().isEmpty())
                out << ", " << t->freq() << ", " << t->bps();
            out << ' '
                << flags(t->include(), t->native(),
                         t->duplicate() ? QStringLiteral("duplicate") : QString())
                << '\n';
        }
        out << "  Subtitle tracks:" << (title->subtitleTracks().empty() ? " none" : "") << '\n';
        for (const auto& t : title->subtitleTracks()) {
            out << "    " << t->origIndex() << ", " << t->name() << " (" << t->isoType() << ": "
                << t->isoName() << ") " << t->type() << ' '
                << flags(t->include(), t->native(), t->burn() ? QStringLiteral("burn") : QString())
                << '\n';
        }
    }
    out << "Main title: " << (main ? QString::number(main->ID()) : QStringLiteral("none")) << '\n';
    QStringList quoted;
    for (const QString& arg : commandLine)
        quoted << cli::shellQuoted(arg);
    out << "Command line: " << quoted.join(QLatin1Char(' ')) << '\n';
}

int runReport(cli::Invocation& run) {
    if (run.positional().isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no report file given"));
    if (run.positional().size() > 1)
        return cli::usageError(kCommand, QStringLiteral("more than one report given"));
    struct {
        QString report, preset, output;
    } options{run.positional().constFirst(), run.value(QStringLiteral("preset")),
              run.value(QStringLiteral("output"))};

    QString error;
    if (!Startup::run(&error))
        return cli::failure(error);

    QFile file(options.report);
    if (!QFileInfo(options.report).isFile() || !file.open(QIODevice::ReadOnly))
        return cli::failure(QStringLiteral("cannot read the report %1: %2")
                                .arg(options.report, QFileInfo::exists(options.report)
                                                         ? file.errorString()
                                                         : QStringLiteral("no such file")));
    // Reports are ASCII; Latin-1 keeps any stray byte instead of failing.
    const QString text = QString::fromLatin1(file.readAll());

    auto& defaults = UserDefaults::standard();
    const QString preset = options.preset.isEmpty()
                               ? defaults.stringForKey(QLatin1String(SettingsKey::PrimaryDevice))
                               : options.preset;
    if (!MDB_Devices::device(preset))
        return cli::failure(QStringLiteral("unknown preset: \"%1\"").arg(preset));

    MDI_Movie movie;
    movie.setStatus(4);
    const bool decoded = MDI_Utility::decodeScanString(text, movie);

    QString source = streamPath(movie);
    if (source.isEmpty()) {
        source = QFileInfo(options.report).absoluteFilePath();
        if (source.endsWith(QLatin1String(".txt"), Qt::CaseInsensitive))
            source.chop(4);
    }
    movie.setInPath(source);
    movie.setName(MDB_Utility::ExtractName(QFileInfo(source).completeBaseName()));
    movie.setLanguageRegion(defaults.stringForKey(QLatin1String(SettingsKey::LanguageRegion)));
    movie.setPrimaryDevice(preset);
    movie.setSecondaryDevice(defaults.stringForKey(QLatin1String(SettingsKey::SecondaryDevice)));

    QStringList commandLine;
    if (decoded) {
        movie.setStatus(5);
        movie.autoFindMainTitle();
        movie.assignIfHD();
        applyProcessingSwitches(movie);
        const QString output =
            options.output.isEmpty()
                ? QDir(defaultOutputFolder()).filePath(movie.name() + QStringLiteral(".m4v"))
                : options.output;
        movie.setOutPath(output);
        if (movie.getMainTitle()) {
            const bool passThru = movie.passthruVideo() && movie.canPassthru();
            commandLine = movie.getCmdArgs(
                preset, passThru,
                Resources::auxiliaryExecutable(QStringLiteral("Tarnwick_Pro_Encoder")), output);
        }
    }

    if (run.json()) {
        const QString state = !decoded                ? QStringLiteral("failed")
                              : !movie.getMainTitle() ? QStringLiteral("failed")
                                                      : QStringLiteral("ready");
        QStringList warnings;
        if (decoded && !movie.getMainTitle())
            warnings << QStringLiteral("the report holds no title");
        cli::setJsonMember(
            QStringLiteral("items"),
            QJsonArray{cli::itemJson(movie, {state, QString::fromLatin1(cli::lookup::NotRun),
                                             warnings, QStringList{movie.outPath()}, true})});
    } else {
        printText(movie, commandLine);
    }
    cli::out().flush();

    if (!decoded)
        return cli::failure(movie.warnings());
    if (!movie.getMainTitle())
        return cli::failure(QStringLiteral("the report holds no title"));
    return cli::kExitOk;
}

const cli::CommandRegistration registration(
    {kCommand,
     {QStringLiteral("report REPORT_FILE [--preset NAME] [--output PATH] [--json]")},
     QStringLiteral("read a saved scan report: titles, tracks and the encoder command"),
     QStringLiteral(
         "Reads a scan report of the encoder tool saved to a file the way a scan reads it, picks "
         "the main title, applies the processing settings and prints the titles with their "
         "tracks and the encoder command line the source would run. Nothing is scanned or looked "
         "up.\n\n"
         "The source is the report's \"+ stream:\" path when it has one, else the report's own "
         "path without \".txt\" (a report saved beside its disc folder)."),
     {{QStringLiteral("REPORT_FILE"), QStringLiteral("a text file with the encoder tool's scan "
                                                     "report")}},
     {{{QStringLiteral("preset")},
       QStringLiteral("NAME"),
       QStringLiteral("the device preset of the command line (default: the \"Primary Device\" "
                      "setting)")},
      {{QStringLiteral("output")},
       QStringLiteral("PATH"),
       QStringLiteral("the output file of the command line (default: the source's name in the "
                      "destination folder)")}},
     true,
     QStringLiteral("0 the report holds a title, 1 it holds none or cannot be read, 2 usage "
                    "error."),
     runReport,
     QJsonObject{{QStringLiteral("items"), QJsonArray()}}});

} // namespace
