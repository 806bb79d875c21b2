// One command line for every command: the help of each, one wording for an
// unknown option, the exit statuses of the README, and one JSON document of
// the documented shape from every --json command, whatever happened.

#include "scan/ScanTestSupport.h"

#include "CliJson.h"
#include "Processes.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

namespace {

using testsupport::CliResult;
using testsupport::runCli;

struct CommandCase {
    const char* name;
    QStringList options; // every option its help must explain
};

const QList<CommandCase>& commands() {
    static const QList<CommandCase> all = {
        {"encode",
         {"--dest", "--preset", "--secondary", "--hd-sd", "--title", "--add-itunes", "--id",
          "--skip-tagging", "--passthru", "--no-passthru", "--yes", "--json"}},
        {"library", {"--genre", "--folder", "--json"}},
        {"lookup", {"--language", "--json"}},
        {"name", {}},
        {"presets", {}},
        {"report", {"--preset", "--output", "--json"}},
        {"retag", {"--search", "--pick", "--id", "--yes", "--json"}},
        {"scan",
         {"--title", "--id", "--skip-tagging", "--passthru", "--no-passthru", "--yes", "--json"}},
        {"settings", {}},
        {"tags", {"--set", "--delete", "--artwork", "--remove-artwork", "--json"}},
        {"tracks", {"--json"}},
    };
    return all;
}

TEST(CommandLine, EveryCommandHasItsOwnHelpAndOneWordingForAnUnknownOption) {
    const CliResult overview = runCli({"--help"});
    EXPECT_EQ(overview.status, 0);
    for (const CommandCase& c : commands()) {
        const QString name = QString::fromLatin1(c.name);
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(overview.out.contains("\n  " + name + " ")) << overview.out.toStdString();

        const CliResult help = runCli({"help", name});
        EXPECT_EQ(help.status, 0) << help.err.toStdString();
        EXPECT_TRUE(help.out.startsWith("usage: tarnwick-cli " + name)) << help.out.toStdString();
        EXPECT_TRUE(help.err.isEmpty());
        EXPECT_TRUE(help.out.contains("Exit status: 0 "));
        EXPECT_TRUE(help.out.contains("-h, --help  ") || help.out.contains("-h, --help\n"));
        // Each option on a line of its own with words after it.
        for (const QString& option : c.options) {
            const QRegularExpression line(QStringLiteral("\\n  (-\\w, )?") +
                                          QRegularExpression::escape(option) +
                                          QStringLiteral("( \\S+)?\\s+\\w+"));
            EXPECT_TRUE(line.match(help.out).hasMatch()) << option.toStdString();
        }
        // The same from --help and -h, whatever else is on the line; nothing runs.
        for (const QStringList& args :
             {QStringList{name, "--help"}, QStringList{name, "some argument", "-h"}}) {
            const CliResult r = runCli(args);
            EXPECT_EQ(r.status, 0) << args.join(' ').toStdString();
            EXPECT_EQ(r.out, help.out) << args.join(' ').toStdString();
        }
        // One wording, on one line, for an unknown option.
        const CliResult bogus = runCli({name, "--bogus", "x"});
        EXPECT_EQ(bogus.status, 2);
        EXPECT_TRUE(bogus.err.startsWith("tarnwick-cli " + name +
                                         ": unknown option '--bogus' (usage: tarnwick-cli " + name))
            << bogus.err.toStdString();
        EXPECT_EQ(bogus.err.trimmed().count(u'\n'), 0) << bogus.err.toStdString();
        EXPECT_TRUE(bogus.out.isEmpty());
    }
}

// One line per argument, in order; a suffix is an extension only when it looks
// like one, an existing folder keeps its whole name, and after "--" a name
// that looks like an option is named.
TEST(CommandLine, NamePrintsSearchTitleAndSortNamePerArgument) {
    QTemporaryDir dir;
    const QString folder = dir.filePath("Mr.Bean");
    ASSERT_TRUE(QDir().mkpath(folder));
    const CliResult r = runCli({"name", "The.Matrix.1999.1080p.mkv", "/movies/Rocky2.m4v",
                                "Mr.Bean.mkv", folder + "/", "The.Lord.Of.The.Rings.Extended",
                                "Breaking.Bad.S01E02.720p.m2ts", "--", "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "The.Matrix.1999.1080p.mkv\tThe Matrix\tMatrix, The\n"
                     "/movies/Rocky2.m4v\tRocky\tRocky\n"
                     "Mr.Bean.mkv\tMr Bean\tMr Bean\n" +
                         folder + "/\tMr Bean\tMr Bean\n" +
                         "The.Lord.Of.The.Rings.Extended\tThe Lord Of The Rings Extended\t"
                         "Lord Of The Rings Extended, The\n"
                         "Breaking.Bad.S01E02.720p.m2ts\tBreaking Bad\tBreaking Bad\n"
                         "--help\tHelp\tHelp\n");
}

TEST(CommandLine, ExitStatusesAreTheSameInEveryCommand) {
    scantest::server();
    QTemporaryDir dir;
    const QString missing = dir.filePath("missing.mkv");
    struct Case {
        QStringList args;
        int status;
        const char* says;
    };
    const QList<Case> cases = {
        // A source that is not there failed: 1 everywhere.
        {{"scan", missing}, 1, "no such file or folder"},
        {{"retag", missing}, 1, "no such file"},
        {{"tags", missing}, 1, "no such file"},
        // Usage errors: 2 everywhere.
        {{"scan"}, 2, "no source given"},
        {{"retag"}, 2, "no file given"},
        {{"report"}, 2, "no report file given"},
        {{"tags"}, 2, "no file given"},
        {{"lookup"}, 2, "no title given"},
        {{"name"}, 2, "no name given"},
        {{"scan", missing, "--title", "x"}, 2, "--title needs a title number"},
        {{"encode", missing, "--dest"}, 2, "option '--dest' needs a value"},
        {{"scan", missing, "--json=yes"}, 2, "option '--json' takes no value"},
        {{"scan", missing, "--passthru", "--no-passthru"}, 2, "exclude each other"},
        {{"scan", missing, missing, "--id", "100003"}, 2, "--id takes one source"},
        {{"encode", missing, "--id", "x"}, 2, "--id needs a movie database id"},
        {{"retag", missing, "--pick", "0"}, 2, "--pick needs a hit number"},
        {{"retag", missing, "--id", "1", "--pick", "1"}, 2, "takes no --search or --pick"},
        {{"retag", missing, missing, "--pick", "1"}, 2, "--pick takes one file"},
        {{"tags", missing, "--set", "Nonsense=1"}, 2, "unknown tag \"Nonsense\""},
        {{"tags", missing, "--set", "no equals sign"}, 2, "--set takes TAG=VALUE"},
        {{"encode", dir.path(), "--preset", "Toaster 8K"},
         2,
         "unknown preset \"Toaster 8K\"; known presets: HD 1080p, HD 720p, SD 480p"},
        {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
    };
    for (const Case& c : cases) {
        const CliResult r = runCli(c.args);
        EXPECT_EQ(r.status, c.status)
            << c.args.join(' ').toStdString() << ": " << r.err.toStdString();
        EXPECT_TRUE(r.err.contains(QString::fromUtf8(c.says)))
            << c.args.join(' ').toStdString() << ": " << r.err.toStdString();
    }
}

// Every --json command, in a run that works and in runs that fail, prints
// exactly one document of the documented shape.
TEST(CommandLine, EveryJsonRunPrintsOneDocumentOfTheDocumentedShape) {
    scantest::server();
    QTemporaryDir dir;
    const QString movie = scantest::sample("Harbour Lights.mp4");
    const QString junk = scantest::sample("junk.mkv");
    ASSERT_FALSE(movie.isEmpty() || junk.isEmpty());
    const QString copy = dir.filePath("Harbour Lights.m4v");
    ASSERT_TRUE(QFile::copy(movie, copy));
    const QString empty = dir.filePath("movies");
    QDir().mkpath(empty);
    const QString report = testsupport::dataPath("scan-reports/file-mkv.txt");
    const QString missing = dir.filePath("missing.mkv");

    struct Case {
        QStringList args;
        int status;
    };
    const QList<Case> cases = {
        {{"scan", movie, junk, "--yes"}, 1},
        {{"scan", movie, "--bogus"}, 2},
        {{"report", report}, 0},
        {{"report", testsupport::dataPath("scan-reports/no-title.txt")}, 1},
        {{"retag", copy, junk}, 1}, // nothing confirmed without a terminal
        {{"retag", copy, "--search", "A Film Nobody Made", "--yes"}, 1},
        {{"lookup", "Harbour Lights"}, 0},
        {{"lookup", "A Film Nobody Made"}, 1},
        {{"library", "--folder", empty}, 0},
        {{"library", "--folder", missing}, 1},
        {{"tags", movie}, 0},
        {{"tracks", movie}, 0},
        {{"encode", missing}, 1},
        {{"scan", movie, "--skip-tagging", "--passthru"}, 0},
    };
    QList<QJsonObject> docs;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const CliResult r = runCli(c.args + QStringList{"--json"});
        EXPECT_EQ(r.status, c.status) << r.err.toStdString();
        docs << testsupport::expectCliJson(r.out, c.args.first(), c.status);
        if (c.status != 0 && c.args.first() != "retag" && c.args.first() != "scan") {
            EXPECT_TRUE(docs.last().value("error").isString()) << r.out.toStdString();
        }
    }

    // What the shapes hold, once (the scan's own tests hold the rest).
    const QJsonObject item = docs.at(0).value("items").toArray().at(0).toObject();
    EXPECT_EQ(item.value("source").toObject().value("path").toString(), movie);
    EXPECT_EQ(item.value("source").toObject().value("sourceType").toString(), "video file");
    EXPECT_EQ(item.value("state").toString(), "ready");
    EXPECT_FALSE(item.value("passthru").toBool()); // the stored setting
    EXPECT_EQ(item.value("match").toObject().value("year").toString(), "1962");
    const QJsonObject track =
        item.value("titles").toArray().at(0).toObject().value("audio").toArray().at(0).toObject();
    EXPECT_EQ(track.value("channels").toString(), "2.0");
    // Pass-through for this run only: the command encodes a stand-in the muxer replaces.
    const QJsonObject kept = docs.last().value("items").toArray().at(0).toObject();
    EXPECT_TRUE(kept.value("passthru").toBool());
    auto standIn = [](const QJsonObject& i) {
        const QStringList command = i.value("command").toVariant().toStringList();
        return command.contains("--width") && command.contains("80");
    };
    EXPECT_TRUE(standIn(kept));
    EXPECT_FALSE(standIn(item));
    EXPECT_EQ(runCli({"settings", "get", "Passthru Video"}).out.trimmed(), "NO");
    EXPECT_TRUE(docs.at(7).value("match").isNull());
    EXPECT_TRUE(docs.at(7).value("error").toString().contains("no match"));
}

// What starts for every run stays small: the command line without the GUI
// library, the encoder's launcher and scan relay without Qt or a shared C++
// runtime at all.
TEST(CommandLine, ProgramsLoadNoLibraryTheyMustNotNeed) {
    const struct {
        const char* program;
        QStringList forbidden;
    } programs[] = {{"tarnwick-cli", {"libQt6Gui", "libQt6Widgets"}},
                    {"Tarnwick_Pro_Encoder", {"Qt6", "libstdc++"}},
                    {"tarnwick-encoder-scan", {"Qt6", "libstdc++"}}};
    for (const auto& p : programs) {
        const testsupport::RunResult elf =
            testsupport::run("readelf", {"-d", TARNWICK_BINARY_DIR "/bin/" + QString(p.program)});
        ASSERT_TRUE(elf.out.contains("libc.so")) << p.program << elf.out.toStdString();
        for (const QString& library : p.forbidden)
            EXPECT_FALSE(elf.out.contains(library.toUtf8()))
                << p.program << " needs " << library.toStdString();
    }
}

} // namespace
