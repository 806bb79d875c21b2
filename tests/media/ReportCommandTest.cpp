#include "Processes.h"
#include "TestSupport.h"

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
    QTemporaryDir dir;
};

TEST_F(ReportCommandTest, WorkedExampleShowsTitlesMainTitleAndCommandLine) {
    const auto r = cli({QStringLiteral("report"), report(QStringLiteral("worked-example.txt"))});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    for (const char* part : {"Source: DVD (2)", "Main title: 1\n", "Title 2: 00:02:10 (130 s)",
                             "Espanol (iso639-2: spa) (Bitmap)(VOBSUB) [included]"})
        EXPECT_TRUE(r.out.contains(QLatin1String(part))) << part;
    EXPECT_TRUE(r.out.contains("Command line: " TARNWICK_BINARY_DIR
                               "/bin/Tarnwick_Pro_Encoder --input " +
                               report("worked-example") + " --output "));
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const auto r = cli(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_TRUE(!r.err.isEmpty() && !r.err.trimmed().contains(u'\n')) << r.err.toStdString();
    }
}

} // namespace
