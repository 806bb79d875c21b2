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
        const QVariant preset = shipped.value(MDB_Devices::defaultDeviceNames().first());
        for (const QString& name : names)
            root.insert(name, preset);
        ASSERT_TRUE(MDB_Devices::createUserFile(root));
    }

    QTemporaryDir settings;
    QString folder;
    QVariantMap shipped;
};

TEST_F(DevicesStoreTest, ShippedPresetsHaveEverySectionAndAreReadWithoutAUserFile) {
    const QStringList names = MDB_Devices::defaultDeviceNames();
    const QStringList sections = shipped.value("Sections").toStringList();
    for (const QString& name : names) {
        const QVariantMap preset = shipped.value(name).toMap();
        // The devices panel shows one row per key, labelled from "Sections".
        EXPECT_EQ(QStringList(preset.keys()).size(), sections.size()) << qPrintable(name);
        for (const QString& key : sections)
            EXPECT_TRUE(preset.contains(key)) << qPrintable(name) << ": " << qPrintable(key);
        EXPECT_TRUE(preset.value("audio track").toString().contains('%')) << qPrintable(name);
    }
    EXPECT_FALSE(MDB_Devices::userDevices().has_value());
    EXPECT_EQ(MDB_Devices::deviceNames(), names);
    EXPECT_EQ(MDB_Devices::sections(), sections);
    EXPECT_TRUE(MDB_Devices::isHD("HD 1080p"));
    EXPECT_FALSE(MDB_Devices::isHD("SD 480p"));
    EXPECT_FALSE(MDB_Devices::isHD("No Such Preset"));
    EXPECT_FALSE(MDB_Devices::device("No Such Preset").has_value());
}

TEST_F(DevicesStoreTest, CreateUserFileWritesOnceAndReadsComeFromIt) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    EXPECT_TRUE(QFileInfo(MDB_Devices::userFilePath()).isFile());
    EXPECT_EQ(*MDB_Devices::userDevices(), shipped);

    // An existing file is never replaced by createUserFile.
    QVariantMap other = shipped;
    other.insert("Devices", QStringList{"Only"});
    EXPECT_TRUE(MDB_Devices::createUserFile(other));
    EXPECT_EQ(MDB_Devices::deviceNames(), shipped.value("Devices").toStringList());

    // writeToUserFile replaces it, and every read sees the change at once.
    ASSERT_TRUE(MDB_Devices::writeToUserFile(other));
    EXPECT_EQ(MDB_Devices::deviceNames(), QStringList{"Only"});
    EXPECT_EQ(MDB_Devices::defaultDeviceNames(), shipped.value("Devices").toStringList());
}

TEST_F(DevicesStoreTest, UserFileIsCreatedEvenWithoutADocumentsFolder) {
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    const QString keep = documents + QStringLiteral(".kept");
    ASSERT_TRUE(QDir().rename(documents, keep));
    const bool made = MDB_Devices::createUserFile(shipped);
    const bool exists = QFileInfo::exists(MDB_Devices::userFilePath());
    QDir(documents).removeRecursively();
    ASSERT_TRUE(QDir().rename(keep, documents));
    EXPECT_TRUE(made);
    EXPECT_TRUE(exists);
}

TEST_F(DevicesStoreTest, WithoutAUserFileEditsChangeNothing) {
    EXPECT_FALSE(MDB_Devices::writeToUserFile(shipped));
    EXPECT_FALSE(MDB_Devices::addDevice("Copy", "HD 1080p"));
    EXPECT_FALSE(MDB_Devices::changeDeviceName("HD 1080p", "Renamed"));
    EXPECT_FALSE(MDB_Devices::deleteDevice("HD 1080p"));
    EXPECT_FALSE(MDB_Devices::resetDevice("HD 1080p"));
    EXPECT_FALSE(MDB_Devices::resetAll());
    EXPECT_FALSE(QFileInfo::exists(MDB_Devices::userFilePath()));
    EXPECT_FALSE(QFileInfo::exists(folder));
    EXPECT_EQ(MDB_Devices::GenerateCustomName(), "Custom 1");
    // An empty dictionary does not make an empty user file either.
    EXPECT_FALSE(MDB_Devices::createUserFile({}));
    EXPECT_FALSE(QFileInfo::exists(MDB_Devices::userFilePath()));
}

TEST_F(DevicesStoreTest, AddRenameAndDeleteEditTheUserFile) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    const QStringList names = MDB_Devices::defaultDeviceNames();

    ASSERT_TRUE(MDB_Devices::addDevice("Custom 1", "SD 480p"));
    EXPECT_EQ(MDB_Devices::deviceNames(), names + QStringList{"Custom 1"});
    EXPECT_EQ(MDB_Devices::device("Custom 1"), MDB_Devices::device("SD 480p"));
    EXPECT_FALSE(MDB_Devices::addDevice("Custom 2", "No Such Preset"));

    // A rename keeps the name's place in the menu.
    ASSERT_TRUE(MDB_Devices::changeDeviceName("HD 720p", "Living Room"));
    QStringList expected = names + QStringList{"Custom 1"};
    expected[expected.indexOf("HD 720p")] = "Living Room";
    EXPECT_EQ(MDB_Devices::deviceNames(), expected);
    EXPECT_FALSE(MDB_Devices::device("HD 720p").has_value());
    EXPECT_EQ(MDB_Devices::device("Living Room")->value("picture"),
              shipped.value("HD 720p").toMap().value("picture"));
    EXPECT_FALSE(MDB_Devices::changeDeviceName("No Such Preset", "X"));

    // Renaming onto an existing name overwrites it and lists it twice.
    ASSERT_TRUE(MDB_Devices::changeDeviceName("Custom 1", "HD 1080p"));
    EXPECT_EQ(MDB_Devices::deviceNames().count("HD 1080p"), 2);
    EXPECT_EQ(MDB_Devices::device("HD 1080p"), shipped.value("SD 480p").toMap());

    // The file's own keys never become presets.
    EXPECT_FALSE(MDB_Devices::addDevice("Devices", "SD 480p"));
    EXPECT_FALSE(MDB_Devices::changeDeviceName("SD 480p", "Sections"));
    EXPECT_FALSE(MDB_Devices::addDevice("", "SD 480p"));
    EXPECT_EQ(readUserFile().value("Sections"), shipped.value("Sections"));

    ASSERT_TRUE(MDB_Devices::deleteDevice("Living Room"));
    const QVariantMap root = readUserFile();
    EXPECT_FALSE(root.contains("Living Room"));
    EXPECT_FALSE(root.value("Devices").toStringList().contains("Living Room"));
    EXPECT_EQ(root.value("Sections"), shipped.value("Sections"));
    EXPECT_FALSE(MDB_Devices::deleteDevice("Living Room"));
}

// Reset one and all through the presets command; here what it cannot show.
TEST_F(DevicesStoreTest, ResetOneRestoresTheShippedOriginal) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    QVariantMap root = *MDB_Devices::userDevices();
    QVariantMap edited = root.value("HD 1080p").toMap();
    edited.insert("misc", "--grayscale");
    root.insert("HD 1080p", edited);
    ASSERT_TRUE(MDB_Devices::writeToUserFile(root));
    ASSERT_TRUE(MDB_Devices::resetDevice("HD 1080p"));
    EXPECT_EQ(MDB_Devices::device("HD 1080p"), shipped.value("HD 1080p").toMap());
}

TEST_F(DevicesStoreTest, CustomNamesCountUpFromTheHighest) {
    const std::pair<QStringList, const char*> cases[] = {
        {{"Custom 1", "Custom 3", "Phone"}, "Custom 4"},
        {{"Custom 0"}, "Custom 1"},
        {{"HD 1080p", "Phone"}, "Custom 1"},
        // Matched anywhere before the end, but only at the end.
        {{"My Custom 7", "Custom 12 copy", "Custom 2"}, "Custom 8"},
        {{}, "Custom 1"}};
    for (const auto& [names, expected] : cases) {
        QDir(folder).removeRecursively();
        writeUserNames(names);
        EXPECT_EQ(MDB_Devices::GenerateCustomName(), expected) << qPrintable(names.join(','));
    }
}

TEST_F(DevicesStoreTest, AnUnreadableUserFileFallsBackAndResetRepairsIt) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    QFile file(MDB_Devices::userFilePath());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("not a property list");
    file.close();

    EXPECT_FALSE(MDB_Devices::userDevices().has_value());
    EXPECT_EQ(MDB_Devices::deviceNames(), MDB_Devices::defaultDeviceNames());
    EXPECT_FALSE(MDB_Devices::addDevice("Copy", "HD 1080p"));
    ASSERT_TRUE(MDB_Devices::resetAll());
    EXPECT_EQ(readUserFile(), shipped);
}

// The devices panel on the real store: selection after each edit, the
// reset-one button, and edits that reach the user file.
using DevicesPanel = DevicesStoreTest;

TEST_F(DevicesPanel, DeleteKeepsTheIndexOrStepsBackAndEmptiesSafely) {
    writeUserNames({"A", "B", "C"});
    UserDefaults::standard().setObject(QStringLiteral("C"), SettingsKey::PrimaryDevice);
    DevicesPanelController panel;
    panel.withParentWindow();
    ASSERT_EQ(panel.currentDevice(), "C");
    ASSERT_GT(panel.rowCount(), 0);
    EXPECT_FALSE(panel.onDeleteDevice()) << "the primary device's preset cannot go";
    EXPECT_EQ(panel.devices(), QStringList({"A", "B", "C"}));
    UserDefaults::standard().setObject(QStringLiteral("Elsewhere"), SettingsKey::PrimaryDevice);
    UserDefaults::standard().setObject(QStringLiteral("Elsewhere"), SettingsKey::SecondaryDevice);

    ASSERT_TRUE(panel.onDeleteDevice());
    EXPECT_EQ(panel.devices(), QStringList({"A", "B"}));
    EXPECT_EQ(panel.currentDevice(), "B") << "the last one deleted selects the one before";
    panel.onDeviceChanged(0);
    ASSERT_TRUE(panel.onDeleteDevice());
    EXPECT_EQ(panel.currentDevice(), "B") << "the first one deleted keeps index 0";
    EXPECT_EQ(panel.currentIndex(), 0);

    ASSERT_TRUE(panel.onDeleteDevice());
    EXPECT_TRUE(panel.devices().isEmpty());
    EXPECT_EQ(panel.currentDevice(), QString());
    EXPECT_EQ(panel.currentIndex(), -1);
    EXPECT_EQ(panel.rowCount(), 0);
    EXPECT_FALSE(panel.resetDevEnabled());
    EXPECT_FALSE(panel.onDeleteDevice());
    EXPECT_FALSE(panel.onAddDevice());
    const QVariantMap file = readUserFile();
    EXPECT_TRUE(file.value("Devices").toStringList().isEmpty());
    EXPECT_FALSE(file.contains("A") || file.contains("B") || file.contains("C"));
    EXPECT_EQ(file.value("Sections"), shipped.value("Sections"));
}

TEST_F(DevicesPanel, RenameAddAndResetFollowTheNames) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    UserDefaults::standard().setObject(QStringLiteral("HD 720p"), SettingsKey::PrimaryDevice);
    DevicesPanelController panel;
    int refills = 0;
    QObject::connect(&panel, &DevicesPanelController::devicesChanged, [&] { ++refills; });
    panel.withParentWindow();
    EXPECT_EQ(panel.currentDevice(), "HD 720p");
    EXPECT_TRUE(panel.resetDevEnabled());
    EXPECT_TRUE(panel.controlTextDidEndEditing("HD 720p")) << "an unchanged name is no error";

    // Typing a new name renames; a shipped preset renamed loses reset-one.
    ASSERT_TRUE(panel.controlTextDidEndEditing("Living Room Custom 2"));
    EXPECT_EQ(panel.currentDevice(), "Living Room Custom 2");
    EXPECT_EQ(panel.devices().indexOf("Living Room Custom 2"),
              MDB_Devices::defaultDeviceNames().indexOf("HD 720p"));
    EXPECT_FALSE(panel.resetDevEnabled());
    EXPECT_FALSE(panel.onResetDevice());
    EXPECT_EQ(UserDefaults::standard().stringForKey(SettingsKey::PrimaryDevice),
              "Living Room Custom 2");
    // Neither an empty name nor another preset's name is taken.
    EXPECT_FALSE(panel.controlTextDidEndEditing(""));
    EXPECT_FALSE(panel.controlTextDidEndEditing("HD 1080p"));
    EXPECT_EQ(panel.currentDevice(), "Living Room Custom 2");
    EXPECT_EQ(MDB_Devices::deviceNames().count("HD 1080p"), 1);

    // A copy of the current preset, numbered above the highest Custom name.
    const int before = refills;
    ASSERT_TRUE(panel.onAddDevice());
    EXPECT_GT(refills, before);
    EXPECT_EQ(panel.currentDevice(), "Custom 3");
    EXPECT_EQ(panel.devices().last(), "Custom 3");
    EXPECT_EQ(MDB_Devices::device("Custom 3"), MDB_Devices::device("Living Room Custom 2"));

    // Reset all brings back the shipped names and selects the primary again.
    UserDefaults::standard().setObject(QStringLiteral("SD 480p"), SettingsKey::PrimaryDevice);
    ASSERT_TRUE(panel.onResetAll());
    EXPECT_EQ(panel.devices(), MDB_Devices::defaultDeviceNames());
    EXPECT_EQ(panel.currentDevice(), "SD 480p");
    EXPECT_EQ(readUserFile(), shipped);
}

TEST_F(DevicesPanel, ParameterEditsGoToTheUserFileAtOnce) {
    ASSERT_TRUE(MDB_Devices::createUserFile(shipped));
    UserDefaults::standard().setObject(QStringLiteral("HD 1080p"), SettingsKey::PrimaryDevice);
    DevicesPanelController panel;
    panel.withParentWindow();
    const QStringList sections = shipped.value("Sections").toStringList();
    ASSERT_EQ(panel.rowCount(), sections.size());
    ASSERT_EQ(panel.infoKeys(), sections);
    const int misc = int(sections.indexOf("misc"));
    const int hd = int(sections.indexOf("HD"));
    ASSERT_GE(misc, 0);
    ASSERT_GE(hd, 0);
    EXPECT_EQ(panel.description(misc), "misc");
    EXPECT_EQ(panel.parameters(hd), "YES");

    ASSERT_TRUE(panel.setParameters(misc, "--markers --optimize"));
    ASSERT_TRUE(panel.setParameters(hd, "0"));
    // Values keep their kind: a number typed into a text stays text.
    const int width = int(sections.indexOf("width"));
    const int usage = int(sections.indexOf("usage"));
    ASSERT_TRUE(panel.setParameters(width, "1280"));
    ASSERT_TRUE(panel.setParameters(usage, "720"));
    const QVariantMap preset = readUserFile().value("HD 1080p").toMap();
    EXPECT_EQ(preset.value("misc").toString(), "--markers --optimize");
    EXPECT_EQ(preset.value("HD").typeId(), QMetaType::Bool) << "a flag stays a flag";
    EXPECT_EQ(preset.value("width"), QVariant(qlonglong(1280)));
    EXPECT_EQ(preset.value("usage"), QVariant(QStringLiteral("720")));
    EXPECT_EQ(panel.description(-1), QString());
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
