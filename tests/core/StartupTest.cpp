#include "core/Startup.h"
#include "core/Bookmark.h"
#include "core/MDB_Utility.h"
#include "core/PreferencesPanelController.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <QDir>
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
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "");
    Startup::repairLanguageRegion(QStringLiteral("fr_CA")); // French is not a user language
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "en-US");

    d().setObject(QString(), SettingsKey::LanguageRegion);
    d().setObject(QStringLiteral(""), SettingsKey::LanguageRegion);
    Startup::repairLanguageRegion(QStringLiteral("en_GB"));
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "en-GB");

    // A chosen region is never overwritten.
    d().setObject(QStringLiteral("de-AT"), SettingsKey::LanguageRegion);
    Startup::repairLanguageRegion(QStringLiteral("en_GB"));
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "de-AT");
}

TEST_F(StartupTest, TemporaryFolderIsKeptWhenUsableAndRemadeOtherwise) {
    const QString made = Startup::repairTempDirectory();
    ASSERT_FALSE(made.isEmpty());
    EXPECT_TRUE(QFileInfo(made).isDir());
    EXPECT_TRUE(QFileInfo(made).fileName().startsWith("Tarnwick."));
    EXPECT_EQ(QFileInfo(made).fileName().size(), int(sizeof("Tarnwick.XXXXXX") - 1));
    EXPECT_EQ(d().stringForKey(SettingsKey::TempDirectory), made);

    // A stored folder that still exists is reused.
    EXPECT_EQ(Startup::repairTempDirectory(), made);

    // A stored folder that vanished is replaced; at exit the folder is removed.
    Startup::cleanupAtExit();
    EXPECT_FALSE(QFileInfo::exists(made));
    const QString again = Startup::repairTempDirectory();
    EXPECT_NE(again, made);
    EXPECT_TRUE(QFileInfo(again).isDir());
    Startup::cleanupAtExit();
    EXPECT_FALSE(QFileInfo::exists(again));

    // The folder is this process's own: never written to the settings file,
    // and a folder the file names (another process's) is neither used nor
    // removed.
    QTemporaryDir other;
    d().setObject(other.path(), SettingsKey::TempDirectory);
    const QString mine = Startup::repairTempDirectory();
    EXPECT_NE(mine, other.path());
    EXPECT_EQ(d().stringForKey(SettingsKey::TempDirectory), mine);
    Startup::cleanupAtExit();
    EXPECT_FALSE(QFileInfo::exists(mine));
    EXPECT_TRUE(QFileInfo(other.path()).isDir());
    EXPECT_EQ(d().stringForKey(SettingsKey::TempDirectory), other.path());
}

TEST_F(StartupTest, ResetRestoresShippedValuesButNotTheRealBackdropKey) {
    d().setBool(true, SettingsKey::BackdropArt);
    d().setBool(true, SettingsKey::BackdropArtLower);
    d().setBool(true, SettingsKey::Decomb);
    d().setInteger(2, SettingsKey::ContentIDSource);
    d().setObject(QStringLiteral("Nope"), SettingsKey::PrimaryDevice);
    d().setBool(true, SettingsKey::HideDVDInstructions);
    d().setBool(true, SettingsKey::HideInstructions);

    PreferencesPanelController().onReset(QStringLiteral("de_DE"));

    const QVariantMap shipped = d().registeredDefaults();
    EXPECT_TRUE(d().boolForKey(SettingsKey::BackdropArt)) << "the real key keeps its value";
    EXPECT_EQ(d().boolForKey(SettingsKey::BackdropArtLower),
              shipped.value(SettingsKey::BackdropArt).toBool());
    EXPECT_EQ(d().boolForKey(SettingsKey::Decomb), shipped.value(SettingsKey::Decomb).toBool());
    EXPECT_EQ(d().integerForKey(SettingsKey::ContentIDSource),
              shipped.value(SettingsKey::ContentIDSource).toLongLong());
    EXPECT_EQ(d().stringForKey(SettingsKey::PrimaryDevice),
              shipped.value(SettingsKey::PrimaryDevice).toString());
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "de-DE");
    EXPECT_FALSE(d().boolForKey(SettingsKey::HideDVDInstructions));
    EXPECT_TRUE(d().boolForKey(SettingsKey::HideInstructions)) << "not among the reset keys";
}

TEST_F(StartupTest, PrimaryPresetWithoutHDForcesHDSDOff) {
    Startup::createUserPresets();
    const QString sd = d().registeredDefaults().value(SettingsKey::SecondaryDevice).toString();
    const QString hd = d().registeredDefaults().value(SettingsKey::PrimaryDevice).toString();
    ASSERT_FALSE(MDB_Devices::isHD(sd));
    ASSERT_TRUE(MDB_Devices::isHD(hd));

    PreferencesPanelController panel;
    d().setInteger(1, SettingsKey::HDSD);
    panel.primaryDeviceChanged(hd);
    EXPECT_TRUE(d().boolForKey(SettingsKey::HDSD));
    EXPECT_TRUE(panel.hdsdEnabled());

    panel.primaryDeviceChanged(sd);
    EXPECT_EQ(d().integerForKey(SettingsKey::HDSD), 0);
    EXPECT_FALSE(panel.hdsdEnabled());
    EXPECT_FALSE(panel.secondaryVisible());
    EXPECT_EQ(d().stringForKey(SettingsKey::PrimaryDevice), sd);
    EXPECT_FALSE(panel.primaryUsage().isEmpty());
}

TEST_F(StartupTest, PresetUpdateNoticeFollowsVersionsAndAcceptance) {
    Startup::createUserPresets();
    const qint64 shipped = d().integerForKey(SettingsKey::Presets);
    d().setInteger(shipped, SettingsKey::PresetsCurrent);
    d().setBool(true, SettingsKey::UpdatePresets);
    EXPECT_FALSE(Startup::presetUpdateNeeded());

    d().setBool(false, SettingsKey::UpdatePresets);
    EXPECT_TRUE(Startup::presetUpdateNeeded());

    d().setInteger(shipped - 1, SettingsKey::PresetsCurrent);
    d().setBool(true, SettingsKey::UpdatePresets);
    EXPECT_TRUE(Startup::presetUpdateNeeded()) << "Cancel stores nothing: asked again";

    // "Ok": the user's presets go back to the shipped ones.
    MDB_Devices::addDevice(QStringLiteral("Mine"), MDB_Devices::deviceNames().first());
    ASSERT_TRUE(MDB_Devices::deviceNames().contains("Mine"));
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

TEST_F(StartupTest, MetadataSegmentsAndRegionEditing) {
    PreferencesPanelController panel;
    const bool tv =
        d().dictionaryForKey(SettingsKey::MetadataList).value("TV Metadata List").toBool();
    panel.onMetadataSegment(0);
    EXPECT_EQ(d().dictionaryForKey(SettingsKey::MetadataList).value("TV Metadata List").toBool(),
              !tv);
    panel.onMetadataSegment(7); // out of range: nothing
    EXPECT_EQ(d().dictionaryForKey(SettingsKey::MetadataList).size(), 4);

    d().setObject(QStringLiteral("en-US"), SettingsKey::LanguageRegion);
    panel.languageRegionChanged(QStringLiteral("fr"));
    panel.countryChanged(QStringLiteral("CA"));
    EXPECT_EQ(d().stringForKey(SettingsKey::LanguageRegion), "fr-CA");
}

} // namespace
