// `tarnwick-cli retag` as a user runs it: tagged movie files, the real
// encoder tool, the loopback movie database, and ffprobe as the reader of
// what was written.

#include "RetagTestSupport.h"

#include "CliJson.h"
#include "Mp4TestMedia.h"
#include "SmallDisk.h"

#include <gtest/gtest.h>

using retagtest::tag;

namespace {

using testsupport::CliResult;

CliResult runRetag(const QStringList& args, const QByteArray& input = {}) {
    return testsupport::runCli(QStringList{"retag"} + args, input);
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

TEST_F(RetagCliTest, WithoutYesNothingIsWrittenWithYesTheMatchIsWrittenInPlace) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                                               {{tag(TagName::Name), "Harbour Lights (Restored)"}});
    const QByteArray before = retagtest::fileHash(file);
    // A "y" on a pipe is no confirmation.
    CliResult r = runRetag({file}, "y\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("Nothing written: no terminal to confirm on"))
        << r.err.toStdString();
    EXPECT_TRUE(r.out.contains(file + ": not written"));
    EXPECT_EQ(retagtest::fileHash(file), before);

    r = runRetag({file, "--yes"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    for (const char* line : {"name:       Harbour Lights (Restored)\n", "released:   1962-03-09",
                             "genre:      Comedy", "director:   Leonard Ashby",
                             "cover:      yes (movie database)", "match:      TMDb 100004"})
        EXPECT_TRUE(r.out.contains(line)) << line;
    EXPECT_TRUE(r.out.contains("Summary:\n  " + file + ": written\n")) << r.out.toStdString();
    // Progress as plain lines without a terminal.
    EXPECT_TRUE(r.err.contains("Writing Harbour Lights.m4v [1 of 1]")) << r.err.toStdString();

    const QJsonObject tags = retagtest::probeTags(file);
    EXPECT_EQ(tags.value("title").toString(), "Harbour Lights (Restored)");
    EXPECT_EQ(tags.value("genre").toString(), "Comedy");
    EXPECT_GT(retagtest::coverWidth(file), 0);
}

TEST_F(RetagCliTest, SearchByTitleReplacesTheOldTagsAndCover) {
    // A file tagged as another movie, with its own cover.
    const QString file = retagtest::taggedCopy(dir.path(), "Quayside.m4v",
                                               {{tag(TagName::Name), "Quayside Nights"},
                                                {tag(TagName::Genre), "Drama"},
                                                {tag(TagName::Comments), "tagged by hand"}},
                                               Qt::red);
    ASSERT_EQ(retagtest::coverWidth(file), 48);

    // --search replaces the name taken from the file name.
    const CliResult r = runRetag({file, "--search", "Harbour Lights", "--yes", "--json"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonArray items = testsupport::expectCliJson(r.out, "retag", 0).value("items").toArray();
    EXPECT_EQ(items.at(0).toObject().value("state").toString(), "written");
    EXPECT_EQ(items.at(0).toObject().value("match").toObject().value("tmdbID").toString(),
              "100004");
    // The match won, the old tags and cover are gone.
    const QJsonObject after = retagtest::probeTags(file);
    EXPECT_EQ(after.value("title").toString(), "Harbour Lights");
    EXPECT_EQ(after.value("genre").toString(), "Comedy");
    EXPECT_FALSE(after.contains("comment"));
    EXPECT_GT(retagtest::coverWidth(file), 48);

    // A plain retag afterwards searches the file's name, finds nothing and
    // writes nothing: the file keeps the match.
    const QByteArray matched = retagtest::fileHash(file);
    const CliResult again = runRetag({file, "--yes"});
    EXPECT_EQ(again.status, 1) << again.err.toStdString();
    EXPECT_TRUE(again.out.contains(file + ": no match (nothing found for"))
        << again.out.toStdString();
    EXPECT_EQ(retagtest::fileHash(file), matched);
}

TEST_F(RetagCliTest, AFileThatIsNoMovieFailsTheRunButNotTheOthersAndBadArguments) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v", {});
    const QString junk = dir.filePath("junk.m4v");
    ASSERT_TRUE(QFile::copy(scantest::sample("junk.mkv"), junk));
    const QByteArray junkBefore = retagtest::fileHash(junk);
    const CliResult r = runRetag({file, junk, "--yes", "--json"});
    EXPECT_EQ(r.status, 1);
    const QJsonArray items = testsupport::expectCliJson(r.out, "retag", 1).value("items").toArray();
    ASSERT_EQ(items.size(), 2) << r.out.toStdString();
    EXPECT_EQ(items.at(0).toObject().value("state").toString(), "written");
    EXPECT_EQ(items.at(1).toObject().value("state").toString(), "failed");
    EXPECT_TRUE(items.at(1)
                    .toObject()
                    .value("warnings")
                    .toArray()
                    .at(0)
                    .toString()
                    .startsWith("No valid title was found!."));
    EXPECT_EQ(retagtest::fileHash(junk), junkBefore);

    const struct {
        QStringList args;
        int status;
        QString says;
    } cases[] = {
        {{}, 2, "no file given"},
        {{dir.filePath("missing.m4v"), "--yes"}, 1, dir.filePath("missing.m4v") + ": no such file"},
        {{"a.m4v", "b.m4v", "--search", "Heat"}, 2, "--search takes one file"},
    };
    for (const auto& c : cases) {
        const CliResult bad = runRetag(c.args);
        EXPECT_EQ(bad.status, c.status) << c.args.join(' ').toStdString();
        EXPECT_TRUE(bad.err.contains(c.says)) << bad.err.toStdString();
    }
}

// Two `retag --yes` on one file at the same time take turns: both report
// "written", and the file plays with its media as it was and one of the two
// matches' titles and a cover.
TEST_F(RetagCliTest, TwoRetagsAtOnceTakeTurns) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v", {});
    QProcess one, two;
    const QString cli = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli");
    one.start(cli, {"retag", file, "--yes"});
    two.start(cli, {"retag", file, "--search", "The Lighthouse Keeper", "--yes"});
    for (QProcess* p : {&one, &two}) {
        p->closeWriteChannel();
        ASSERT_TRUE(p->waitForFinished(120000));
        const QString out = QString::fromUtf8(p->readAllStandardOutput());
        EXPECT_EQ(p->exitCode(), 0) << QString::fromUtf8(p->readAllStandardError()).toStdString();
        EXPECT_TRUE(out.contains(file + ": written\n")) << out.toStdString();
    }
    EXPECT_TRUE(QStringList({"Harbour Lights", "The Lighthouse Keeper"})
                    .contains(retagtest::probeTags(file).value("title").toString()));
    EXPECT_GT(retagtest::coverWidth(file), 0);
    EXPECT_EQ(mp4test::packetHash(file), mp4test::packetHash(retagtest::plainMovie()));
}

// On a full disk the tags cannot be written: no "written", a non-zero exit,
// the reason in the summary, and the file byte for byte as it was.
TEST_F(RetagCliTest, AFullDiskFailsWithTheReasonAndLeavesTheFile) {
    const testsupport::SmallDisk disk(dir.filePath("small-disk"), "1m");
    SKIP_WITHOUT_SMALL_DISK(disk);
    const QString file =
        retagtest::taggedCopy(dir.filePath("small-disk"), "Harbour Lights.m4v", {});
    disk.fill();
    const QByteArray before = retagtest::fileHash(file);
    const CliResult r = runRetag({file, "--yes"});
    EXPECT_NE(r.status, 0);
    EXPECT_TRUE(r.out.contains(file + ": failed (")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("No space left on device")) << r.out.toStdString();
    EXPECT_EQ(retagtest::fileHash(file), before);
}
