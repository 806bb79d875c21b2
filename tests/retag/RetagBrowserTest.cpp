// The retag browser end to end: real movie files scanned by the encoder tool,
// matched against the loopback movie database, their own tags read back and
// written again in place.

#include "RetagTestSupport.h"

#include "core/Notifications.h"
#include "library/RetagBrowserController.h"
#include "lookup/SearchPanelController.h"
#include "media/MDI_Utility.h"

#include <gtest/gtest.h>

using retagtest::tag;
using testsupport::waitUntil;

namespace {

// Answers the search panel from a script: "" skips, a name is searched for.
struct ScriptedDelegate : RetagBrowserDelegate {
    void runSearchPanel(SearchPanelController& panel) override {
        askedFor << panel.startName();
        const QString answer = answers.isEmpty() ? QString() : answers.takeFirst();
        answer.isEmpty() ? panel.skipBtn() : (panel.setNewName(answer), panel.searchBtn());
    }
    void itemReady(const std::shared_ptr<MDI_Media>& item) override { ready << item->name(); }
    QStringList answers, askedFor, ready;
};

class RetagBrowserTest : public ::testing::Test {
protected:
    void SetUp() override {
        scantest::server();
        scantest::resetSettings();
        ASSERT_TRUE(dir.isValid());
        ASSERT_FALSE(retagtest::plainMovie().isEmpty());
        list = std::make_shared<MediaItemList>();
        browser = std::make_unique<RetagBrowserController>(list);
        browser->setBrowserDelegate(&delegate);
    }

    bool waitSettled() {
        return waitUntil(
            [this] {
                return !browser->isScanning() &&
                       std::all_of(list->begin(), list->end(), [](const auto& i) {
                           return i->status() == 0 || i->status() >= 8;
                       });
            },
            60000);
    }

    std::shared_ptr<MDI_Media> item(int row) const { return list->at(row); }

    QTemporaryDir dir;
    ScriptedDelegate delegate;
    std::shared_ptr<MediaItemList> list;
    std::unique_ptr<RetagBrowserController> browser;
};

} // namespace

TEST_F(RetagBrowserTest, TheFilesOwnTagsWinOverTheMatchAndSaveWritesThemInPlace) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                                               {{tag(TagName::Name), "Harbour Lights (Restored)"},
                                                {tag(TagName::Comments), "my own copy"}});
    const QByteArray before = retagtest::fileHash(file);
    // The same movie again in another folder, with a cover of its own.
    ASSERT_TRUE(QDir(dir.path()).mkdir("covered"));
    const QString covered =
        retagtest::taggedCopy(dir.filePath("covered"), "Harbour Lights.m4v", {}, Qt::blue);
    EXPECT_EQ(browser->loadFiles({file, covered}), 2);
    const auto movie = item(0);
    EXPECT_EQ(movie->outPath(), file);
    ASSERT_TRUE(waitSettled());

    ASSERT_EQ(movie->status(), 8) << movie->warnings().toStdString();
    EXPECT_EQ(delegate.ready, (QStringList{"Harbour Lights", "Harbour Lights"}));
    // The file's own values are applied after the match, which fills in the rest.
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "Harbour Lights (Restored)");
    EXPECT_EQ(movie->getTag(tag(TagName::Comments)), "my own copy");
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100004");
    EXPECT_EQ(movie->getTag(tag(TagName::Genre)), "Comedy");
    // Without a cover of its own the file gets the database's poster; a file
    // with one keeps it.
    EXPECT_TRUE(
        movie->metaData()->getArtworkURL().toString().startsWith(scantest::server().baseURL()));
    const auto withCover = item(1);
    ASSERT_EQ(withCover->status(), 8);
    EXPECT_EQ(imagetest::decoded(withCover->metaData()->artwork()).pixelColor(10, 10),
              QColor(Qt::blue));
    EXPECT_EQ(retagtest::fileHash(file), before) << "written before the save";

    QString error;
    ASSERT_TRUE(browser->saveItem(movie, &error)) << error.toStdString();
    const QJsonObject tags = retagtest::probeTags(file);
    EXPECT_EQ(tags.value("title").toString(), "Harbour Lights (Restored)");
    EXPECT_EQ(tags.value("comment").toString(), "my own copy");
    EXPECT_TRUE(tags.value("date").toString().startsWith("1962"));
    EXPECT_GT(retagtest::coverWidth(file), 0);
}

TEST_F(RetagBrowserTest, SkipTaggingReadOnlyMissingAndUnscannableFilesAreNotWritten) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    const QString file =
        retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                              {{tag(TagName::Name), "Lights Over The Harbour"}}, Qt::red);
    scantest::server().clearRequests();
    browser->loadFiles({file, scantest::sample("junk.mkv")});
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(scantest::server().requestCount(), 0);
    const auto movie = item(0);
    ASSERT_EQ(movie->status(), 8);
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "Lights Over The Harbour");
    EXPECT_TRUE(movie->getTag(tag(TagName::TMDbID)).isEmpty());
    EXPECT_EQ(imagetest::decoded(movie->metaData()->artwork()).pixelColor(5, 5), QColor(Qt::red));
    // A file that is no movie fails its scan and cannot be saved.
    EXPECT_EQ(item(1)->warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));
    QString error;
    EXPECT_FALSE(browser->saveItem(item(1), &error));
    EXPECT_TRUE(error.contains("not ready")) << error.toStdString();

    movie->setTag("Something Else", tag(TagName::Name));
    ASSERT_TRUE(QFile::setPermissions(file, QFile::ReadOwner | QFile::ReadGroup));
    const QByteArray before = retagtest::fileHash(file);
    EXPECT_FALSE(browser->saveItem(movie, &error));
    EXPECT_TRUE(error.contains(file)) << error.toStdString();
    EXPECT_TRUE(error.contains(QString::fromLatin1(RetagBrowserController::kReadOnlyFile)));
    EXPECT_EQ(retagtest::fileHash(file), before);
    // The item is still ready: made writable, it saves.
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner);
    EXPECT_TRUE(browser->saveItem(movie, &error)) << error.toStdString();
    EXPECT_EQ(retagtest::probeTags(file).value("title").toString(), "Something Else");

    // A file gone since the lookup fails with the tagging message.
    movie->setStatus(8);
    ASSERT_TRUE(QFile::remove(file));
    EXPECT_FALSE(browser->saveItem(movie, &error));
    EXPECT_TRUE(error.contains(QString::fromLatin1(MDI_Media::kWriteFailed)))
        << error.toStdString();
    EXPECT_FALSE(QFileInfo::exists(file));
}

TEST_F(RetagBrowserTest, ANoHitsNameIsSkippedOrSearchedAgainRenamingOnlyTheItem) {
    const QString heat = retagtest::taggedCopy(dir.path(), "Heat.mov", {});
    const QString bare = retagtest::taggedCopy(dir.path(), "Quayside", {});
    delegate.answers = {QString(), "Harbour Lights"};
    browser->loadFiles({heat, bare});
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(delegate.askedFor, (QStringList{"Heat", "Quayside"}));
    // Skipped: ready with nothing but its own (empty) tags.
    EXPECT_EQ(item(0)->status(), 8);
    // Searched again under a typed name: the item is renamed, the file is not.
    EXPECT_EQ(item(1)->name(), "Harbour Lights");
    EXPECT_EQ(item(1)->getTag(tag(TagName::TMDbID)), "100004");
    QString error;
    ASSERT_TRUE(browser->saveItem(item(1), &error)) << error.toStdString();
    EXPECT_FALSE(QFileInfo::exists(bare + ".m4v"));
    EXPECT_EQ(retagtest::probeTags(bare).value("title").toString(), "Harbour Lights");
}

TEST_F(RetagBrowserTest, AHandPickedHitOrTitleIsNotOverriddenByTheFilesTags) {
    const QString file = retagtest::taggedCopy(dir.path(), "The Lighthouse Keeper.m4v",
                                               {{tag(TagName::Name), "My Keeper"}});
    browser->loadFiles({file});
    ASSERT_TRUE(waitSettled());
    const auto movie = item(0);
    ASSERT_EQ(movie->searchList().size(), 3);
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "My Keeper");

    browser->setSelection({0});
    browser->tagSearchUpdate(9); // no such hit: nothing happens
    EXPECT_EQ(movie->status(), 8);
    browser->tagSearchUpdate(2);
    EXPECT_TRUE(browser->isScanning());
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100003");
    EXPECT_EQ(browser->images().at(0).title, "Keeper of the Light");

    // A pick while another file is scanned is queried at once; the scan of
    // the other file goes on and both end ready. A typed title must wait.
    const QString other = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v", {});
    browser->loadFiles({other});
    ASSERT_EQ(item(1)->status(), 3);
    EXPECT_FALSE(browser->searchByHand(movie, "Harbour Lights"));
    browser->tagSearchUpdate(movie, 1);
    EXPECT_EQ(movie->status(), 7);
    EXPECT_EQ(browser->workMovie(), item(1));
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100002");
    EXPECT_EQ(item(1)->getTag(tag(TagName::TMDbID)), "100004");

    ASSERT_TRUE(browser->searchByHand(movie, "Harbour Lights"));
    EXPECT_TRUE(browser->isScanning());
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100004");
}

TEST_F(RetagBrowserTest, SelectionNamesTheRetagTabAndRemovedItemsStopTheirScan) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    QStringList files;
    for (const char* name : {"A.m4v", "B.m4v", "C.m4v"})
        files << retagtest::taggedCopy(dir.path(), name, {});
    browser->loadFiles(files);
    ASSERT_EQ(item(0)->status(), 3);
    const auto second = item(1);
    QList<QVariantMap> posts;
    QObject::connect(&NotificationCenter::defaultCenter(), &NotificationCenter::posted,
                     browser.get(), [&](const QString& name, const QVariantMap& info) {
                         if (name == QLatin1String(NotificationName::SelectionChanged))
                             posts << info;
                     });
    browser->setSelection({2, 0});
    ASSERT_EQ(posts.size(), 1);
    EXPECT_EQ(posts[0].value("movie").value<std::shared_ptr<MDI_Media>>(), item(2));
    EXPECT_EQ(posts[0].value("tab").toInt(), 1);
    browser->clearIndexes(browser->getSelected());
    EXPECT_EQ(browser->movieList(), MediaItemList{second});
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(second->status(), 8);
}
