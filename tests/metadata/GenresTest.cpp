#include "metadata/Genres.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/GenresPanelController.h"
#include "metadata/Utility.h"

#include <QHash>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

TEST(NumericGenres, NamesFollowTheShiftedId3ListWithItsOddSpellings) {
    const std::pair<int, const char*> named[] = {
        {1, "Blues"},    {8, "Hop-Hop"},     {86, "Bebob"},       {95, "SYMPHONIC_ROCK"},
        {103, "Chason"}, {124, "A capella"}, {126, "Dance Hall"}, {255, "none"}};
    for (const auto& [code, name] : named)
        EXPECT_EQ(MDB_Genres::getGenreFromID(code), name) << code;
    int count = 0;
    for (int code = -5; code < 1000; ++code)
        count += MDB_Genres::getGenreFromID(code).isNull() ? 0 : 1;
    EXPECT_EQ(count, 127);
    for (int code : {0, 127, 254, 256, -1})
        EXPECT_TRUE(MDB_Genres::getGenreFromID(code).isNull()) << code;
}

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

TEST_F(AssignGenre, ShippedRulesPickTheHighestListedGenreOrUnknown) {
    EXPECT_EQ(Utility::assignGenre("Action, Drama"), "Action & Adventure");
    EXPECT_EQ(Utility::assignGenre("Drama, Animation"), "Kids & Family");
    EXPECT_EQ(Utility::assignGenre("Crime, Science Fiction, Thriller"), "Sci-Fi & Fantasy");
    EXPECT_EQ(Utility::assignGenre("TV Movie"), "Drama");
    EXPECT_EQ(Utility::assignGenre("Telenovela, Reality"), "Unknown");
    EXPECT_EQ(Utility::assignGenre(""), "Unknown");
    // Only ", " separates: a bare comma is part of one name.
    EXPECT_EQ(Utility::assignGenre("Drama,Comedy"), "Unknown");
}

TEST_F(AssignGenre, ListOrderWinsOverTheDatabaseOrder) {
    set(QVariantList{"Drama", "Comedy"}, SettingsKey::GenreList);
    set(QVariantMap{{"Comedy", "Comedy"}, {"Drama", "Drama"}}, SettingsKey::GenreMap);
    EXPECT_EQ(Utility::assignGenre("Comedy, Drama"), "Drama");
    EXPECT_EQ(Utility::assignGenre("Comedy"), "Comedy");

    // A mapping to a genre that is not (or no longer) in the list, or to none.
    set(QVariantMap{{"Comedy", "Farce"}, {"Drama", ""}}, SettingsKey::GenreMap);
    EXPECT_EQ(Utility::assignGenre("Comedy, Drama"), "Unknown");
    set(QVariantList{}, SettingsKey::GenreList);
    set(QVariantMap{{"Comedy", "Comedy"}}, SettingsKey::GenreMap);
    EXPECT_EQ(Utility::assignGenre("Comedy"), "Unknown");
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
    db.lists["fr"] = {"Action", "Aventure", "Animation", "Comédie", "Drame"};
    Utility::setGenreSource(db.source());
    set(QString("de-DE"), SettingsKey::LanguageRegion);

    EXPECT_EQ(Utility::assignGenre("Komödie, Abenteuer"), "Comedy");
    EXPECT_EQ(Utility::assignGenre("Drama, Abenteuer"), "Action & Adventure");
    EXPECT_EQ(db.calls.value("en"), 1);
    EXPECT_EQ(db.calls.value("de"), 1);

    set(QString("fr-CA"), SettingsKey::LanguageRegion);
    EXPECT_EQ(Utility::assignGenre("Drame"), "Drama");
    EXPECT_EQ(db.calls.value("fr"), 1);
    EXPECT_EQ(db.calls.value("en"), 1);

    // With native names wanted, nothing is translated and the map misses them.
    set(true, SettingsKey::GenreNative);
    EXPECT_EQ(Utility::assignGenre("Comédie"), "Unknown");
    EXPECT_EQ(Utility::assignGenre("Comedy"), "Comedy");
}

TEST_F(AssignGenre, UnevenListsLeaveTheRestUntranslated) {
    FakeGenreSource db;
    db.lists["en"] = {"Action", "Comedy"};
    db.lists["es"] = {"Acción", "Comedia", "Drama", "Terror"};
    Utility::setGenreSource(db.source());
    set(QString("es-ES"), SettingsKey::LanguageRegion);
    set(QVariantMap{{"Comedy", "Comedy"}, {"Terror", "Horror"}}, SettingsKey::GenreMap);
    // "Terror" stands past the English list: kept as it is, and mapped as such.
    EXPECT_EQ(Utility::assignGenre("Terror, Comedia"), "Horror");
    set(QVariantMap{{"Comedy", "Comedy"}}, SettingsKey::GenreMap);
    EXPECT_EQ(Utility::assignGenre("Terror, Comedia"), "Comedy");
}

TEST_F(AssignGenre, ListsAreKeptButAnEmptyAnswerIsAskedAgain) {
    EXPECT_TRUE(Utility::tmdbEnglishGenres().isEmpty());
    EXPECT_TRUE(Utility::tmdbNativeGenres("de").isEmpty());

    FakeGenreSource db;
    Utility::setGenreSource(db.source());
    EXPECT_TRUE(Utility::tmdbEnglishGenres().isEmpty());
    EXPECT_TRUE(Utility::tmdbNativeGenres("de").isEmpty());
    db.lists["en"] = {"Action"};
    db.lists["de"] = {"Aktion"};
    EXPECT_EQ(Utility::tmdbEnglishGenres(), QStringList{"Action"});
    EXPECT_EQ(Utility::tmdbNativeGenres("de"), QStringList{"Aktion"});
    EXPECT_EQ(db.calls.value("en"), 2);
    EXPECT_EQ(db.calls.value("de"), 2);

    db.lists["en"] = {"Changed"};
    db.lists["de"] = {"Geändert"};
    EXPECT_EQ(Utility::tmdbEnglishGenres(), QStringList{"Action"});
    EXPECT_EQ(Utility::tmdbNativeGenres("de"), QStringList{"Aktion"});
    // Only the last language is kept.
    EXPECT_TRUE(Utility::tmdbNativeGenres("it").isEmpty());
    EXPECT_EQ(Utility::tmdbNativeGenres("de"), QStringList{"Geändert"});

    Utility::resetGenreCache();
    EXPECT_EQ(Utility::tmdbEnglishGenres(), QStringList{"Changed"});
}

using GenresPanel = GenreSettings;

TEST_F(GenresPanel, AddInsertsNewGenreAtTheSelectedRow) {
    set(QVariantList{"Drama", "Comedy"}, SettingsKey::GenreList);
    GenresPanelController panel;
    int reloads = 0;
    QObject::connect(&panel, &GenresPanelController::tablesChanged, [&] { ++reloads; });

    EXPECT_EQ(panel.onAddGenre(-1), -1);
    EXPECT_EQ(panel.onAddGenre(3), -1);
    EXPECT_EQ(list(), (QStringList{"Drama", "Comedy"}));
    EXPECT_EQ(reloads, 0);

    EXPECT_EQ(panel.onAddGenre(1), 1);
    EXPECT_EQ(list(), (QStringList{"Drama", "New Genre", "Comedy"}));
    EXPECT_EQ(panel.onAddGenre(3), 3);
    EXPECT_EQ(panel.genreList(), (QStringList{"Drama", "New Genre", "Comedy", "New Genre"}));
    EXPECT_EQ(reloads, 2);

    set(QVariantList{}, SettingsKey::GenreList);
    EXPECT_EQ(panel.onAddGenre(0), 0);
    EXPECT_EQ(list(), QStringList{"New Genre"});
}

TEST_F(GenresPanel, DeleteLeavesFormerMappingsEmpty) {
    GenresPanelController panel;
    const int row = int(list().indexOf("Thriller"));
    ASSERT_GE(row, 0);
    ASSERT_TRUE(panel.onDeleteGenre(row));
    EXPECT_FALSE(list().contains("Thriller"));
    const QVariantMap m = map();
    for (const char* g : {"Crime", "Mystery", "Thriller"}) {
        ASSERT_TRUE(m.contains(g)) << g;
        EXPECT_EQ(m.value(g).toString(), "") << g;
    }
    EXPECT_EQ(m.value("Drama").toString(), "Drama");
    EXPECT_EQ(Utility::assignGenre("Crime"), "Unknown");
    EXPECT_FALSE(panel.onDeleteGenre(-1));
    EXPECT_FALSE(panel.onDeleteGenre(int(list().size())));
}

TEST_F(GenresPanel, RenameCarriesTheMappingsAlong) {
    GenresPanelController panel;
    const int row = int(list().indexOf("Sci-Fi & Fantasy"));
    ASSERT_TRUE(panel.renameGenre(row, "Science Fiction"));
    EXPECT_EQ(list().at(row), "Science Fiction");
    EXPECT_EQ(map().value("Fantasy").toString(), "Science Fiction");
    EXPECT_EQ(map().value("Science Fiction").toString(), "Science Fiction");
    EXPECT_EQ(Utility::assignGenre("Fantasy, Drama"), "Science Fiction");

    EXPECT_FALSE(panel.renameGenre(row, "  "));
    EXPECT_FALSE(panel.renameGenre(-1, "X"));
    EXPECT_EQ(list().at(row), "Science Fiction");
}

TEST_F(GenresPanel, MappingAcceptsListGenresOrNone) {
    GenresPanelController panel;
    EXPECT_TRUE(panel.setMapping("Crime", "Drama"));
    EXPECT_EQ(Utility::assignGenre("Crime"), "Drama");
    EXPECT_TRUE(panel.setMapping("Crime", ""));
    EXPECT_EQ(Utility::assignGenre("Crime"), "Unknown");
    EXPECT_FALSE(panel.setMapping("Crime", "Not A Listed Genre"));
    EXPECT_FALSE(panel.setMapping("Telenovela", "Drama"));
    EXPECT_EQ(map().value("Crime").toString(), "");

    const QList<GenresPanelController::MapRow> rows = panel.genreMapRows();
    ASSERT_EQ(rows.size(), 19);
    EXPECT_EQ(rows.first(), (GenresPanelController::MapRow{"Action", "Action & Adventure"}));
    EXPECT_EQ(rows.at(4), (GenresPanelController::MapRow{"Crime", ""}));
}

TEST_F(GenresPanel, MovesSwapNeighboursAndChangeThePriority) {
    set(QVariantList{"Drama", "Comedy", "Horror"}, SettingsKey::GenreList);
    GenresPanelController panel;
    EXPECT_EQ(Utility::assignGenre("Comedy, Drama"), "Drama");
    EXPECT_EQ(panel.onMoveGenreUp(1), 0);
    EXPECT_EQ(list(), (QStringList{"Comedy", "Drama", "Horror"}));
    EXPECT_EQ(Utility::assignGenre("Comedy, Drama"), "Comedy");
    EXPECT_EQ(panel.onMoveGenreDown(1), 2);
    EXPECT_EQ(list(), (QStringList{"Comedy", "Horror", "Drama"}));

    EXPECT_EQ(panel.onMoveGenreUp(0), -1);
    EXPECT_EQ(panel.onMoveGenreDown(2), -1);
    EXPECT_EQ(panel.onMoveGenreUp(-1), -1);
    EXPECT_EQ(list(), (QStringList{"Comedy", "Horror", "Drama"}));
}

TEST_F(GenresPanel, EditsReachTheStoreAndResetRestoresTheDefaults) {
    GenresPanelController panel;
    ASSERT_TRUE(panel.onDeleteGenre(0));
    ASSERT_TRUE(panel.setMapping("War", "Drama"));
    const QStringList edited = list();

    // Written through at once: a fresh store sees the edits.
    UserDefaults::standard().reopen(m_dir.filePath("Tarnwick.plist"));
    EXPECT_EQ(list(), edited);
    EXPECT_EQ(map().value("War").toString(), "Drama");

    UserDefaults::standard().registerDefaults(
        Resources::loadPropertyList("Defaults-Pro.plist").toMap());
    panel.onResetDefaults();
    const auto& d = UserDefaults::standard();
    EXPECT_EQ(d.arrayForKey(SettingsKey::GenreList), d.arrayForKey(SettingsKey::DefaultGenreList));
    EXPECT_EQ(map(), d.dictionaryForKey(SettingsKey::DefaultGenreMap));
    EXPECT_TRUE(d.hasUserValue(SettingsKey::GenreList));
    EXPECT_EQ(Utility::assignGenre("War"), "Action & Adventure");
}

} // namespace
