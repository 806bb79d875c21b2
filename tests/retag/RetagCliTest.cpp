// `tarnwick-cli retag` as a user runs it: tagged movie files, the real
// encoder tool, the loopback movie database, and ffprobe as the reader of
// what was written.

#include "RetagTestSupport.h"

#include <QJsonArray>

#include <gtest/gtest.h>

#include "CliJson.h"
#include "Processes.h"
#include "SmallDisk.h"

using retagtest::tag;

namespace {

using testsupport::CliResult;

CliResult runRetag(const QStringList& args, const QByteArray& input = {}) {
    return testsupport::runCli(QStringList{QStringLiteral("retag")} + args, input);
}

class RetagCliTest : public ::testing::Test {
protected:
    void SetUp() override {
        scantest::server();
        ASSERT_TRUE(dir.isValid());
    }
    QTemporaryDir dir;
};

} // namespace

TEST_F(RetagCliTest, WithYesTheMatchIsShownAndWrittenUnderTheFilesOwnName) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                                               {{tag(TagName::Name), "Harbour Lights (Restored)"}});
    const CliResult r = runRetag({file, QStringLiteral("--yes")});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();

    EXPECT_TRUE(r.out.startsWith(file + "\n")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("name:       Harbour Lights (Restored)\n"));
    EXPECT_TRUE(r.out.contains("released:   1962-03-09"));
    EXPECT_TRUE(r.out.contains("genre:      Comedy"));
    EXPECT_TRUE(r.out.contains("director:   Leonard Ashby"));
    EXPECT_TRUE(r.out.contains("cover:      yes (movie database)"));
    EXPECT_TRUE(r.out.contains("match:      TMDb 100004"));
    EXPECT_TRUE(r.out.contains("Summary:\n  " + file + ": written\n")) << r.out.toStdString();
    // Progress as plain lines without a terminal.
    EXPECT_TRUE(r.err.contains("Harbour Lights: Scanning...")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("Harbour Lights: Querying..."));
    EXPECT_TRUE(r.err.contains("Writing Harbour Lights.m4v [1 of 1]"));
    EXPECT_FALSE(r.err.contains("\033["));

    const QJsonObject tags = retagtest::probeTags(file);
    EXPECT_EQ(tags.value("title").toString(), "Harbour Lights (Restored)");
    EXPECT_EQ(tags.value("genre").toString(), "Comedy");
    EXPECT_TRUE(tags.value("date").toString().startsWith("1962"));
    EXPECT_TRUE(retagtest::probeHasCover(file));
}

TEST_F(RetagCliTest, WithoutATerminalAndWithoutYesNothingIsWritten) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                                               {{tag(TagName::Name), "Harbour Lights"}});
    const QByteArray before = retagtest::fileHash(file);
    // A "y" on a pipe is no confirmation.
    const CliResult r = runRetag({file}, "y\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("Nothing written: no terminal to confirm on"))
        << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("genre:      Comedy")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(file + ": not written"));
    EXPECT_EQ(retagtest::fileHash(file), before);
}

TEST_F(RetagCliTest, SearchTitleJsonAndAFileThatIsNoMovie) {
    const QString file = retagtest::taggedCopy(dir.path(), "Quayside.m4v", {});
    const QString junk = dir.filePath("junk.m4v");
    ASSERT_TRUE(QFile::copy(scantest::sample("junk.mkv"), junk));

    // --search replaces the name taken from the file name.
    CliResult r = runRetag({file, "--search", "Harbour Lights", "--yes", "--json"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    QJsonArray items = testsupport::expectCliJson(r.out, "retag", 0).value("items").toArray();
    ASSERT_EQ(items.size(), 1);
    QJsonObject entry = items.at(0).toObject();
    EXPECT_EQ(entry.value("state").toString(), "written");
    EXPECT_EQ(entry.value("lookup").toString(), "matched");
    EXPECT_EQ(entry.value("source").toObject().value("path").toString(), file);
    const QJsonObject match = entry.value("match").toObject();
    EXPECT_EQ(match.value("tmdbID").toString(), "100004");
    EXPECT_EQ(match.value("name").toString(), "Harbour Lights");
    EXPECT_FALSE(match.value("tags").toObject().value("Cast").toString().isEmpty());
    EXPECT_EQ(retagtest::probeTags(file).value("title").toString(), "Harbour Lights");

    // One file that is no movie: the other is still written, the run fails.
    const QString other = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v", {});
    const QByteArray junkBefore = retagtest::fileHash(junk);
    r = runRetag({other, junk, "--yes", "--json"});
    EXPECT_EQ(r.status, 1);
    items = testsupport::expectCliJson(r.out, "retag", 1).value("items").toArray();
    ASSERT_EQ(items.size(), 2) << r.out.toStdString();
    EXPECT_EQ(items.at(0).toObject().value("state").toString(), "written");
    entry = items.at(1).toObject();
    EXPECT_EQ(entry.value("state").toString(), "failed");
    EXPECT_TRUE(entry.value("warnings")
                    .toArray()
                    .at(0)
                    .toString()
                    .startsWith("No valid title was found!."));
    EXPECT_EQ(retagtest::fileHash(junk), junkBefore);
}

TEST_F(RetagCliTest, SearchByTitleReplacesTheOldTagsAndCover) {
    // A file tagged as another movie, with its own cover.
    const QString file = retagtest::taggedCopy(dir.path(), "Quayside.m4v",
                                               {{tag(TagName::Name), "Quayside Nights"},
                                                {tag(TagName::Genre), "Drama"},
                                                {tag(TagName::ReleaseDate), "1999-05-01"},
                                                {tag(TagName::Comments), "tagged by hand"}},
                                               retagtest::solidCover(Qt::red));
    ASSERT_EQ(retagtest::probeTags(file).value("comment").toString(), "tagged by hand");
    ASSERT_EQ(retagtest::coverWidth(file), 48);

    const CliResult r = runRetag({file, "--search", "Harbour Lights", "--yes"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("name:       Harbour Lights\n")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(file + ": written"));
    // The match won, the old tags and cover are gone.
    const QJsonObject after = retagtest::probeTags(file);
    EXPECT_EQ(after.value("title").toString(), "Harbour Lights");
    EXPECT_EQ(after.value("genre").toString(), "Comedy");
    EXPECT_TRUE(after.value("date").toString().startsWith("1962"));
    EXPECT_FALSE(after.contains("comment"));
    EXPECT_GT(retagtest::coverWidth(file), 48);

    // A plain retag afterwards searches the file's name, finds nothing and
    // writes nothing: the file keeps the match.
    const QByteArray matched = retagtest::fileHash(file);
    const CliResult again = runRetag({file, "--yes"});
    EXPECT_EQ(again.status, 1) << again.err.toStdString();
    EXPECT_TRUE(again.out.contains(file + ": no match")) << again.out.toStdString();
    EXPECT_EQ(retagtest::fileHash(file), matched);
}

TEST_F(RetagCliTest, AFileWithoutAMatchIsNotWritten) {
    const QString file = retagtest::taggedCopy(dir.path(), "Quayside Tugboat Story.m4v",
                                               {{tag(TagName::Name), "Quayside Tugboat Story"}});
    const QByteArray before = retagtest::fileHash(file);
    for (const QStringList& args : {QStringList{file, "--yes"},
                                    QStringList{file, "--search", "A Film Nobody Made", "--yes"}}) {
        const CliResult r = runRetag(args);
        EXPECT_EQ(r.status, 1) << args.join(' ').toStdString();
        EXPECT_TRUE(r.out.contains("nothing will be written")) << r.out.toStdString();
        EXPECT_TRUE(r.out.contains(file + ": no match (nothing found for")) << r.out.toStdString();
        EXPECT_EQ(retagtest::fileHash(file), before);
    }
}

TEST_F(RetagCliTest, BadArgumentsAreReported) {
    const struct {
        QStringList args;
        int status;
        QString says;
    } cases[] = {
        {{}, 2, "no file given"},
        {{dir.filePath("missing.m4v"), "--yes"}, 1, dir.filePath("missing.m4v") + ": no such file"},
        {{dir.path(), "--yes"}, 1, "not a movie file"},
        {{"a.m4v", "b.m4v", "--search", "Heat"}, 2, "--search takes one file"},
        {{"a.m4v", "--search"}, 2, ""},
        {{"a.m4v", "--bogus"}, 2, "unknown option '--bogus'"},
    };
    for (const auto& c : cases) {
        const CliResult r = runRetag(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.join(' ').toStdString();
        EXPECT_TRUE(r.err.contains(c.says)) << r.err.toStdString();
    }
}

// Two `retag --yes` on one file at the same time take turns: both report
// "written", and the file plays with its media as it was and one of the two
// matches' titles and a cover.
TEST_F(RetagCliTest, TwoRetagsAtOnceTakeTurns) {
    auto media = [](const QString& path) {
        const testsupport::RunResult r = testsupport::run(
            QStringLiteral("ffmpeg"), {"-v", "error", "-i", path, "-map", "0:v:0", "-map", "0:a",
                                       "-c", "copy", "-f", "framemd5", "-"});
        EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
        EXPECT_TRUE(r.err.trimmed().isEmpty()) << r.err.toStdString();
        QByteArray body;
        for (const QByteArray& line : r.out.split('\n'))
            if (!line.startsWith('#'))
                body += line + '\n';
        return body;
    };
    const QByteArray packets = media(retagtest::plainMovie());
    for (int round = 0; round < 2; ++round) {
        const QString folder = dir.filePath(QStringLiteral("round-%1").arg(round));
        ASSERT_TRUE(QDir().mkpath(folder));
        const QString file =
            retagtest::taggedCopy(folder, QStringLiteral("Harbour Lights.m4v"), {});
        QProcess one, two;
        const QString cli = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli");
        one.start(cli, {"retag", file, "--yes"});
        two.start(cli, {"retag", file, "--search", "The Lighthouse Keeper", "--yes"});
        for (QProcess* p : {&one, &two}) {
            p->closeWriteChannel();
            ASSERT_TRUE(p->waitForFinished(120000));
            const QString out = QString::fromUtf8(p->readAllStandardOutput());
            EXPECT_EQ(p->exitCode(), 0)
                << QString::fromUtf8(p->readAllStandardError()).toStdString();
            EXPECT_TRUE(out.contains(file + ": written\n")) << out.toStdString();
        }
        const QString title = retagtest::probeTags(file).value("title").toString();
        EXPECT_TRUE(title == "Harbour Lights" || title == "The Lighthouse Keeper")
            << title.toStdString();
        EXPECT_TRUE(retagtest::probeHasCover(file));
        EXPECT_EQ(media(file), packets) << "round " << round;
    }
}

// On a full disk the tags cannot be written: no "written", a non-zero exit,
// the reason in the summary, and the file byte for byte as it was.
TEST_F(RetagCliTest, AFullDiskFailsWithTheReasonAndLeavesTheFile) {
    const testsupport::SmallDisk disk(dir.filePath(QStringLiteral("small-disk")), "1m");
    SKIP_WITHOUT_SMALL_DISK(disk);
    const QString file =
        retagtest::taggedCopy(dir.filePath(QStringLiteral("small-disk")), "Harbour Lights.m4v", {});
    disk.fill();
    const QByteArray before = retagtest::fileHash(file);
    const CliResult r = runRetag({file, QStringLiteral("--yes")});
    EXPECT_NE(r.status, 0);
    EXPECT_FALSE(r.out.contains(": written")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(file + ": failed (")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("No space left on device")) << r.out.toStdString();
    EXPECT_EQ(retagtest::fileHash(file), before);
}
