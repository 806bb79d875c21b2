// The `presets` command of tarnwick-cli, run as a program against the test's
// private Documents folder.
#include "core/PropertyList.h"
#include "presets/MDB_Devices.h"

#include "Processes.h"
#include "SmallDisk.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

class PresetsCliTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
                 QStringLiteral("/Oswenna");
        QDir(folder).removeRecursively();
    }
    void TearDown() override { QDir(folder).removeRecursively(); }

    // `home`: another home folder (and so another Documents folder) for the run.
    static testsupport::CliResult presets(const QStringList& args, const QString& home = {}) {
        QMap<QString, QString> env;
        if (!home.isEmpty())
            env.insert(QStringLiteral("HOME"), home);
        return testsupport::runCli(QStringList{QStringLiteral("presets")} + args, {}, 30000, env);
    }

    QString folder;
};

TEST_F(PresetsCliTest, ListAndShowReadTheUserFileItCreates) {
    const auto listed = presets({"list"});
    ASSERT_EQ(listed.status, 0) << qPrintable(listed.err);
    EXPECT_TRUE(QFileInfo(MDB_Devices::userFilePath()).isFile());
    const QStringList lines = listed.out.split('\n', Qt::SkipEmptyParts);
    const QStringList names = MDB_Devices::defaultDeviceNames();
    ASSERT_EQ(lines.size(), names.size());
    for (qsizetype i = 0; i < names.size(); ++i)
        EXPECT_TRUE(lines[i].startsWith(names[i] + "  ")) << qPrintable(lines[i]);

    const auto shown = presets({"show", "HD 1080p"});
    ASSERT_EQ(shown.status, 0) << qPrintable(shown.err);
    EXPECT_EQ(shown.out.count('\n'), MDB_Devices::sections().size());
    EXPECT_TRUE(shown.out.contains(QRegularExpression("\nHD: +YES\n")));
}

TEST_F(PresetsCliTest, EditsPersistAndReportBadNames) {
    EXPECT_EQ(presets({"add", "Den", "SD 480p"}).status, 0);
    EXPECT_EQ(MDB_Devices::device("Den"), MDB_Devices::device("SD 480p"));
    EXPECT_TRUE(presets({"list"}).out.contains(QRegularExpression("\nDen .*\\(custom\\)\n")));

    // Existing and reserved names are refused; nothing is overwritten.
    const auto taken = presets({"rename", "Den", "HD 720p"});
    EXPECT_EQ(taken.status, 1);
    EXPECT_TRUE(taken.err.contains("already exists")) << qPrintable(taken.err);
    EXPECT_EQ(presets({"add", "Devices", "SD 480p"}).status, 1);
    EXPECT_EQ(MDB_Devices::deviceNames().count("HD 720p"), 1);

    EXPECT_EQ(presets({"rename", "Den", "Study"}).status, 0);
    EXPECT_FALSE(MDB_Devices::device("Den").has_value());
    EXPECT_EQ(presets({"reset", "Study"}).status, 1) << "not a shipped preset";

    EXPECT_EQ(presets({"delete", "HD 720p"}).status, 0);
    EXPECT_FALSE(MDB_Devices::deviceNames().contains("HD 720p"));
    EXPECT_EQ(presets({"reset", "HD 720p"}).status, 0);
    // Back in the list, at its shipped place.
    EXPECT_EQ(MDB_Devices::deviceNames(), MDB_Devices::defaultDeviceNames() + QStringList{"Study"});

    // The presets the device settings name cannot go.
    const auto primary = presets({"delete", "HD 1080p"});
    EXPECT_EQ(primary.status, 1);
    EXPECT_TRUE(primary.err.contains("\"Primary Device\"")) << qPrintable(primary.err);
    EXPECT_TRUE(MDB_Devices::deviceNames().contains("HD 1080p"));

    EXPECT_EQ(presets({"reset"}).status, 0);
    EXPECT_EQ(PropertyList::readFile(MDB_Devices::userFilePath()).toMap(),
              MDB_Devices::defaultDevices());

    for (const QStringList& args :
         {QStringList{"show", "Nope"}, {"delete", "Nope"}, {"rename", "Nope", "X"}}) {
        const auto r = presets(args);
        EXPECT_EQ(r.status, 1) << qPrintable(args.join(' '));
        EXPECT_EQ(r.err, "tarnwick-cli: no preset named \"Nope\"\n") << qPrintable(r.err);
    }
    for (const QStringList& args : {QStringList{}, {"frob"}, {"add", "X"}, {"reset", "a", "b"}}) {
        const auto r = presets(args);
        EXPECT_EQ(r.status, 2) << qPrintable(args.join(' '));
        EXPECT_TRUE(r.err.contains("usage: tarnwick-cli presets")) << qPrintable(r.err);
    }
}

TEST_F(PresetsCliTest, FullDiskFailsEveryEditAndKeepsTheUserFile) {
    const QString home = QDir::temp().filePath(QStringLiteral("presets-disk"));
    testsupport::SmallDisk disk(home, "128k");
    SKIP_WITHOUT_SMALL_DISK(disk);
    ASSERT_EQ(presets({"add", "Den", "SD 480p"}, home).status, 0);
    QFile user(home + QStringLiteral("/Documents/Oswenna/User-Devices.plist"));
    ASSERT_TRUE(user.open(QIODevice::ReadOnly));
    const QByteArray old = user.readAll();
    user.close();
    disk.fill();

    for (const QStringList& args :
         {QStringList{"add", "Nook", "HD 720p"}, {"rename", "Den", "Study"}, {"reset"}}) {
        const auto r = presets(args, home);
        EXPECT_EQ(r.status, 1) << qPrintable(args.join(' '));
        EXPECT_TRUE(r.out.isEmpty()) << qPrintable(r.out);
        EXPECT_TRUE(r.err.contains("No space left")) << qPrintable(r.err);
        EXPECT_EQ(r.err.count('\n'), 1) << qPrintable(r.err);
    }
    ASSERT_TRUE(user.open(QIODevice::ReadOnly));
    EXPECT_EQ(user.readAll(), old);
}

} // namespace
