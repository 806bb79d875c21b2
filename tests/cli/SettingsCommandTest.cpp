#include "SmallDisk.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

struct Result {
    int status = -1;
    QString out, err;
};

class SettingsCommandTest : public ::testing::Test {
protected:
    QProcessEnvironment environment() const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TARNWICK_SETTINGS", store);
        // A scratch folder of each run's own, to see that none is left.
        QDir().mkpath(dir.filePath("tmp"));
        env.insert("TMPDIR", dir.filePath("tmp"));
        return env;
    }
    void start(QProcess& p, const QStringList& args) const {
        p.setProcessEnvironment(environment());
        p.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"),
                QStringList{"settings"} + args);
    }
    Result cli(const QStringList& args) {
        QProcess p;
        start(p, args);
        EXPECT_TRUE(p.waitForFinished(30000));
        return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()),
                QString::fromUtf8(p.readAllStandardError())};
    }
    QTemporaryDir dir;
    QString store = dir.filePath("store.plist");
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

TEST_F(SettingsCommandTest, RunsThatChangeNothingLeaveTheFileAndNoScratchFolder) {
    ASSERT_EQ(cli({"set", "Deblock", "YES"}).status, 0);
    struct stat before {};
    ASSERT_EQ(::stat(QFile::encodeName(store).constData(), &before), 0);
    EXPECT_EQ(cli({"get", "Deblock"}).out.trimmed(), "YES");
    EXPECT_EQ(cli({"list"}).status, 0);
    struct stat after {};
    ASSERT_EQ(::stat(QFile::encodeName(store).constData(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "start-up rewrote the settings file";
    EXPECT_EQ(QDir(dir.filePath("tmp")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList());
}

TEST_F(SettingsCommandTest, RefusedValuesLeaveTheStoreAsItWas) {
    ASSERT_EQ(cli({"set", "Primary Device", "SD 480p"}).status, 0);
    struct Case {
        const char* key;
        const char* value;
        const char* says;
    };
    for (const Case& c : {Case{"Primary Device", "Nonexistent", "no preset named"},
                          Case{"Secondary Device", "", "no preset named"},
                          Case{"Language Region", "xx", "not a known language region"},
                          Case{"Language Region", "en_US", "not a known language region"},
                          Case{"HD-SD", "YES", "needs an HD primary preset"},
                          Case{"ContentID Source", "3", "must be 0"},
                          Case{"ContentID Source", "12", "must be 0"}}) {
        const QString before = cli({"get", c.key}).out;
        const Result r = cli({"set", c.key, c.value});
        EXPECT_EQ(r.status, 2) << c.key << " " << c.value;
        EXPECT_TRUE(r.err.contains(QLatin1String(c.says))) << r.err.toStdString();
        EXPECT_EQ(r.err.trimmed().count('\n'), 0) << r.err.toStdString();
        EXPECT_EQ(cli({"get", c.key}).out, before) << c.key;
    }
    EXPECT_EQ(cli({"set", "Language Region", "en-GB"}).status, 0);
    EXPECT_EQ(cli({"set", "Primary Device", "HD 1080p"}).status, 0);
    EXPECT_EQ(cli({"set", "HD-SD", "YES"}).status, 0);
}

TEST_F(SettingsCommandTest, ConcurrentRunsKeepEveryKey) {
    const QStringList keys = {"Decomb",       "Denoise",      "Detelecine",   "Deblock",
                              "Only Native",  "Genre Native", "No Subtitles", "Text Subtitles",
                              "Burn Foreign", "Skip Tagging"};
    ASSERT_EQ(cli({"get", "Decomb"}).status, 0); // the file exists before the race
    std::vector<std::unique_ptr<QProcess>> runs;
    for (const QString& key : keys) {
        runs.push_back(std::make_unique<QProcess>());
        start(*runs.back(), {"set", key, "YES"});
    }
    for (auto& p : runs) {
        ASSERT_TRUE(p->waitForFinished(30000));
        EXPECT_EQ(p->exitCode(), 0) << p->readAllStandardError().toStdString();
    }
    for (const QString& key : keys)
        EXPECT_EQ(cli({"get", key}).out.trimmed(), "YES") << key.toStdString();
}

TEST_F(SettingsCommandTest, FullDiskFailsAndKeepsTheOldFile) {
    testsupport::SmallDisk disk(dir.filePath("disk"));
    SKIP_WITHOUT_SMALL_DISK(disk);
    store = dir.filePath("disk/Tarnwick.plist");
    ASSERT_EQ(cli({"set", "Genre List", R"(["Drama"])"}).status, 0);
    QFile file(store);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray old = file.readAll();
    file.close();
    disk.fill();

    const QString longList = QStringLiteral("[\"%1\"]").arg(QString(8000, QLatin1Char('x')));
    const Result r = cli({"set", "Genre List", longList});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains(QLatin1String("No space left"))) << r.err.toStdString();
    EXPECT_EQ(r.err.trimmed().count('\n'), 0) << r.err.toStdString();
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), old);
    EXPECT_EQ(cli({"get", "Genre List"}).out.trimmed(), R"(["Drama"])");
    EXPECT_EQ(QDir(dir.filePath("disk")).entryList(QDir::Files | QDir::Hidden),
              (QStringList{".filler", "Tarnwick.plist", "Tarnwick.plist.lock"}));
}

} // namespace
