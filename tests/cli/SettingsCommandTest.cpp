#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

struct Result {
    int status = -1;
    QString out, err;
};

class SettingsCommandTest : public ::testing::Test {
protected:
    Result cli(const QStringList& args) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TARNWICK_SETTINGS", dir.filePath("store.plist"));
        p.setProcessEnvironment(env);
        p.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"),
                QStringList{"settings"} + args);
        EXPECT_TRUE(p.waitForFinished(30000));
        return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()),
                QString::fromUtf8(p.readAllStandardError())};
    }
    QTemporaryDir dir;
};

TEST_F(SettingsCommandTest, TypedValuesFollowTheRegisteredDefault) {
    EXPECT_EQ(cli({"set", "Decomb", "yes"}).status, 0);
    EXPECT_EQ(cli({"get", "Decomb"}).out.trimmed(), "YES");
    EXPECT_EQ(cli({"set", "Decomb", "0"}).status, 0);
    EXPECT_EQ(cli({"get", "Decomb"}).out.trimmed(), "NO");

    EXPECT_EQ(cli({"set", "ContentID Source", "2"}).status, 0);
    EXPECT_EQ(cli({"get", "ContentID Source"}).out.trimmed(), "2");

    EXPECT_EQ(cli({"set", "Genre List", R"(["Drama","Comedy"])"}).status, 0);
    EXPECT_EQ(cli({"get", "Genre List"}).out.trimmed(), R"(["Drama","Comedy"])");

    EXPECT_EQ(cli({"set", "Genre Map", R"({"War":"Drama"})"}).status, 0);
    EXPECT_EQ(cli({"get", "Genre Map"}).out.trimmed(), R"({"War":"Drama"})");

    // The start-up repair filled the empty shipped region.
    EXPECT_EQ(cli({"get", "Language Region"}).out.trimmed().size(), 5);
}

TEST_F(SettingsCommandTest, BadInputIsAUsageErrorWithOneLine) {
    for (const QStringList& args :
         {QStringList{"set", "Decomb", "maybe"}, QStringList{"set", "ContentID Source", "two"},
          QStringList{"set", "Genre List", "{\"not\":\"a list\"}"},
          QStringList{"set", "No Such Key", "1"}, QStringList{"frobnicate"}, QStringList{}}) {
        const Result r = cli(args);
        EXPECT_EQ(r.status, 2) << args.join(' ').toStdString();
        EXPECT_EQ(r.err.trimmed().count('\n'), 0) << r.err.toStdString();
        EXPECT_FALSE(r.err.isEmpty());
    }
    EXPECT_EQ(cli({"get", "No Such Key"}).status, 1);
}

TEST_F(SettingsCommandTest, ListAndReset) {
    ASSERT_EQ(cli({"set", "Backdrop Art", "YES"}).status, 0);
    ASSERT_EQ(cli({"set", "Deblock", "YES"}).status, 0);
    ASSERT_EQ(cli({"reset"}).status, 0);
    EXPECT_EQ(cli({"get", "Backdrop Art"}).out.trimmed(), "YES");
    EXPECT_EQ(cli({"get", "Deblock"}).out.trimmed(), "NO");

    const QStringList lines = cli({"list"}).out.split('\n', Qt::SkipEmptyParts);
    EXPECT_TRUE(lines.contains("backdrop Art\tNO"));
    EXPECT_TRUE(lines.contains("Backdrop Art\tYES"));
    EXPECT_GT(lines.size(), 35);
}

} // namespace
