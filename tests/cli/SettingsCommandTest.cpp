// `tarnwick-cli settings` on a store of the test's own.
#include "Processes.h"
#include "SmallDisk.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using testsupport::CliResult;

class SettingsCommandTest : public ::testing::Test {
protected:
    void SetUp() override { QDir().mkpath(tmp); }
    // A scratch folder of each run's own, to see that none is left.
    QMap<QString, QString> env() const { return {{"TARNWICK_SETTINGS", store}, {"TMPDIR", tmp}}; }
    CliResult cli(const QStringList& args) const {
        return testsupport::runCli(QStringList{"settings"} + args, {}, 30000, env());
    }
    QString get(const QString& key) const { return cli({"get", key}).out.trimmed(); }
    QByteArray contents() const {
        QFile f(store);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
    ino_t inode() const {
        struct stat s {};
        EXPECT_EQ(::stat(QFile::encodeName(store).constData(), &s), 0);
        return s.st_ino;
    }

    QTemporaryDir dir;
    QString store = dir.filePath("store.plist");
    QString tmp = dir.filePath("tmp");
};

TEST_F(SettingsCommandTest, ValuesAreTypedAsTheirDefaultAndReadsChangeNothing) {
    struct Case {
        const char* key;
        const char* value;
        const char* stored;
    };
    for (const Case& c : {Case{"Decomb", "yes", "YES"}, Case{"Decomb", "0", "NO"},
                          Case{"ContentID Source", "2", "2"},
                          Case{"Genre List", R"(["Drama","Comedy"])", R"(["Drama","Comedy"])"},
                          Case{"Genre Map", R"({"War":"Drama"})", R"({"War":"Drama"})"}}) {
        EXPECT_EQ(cli({"set", c.key, c.value}).status, 0) << c.key;
        EXPECT_EQ(get(c.key), c.stored);
    }
    // The start-up repair filled the empty shipped region.
    EXPECT_EQ(get("Language Region").size(), 5);

    // Reading neither rewrites the file nor leaves a scratch folder.
    const ino_t before = inode();
    EXPECT_EQ(get("Decomb"), "NO");
    const QStringList lines = cli({"list"}).out.split('\n', Qt::SkipEmptyParts);
    EXPECT_GT(lines.size(), 35);
    EXPECT_TRUE(lines.contains("Genre Map\t{\"War\":\"Drama\"}"));
    EXPECT_EQ(inode(), before) << "start-up rewrote the settings file";
    EXPECT_EQ(QDir(tmp).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());

    // Keys differ in case; reset brings back the shipped values.
    ASSERT_EQ(cli({"set", "Backdrop Art", "YES"}).status, 0);
    ASSERT_EQ(cli({"set", "Deblock", "YES"}).status, 0);
    ASSERT_EQ(cli({"reset"}).status, 0);
    EXPECT_EQ(get("Backdrop Art"), "YES");
    EXPECT_EQ(get("Deblock"), "NO");
    const QStringList reset = cli({"list"}).out.split('\n', Qt::SkipEmptyParts);
    EXPECT_TRUE(reset.contains("backdrop Art\tNO"));
    EXPECT_TRUE(reset.contains("Backdrop Art\tYES"));
}

TEST_F(SettingsCommandTest, RefusedInputIsOneUsageLineAndLeavesTheStore) {
    ASSERT_EQ(cli({"set", "Primary Device", "SD 480p"}).status, 0);
    const QByteArray stored = contents();
    struct Case {
        QStringList args;
        const char* says;
    };
    const QList<Case> cases = {
        {{"set", "Decomb", "maybe"}, "expected YES/NO"},
        {{"set", "ContentID Source", "two"}, "expected an integer"},
        {{"set", "Genre List", "{\"not\":\"a list\"}"}, "expected a JSON array"},
        {{"set", "No Such Key", "1"}, "unknown setting 'No Such Key'"},
        {{"frobnicate"}, "bad settings arguments"},
        {{}, "needs a subcommand"},
        {{"set", "Primary Device", "Nonexistent"}, "no preset named"},
        {{"set", "Language Region", "xx"}, "not a known language region"},
        {{"set", "HD-SD", "YES"}, "needs an HD primary preset"},
        {{"set", "ContentID Source", "3"}, "must be 0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const CliResult r = cli(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_TRUE(r.err.contains(QLatin1String(c.says))) << r.err.toStdString();
        EXPECT_EQ(r.err.trimmed().count('\n'), 0) << r.err.toStdString();
    }
    EXPECT_EQ(contents(), stored);
    EXPECT_EQ(cli({"get", "No Such Key"}).status, 1);
    EXPECT_EQ(cli({"set", "Language Region", "en-GB"}).status, 0);
    EXPECT_EQ(cli({"set", "Primary Device", "HD 1080p"}).status, 0);
    EXPECT_EQ(cli({"set", "HD-SD", "YES"}).status, 0);
}

TEST_F(SettingsCommandTest, ConcurrentRunsKeepEveryKey) {
    const QStringList keys = {"Decomb",       "Denoise",      "Detelecine",   "Deblock",
                              "Only Native",  "Genre Native", "No Subtitles", "Text Subtitles",
                              "Burn Foreign", "Skip Tagging"};
    ASSERT_EQ(cli({"get", "Decomb"}).status, 0); // the file exists before the race
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TARNWICK_SETTINGS", store);
    std::vector<std::unique_ptr<QProcess>> runs;
    for (const QString& key : keys) {
        runs.push_back(std::make_unique<QProcess>());
        runs.back()->setProcessEnvironment(environment);
        runs.back()->start(TARNWICK_BINARY_DIR "/bin/tarnwick-cli",
                           {"settings", "set", key, "YES"});
    }
    for (auto& p : runs) {
        ASSERT_TRUE(p->waitForFinished(30000));
        EXPECT_EQ(p->exitCode(), 0) << p->readAllStandardError().toStdString();
    }
    for (const QString& key : keys)
        EXPECT_EQ(get(key), "YES") << key.toStdString();
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

    const CliResult r = cli({"set", "Genre List", "[\"" + QString(8000, 'x') + "\"]"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains(QLatin1String("No space left"))) << r.err.toStdString();
    EXPECT_EQ(r.err.trimmed().count('\n'), 0) << r.err.toStdString();
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), old);
    EXPECT_EQ(get("Genre List"), R"(["Drama"])");
    EXPECT_EQ(QDir(dir.filePath("disk")).entryList(QDir::Files | QDir::Hidden),
              (QStringList{".filler", "Tarnwick.plist", "Tarnwick.plist.lock"}));
}

} // namespace
