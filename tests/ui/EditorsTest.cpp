// The metadata editors, the search results panel and the movie panels in the
// real window: a hit picked by hand in the retag browser written into the
// file, a library movie renamed and given a new cover, Cancel, Revert and a
// read-only file changing nothing, and the warnings of a failed file listed.

#include "UiTestSupport.h"
#include "retag/RetagTestSupport.h"

#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Media.h"
#include "media/MetadataEditorController.h"
#include "ui/EditorActions.h"
#include "ui/MetadataEditor.h"
#include "ui/PresentationPanels.h"
#include "ui/SearchResultsPanel.h"

#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTableWidget>
#include <QTreeWidget>

using retagtest::tag;
using uitest::waitUntil;

namespace {

QString atomicParsley(const QString& path) {
    return QString::fromUtf8(testsupport::run(QStringLiteral("AtomicParsley"), {path, "-t"}).out);
}

// Runs `answer` on the next modal dialog of type T once it is on screen (the
// editor itself is window-modal below it).
template <typename T> class OnModal {
public:
    explicit OnModal(std::function<void(T*)> answer) {
        m_timer.setInterval(20);
        QObject::connect(&m_timer, &QTimer::timeout, [this, answer] {
            auto* dialog = qobject_cast<T*>(QApplication::activeModalWidget());
            if (!dialog || !dialog->isVisible())
                return;
            m_timer.stop();
            shown = dialog->objectName();
            answer(dialog);
        });
        m_timer.start();
    }
    QString shown;

private:
    QTimer m_timer;
};

class EditorsTest : public uitest::MainWindowTest {
protected:
    void SetUp() override {
        if (!testsupport::haveTool("AtomicParsley"))
            GTEST_SKIP() << "AtomicParsley is not installed";
        MainWindowTest::SetUp();
        ASSERT_TRUE(dir.isValid());
        launch();
    }
    MetadataEditor* openEditor(int function, int row) {
        window->functionAction(function)->trigger();
        window->view(function)->selectRows({row});
        return qobject_cast<MetadataEditor*>(window->editorActions()->editMetadata());
    }
    bool retagSettled() const {
        RetagBrowserController* retag = app->retagBrowseController();
        if (retag->isScanning())
            return false;
        for (const auto& item : retag->movieList()) {
            if (item->status() != 0 && item->status() < 8)
                return false;
        }
        return true;
    }
    void rename(MetadataEditor* editor, const QString& name) {
        auto* field = qobject_cast<QLineEdit*>(editor->field(tag(TagName::Name)));
        ASSERT_NE(field, nullptr);
        field->setText(name);
        emit field->editingFinished();
    }

    QTemporaryDir dir;
};

} // namespace

TEST(MetadataEditorFields, TheMetadataListGroupsChooseTheFieldsAndEachGetsItsControl) {
    scantest::resetSettings();
    auto kinds = [] {
        QMap<QString, MetadataEditorController::Kind> map;
        for (const auto& field : MetadataEditorController::fields())
            map.insert(field.key, field.kind);
        return map;
    };
    using Kind = MetadataEditorController::Kind;
    QMap<QString, Kind> shown = kinds();
    EXPECT_EQ(MetadataEditorController::fields().first().key, "Name");
    EXPECT_FALSE(shown.contains("Track #")); // the music group is off by default
    QVariantMap groups = UserDefaults::standard().dictionaryForKey(tag(SettingsKey::MetadataList));
    groups.insert(tag(SettingsKey::MusicMetadataList), true);
    UserDefaults::standard().setObject(groups, tag(SettingsKey::MetadataList));
    shown = kinds();
    // Each kind of value gets its own control.
    EXPECT_EQ(shown.value("Track #"), Kind::NumberPair);
    EXPECT_EQ(shown.value("Release Date"), Kind::Date);
    EXPECT_EQ(shown.value("Long Description"), Kind::LongText);
    scantest::resetSettings();
}

TEST_F(EditorsTest, AHandPickInTheRetagResultsPanelIsWrittenIntoTheFileAndCancelChangesNothing) {
    const QString file = retagtest::taggedCopy(dir.path(), "The Lighthouse Keeper.m4v",
                                               {{tag(TagName::Name), "My Keeper"}});
    const QString junk = dir.filePath("Broken.m4v");
    librarytest::makeJunk(junk);
    RetagBrowserController* retag = app->retagBrowseController();
    ASSERT_EQ(retag->loadFiles({file, junk}), 2);
    ASSERT_TRUE(waitUntil([this] { return retagSettled(); }, 60000));
    const std::shared_ptr<MDI_Media> movie = retag->movieList().at(0);
    ASSERT_EQ(movie->status(), 8);
    ASSERT_EQ(movie->getTag(tag(TagName::TMDbID)), "100001");

    MetadataEditor* editor = openEditor(AppDelegate::RetagFunction, 0);
    ASSERT_NE(editor, nullptr);
    EXPECT_EQ(editor->objectName(), "TagController");
    {
        // Cancel after looking at another hit: nothing changes.
        OnModal<SearchResultsPanel> cancel([](SearchResultsPanel* panel) {
            EXPECT_EQ(panel->resultsList()->rowCount(), 3);
            panel->chooseRow(1);
            panel->cancelButton()->click();
        });
        EXPECT_FALSE(editor->runSearch());
        EXPECT_EQ(cancel.shown, "SearchResultsPanel");
    }
    EXPECT_EQ(movie->status(), 8);
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100001");
    EXPECT_FALSE(editor->revertButton()->isEnabled());

    {
        OnModal<SearchResultsPanel> pick([](SearchResultsPanel* panel) {
            panel->chooseRow(2);
            panel->doneButton()->click();
        });
        EXPECT_TRUE(editor->runSearch());
        EXPECT_EQ(pick.shown, "SearchResultsPanel");
    }
    ASSERT_TRUE(waitUntil([&] { return movie->status() == 8 && !retag->isScanning(); }, 30000));
    // The pick wins over the file's own "My Keeper".
    auto* name = qobject_cast<QLineEdit*>(editor->field(tag(TagName::Name)));
    EXPECT_EQ(name->text(), "Keeper of the Light");
    EXPECT_EQ(window->view(AppDelegate::RetagFunction)->model()->index(0, 0).data().toString(),
              "Keeper of the Light");
    // A poster of the database's as the cover: the cell shows it at once.
    QAbstractItemModel* cells = grid(AppDelegate::RetagFunction);
    const QString before = cells->index(0, 0).data(BrowserRole::Poster).toString();
    ASSERT_FALSE(editor->editor()->coverCandidates().isEmpty());
    ASSERT_TRUE(editor->editor()->chooseCover(0));
    EXPECT_NE(cells->index(0, 0).data(BrowserRole::Poster).toString(), before);
    ASSERT_TRUE(editor->saveButton()->isEnabled());
    editor->saveButton()->click();
    EXPECT_TRUE(retagtest::probeHasCover(file));
    const QString written = atomicParsley(file);
    EXPECT_TRUE(written.contains("Keeper of the Light")) << written.toStdString();
    EXPECT_TRUE(written.contains("Western")) << written.toStdString();
    EXPECT_FALSE(written.contains("My Keeper")) << written.toStdString();
    editor->close();

    // The failed file is listed with its text; the picked movie is presented.
    window->view(AppDelegate::RetagFunction)->selectRows({0});
    auto* presentation =
        qobject_cast<PresentationPanel*>(window->editorActions()->showPresentation());
    ASSERT_NE(presentation, nullptr);
    EXPECT_TRUE(presentation->hasPoster());
    presentation->close();
    auto* warnings = qobject_cast<WarningsPanel*>(window->editorActions()->showWarnings());
    ASSERT_NE(warnings, nullptr);
    ASSERT_EQ(warnings->list()->topLevelItemCount(), 1);
    EXPECT_EQ(warnings->list()->topLevelItem(0)->text(1), "Failed");
    EXPECT_EQ(warnings->list()->topLevelItem(0)->text(2), retag->movieList().at(1)->warnings());
    EXPECT_FALSE(retag->movieList().at(1)->warnings().isEmpty());
    warnings->close();
}

TEST_F(EditorsTest, ALibraryMovieRenamedWithANewCoverIsSavedToTheFileAndTheCell) {
    const QString movie = librarytest::makeMovie(
        dir.filePath("Movies/zephyr.m4v"),
        librarytest::MovieTags{.name = "Zephyr", .genre = "Drama", .contentID = 7});
    ASSERT_FALSE(movie.isEmpty());
    QImage cover(120, 180, QImage::Format_RGB32);
    cover.fill(QColor(200, 40, 40));
    const QString coverFile = dir.filePath("cover.png");
    ASSERT_TRUE(cover.save(coverFile));

    app->moviesBrowserController()->setMoviesFolder(dir.filePath("Movies"));
    window->functionAction(AppDelegate::LibraryFunction)->trigger();
    QAbstractItemModel* grid = window->view(AppDelegate::LibraryFunction)->model();
    ASSERT_TRUE(waitUntil([&] { return grid->rowCount() == 2; }, 30000)); // genre header, movie

    MetadataEditor* editor = openEditor(AppDelegate::LibraryFunction, 1);
    ASSERT_NE(editor, nullptr);
    EXPECT_EQ(editor->objectName(), "iTunesMetadataController");
    EXPECT_FALSE(editor->editor()->setCoverFromFile(dir.filePath("nothing.png")));
    rename(editor, "Zephyr Restored");
    ASSERT_TRUE(editor->editor()->setCoverFromFile(coverFile));
    EXPECT_FALSE(editor->coverWell()->pixmap().isNull());
    EXPECT_TRUE(editor->revertButton()->isEnabled());
    editor->saveButton()->click();
    EXPECT_TRUE(atomicParsley(movie).contains("Zephyr Restored"));
    EXPECT_TRUE(retagtest::probeHasCover(movie));
    EXPECT_EQ(grid->index(1, 0).data().toString(), "Zephyr Restored");
    EXPECT_FALSE(editor->revertButton()->isEnabled());

    // Revert puts back what was saved; nothing reaches the file.
    const QByteArray saved = retagtest::fileHash(movie);
    rename(editor, "Something Else");
    editor->revertButton()->click();
    EXPECT_EQ(qobject_cast<QLineEdit*>(editor->field(tag(TagName::Name)))->text(),
              "Zephyr Restored");

    // A read-only file: one clear message, the file untouched, the edit kept.
    QFile::setPermissions(movie, QFile::ReadOwner | QFile::ReadGroup);
    rename(editor, "Zephyr Again");
    {
        OnModal<QMessageBox> alert([](QMessageBox* box) {
            EXPECT_TRUE(box->text().contains("read-only")) << box->text().toStdString();
            box->accept();
        });
        editor->saveButton()->click();
        EXPECT_EQ(alert.shown, "EditorAlert");
    }
    EXPECT_EQ(retagtest::fileHash(movie), saved);
    EXPECT_EQ(editor->editor()->value(tag(TagName::Name)), "Zephyr Again");
    EXPECT_EQ(grid->index(1, 0).data().toString(), "Zephyr Restored");
    QFile::setPermissions(movie, QFile::ReadOwner | QFile::WriteOwner);
    editor->editor()->revert();
    editor->close();
}

TEST_F(EditorsTest, TheEncodeEditorKeepsItsEditsAndAHandPickReplacesTheMatch) {
    EncodeBrowserController* encode = app->encodeBrowseController();
    app->openFiles({scantest::sample(QStringLiteral("The Lighthouse Keeper (2019).mkv"))});
    ASSERT_TRUE(
        waitUntil([&] { return items().size() == 1 && items().at(0)->status() == 8; }, 60000));
    const std::shared_ptr<MDI_Media> movie = items().at(0);
    MetadataEditor* editor = openEditor(AppDelegate::EncodeFunction, 0);
    ASSERT_NE(editor, nullptr);
    EXPECT_EQ(editor->objectName(), "MetadataController");
    EXPECT_FALSE(editor->saveButton()->isVisible()); // written by the tagging after the encode
    rename(editor, "Keeper (Director's Cut)");
    EXPECT_EQ(movie->getTag(tag(TagName::Name)), "Keeper (Director's Cut)");
    EXPECT_EQ(grid(AppDelegate::EncodeFunction)->index(0, 0).data().toString(),
              "Keeper (Director's Cut)");

    OnModal<SearchResultsPanel> pick([](SearchResultsPanel* panel) {
        panel->chooseRow(1);
        panel->doneButton()->click();
    });
    editor->runSearch();
    ASSERT_TRUE(waitUntil([&] { return movie->status() == 8 && !encode->isScanning(); }, 30000));
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100002");
    EXPECT_EQ(qobject_cast<QLineEdit*>(editor->field(tag(TagName::Name)))->text(),
              movie->getTag(tag(TagName::Name)));
    editor->close();
    EXPECT_EQ(movie->getTag(tag(TagName::TMDbID)), "100002"); // closing keeps the pick
}
