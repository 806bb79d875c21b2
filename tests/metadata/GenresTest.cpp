#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/GenresPanelController.h"
#include "metadata/Utility.h"

#include <QHash>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

// A private settings store with the shipped defaults beneath it.
class GenreSettings : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        UserDefaults::standard().reopen(m_dir.filePath("Tarnwick.plist"));
        const QVariantMap shipped = Resources::loadPropertyList("Defaults-Pro.plist").toMap();
        ASSERT_FALSE(shipped.isEmpty());
        UserDefaults::standard().registerDefaults(shipped);
        Utility::setGenreSource({});
    }
    void TearDown() override {
        Utility::setGenreSource({});
        UserDefaults::standard().reopen();
    }

    static void set(const QVariant& value, const char* key) {
        UserDefaults::standard().setObject(value, QString::fromLatin1(key));
    }
    static QStringList list() {
        QStringList out;
        for (const QVariant& v : UserDefaults::standard().arrayForKey(SettingsKey::GenreList))
            out.append(v.toString());
        return out;
    }
    static QVariantMap map() {
        return UserDefaults::standard().dictionaryForKey(SettingsKey::GenreMap);
    }

    QTemporaryDir m_dir;
};

using AssignGenre = GenreSettings;

TEST_F(AssignGenre, TheHighestListedGenreOfTheMapWinsOrUnknown) {
    EXPECT_EQ(Utility::assignGenre("Drama, Animation"), "Kids & Family");
    EXPECT_EQ(Utility::assignGenre("Telenovela, Reality"), "Unknown");
    EXPECT_EQ(Utility::assignGenre(""), "Unknown");
    // Only ", " separates: a bare comma is part of one name.
    EXPECT_EQ(Utility::assignGenre("Drama,Comedy"), "Unknown");

    set(QVariantList{"Drama", "Comedy"}, SettingsKey::GenreList);
    set(QVariantMap{{"Comedy", "Comedy"}, {"Drama", "Drama"}}, SettingsKey::GenreMap);
    EXPECT_EQ(Utility::assignGenre("Comedy, Drama"), "Drama");
    // A mapping to a genre that is not (or no longer) in the list, or to none.
    set(QVariantMap{{"Comedy", "Farce"}, {"Drama", ""}}, SettingsKey::GenreMap);
    EXPECT_EQ(Utility::assignGenre("Comedy, Drama"), "Unknown");
}

// A stand-in for the database client that counts its fetches.
struct FakeGenreSource {
    QHash<QString, QStringList> lists;
    QHash<QString, int> calls;
    Utility::GenreSource source() {
        return [this](const QString& language) {
            ++calls[language];
            return lists.value(language);
        };
    }
};

TEST_F(AssignGenre, NativeNamesAreTurnedBackIntoEnglishFirst) {
    FakeGenreSource db;
    db.lists["en"] = {"Action", "Adventure", "Animation", "Comedy", "Drama"};
    db.lists["de"] = {"Action", "Abenteuer", "Animation", "Komödie", "Drama"};
    Utility::setGenreSource(db.source());
    set(QString("de-DE"), SettingsKey::LanguageRegion);

    EXPECT_EQ(Utility::assignGenre("Komödie, Abenteuer"), "Comedy");
    EXPECT_EQ(Utility::assignGenre("Drama, Abenteuer"), "Action & Adventure");
    // With native names wanted, nothing is translated and the map misses them.
    set(true, SettingsKey::GenreNative);
    EXPECT_EQ(Utility::assignGenre("Komödie"), "Unknown");
}

TEST_F(AssignGenre, ListsAreKeptUntilTheSourceChangesButAnEmptyAnswerIsAskedAgain) {
    FakeGenreSource db;
    Utility::setGenreSource(db.source());
    EXPECT_TRUE(Utility::tmdbNativeGenres("de").isEmpty());
    db.lists["en"] = {"Action"};
    db.lists["de"] = {"Aktion"};
    EXPECT_EQ(Utility::tmdbEnglishGenres(), QStringList{"Action"});
    EXPECT_EQ(Utility::tmdbNativeGenres("de"), QStringList{"Aktion"});
    EXPECT_EQ(db.calls.value("de"), 2);

    db.lists["en"] = {"Changed"};
    db.lists["de"] = {"Geändert"};
    EXPECT_EQ(Utility::tmdbEnglishGenres(), QStringList{"Action"});
    EXPECT_EQ(db.calls.value("en"), 1);
    Utility::resetGenreCache();
    EXPECT_EQ(Utility::tmdbEnglishGenres(), QStringList{"Changed"});

    FakeGenreSource other;
    other.lists["en"] = {"Other"};
    Utility::setGenreSource(other.source());
    EXPECT_EQ(Utility::tmdbEnglishGenres(), QStringList{"Other"});
}

using GenresPanel = GenreSettings;

TEST_F(GenresPanel, AddDeleteRenameAndMoveEditTheListAndCarryTheMappings) {
    set(QVariantList{"Drama", "Comedy", "Horror"}, SettingsKey::GenreList);
    set(QVariantMap{{"Crime", "Drama"}, {"Farce", "Comedy"}}, SettingsKey::GenreMap);
    GenresPanelController panel;
    int reloads = 0;
    QObject::connect(&panel, &GenresPanelController::tablesChanged, [&] { ++reloads; });
    EXPECT_EQ(panel.onAddGenre(4), -1);
    EXPECT_EQ(panel.onAddGenre(1), 1);
    EXPECT_EQ(list(), (QStringList{"Drama", "New Genre", "Comedy", "Horror"}));
    EXPECT_EQ(reloads, 1);

    ASSERT_TRUE(panel.onDeleteGenre(1));
    EXPECT_FALSE(panel.onDeleteGenre(3));
    ASSERT_TRUE(panel.onDeleteGenre(0));
    // A deleted genre's mappings are left empty.
    EXPECT_TRUE(map().contains("Crime"));
    EXPECT_EQ(map().value("Crime").toString(), "");

    ASSERT_TRUE(panel.renameGenre(0, "Comedy & Farce"));
    EXPECT_FALSE(panel.renameGenre(0, "  "));
    EXPECT_EQ(map().value("Farce").toString(), "Comedy & Farce");
    EXPECT_EQ(Utility::assignGenre("Farce, Horror"), "Comedy & Farce");

    EXPECT_EQ(panel.onMoveGenreDown(0), 1);
    EXPECT_EQ(list(), (QStringList{"Horror", "Comedy & Farce"}));
    EXPECT_EQ(panel.onMoveGenreUp(1), 0);
    EXPECT_EQ(panel.onMoveGenreUp(0), -1);
    EXPECT_EQ(panel.onMoveGenreDown(1), -1);
    EXPECT_EQ(list(), (QStringList{"Comedy & Farce", "Horror"}));
}

TEST_F(GenresPanel, MappingsTakeListGenresOrNoneAndResetRestoresTheDefaults) {
    GenresPanelController panel;
    EXPECT_TRUE(panel.setMapping("Crime", "Drama"));
    EXPECT_EQ(Utility::assignGenre("Crime"), "Drama");
    EXPECT_TRUE(panel.setMapping("Crime", ""));
    EXPECT_FALSE(panel.setMapping("Crime", "Not A Listed Genre"));
    EXPECT_FALSE(panel.setMapping("Telenovela", "Drama"));
    EXPECT_EQ(map().value("Crime").toString(), "");
    EXPECT_EQ(panel.genreMapRows().at(4), (GenresPanelController::MapRow{"Crime", ""}));
    ASSERT_TRUE(panel.onDeleteGenre(0));

    panel.onResetDefaults();
    const auto& d = UserDefaults::standard();
    EXPECT_EQ(d.arrayForKey(SettingsKey::GenreList), d.arrayForKey(SettingsKey::DefaultGenreList));
    EXPECT_EQ(map(), d.dictionaryForKey(SettingsKey::DefaultGenreMap));
    EXPECT_TRUE(d.hasUserValue(SettingsKey::GenreList));
    EXPECT_EQ(Utility::assignGenre("Crime"), "Thriller");
}

} // namespace
