// `tarnwick-cli scan` as a user runs it: real sources, the real encoder
// tool, the loopback movie database.

#include "ScanTestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "Processes.h"

namespace {

using testsupport::CliResult;

CliResult runCli(const QStringList& args, const QByteArray& input = {}) {
    return testsupport::runCli(QStringList{QStringLiteral("scan")} + args, input);
}

class ScanCliTest : public ::testing::Test {
protected:
    void SetUp() override { scantest::server(); }
};

} // namespace

TEST_F(ScanCliTest, PrintsTracksMatchAndCommandLineAndFailsForAJunkSource) {
    const CliResult r = runCli({scantest::sample("Harbour Lights.mp4"),
                                scantest::sample("junk.mkv"), QStringLiteral("--yes")});
    EXPECT_EQ(r.status, 1) << r.err.toStdString();
    const QString& out = r.out;
    EXPECT_TRUE(out.startsWith("Harbour Lights\n")) << out.toStdString();
    EXPECT_TRUE(out.contains("(video file)"));
    EXPECT_TRUE(out.contains("status:     ready (8)"));
    EXPECT_TRUE(out.contains("main title: 1 (00:00:04, 640x360, h264)")) << out.toStdString();
    EXPECT_TRUE(out.contains("audio:      [x] 1 "));
    EXPECT_TRUE(out.contains("match:      Harbour Lights (1962)"));
    EXPECT_TRUE(out.contains("genre:      Comedy"));
    EXPECT_TRUE(out.contains("TMDb ID:    100004"));
    EXPECT_TRUE(out.contains("IMDb ID:    7712004"));
    EXPECT_TRUE(out.contains("poster:     " + scantest::server().baseURL()));
    EXPECT_TRUE(out.contains("Tarnwick_Pro_Encoder --input"));
    EXPECT_TRUE(out.contains("--title 1"));
    EXPECT_TRUE(out.contains("'Harbour Lights.m4v'") || out.contains("Harbour\\ Lights.m4v"));
    EXPECT_TRUE(out.contains("\nJunk\n"));
    EXPECT_TRUE(out.contains("status:     failed: No valid title was found!."));
    // Progress and the failure on stderr, as plain lines without a terminal.
    EXPECT_TRUE(r.err.contains("Harbour Lights: Scanning...")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("Harbour Lights: Querying..."));
    EXPECT_FALSE(r.err.contains("\033["));
}

TEST_F(ScanCliTest, JsonWithSkipTaggingMakesNoRequestAndKeepsTheStoredSetting) {
    scantest::server().clearRequests();
    const CliResult r = runCli({scantest::sample("The Lighthouse Keeper (2019).mkv"),
                                QStringLiteral("--skip-tagging"), QStringLiteral("--json"),
                                QStringLiteral("--title"), QStringLiteral("1")});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_EQ(scantest::server().requestCount(), 0);

    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(r.out.toUtf8(), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << r.out.toStdString();
    const QJsonArray items = doc.object().value("items").toArray();
    ASSERT_EQ(items.size(), 1);
    const QJsonObject item = items.at(0).toObject();
    EXPECT_EQ(item.value("status").toInt(), 8);
    EXPECT_EQ(item.value("source").toObject().value("name").toString(), "The Lighthouse Keeper");
    EXPECT_TRUE(item.value("match").isNull());
    EXPECT_EQ(item.value("lookup").toString(), "skipped");
    EXPECT_EQ(item.value("mainTitle").toInt(), 1);
    const QJsonObject title = item.value("titles").toArray().at(0).toObject();
    EXPECT_TRUE(title.value("main").toBool());
    EXPECT_EQ(title.value("size").toString(), "1280x720");
    const QJsonArray audio = title.value("audio").toArray();
    ASSERT_EQ(audio.size(), 2);
    EXPECT_EQ(audio.at(0).toObject().value("id").toInt(), 2); // English first for en-US
    EXPECT_TRUE(audio.at(0).toObject().value("include").toBool());
    const QJsonArray command = item.value("command").toArray();
    ASSERT_FALSE(command.isEmpty());
    EXPECT_TRUE(command.at(0).toString().endsWith("/Tarnwick_Pro_Encoder"));
    EXPECT_TRUE(command.contains(QJsonValue("--input")));

    // The option held for that run only.
    const CliResult settings = testsupport::runCli(
        {QStringLiteral("settings"), QStringLiteral("get"), QStringLiteral("Skip Tagging")});
    EXPECT_EQ(settings.out.trimmed(), "NO");
}

TEST_F(ScanCliTest, ASourceWithoutHitsIsSkippedOrSearchedUnderATypedName) {
    const QString unknown =
        scantest::sampleAs("Harbour Lights.mp4", QStringLiteral("Quayside Tugboat Story.mp4"));
    // Without a terminal the question is not asked: Skip.
    CliResult r = runCli({unknown}, "Harbour Lights\n");
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("No match for \"Quayside Tugboat Story\"; skipped."));
    EXPECT_TRUE(r.out.contains("match:      none"));

    r = runCli({unknown, QStringLiteral("--yes")});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.startsWith("Quayside Tugboat Story\n"));
}
