// The settings panels opened from the Edit menu of the real window: edits
// reach the settings store or the user preset file at once, closing writes
// nothing more, and the preferences refuse to close without an iTunes folder.

#include "ui/UiTestSupport.h"

#include "core/Bookmark.h"
#include "core/PropertyList.h"
#include "presets/MDB_Devices.h"
#include "ui/DevicesPanel.h"
#include "ui/GenresPanel.h"
#include "ui/PreferencesPanel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QTableWidget>

using namespace uitest;

namespace {

QVariantMap storeSnapshot() {
    QVariantMap values;
    for (const QString& name : UserDefaults::standard().allKeys())
        values.insert(name, UserDefaults::standard().objectForKey(name));
    return values;
}

QStringList genreList() {
    QStringList list;
    for (const QVariant& v : UserDefaults::standard().arrayForKey(key(SettingsKey::GenreList)))
        list << v.toString();
    return list;
}

class PanelsTest : public MainWindowTest {
protected:
    void SetUp() override {
        MainWindowTest::SetUp();
        // The preset file outlives a test; start each from the shipped one.
        ASSERT_TRUE(MDB_Devices::resetAll());
    }
    // Triggers the Edit menu entry and answers the panel it opened.
    template <class Panel> Panel* openFromMenu(const QString& entry) {
        for (QAction* action : window->menuBar()->findChildren<QAction*>()) {
            if (action->text() == entry)
                action->trigger();
        }
        Panel* panel = window->findChild<Panel*>();
        EXPECT_TRUE(panel && panel->isVisible() && panel->windowModality() == Qt::WindowModal)
            << entry.toStdString();
        return panel;
    }
    static QPushButton* button(QWidget* panel, const char* name) {
        return panel->findChild<QPushButton*>(QLatin1String(name));
    }
};

TEST_F(PanelsTest, PreferencesWriteAtOnceAndCloseOnlyWithAnITunesFolder) {
    UserDefaults& d = UserDefaults::standard();
    d.setObject(QStringLiteral("HD 1080p"), key(SettingsKey::PrimaryDevice));
    d.setInteger(1, key(SettingsKey::HDSD));
    d.removeObject(key(SettingsKey::DestinationPathBookmark));
    d.removeObject(key(SettingsKey::ITunesPathBookmark));
    launch();
    PreferencesPanel* panel = openFromMenu<PreferencesPanel>(QStringLiteral("Preferences..."));
    ASSERT_TRUE(panel);
    // No destination: the alert follows the opening.
    ASSERT_TRUE(waitUntil([&] { return panel->destinationAlert() != nullptr; }));
    EXPECT_EQ(panel->destinationAlert()->text(),
              PreferencesPanelController::kDestinationMissingText);
    panel->destinationAlert()->buttons().first()->click();
    ASSERT_TRUE(waitUntil([&] { return panel->destinationAlert() == nullptr; }));

    QCheckBox* hdsd = panel->checkBox(key(SettingsKey::HDSD));
    ASSERT_TRUE(hdsd);
    EXPECT_TRUE(hdsd->isEnabled());
    EXPECT_TRUE(hdsd->isChecked());
    auto* primary = panel->findChild<QComboBox*>(QStringLiteral("primaryDevice"));
    primary->setCurrentIndex(primary->findText(QStringLiteral("SD 480p")));
    emit primary->activated(primary->currentIndex());
    EXPECT_EQ(d.stringForKey(key(SettingsKey::PrimaryDevice)), QStringLiteral("SD 480p"));
    EXPECT_EQ(d.integerForKey(key(SettingsKey::HDSD)), 0);
    EXPECT_FALSE(hdsd->isEnabled());
    EXPECT_FALSE(hdsd->isChecked());

    const bool decomb = d.boolForKey(key(SettingsKey::Decomb));
    panel->checkBox(key(SettingsKey::Decomb))->click();
    EXPECT_EQ(d.boolForKey(key(SettingsKey::Decomb)), !decomb);
    auto* country = panel->findChild<QComboBox*>(QStringLiteral("country"));
    const int germany = country->findData(QStringLiteral("DE"));
    ASSERT_GE(germany, 0);
    EXPECT_EQ(country->itemText(germany), QStringLiteral("Germany"));
    emit country->activated(germany);
    EXPECT_EQ(d.stringForKey(key(SettingsKey::LanguageRegion)), QStringLiteral("en-DE"));

    // Reset leaves the real "Backdrop Art" alone.
    QCheckBox* backdrop = panel->checkBox(key(SettingsKey::BackdropArt));
    const bool backdropBefore = backdrop->isChecked();
    backdrop->click();
    button(panel, "resetButton")->click();
    EXPECT_EQ(backdrop->isChecked(), !backdropBefore);
    EXPECT_EQ(d.boolForKey(key(SettingsKey::BackdropArt)), !backdropBefore);

    // Without an iTunes bookmark the panel stays, and says so.
    const QVariantMap before = storeSnapshot();
    panel->reject();
    EXPECT_TRUE(panel->isVisible());
    ASSERT_TRUE(waitUntil([&] { return panel->destinationAlert() != nullptr; }));
    panel->destinationAlert()->buttons().first()->click();
    EXPECT_EQ(storeSnapshot(), before);

    ASSERT_TRUE(panel->controller()->itunesPathChanged(m_out.path()));
    panel->PopulatePanel();
    EXPECT_TRUE(panel->checkBox(key(SettingsKey::AddITunes))->isChecked());
    const QVariantMap withITunes = storeSnapshot();
    QPointer<PreferencesPanel> closing(panel);
    button(panel, "closeButton")->click();
    ASSERT_TRUE(waitUntil([&] { return closing.isNull(); }));
    EXPECT_EQ(storeSnapshot(), withITunes);
}

TEST_F(PanelsTest, DevicesEditTheUserFileAndRefillThePreferenceMenus) {
    launch();
    auto* devices = openFromMenu<DevicesPanel>(QStringLiteral("Devices..."));
    ASSERT_TRUE(devices);
    auto* table = devices->findChild<QTableWidget*>(QStringLiteral("deviceParams"));
    const int misc = int(MDB_Devices::sections().indexOf(QStringLiteral("misc")));
    ASSERT_GE(misc, 0);
    EXPECT_FALSE(table->item(misc, 0)->flags() & Qt::ItemIsEditable);
    EXPECT_TRUE(table->item(misc, 1)->flags() & Qt::ItemIsEditable);
    table->item(misc, 1)->setText(QStringLiteral("--markers"));
    EXPECT_EQ(MDB_Devices::device(QStringLiteral("SD 480p"))->value("misc").toString(),
              QStringLiteral("--markers"));

    // Typing a name renames the preset.
    auto* names = devices->findChild<QComboBox*>(QStringLiteral("devices"));
    names->lineEdit()->setText(QStringLiteral("Old TV"));
    emit names->lineEdit()->editingFinished();
    EXPECT_TRUE(MDB_Devices::deviceNames().contains(QStringLiteral("Old TV")));
    EXPECT_FALSE(button(devices, "resetDev")->isEnabled());

    const QByteArray file = [] {
        QFile f(MDB_Devices::userFilePath());
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }();
    QPointer<DevicesPanel> closing(devices);
    devices->reject();
    ASSERT_TRUE(waitUntil([&] { return closing.isNull(); }));
    QFile after(MDB_Devices::userFilePath());
    ASSERT_TRUE(after.open(QIODevice::ReadOnly));
    EXPECT_EQ(after.readAll(), file);

    // From the preferences, a preset added in the devices panel is offered
    // in both menus once it closes.
    UserDefaults::standard().setObject(Bookmark::create(m_out.path()),
                                       key(SettingsKey::ITunesPathBookmark));
    auto* prefs = openFromMenu<PreferencesPanel>(QStringLiteral("Preferences..."));
    ASSERT_TRUE(prefs);
    button(prefs, "devicesButton")->click();
    auto* nested = prefs->findChild<DevicesPanel*>();
    ASSERT_TRUE(nested);
    button(nested, "addDevice")->click();
    const QString added = nested->controller()->currentDevice();
    EXPECT_TRUE(added.startsWith(QStringLiteral("Custom ")));
    button(nested, "closeButton")->click();
    for (const char* menu : {"primaryDevice", "secondaryDevice"})
        EXPECT_GE(prefs->findChild<QComboBox*>(QLatin1String(menu))->findText(added), 0) << menu;
    prefs->reject();
}

TEST_F(PanelsTest, GenreEditsReachTheSettingsAndTheToolbar) {
    launch();
    window->functionAction(AppDelegate::LibraryFunction)->trigger();
    auto* genres = openFromMenu<GenresPanel>(QStringLiteral("Genres..."));
    ASSERT_TRUE(genres);
    auto* list = genres->findChild<QListWidget*>(QStringLiteral("genreList"));
    const QStringList original = genreList();
    ASSERT_GE(original.size(), 3);
    ASSERT_EQ(list->count(), original.size());

    list->setCurrentRow(0);
    button(genres, "deleteGenre")->click();
    EXPECT_EQ(genreList(), original.mid(1));
    for (const QVariant& mapped :
         UserDefaults::standard().dictionaryForKey(key(SettingsKey::GenreMap)))
        EXPECT_NE(mapped.toString(), original.first());

    list->setCurrentRow(1);
    button(genres, "moveUp")->click();
    EXPECT_EQ(genreList().first(), original.at(2));
    EXPECT_EQ(list->currentRow(), 0);

    list->item(0)->setText(QStringLiteral("Film Noir"));
    ASSERT_TRUE(waitUntil([] { return genreList().first() == QLatin1String("Film Noir"); }));

    // A map row's pop-up stores its genre.
    auto* map = genres->findChild<QTableWidget*>(QStringLiteral("genreMap"));
    ASSERT_GT(map->rowCount(), 0);
    auto* popup = qobject_cast<QComboBox*>(map->cellWidget(0, 1));
    ASSERT_TRUE(popup);
    popup->setCurrentIndex(popup->findText(QStringLiteral("Film Noir")));
    emit popup->activated(popup->currentIndex());
    EXPECT_EQ(UserDefaults::standard()
                  .dictionaryForKey(key(SettingsKey::GenreMap))
                  .value(map->item(0, 0)->text())
                  .toString(),
              QStringLiteral("Film Noir"));

    const QVariantMap before = storeSnapshot();
    QPointer<GenresPanel> closing(genres);
    button(genres, "closeButton")->click();
    ASSERT_TRUE(waitUntil([&] { return closing.isNull(); }));
    EXPECT_EQ(storeSnapshot(), before);
    QComboBox* toolbar = window->genrePopup();
    QStringList shown;
    for (int i = 1; i < toolbar->count(); ++i)
        shown << toolbar->itemText(i);
    EXPECT_EQ(shown, genreList());
}

} // namespace

namespace {

// The three panels filled from the shipped settings and presets, to PNG
// files in $TARNWICK_SCREENSHOT_DIR (scripts/screenshots.sh).
using PanelScreenshots = PanelsTest;

TEST_F(PanelScreenshots, SettingsPanels) {
    const QString dir = qEnvironmentVariable("TARNWICK_SCREENSHOT_DIR");
    if (dir.isEmpty())
        GTEST_SKIP() << "TARNWICK_SCREENSHOT_DIR names no folder (scripts/screenshots.sh does)";
    QDir().mkpath(dir);
    UserDefaults::standard().setObject(QStringLiteral("HD 1080p"), key(SettingsKey::PrimaryDevice));
    UserDefaults::standard().setObject(Bookmark::create(m_out.path()),
                                       key(SettingsKey::ITunesPathBookmark));
    launch();
    const auto shoot = [&](QDialog* panel, const char* name) {
        ASSERT_TRUE(panel);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(panel));
        QTest::qWait(50);
        EXPECT_TRUE(panel->grab().save(dir + u'/' + QLatin1String(name) + QStringLiteral(".png")));
        panel->reject();
    };
    shoot(openFromMenu<PreferencesPanel>(QStringLiteral("Preferences...")), "preferences-panel");
    shoot(openFromMenu<DevicesPanel>(QStringLiteral("Devices...")), "devices-panel");
    window->functionAction(AppDelegate::LibraryFunction)->trigger();
    shoot(openFromMenu<GenresPanel>(QStringLiteral("Genres...")), "genres-panel");
}

} // namespace
