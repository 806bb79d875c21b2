#include "Processes.h"
#include "TestSupport.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString report(const QString& name) {
    return testsupport::dataPath(QStringLiteral("scan-reports/") + name);
}

class ReportCommandTest : public ::testing::Test {
protected:
    testsupport::CliResult cli(const QStringList& args) {
        return testsupport::runCli(args, {}, 30000,
                                   {{"TARNWICK_SETTINGS", dir.filePath("store.plist")},
                                    {"TARNWICK_LIBEXEC", TARNWICK_BINARY_DIR "/bin"}});
    }
    // The command line of the report's one item.
    QStringList command(const QStringList& args) {
        const testsupport::CliResult r = cli(QStringList{"report", "--json"} + args);
        EXPECT_EQ(r.status, 0) << r.err.toStdString();
        QStringList line;
        const QJsonObject item =
            QJsonDocument::fromJson(r.out.toUtf8()).object()["items"].toArray().at(0).toObject();
        for (const QJsonValue& v : item.value("command").toArray())
            line << v.toString();
        return line;
    }

    QTemporaryDir dir;
};

TEST_F(ReportCommandTest, WorkedExampleShowsTitlesMainTitleAndCommandLine) {
    const auto r = cli({QStringLiteral("report"), report(QStringLiteral("worked-example.txt"))});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    for (const char* part : {"Source: DVD (2)", "Main title: 1\n", "Title 2: 00:02:10 (130 s)",
                             "Espanol (iso639-2: spa) (Bitmap)(VOBSUB) [included]"})
        EXPECT_TRUE(r.out.contains(QLatin1String(part))) << part;
    EXPECT_TRUE(r.out.contains(QStringLiteral("Command line: %1 --input %2 --output ")
                                   .arg(TARNWICK_BINARY_DIR "/bin/Tarnwick_Pro_Encoder",
                                        report(QStringLiteral("worked-example")))))
        << r.out.toStdString();
}

TEST_F(ReportCommandTest, FileReportUsesItsStreamAndTheChosenPresetAndOutput) {
    const QStringList line = command({report(QStringLiteral("file-mkv.txt")), "--preset", "SD 480p",
                                      "--output", "/out/film.m4v"});
    ASSERT_GE(line.size(), 7);
    EXPECT_EQ(line.mid(1, 4),
              (QStringList{"--input", "/tmp/samples/Movie.mkv", "--output", "/out/film.m4v"}));
    // Another preset gives another video part.
    EXPECT_NE(command({report(QStringLiteral("file-mkv.txt"))}).mid(7), line.mid(7));
}

TEST_F(ReportCommandTest, BadInputGivesOneLineAndTheRightStatus) {
    const struct {
        QStringList args;
        int status;
    } cases[] = {
        {{"report", "--bogus", report("dvd.txt")}, 2},
        {{"report", report("dvd.txt"), "--preset"}, 2},
        {{"report", dir.path()}, 1},
        {{"report", report("dvd.txt"), "--preset", "No Such Preset"}, 1},
        {{"report", report("no-title.txt")}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const auto r = cli(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.err.trimmed().count(QLatin1Char('\n')), 0) << r.err.toStdString();
        EXPECT_FALSE(r.err.isEmpty());
    }
}

} // namespace
