// Runs the built tarnwick-cli and checks what `name` prints.
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

struct Result {
    int exitCode = -1;
    QString out;
    QString err;
};

Result runCli(const QStringList& arguments) {
    const QString program = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli");
    Result result;
    if (!QFileInfo(program).isExecutable()) {
        ADD_FAILURE() << "tarnwick-cli is not built: " << program.toStdString();
        return result;
    }
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(30000)) {
        ADD_FAILURE() << "tarnwick-cli did not finish";
        return result;
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

TEST(NameCommand, PrintsSearchTitleAndSortName) {
    const Result r = runCli({"name", "The.Matrix.1999.1080p.mkv"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out.toStdString(), "The.Matrix.1999.1080p.mkv\tThe Matrix\tMatrix, The\n");
    EXPECT_EQ(r.err.toStdString(), "");
}

TEST(NameCommand, OneLinePerArgumentInOrder) {
    const Result r = runCli({"name", "Ocean's 11.avi", "/movies/Rocky2.m4v", "A Beautiful Mind",
                             "The.Matrix.1999", "Breaking.Bad.S01E02.720p.m2ts", "Up"});
    EXPECT_EQ(r.exitCode, 0);
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
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, "Mr.Bean.mkv\tMr Bean\tMr Bean\n" + folder + "/\tMr Bean\tMr Bean\n" +
                         "The.Lord.Of.The.Rings.Extended\tThe Lord Of The Rings Extended\t"
                         "Lord Of The Rings Extended, The\n");
}

TEST(NameCommand, NoArgumentIsUsageError) {
    const Result r = runCli({"name"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_EQ(r.err.count('\n'), 1) << r.err.toStdString();
    EXPECT_TRUE(r.err.startsWith("tarnwick-cli: ")) << r.err.toStdString();
}

} // namespace
