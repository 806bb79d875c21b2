#include "core/Startup.h"
#include "core/Bookmark.h"
#include "core/MDB_Utility.h"
#include "core/PreferencesPanelController.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

class StartupTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        storePath = dir.filePath(QStringLiteral("Tarnwick.plist"));
        UserDefaults::standard().reopen(storePath);
        QString error;
        ASSERT_TRUE(Startup::registerDefaults(&error)) << error.toStdString();
        MDB_Utility::setPreferredLanguages({QStringLiteral("en-GB"), QStringLiteral("de")});
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    UserDefaults& d() { return UserDefaults::standard(); }

    QTemporaryDir dir;
    QString storePath;
};

TEST_F(StartupTest, LanguageRegionRepairUsesTheRegionTableOrFallsBack) {
    // The shipped default is the empty string, which asks for a repair.
    Startup::repairLanguageRegion(QStringLiteral("fr_CA")); // French is not a user language
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "en-US");

    d().setObject(QString(), SettingsKey::LanguageRegion);
    Startup::repairLanguageRegion(QStringLiteral("en_GB"));
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "en-GB");

    // A chosen region is never overwritten.
    d().setObject(QStringLiteral("de-AT"), SettingsKey::LanguageRegion);
    Startup::repairLanguageRegion(QStringLiteral("en_GB"));
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "de-AT");
}

TEST_F(StartupTest, TemporaryFolderIsKeptWhileItExistsAndRemovedAtExit) {
    const QString made = Startup::repairTempDirectory();
    EXPECT_TRUE(QFileInfo(made).isDir());
    EXPECT_EQ(Startup::repairTempDirectory(), made);
    Startup::cleanupAtExit();
    EXPECT_FALSE(QFileInfo::exists(made));

    // The folder is this process's own: a folder the settings file names
    // (another process's) is neither used nor removed, nor replaced in the file.
    QTemporaryDir other;
    d().setObject(other.path(), SettingsKey::TempDirectory);
    const QString mine = Startup::repairTempDirectory();
    EXPECT_NE(mine, other.path());
    EXPECT_NE(mine, made);
    EXPECT_EQ(d().stringForKey(SettingsKey::TempDirectory), mine);
    Startup::cleanupAtExit();
    EXPECT_FALSE(QFileInfo::exists(mine));
    EXPECT_TRUE(QFileInfo(other.path()).isDir());
    EXPECT_EQ(d().stringForKey(SettingsKey::TempDirectory), other.path());
}

TEST_F(StartupTest, ResetRestoresShippedValuesButNotTheRealBackdropKey) {
    d().setBool(true, SettingsKey::BackdropArt);
    d().setBool(true, SettingsKey::BackdropArtLower);
    d().setObject(QStringLiteral("Nope"), SettingsKey::PrimaryDevice);
    d().setBool(true, SettingsKey::HideInstructions);

    PreferencesPanelController().onReset(QStringLiteral("de_DE"));

    const QVariantMap shipped = d().registeredDefaults();
    EXPECT_TRUE(d().boolForKey(SettingsKey::BackdropArt)) << "the real key keeps its value";
    EXPECT_EQ(d().boolForKey(SettingsKey::BackdropArtLower),
              shipped.value(SettingsKey::BackdropArt).toBool());
    EXPECT_EQ(d().stringForKey(SettingsKey::PrimaryDevice),
              shipped.value(SettingsKey::PrimaryDevice).toString());
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "de-DE");
    EXPECT_TRUE(d().boolForKey(SettingsKey::HideInstructions)) << "not among the reset keys";
}

TEST_F(StartupTest, PanelChoicesReachTheSettingsAndAnSDPresetForcesHDSDOff) {
    Startup::createUserPresets();
    const QString sd = d().registeredDefaults().value(SettingsKey::SecondaryDevice).toString();
    const QString hd = d().registeredDefaults().value(SettingsKey::PrimaryDevice).toString();
    ASSERT_FALSE(MDB_Devices::isHD(sd));
    ASSERT_TRUE(MDB_Devices::isHD(hd));

    PreferencesPanelController panel;
    d().setInteger(1, SettingsKey::HDSD);
    panel.primaryDeviceChanged(hd);
    EXPECT_TRUE(panel.hdsdEnabled());

    panel.primaryDeviceChanged(sd);
    EXPECT_EQ(d().integerForKey(SettingsKey::HDSD), 0);
    EXPECT_FALSE(panel.hdsdEnabled());
    EXPECT_EQ(d().stringForKey(SettingsKey::PrimaryDevice), sd);

    const auto tvList = [&] {
        return d().dictionaryForKey(SettingsKey::MetadataList).value("TV Metadata List").toBool();
    };
    const bool tv = tvList();
    panel.onMetadataSegment(0);
    EXPECT_EQ(tvList(), !tv);
    d().setObject(QStringLiteral("en-US"), SettingsKey::LanguageRegion);
    panel.languageRegionChanged(QStringLiteral("fr"));
    panel.countryChanged(QStringLiteral("CA"));
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "fr-CA");
}

TEST_F(StartupTest, PresetUpdateNoticeFollowsVersionsAndAcceptance) {
    Startup::createUserPresets();
    const qint64 shipped = d().integerForKey(SettingsKey::Presets);
    d().setInteger(shipped, SettingsKey::PresetsCurrent);
    d().setBool(true, SettingsKey::UpdatePresets);
    EXPECT_FALSE(Startup::presetUpdateNeeded());
    d().setInteger(shipped - 1, SettingsKey::PresetsCurrent);
    EXPECT_TRUE(Startup::presetUpdateNeeded()) << "Cancel stores nothing: asked again";

    // "Ok": the user's presets go back to the shipped ones.
    MDB_Devices::addDevice(QStringLiteral("Mine"), MDB_Devices::deviceNames().first());
    Startup::acceptPresetUpdate();
    EXPECT_FALSE(Startup::presetUpdateNeeded());
    EXPECT_EQ(d().integerForKey(SettingsKey::PresetsCurrent), shipped);
    EXPECT_FALSE(MDB_Devices::deviceNames().contains("Mine"));
}

TEST_F(StartupTest, BookmarksAndTheCloseRule) {
    PreferencesPanelController panel;
    EXPECT_FALSE(panel.onClose()) << "no iTunes bookmark yet";
    EXPECT_FALSE(panel.itunesPathChanged(dir.filePath("missing")));
    ASSERT_TRUE(panel.itunesPathChanged(dir.path()));
    EXPECT_TRUE(d().boolForKey(SettingsKey::AddITunes));
    EXPECT_TRUE(panel.onClose());
    EXPECT_EQ(Bookmark::resolve(d().dataForKey(SettingsKey::ITunesPathBookmark)), dir.path());

    // A bookmark whose folder is gone turns "Add iTunes" off when the panel
    // opens.
    QTemporaryDir gone;
    ASSERT_TRUE(panel.itunesPathChanged(gone.path()));
    gone.remove();
    panel.PopulatePanel();
    EXPECT_FALSE(d().boolForKey(SettingsKey::AddITunes));
    EXPECT_FALSE(panel.addToITunesEnabled());
}

} // namespace
