#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/DevicesPanelController.h"
#include "presets/MDB_Devices.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QVariantMap readUserFile() {
    return PropertyList::readFile(MDB_Devices::userFilePath()).toMap();
}

void setDevice(const char* key, const QString& name) {
    UserDefaults::standard().setObject(name, key);
}

class DevicesStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        // A private settings store: the panel tests change the device settings.
        ASSERT_TRUE(settings.isValid());
        UserDefaults::standard().reopen(settings.filePath(QStringLiteral("Tarnwick.plist")));
        folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
                 QStringLiteral("/Oswenna");
        QDir(folder).removeRecursively();
        shipped = MDB_Devices::defaultDevices();
        ASSERT_FALSE(shipped.isEmpty()) << "the shipped Devices.plist is missing";
    }
    void TearDown() override {
        QDir(folder).removeRecursively();
        UserDefaults::standard().reopen();
    }

    // A user file with the given names, each a copy of the first shipped preset.
    void writeUserNames(const QStringList& names) {
        QVariantMap root;
        root.insert(QStringLiteral("Sections"), shipped.value(QStringLiteral("Sections")));
        root.insert(QStringLiteral("Devices"), names);
        for (const QString& name : names)
            root.insert(name, shipped.value(MDB_Devices::defaultDeviceNames().first()));
        ASSERT_TRUE(MDB_Devices::createUserFile(root));
    }

    QTemporaryDir settings;
    QString folder;
    QVariantMap shipped;
};

TEST_F(DevicesStoreTest, UserFileIsWrittenOnceAndNeverReplacedByCreate) {
    // Without a user file nothing is edited and nothing is created.
    EXPECT_FALSE(MDB_Devices::addDevice("Copy", "HD 1080p"));
    EXPECT_FALSE(MDB_Devices::createUserFile({}));
    EXPECT_FALSE(QFileInfo::exists(folder));

    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    QVariantMap other = shipped;
    const QStringList names{"Custom 1", "Custom 3", "My Custom 7", "Custom 12 copy"};
    other.insert("Devices", names);
    EXPECT_TRUE(MDB_Devices::createUserFile(other));
    EXPECT_EQ(MDB_Devices::deviceNames(), MDB_Devices::defaultDeviceNames());
    ASSERT_TRUE(MDB_Devices::writeToUserFile(other));
    EXPECT_EQ(MDB_Devices::deviceNames(), names);
    // Numbered above the highest name ending in "Custom N", wherever it starts.
    EXPECT_EQ(MDB_Devices::GenerateCustomName(), "Custom 8");
    EXPECT_FALSE(MDB_Devices::changeDeviceName("No Such Preset", "X"));
}

TEST_F(DevicesStoreTest, AnUnreadableUserFileFallsBackAndResetRepairsIt) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    QFile file(MDB_Devices::userFilePath());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("not a property list");
    file.close();
    EXPECT_EQ(MDB_Devices::deviceNames(), MDB_Devices::defaultDeviceNames());
    ASSERT_TRUE(MDB_Devices::resetAll());
    EXPECT_EQ(readUserFile(), shipped);
}

// The devices panel on the real store: selection after each edit, the
// reset-one button, and edits that reach the user file.
using DevicesPanel = DevicesStoreTest;

TEST_F(DevicesPanel, DeleteKeepsTheIndexOrStepsBackAndEmptiesSafely) {
    writeUserNames({"A", "B", "C"});
    setDevice(SettingsKey::PrimaryDevice, "C");
    DevicesPanelController panel;
    panel.withParentWindow();
    ASSERT_EQ(panel.currentDevice(), "C");
    // The presets the device settings name cannot go (see the presets command).
    setDevice(SettingsKey::PrimaryDevice, "Elsewhere");
    setDevice(SettingsKey::SecondaryDevice, "Elsewhere");

    ASSERT_TRUE(panel.onDeleteDevice());
    EXPECT_EQ(panel.devices(), QStringList({"A", "B"}));
    EXPECT_EQ(panel.currentDevice(), "B") << "the last one deleted selects the one before";
    panel.onDeviceChanged(0);
    ASSERT_TRUE(panel.onDeleteDevice());
    EXPECT_EQ(panel.currentDevice(), "B") << "the first one deleted keeps index 0";

    ASSERT_TRUE(panel.onDeleteDevice());
    EXPECT_EQ(panel.currentIndex(), -1);
    EXPECT_FALSE(panel.onDeleteDevice());
    EXPECT_FALSE(panel.onAddDevice());
    EXPECT_TRUE(readUserFile().value("Devices").toStringList().isEmpty());
}

TEST_F(DevicesPanel, RenameAddAndResetFollowTheNames) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    setDevice(SettingsKey::PrimaryDevice, "HD 720p");
    DevicesPanelController panel;
    panel.withParentWindow();
    EXPECT_TRUE(panel.resetDevEnabled());

    // Typing a new name renames in place; a shipped preset renamed loses reset-one.
    ASSERT_TRUE(panel.controlTextDidEndEditing("Living Room Custom 2"));
    EXPECT_EQ(panel.currentDevice(), "Living Room Custom 2");
    EXPECT_EQ(panel.devices().indexOf("Living Room Custom 2"),
              MDB_Devices::defaultDeviceNames().indexOf("HD 720p"));
    EXPECT_FALSE(panel.resetDevEnabled());
    EXPECT_EQ(UserDefaults::standard().stringForKey(SettingsKey::PrimaryDevice),
              "Living Room Custom 2");
    // Another preset's name is not taken.
    EXPECT_FALSE(panel.controlTextDidEndEditing("HD 1080p"));
    EXPECT_EQ(MDB_Devices::deviceNames().count("HD 1080p"), 1);

    // A copy of the current preset, numbered above the highest Custom name.
    ASSERT_TRUE(panel.onAddDevice());
    EXPECT_EQ(panel.currentDevice(), "Custom 3");
    EXPECT_EQ(panel.devices().last(), "Custom 3");
    EXPECT_EQ(MDB_Devices::device("Custom 3"), MDB_Devices::device("Living Room Custom 2"));

    // Reset all brings back the shipped names and selects the primary again.
    setDevice(SettingsKey::PrimaryDevice, "SD 480p");
    ASSERT_TRUE(panel.onResetAll());
    EXPECT_EQ(panel.devices(), MDB_Devices::defaultDeviceNames());
    EXPECT_EQ(panel.currentDevice(), "SD 480p");
    EXPECT_EQ(readUserFile(), shipped);
}

TEST_F(DevicesPanel, ParameterEditsGoToTheUserFileAtOnce) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    setDevice(SettingsKey::PrimaryDevice, "HD 1080p");
    DevicesPanelController panel;
    panel.withParentWindow();
    const QStringList sections = shipped.value("Sections").toStringList();
    ASSERT_EQ(panel.infoKeys(), sections);
    const int misc = int(sections.indexOf("misc"));
    const int hd = int(sections.indexOf("HD"));
    EXPECT_EQ(panel.parameters(hd), "YES");

    // Values keep their kind: a flag stays a flag, a number typed into a text stays text.
    ASSERT_TRUE(panel.setParameters(misc, "--markers --optimize"));
    ASSERT_TRUE(panel.setParameters(hd, "0"));
    ASSERT_TRUE(panel.setParameters(int(sections.indexOf("width")), "1280"));
    ASSERT_TRUE(panel.setParameters(int(sections.indexOf("usage")), "720"));
    const QVariantMap preset = readUserFile().value("HD 1080p").toMap();
    EXPECT_EQ(preset.value("misc").toString(), "--markers --optimize");
    EXPECT_EQ(preset.value("HD").typeId(), QMetaType::Bool);
    EXPECT_EQ(preset.value("width"), QVariant(qlonglong(1280)));
    EXPECT_EQ(preset.value("usage"), QVariant(QStringLiteral("720")));
    EXPECT_FALSE(MDB_Devices::isHD("HD 1080p"));
    EXPECT_FALSE(panel.setParameters(panel.rowCount(), "x"));

    // Reset one puts the shipped strings back into the table.
    ASSERT_TRUE(panel.onResetDevice());
    EXPECT_EQ(panel.parameters(misc), shipped.value("HD 1080p").toMap().value("misc").toString());

    // Without a user file nothing is written.
    QFile::remove(MDB_Devices::userFilePath());
    EXPECT_FALSE(panel.setParameters(misc, "--lost"));
    EXPECT_FALSE(QFileInfo::exists(MDB_Devices::userFilePath()));
}

} // namespace
