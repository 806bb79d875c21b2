// The search results panel's logic against the loopback movie database: a
// new search from the panel, the table, the summary in the item's language,
// and what the panel leaves for the editor when it closes.

#include "ScanTestSupport.h"

#include "core/MDB_Utility.h"
#include "lookup/SearchResultsPanelController.h"
#include "media/MDI_Movie.h"
#include "metadata/TagNames.h"

#include <gtest/gtest.h>

using testsupport::waitUntil;

namespace {

class SearchResultsPanelTest : public ::testing::Test {
protected:
    void SetUp() override {
        scantest::server();
        scantest::resetSettings();
        movie = std::make_shared<MDI_Movie>();
        movie->setName(QStringLiteral("Lighthouse"));
        movie->setOutPath(QStringLiteral("/out/Lighthouse.m4v"));
        movie->setLanguageRegion(QStringLiteral("en-US"));
        movie->setStatus(8);
    }

    // Opens the panel on the item and searches for `text` from it.
    void searchFromPanel(const QString& text, bool replaceName) {
        panel.withParentWindow(movie, replaceName);
        bool finished = false;
        auto c = QObject::connect(&panel, &SearchResultsPanelController::searchFinished,
                                  [&] { finished = true; });
        panel.setSearchString(text);
        panel.onSearchBtn();
        ASSERT_TRUE(waitUntil([&] { return finished; }, 20000));
        QObject::disconnect(c);
    }

    std::shared_ptr<MDI_Media> movie;
    SearchResultsPanelController panel;
};

} // namespace

TEST_F(SearchResultsPanelTest, AnItemWithoutHitsShowsAnEmptyPanel) {
    panel.withParentWindow(movie, true);
    EXPECT_EQ(panel.numberOfRows(), 0);

    // An empty search text does nothing.
    panel.setSearchString(QStringLiteral("   "));
    panel.onSearchBtn();
    EXPECT_FALSE(panel.isSearching());
    EXPECT_EQ(movie->name(), "Lighthouse");
}

TEST_F(SearchResultsPanelTest, ASearchFromThePanelFillsTheTableAndRenamesTheItem) {
    searchFromPanel(QStringLiteral("The Lighthouse Keeper"), true);

    EXPECT_EQ(movie->name(), "The Lighthouse Keeper");
    EXPECT_EQ(movie->outPath(), "/out/The Lighthouse Keeper.m4v");
    EXPECT_EQ(movie->status(), 6);
    ASSERT_EQ(panel.numberOfRows(), 3);
    EXPECT_EQ(panel.value(2, QStringLiteral("Name")), "Keeper of the Light");
    EXPECT_TRUE(panel.value(3, QStringLiteral("Name")).isEmpty());

    // The first hit is shown with its overview and its poster.
    EXPECT_TRUE(panel.summary().startsWith("On a storm-bound island"));
    EXPECT_FALSE(panel.poster().isNull());
    EXPECT_TRUE(panel.onTMDbBtn().toString().endsWith("/movie/100001"));

    // A row click shows that hit.
    panel.selectRow(2);
    panel.resultSelected();
    EXPECT_EQ(panel.movieMeta()->getTag(QString::fromLatin1(TagName::TMDbID)), "100003");
    EXPECT_TRUE(panel.onIMDbBtn().toString().endsWith("/title/tt7700123/"));

    // A new search counts as a change even on the same row.
    panel.selectRow(0);
    panel.onDoneBtn();
    EXPECT_TRUE(panel.selectionChanged());
}

TEST_F(SearchResultsPanelTest, ANewSearchWithoutReplaceNameKeepsTheOutputFile) {
    searchFromPanel(QStringLiteral("Harbour Lights"), false);
    EXPECT_EQ(movie->name(), "Harbour Lights");
    EXPECT_EQ(movie->outPath(), "/out/Lighthouse.m4v");
    EXPECT_EQ(panel.numberOfRows(), 1);
}

TEST_F(SearchResultsPanelTest, LanguageChangeFetchesTheOverviewInThatLanguage) {
    // The language menu lists the user's preferred languages.
    MDB_Utility::setPreferredLanguages({QStringLiteral("en"), QStringLiteral("de")});
    const struct Restore {
        ~Restore() { MDB_Utility::setPreferredLanguages({}); }
    } restore;
    searchFromPanel(QStringLiteral("The Lighthouse Keeper"), true);
    const QString german = MDB_Utility::iso639_1Languages().value("de");
    ASSERT_FALSE(german.isEmpty());
    panel.onLanguageChanged(german);
    EXPECT_EQ(movie->languageRegion(), "de-US");
    panel.populatePanel(0);
    EXPECT_TRUE(panel.summary().startsWith("Auf einer sturmumtosten Insel"));
}

TEST_F(SearchResultsPanelTest, CancelAndTheSameRowChangeNothing) {
    searchFromPanel(QStringLiteral("The Lighthouse Keeper"), true);
    movie->setStatus(8); // as after the query of the first hit

    panel.withParentWindow(movie, true);
    panel.selectRow(1);
    panel.onCancelBtn();
    EXPECT_EQ(panel.selectedSearchResult(), -1);
    EXPECT_FALSE(panel.selectionChanged());

    // Back to the first hit after a hand pick of another one is a change too.
    movie->setSearchIndex(1);
    panel.withParentWindow(movie, true);
    panel.selectRow(0);
    panel.onDoneBtn();
    EXPECT_TRUE(panel.selectionChanged());
}
