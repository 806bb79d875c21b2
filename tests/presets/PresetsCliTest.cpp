// The `presets` command of tarnwick-cli, run as a program against the test's
// private Documents folder.
#include "core/PropertyList.h"
#include "presets/MDB_Devices.h"

#include "SmallDisk.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

struct Result {
    int status = -1;
    QString out;
    QString err;
};

class PresetsCliTest : public ::testing::Test {
protected:
    void SetUp() override {
        program = QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli");
        if (!QFileInfo(program).isExecutable())
            GTEST_SKIP() << "tarnwick-cli is not built in " << TARNWICK_BINARY_DIR;
        folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
                 QStringLiteral("/Oswenna");
        QDir(folder).removeRecursively();
    }
    void TearDown() override { QDir(folder).removeRecursively(); }

    // `home`: another home folder (and so another Documents folder) for the run.
    Result presets(const QStringList& args, const QString& home = QString()) const {
        QProcess process;
        if (!home.isEmpty()) {
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(QStringLiteral("HOME"), home);
            process.setProcessEnvironment(env);
        }
        process.start(program, QStringList{QStringLiteral("presets")} + args);
        Result r;
        if (!process.waitForFinished(30000)) {
            process.kill();
            process.waitForFinished();
            return r;
        }
        r.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        r.out = QString::fromUtf8(process.readAllStandardOutput());
        r.err = QString::fromUtf8(process.readAllStandardError());
        return r;
    }

    QString program;
    QString folder;
};

TEST_F(PresetsCliTest, ListAndShowReadTheUserFileItCreates) {
    const Result listed = presets({"list"});
    ASSERT_EQ(listed.status, 0) << qPrintable(listed.err);
    EXPECT_TRUE(QFileInfo(MDB_Devices::userFilePath()).isFile());
    const QStringList lines = listed.out.split('\n', Qt::SkipEmptyParts);
    const QStringList names = MDB_Devices::defaultDeviceNames();
    ASSERT_EQ(lines.size(), names.size());
    for (qsizetype i = 0; i < names.size(); ++i)
        EXPECT_TRUE(lines[i].startsWith(names[i] + "  ")) << qPrintable(lines[i]);
    EXPECT_TRUE(lines[names.indexOf("SD 480p")].contains("  SD  "));

    const Result shown = presets({"show", "HD 1080p"});
    ASSERT_EQ(shown.status, 0) << qPrintable(shown.err);
    const QStringList rows = shown.out.split('\n', Qt::SkipEmptyParts);
    const QStringList sections = MDB_Devices::sections();
    ASSERT_EQ(rows.size(), sections.size());
    for (qsizetype i = 0; i < rows.size(); ++i)
        EXPECT_TRUE(rows[i].startsWith(sections[i] + ':')) << qPrintable(rows[i]);
    EXPECT_TRUE(shown.out.contains(QRegularExpression("\nHD: +YES\n")));
}

TEST_F(PresetsCliTest, EditsPersistAndReportBadNames) {
    EXPECT_EQ(presets({"add", "Den", "SD 480p"}).status, 0);
    EXPECT_EQ(MDB_Devices::device("Den"), MDB_Devices::device("SD 480p"));
    const Result list = presets({"list"});
    EXPECT_TRUE(list.out.contains(QRegularExpression("\nDen .*\\(custom\\)\n")))
        << qPrintable(list.out);

    // Existing and reserved names are refused; nothing is overwritten.
    const Result taken = presets({"rename", "Den", "HD 720p"});
    EXPECT_EQ(taken.status, 1);
    EXPECT_TRUE(taken.err.contains("already exists")) << qPrintable(taken.err);
    EXPECT_EQ(presets({"add", "Devices", "SD 480p"}).status, 1);
    EXPECT_EQ(MDB_Devices::deviceNames().count("HD 720p"), 1);

    EXPECT_EQ(presets({"rename", "Den", "Study"}).status, 0);
    EXPECT_TRUE(MDB_Devices::device("Study").has_value());
    EXPECT_FALSE(MDB_Devices::device("Den").has_value());

    const Result notShipped = presets({"reset", "Study"});
    EXPECT_EQ(notShipped.status, 1);
    EXPECT_EQ(notShipped.err.count('\n'), 1) << qPrintable(notShipped.err);

    EXPECT_EQ(presets({"delete", "HD 720p"}).status, 0);
    EXPECT_FALSE(MDB_Devices::deviceNames().contains("HD 720p"));
    EXPECT_EQ(presets({"reset", "HD 720p"}).status, 0);
    EXPECT_TRUE(MDB_Devices::device("HD 720p").has_value());
    // Back in the list, at its shipped place.
    EXPECT_EQ(MDB_Devices::deviceNames(), MDB_Devices::defaultDeviceNames() + QStringList{"Study"});

    // The presets the device settings name cannot go.
    const Result primary = presets({"delete", "HD 1080p"});
    EXPECT_EQ(primary.status, 1);
    EXPECT_TRUE(primary.err.contains("\"Primary Device\"")) << qPrintable(primary.err);
    EXPECT_EQ(presets({"delete", "SD 480p"}).status, 1);
    EXPECT_TRUE(MDB_Devices::deviceNames().contains("HD 1080p"));
    EXPECT_TRUE(MDB_Devices::deviceNames().contains("SD 480p"));

    EXPECT_EQ(presets({"reset"}).status, 0);
    EXPECT_EQ(PropertyList::readFile(MDB_Devices::userFilePath()).toMap(),
              MDB_Devices::defaultDevices());

    for (const QStringList& args : {QStringList{"show", "Nope"},
                                    {"delete", "Nope"},
                                    {"rename", "Nope", "X"},
                                    {"add", "X", "Nope"},
                                    {"reset", "Nope"}}) {
        const Result r = presets(args);
        EXPECT_EQ(r.status, 1) << qPrintable(args.join(' '));
        EXPECT_EQ(r.err, "tarnwick-cli: no preset named \"Nope\"\n") << qPrintable(r.err);
    }
}

TEST_F(PresetsCliTest, FullDiskFailsEveryEditAndKeepsTheUserFile) {
    const QString home = QDir::temp().filePath(QStringLiteral("presets-disk"));
    testsupport::SmallDisk disk(home, "128k");
    SKIP_WITHOUT_SMALL_DISK(disk);
    ASSERT_EQ(presets({"add", "Den", "SD 480p"}, home).status, 0);
    const QString file = home + QStringLiteral("/Documents/Oswenna/User-Devices.plist");
    QFile user(file);
    ASSERT_TRUE(user.open(QIODevice::ReadOnly));
    const QByteArray old = user.readAll();
    user.close();
    disk.fill();

    for (const QStringList& args : {QStringList{"add", "Nook", "HD 720p"},
                                    {"rename", "Den", "Study"},
                                    {"delete", "Den"},
                                    {"reset", "HD 720p"},
                                    {"reset"}}) {
        const Result r = presets(args, home);
        EXPECT_EQ(r.status, 1) << qPrintable(args.join(' '));
        EXPECT_TRUE(r.out.isEmpty()) << qPrintable(r.out);
        EXPECT_TRUE(r.err.contains("No space left")) << qPrintable(r.err);
        EXPECT_EQ(r.err.count('\n'), 1) << qPrintable(r.err);
    }
    ASSERT_TRUE(user.open(QIODevice::ReadOnly));
    EXPECT_EQ(user.readAll(), old);
    const Result listed = presets({"list"}, home);
    EXPECT_EQ(listed.status, 0);
    EXPECT_TRUE(listed.out.contains("\nDen ")) << qPrintable(listed.out);
}

TEST_F(PresetsCliTest, UsageErrorsExitWithTwo) {
    for (const QStringList& args : {QStringList{},
                                    {"frob"},
                                    {"show"},
                                    {"add", "X"},
                                    {"list", "extra"},
                                    {"reset", "a", "b"}}) {
        const Result r = presets(args);
        EXPECT_EQ(r.status, 2) << qPrintable(args.join(' '));
        EXPECT_TRUE(r.err.contains("usage: tarnwick-cli presets")) << qPrintable(r.err);
    }
}

} // namespace
