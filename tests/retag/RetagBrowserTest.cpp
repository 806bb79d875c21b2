// The retag browser end to end: real movie files scanned by the encoder tool,
// matched against the loopback movie database, their own tags read back and
// written again in place.

#include "ImageTestSupport.h"
#include "RetagTestSupport.h"

#include "core/Notifications.h"
#include "core/Resources.h"
#include "library/RetagBrowserController.h"
#include "lookup/SearchPanelController.h"
#include "media/MDI_Utility.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

using retagtest::tag;
using testsupport::waitUntil;

namespace {

class ScriptedDelegate : public RetagBrowserDelegate {
public:
    void runSearchPanel(SearchPanelController& panel) override {
        askedFor << panel.startName();
        const QString answer = answers.isEmpty() ? QString() : answers.takeFirst();
        if (answer.isEmpty()) {
            panel.skipBtn();
        } else {
            panel.setNewName(answer);
            panel.searchBtn();
        }
    }
    void itemReady(const std::shared_ptr<MDI_Media>& item) override { ready << item->name(); }

    QStringList answers; // "" = Skip, else the name to search for
    QStringList askedFor;
    QStringList ready;
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

    ::testing::AssertionResult waitSettled(int timeoutMs = 60000) {
        const bool done = waitUntil(
            [this] {
                if (browser->isScanning())
                    return false;
                for (const auto& item : *list) {
                    if (item->status() != 0 && item->status() < 8)
                        return false;
                }
                return true;
            },
            timeoutMs);
        if (done)
            return ::testing::AssertionSuccess();
        QString states;
        for (const auto& item : *list)
            states += QStringLiteral("%1=%2 ").arg(item->name()).arg(item->status());
        return ::testing::AssertionFailure() << "still busy: " << states.toStdString();
    }

    std::shared_ptr<MDI_Media> item(int row) const { return list->at(row); }
    QString path(const QString& name) const { return dir.filePath(name); }

    QTemporaryDir dir;
    ScriptedDelegate delegate;
    std::shared_ptr<MediaItemList> list;
    std::unique_ptr<RetagBrowserController> browser;
};

} // namespace

TEST(RetagOutputName, TheExtensionTextIsReplacedWhereverItOccurs) {
    // Every occurrence of the extension's letters, as items have always been named.
    const std::pair<const char*, const char*> names[] = {{"Heat.mov", "Heat.m4v"},
                                                         {"Heat.m4v", "Heat.m4v"},
                                                         {"Heat", "Heat.m4v"},
                                                         {"Removals.mov", "Rem4vals.m4v"},
                                                         {"Casino.2.mp4", "Casino.2.m4v"},
                                                         {".hidden", ".hidden.m4v"}};
    for (const auto& [in, out] : names)
        EXPECT_EQ(RetagBrowserController::outputFileName(in), out) << in;
}

TEST(RetagList, TheRetagBrowserKeepsItsItemsApartFromTheEncodeBrowser) {
    RetagBrowserController retag;
    EncodeBrowserController encode;
    EXPECT_EQ(retag.itemList(), TagList::instance());
    EXPECT_NE(retag.itemList(), encode.itemList());
    EXPECT_EQ(encode.itemList(), EncodeList::instance());
}

TEST_F(RetagBrowserTest, TheFilesOwnTagsWinOverTheMatchAndSaveWritesThemInPlace) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                                               {{tag(TagName::Name), "Harbour Lights (Restored)"},
                                                {tag(TagName::Comments), "my own copy"},
                                                {tag(TagName::Genre), "Drama"}});
    const QByteArray before = retagtest::fileHash(file);
    scantest::server().clearRequests();

    // The same movie again in another folder, with a cover of its own.
    ASSERT_TRUE(QDir(dir.path()).mkdir("covered"));
    const QString covered = retagtest::taggedCopy(dir.filePath("covered"), "Harbour Lights.m4v", {},
                                                  retagtest::solidCover(Qt::blue));
    EXPECT_EQ(browser->loadFiles({file, covered}), 2);
    ASSERT_EQ(browser->count(), 2);
    const auto movie = item(0);
    EXPECT_EQ(movie->name(), "Harbour Lights");
    EXPECT_EQ(movie->inPath(), file);
    EXPECT_EQ(movie->outPath(), file);
    EXPECT_TRUE(movie->readMetadata());
    ASSERT_TRUE(waitSettled());

    ASSERT_EQ(movie->status(), 8) << movie->warnings().toStdString();
    EXPECT_EQ(delegate.ready, (QStringList{"Harbour Lights", "Harbour Lights"}));
    EXPECT_GT(scantest::server().requestCount(), 0);
    // The file's own values are applied after the match...
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "Harbour Lights (Restored)");
    EXPECT_EQ(movie->getTag(tag(TagName::Comments)), "my own copy");
    EXPECT_EQ(movie->getTag(tag(TagName::Genre)), "Drama");
    // ...and the match fills in what the file lacks.
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100004");
    EXPECT_EQ(movie->getTag(tag(TagName::ReleaseDate)).left(4), "1962");
    EXPECT_TRUE(movie->getTag(tag(TagName::Director)).startsWith("Leonard Ashby"));
    EXPECT_FALSE(movie->readMetadata());
    EXPECT_FALSE(movie->bypassMetadata());
    // The fetched record is kept for a reset.
    ASSERT_NE(movie->queryMetadata(), nullptr);
    EXPECT_EQ(movie->queryMetadata()->getTag(tag(TagName::Name)), "Harbour Lights");
    // Without a cover of its own the file gets the database's poster.
    ASSERT_TRUE(movie->hasPoster());
    EXPECT_TRUE(
        movie->metaData()->getArtworkURL().toString().startsWith(scantest::server().baseURL()));
    EXPECT_EQ(browser->images().at(0).title, "Harbour Lights (Restored)");
    // A file with a cover keeps it: the database offers its poster, but the
    // file's own stays chosen.
    const auto withCover = item(1);
    ASSERT_EQ(withCover->status(), 8);
    EXPECT_EQ(withCover->getTag(tag(TagName::TMDbID)), "100004");
    EXPECT_GT(withCover->numberOfPosters(), 1);
    const QImage cover = imagetest::decoded(withCover->metaData()->artwork());
    EXPECT_EQ(cover.size(), QSize(48, 72));
    EXPECT_EQ(cover.pixelColor(10, 10), QColor(Qt::blue));
    EXPECT_TRUE(withCover->metaData()->getArtworkURL().isLocalFile());
    // Nothing touches the file before the save.
    EXPECT_EQ(retagtest::fileHash(file), before);

    QString error;
    ASSERT_TRUE(browser->saveItem(movie, &error)) << error.toStdString();
    EXPECT_TRUE(error.isEmpty());
    EXPECT_EQ(movie->status(), 12);
    EXPECT_EQ(QFileInfo(file).fileName(), "Harbour Lights.m4v");
    const QJsonObject tags = retagtest::probeTags(file);
    EXPECT_EQ(tags.value("title").toString(), "Harbour Lights (Restored)");
    EXPECT_EQ(tags.value("comment").toString(), "my own copy");
    EXPECT_EQ(tags.value("genre").toString(), "Drama");
    EXPECT_TRUE(tags.value("date").toString().startsWith("1962"))
        << tags.value("date").toString().toStdString();
    EXPECT_TRUE(retagtest::probeHasCover(file));
}

TEST_F(RetagBrowserTest, AReadOnlyOrMissingFileIsNotWrittenAndSaysWhy) {
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                                               {{tag(TagName::Name), "Harbour Lights"}});
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    browser->loadFiles({file});
    ASSERT_TRUE(waitSettled());
    const auto movie = item(0);
    ASSERT_EQ(movie->status(), 8);
    movie->setTag("Something Else", tag(TagName::Name));

    ASSERT_TRUE(
        QFile::setPermissions(file, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
    const QByteArray before = retagtest::fileHash(file);
    QString error;
    EXPECT_FALSE(browser->saveItem(movie, &error));
    EXPECT_TRUE(error.contains(file)) << error.toStdString();
    EXPECT_TRUE(error.contains(QString::fromLatin1(RetagBrowserController::kReadOnlyFile)));
    EXPECT_EQ(retagtest::fileHash(file), before);
    // The item is still ready: made writable, it saves.
    EXPECT_EQ(movie->status(), 8);
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup);
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

TEST_F(RetagBrowserTest, SkipTaggingShowsTheFilesOwnTagsWithoutARequest) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    const QString file = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v",
                                               {{tag(TagName::Name), "Lights Over The Harbour"},
                                                {tag(TagName::ReleaseDate), "1999-01-02"}},
                                               retagtest::solidCover(Qt::red));
    const QString junk = scantest::sample("junk.mkv");
    scantest::server().clearRequests();

    browser->loadFiles({file, junk});
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(scantest::server().requestCount(), 0);
    const auto movie = item(0);
    ASSERT_EQ(movie->status(), 8);
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "Lights Over The Harbour");
    EXPECT_EQ(movie->getTag(tag(TagName::ReleaseDate)), "1999-01-02");
    EXPECT_TRUE(movie->getTag(tag(TagName::TMDbID)).isEmpty());
    EXPECT_TRUE(movie->searchList().isEmpty());
    EXPECT_EQ(imagetest::decoded(movie->metaData()->artwork()).pixelColor(5, 5), QColor(Qt::red));
    EXPECT_EQ(browser->images().at(0).title, "Lights Over The Harbour");
    EXPECT_EQ(browser->images().at(0).image, Resources::path("MovieTicket.png"));
    // A file that is no movie fails its scan as in the encode browser.
    EXPECT_EQ(item(1)->status(), 0);
    EXPECT_EQ(item(1)->warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));
    QString error;
    EXPECT_FALSE(browser->saveItem(item(1), &error));
    EXPECT_TRUE(error.contains("not ready")) << error.toStdString();
}

TEST_F(RetagBrowserTest, AMovFileIsRetaggedInPlaceAndANoHitsNameRenamesOnlyTheItem) {
    const QString heat = retagtest::taggedCopy(dir.path(), "Heat.mov", {});
    const QString bare = retagtest::taggedCopy(dir.path(), "Quayside", {});
    delegate.answers = {QString(), QStringLiteral("Harbour Lights")};

    browser->loadFiles({heat, bare});
    ASSERT_EQ(browser->count(), 2);
    EXPECT_EQ(item(0)->name(), "Heat");
    EXPECT_EQ(item(0)->outPath(), heat);
    EXPECT_EQ(item(1)->name(), "Quayside");
    EXPECT_EQ(item(1)->outPath(), bare);
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(delegate.askedFor, (QStringList{"Heat", "Quayside"}));
    // Skipped: ready with nothing but its own (empty) tags.
    EXPECT_EQ(item(0)->status(), 8);
    EXPECT_TRUE(item(0)->getTag(tag(TagName::TMDbID)).isEmpty());
    // Searched again under a typed name: the item is renamed, the file is not.
    EXPECT_EQ(item(1)->status(), 8);
    EXPECT_EQ(item(1)->name(), "Harbour Lights");
    EXPECT_EQ(item(1)->outPath(), bare);
    EXPECT_EQ(item(1)->getTag(tag(TagName::TMDbID)), "100004");

    QString error;
    ASSERT_TRUE(browser->saveItem(item(1), &error)) << error.toStdString();
    EXPECT_TRUE(QFileInfo::exists(bare));
    EXPECT_FALSE(QFileInfo::exists(bare + ".m4v"));
    EXPECT_EQ(retagtest::probeTags(bare).value("title").toString(), "Harbour Lights");
}

TEST_F(RetagBrowserTest, AHandPickedHitIsNotOverriddenByTheFilesTags) {
    const QString file = retagtest::taggedCopy(dir.path(), "The Lighthouse Keeper.m4v",
                                               {{tag(TagName::Name), "My Keeper"}});
    browser->loadFiles({file});
    ASSERT_TRUE(waitSettled());
    const auto movie = item(0);
    ASSERT_EQ(movie->status(), 8);
    ASSERT_EQ(movie->searchList().size(), 3);
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100001");
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "My Keeper");

    browser->setSelection({0});
    browser->tagSearchUpdate(9); // no such hit: nothing happens
    EXPECT_EQ(movie->status(), 8);
    browser->tagSearchUpdate(2);
    EXPECT_EQ(movie->status(), 7);
    EXPECT_TRUE(movie->bypassMetadata());
    EXPECT_TRUE(browser->isScanning());
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(movie->status(), 8);
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100003");
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "Keeper of the Light");
    EXPECT_EQ(movie->getTag(tag(TagName::Genre)), "Western");
    EXPECT_FALSE(movie->bypassMetadata());
    EXPECT_EQ(browser->images().at(0).title, "Keeper of the Light");

    // A pick while another file is scanned is queried at once; the scan of
    // the other file goes on and both end ready.
    const QString other = retagtest::taggedCopy(dir.path(), "Harbour Lights.m4v", {});
    browser->loadFiles({other});
    ASSERT_EQ(item(1)->status(), 3);
    browser->tagSearchUpdate(movie, 1);
    EXPECT_EQ(movie->status(), 7);
    EXPECT_EQ(browser->workMovie(), item(1));
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(movie->status(), 8);
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100002");
    EXPECT_EQ(item(1)->status(), 8);
    EXPECT_EQ(item(1)->getTag(tag(TagName::TMDbID)), "100004");
}

TEST_F(RetagBrowserTest, ResetSendsTheFileThroughScanSearchAndQueryAgain) {
    const QString file = retagtest::taggedCopy(
        dir.path(), "Harbour Lights.m4v",
        {{tag(TagName::Name), "Harbour Lights"}, {tag(TagName::Genre), "Drama"}});
    browser->loadFiles({file});
    ASSERT_TRUE(waitSettled());
    const auto movie = item(0);
    ASSERT_EQ(movie->status(), 8);
    // First pass: the file's genre wins.
    EXPECT_EQ(movie->getTag(tag(TagName::Genre)), "Drama");
    movie->setTag("Edited Away", tag(TagName::Name));
    movie->setName("Edited Away");

    scantest::server().clearRequests();
    ASSERT_TRUE(browser->resetItem(movie));
    // The file's name, an empty search list, and straight into a new scan.
    EXPECT_EQ(movie->name(), "Harbour Lights");
    EXPECT_TRUE(movie->searchList().isEmpty());
    EXPECT_EQ(movie->getSearchIndex(), 0u);
    EXPECT_EQ(movie->status(), 3);
    EXPECT_TRUE(browser->isScanning());
    EXPECT_FALSE(browser->resetItem(movie)); // busy
    ASSERT_TRUE(waitSettled());

    EXPECT_EQ(movie->status(), 8);
    EXPECT_EQ(movie->titles().size(), 1u);
    EXPECT_EQ(movie->searchList().size(), 1);
    bool searched = false;
    for (const QUrl& url : scantest::server().requests())
        searched = searched || url.path().contains("/search/movie");
    EXPECT_TRUE(searched);
    // This time the file's tags are read before the merge: the match wins.
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "Harbour Lights");
    EXPECT_EQ(movie->getTag(tag(TagName::Genre)), "Comedy");
}

TEST_F(RetagBrowserTest, SelectionNamesTheRetagTabAndRemovedItemsStopTheirScan) {
    UserDefaults::standard().setBool(true, tag(SettingsKey::SkipTagging));
    const QString a = retagtest::taggedCopy(dir.path(), "A.m4v", {});
    const QString b = retagtest::taggedCopy(dir.path(), "B.m4v", {});
    const QString c = retagtest::taggedCopy(dir.path(), "C.m4v", {});
    browser->loadFiles({a, b, c});
    ASSERT_EQ(item(0)->status(), 3);
    const auto second = item(1);

    QList<QVariantMap> posts;
    auto connection =
        QObject::connect(&NotificationCenter::defaultCenter(), &NotificationCenter::posted,
                         [&](const QString& name, const QVariantMap& info) {
                             if (name == QLatin1String(NotificationName::SelectionChanged))
                                 posts << info;
                         });
    browser->setSelection({2, 0});
    ASSERT_EQ(posts.size(), 1);
    EXPECT_EQ(posts[0].value("movie").value<std::shared_ptr<MDI_Media>>(), item(2));
    EXPECT_EQ(posts[0].value("tab").toInt(), 1);
    EXPECT_EQ(posts[0].value("count").toInt(), 2);

    browser->clearIndexes(browser->getSelected());
    QObject::disconnect(connection);
    ASSERT_EQ(browser->count(), 1);
    EXPECT_EQ(item(0), second);
    EXPECT_TRUE(posts.last().isEmpty());
    ASSERT_TRUE(waitSettled());
    EXPECT_EQ(second->status(), 8);

    browser->selectAll();
    EXPECT_EQ(browser->getSelected(), QList<int>{0});
    browser->clearAll();
    EXPECT_EQ(browser->count(), 0);
    EXPECT_FALSE(browser->isScanning());
}
