// Runs the built tarnwick-cli and checks what `name` prints.
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "Processes.h"

namespace {

using Result = testsupport::CliResult;

Result runCli(const QStringList& arguments) {
    return testsupport::runCli(arguments);
}

TEST(NameCommand, PrintsSearchTitleAndSortName) {
    const Result r = runCli({"name", "The.Matrix.1999.1080p.mkv"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.toStdString(), "The.Matrix.1999.1080p.mkv\tThe Matrix\tMatrix, The\n");
    EXPECT_EQ(r.err.toStdString(), "");
}

TEST(NameCommand, OneLinePerArgumentInOrder) {
    const Result r = runCli({"name", "Ocean's 11.avi", "/movies/Rocky2.m4v", "A Beautiful Mind",
                             "The.Matrix.1999", "Breaking.Bad.S01E02.720p.m2ts", "Up"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.toStdString(), "Ocean's 11.avi\tOcean's 11\tOcean's 11\n"
                                   "/movies/Rocky2.m4v\tRocky\tRocky\n"
                                   "A Beautiful Mind\tA Beautiful Mind\tA Beautiful Mind\n"
                                   "The.Matrix.1999\tThe Matrix\tMatrix, The\n"
                                   "Breaking.Bad.S01E02.720p.m2ts\tBreaking Bad\tBreaking Bad\n"
                                   "Up\tUp\tUp\n");
}

TEST(NameCommand, ExtensionsAreShortLetterSuffixes) {
    // "Bean" would pass for an extension of a file name; a folder keeps its whole name.
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString folder = dir.filePath("Mr.Bean");
    ASSERT_TRUE(QDir().mkpath(folder));
    const Result r =
        runCli({"name", "Mr.Bean.mkv", folder + "/", "The.Lord.Of.The.Rings.Extended"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Mr.Bean.mkv\tMr Bean\tMr Bean\n" + folder + "/\tMr Bean\tMr Bean\n" +
                         "The.Lord.Of.The.Rings.Extended\tThe Lord Of The Rings Extended\t"
                         "Lord Of The Rings Extended, The\n");
}

TEST(NameCommand, NoArgumentIsUsageError) {
    const Result r = runCli({"name"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_EQ(r.err.count('\n'), 1) << r.err.toStdString();
    EXPECT_TRUE(r.err.startsWith("tarnwick-cli name: no name given")) << r.err.toStdString();
}

} // namespace
