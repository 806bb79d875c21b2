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
    EXPECT_TRUE(r.out.startsWith("Harbour Lights\n")) << r.out.toStdString();
    for (const QString& part : {QStringLiteral("status:     ready (8)"),
                                QStringLiteral("main title: 1 (00:00:04, 640x360, h264)"),
                                QStringLiteral("match:      Harbour Lights (1962)"),
                                "poster:     " + scantest::server().baseURL(),
                                QStringLiteral("Tarnwick_Pro_Encoder --input"),
                                QStringLiteral("status:     failed: No valid title was found!.")})
        EXPECT_TRUE(r.out.contains(part)) << part.toStdString() << "\n" << r.out.toStdString();
    // Progress on stderr, as plain lines without a terminal.
    EXPECT_TRUE(r.err.contains("Harbour Lights: Querying...")) << r.err.toStdString();
    EXPECT_FALSE(r.err.contains("\033["));
}

TEST_F(ScanCliTest, JsonWithSkipTaggingMakesNoRequestAndKeepsTheStoredSetting) {
    scantest::server().clearRequests();
    const CliResult r = runCli({scantest::sample("The Lighthouse Keeper (2019).mkv"),
                                QStringLiteral("--skip-tagging"), QStringLiteral("--json")});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_EQ(scantest::server().requestCount(), 0);
    const QJsonObject item =
        QJsonDocument::fromJson(r.out.toUtf8()).object().value("items").toArray().at(0).toObject();
    EXPECT_EQ(item.value("status").toInt(), 8) << r.out.toStdString();
    EXPECT_EQ(item.value("lookup").toString(), "skipped");
    const QJsonObject title = item.value("titles").toArray().at(0).toObject();
    EXPECT_EQ(title.value("audio").toArray().at(0).toObject().value("id").toInt(), 2);
    EXPECT_TRUE(item.value("command").toArray().contains(QJsonValue("--input")));

    // The option held for that run only.
    const CliResult settings = testsupport::runCli(
        {QStringLiteral("settings"), QStringLiteral("get"), QStringLiteral("Skip Tagging")});
    EXPECT_EQ(settings.out.trimmed(), "NO");
}

TEST_F(ScanCliTest, ASourceWithoutHitsIsSkippedOrSearchedUnderATypedName) {
    const QString unknown =
        scantest::sampleAs("Harbour Lights.mp4", QStringLiteral("Quayside Tugboat Story.mp4"));
    // Without a terminal the question is not asked: Skip.
    const CliResult r = runCli({unknown}, "Harbour Lights\n");
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("No match for \"Quayside Tugboat Story\"; skipped."));
    EXPECT_TRUE(r.out.contains("match:      none"));
}
