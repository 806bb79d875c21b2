// The desktop window on the real controllers: the toolbar and menu states
// through start, pause, resume and stop; sources dropped on the grid,
// scanned by the encoder tool and converted, with the cells, the progress
// lines, the information panel and the remove question following them; the
// library grid grouped under genre headers and filtered by the genre pop-up.

#include "UiTestSupport.h"

#include "library/MoviesBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Media.h"
#include "processing/EncoderController.h"
#include "ui/MovieInfoPanel.h"
#include "ui/ProgressArea.h"
#include "ui/WindowPanels.h"

#include <QCheckBox>
#include <QComboBox>
#include <QMessageBox>
#include <QMimeData>

using namespace uitest;

namespace {

const Controls kStopped{true, true, false, false, false, false, false, "Pause", "Aqua-Pause-icon"};
const Controls kStarted{false, false, true, true, false, true, true, "Pause", "Aqua-Pause-icon"};
const Controls kPaused{false, false, true, true, true, true, true, "Resume", "Aqua-Play-icon"};

} // namespace

TEST_F(MainWindowTest, ControlsFollowTheQueueAndTheFunction) {
    UserDefaults::standard().setBool(false, key(SettingsKey::HideInstructions));
    DialogAnswer instructions(QStringLiteral("OK"));
    launch();
    EXPECT_EQ(instructions.shown, QStringLiteral("InstructionsPanel"));

    expectControls(kStopped, "at launch");
    EXPECT_EQ(window->scanToggle()->text(), QStringLiteral("Scan"));
    EXPECT_EQ(window->imageName(window->scanToggle()), QStringLiteral("Actions-page-zoom-icon"));
    window->pauseMenu()->trigger();
    expectControls(kStopped, "pause while stopped does nothing");

    // Nothing is ready: the queue starts all the same and runs nothing.
    window->startButton()->trigger();
    expectControls(kStarted, "started");
    window->pauseMenu()->trigger();
    expectControls(kPaused, "paused");
    window->startMenu()->trigger();
    expectControls(kPaused, "start while paused");
    window->pauseToggle()->trigger();
    expectControls(kStarted, "resumed");
    window->stopMenu()->trigger();
    expectControls(kStopped, "stopped");

    EXPECT_FALSE(window->genrePopup()->isEnabled());
    window->functionAction(AppDelegate::LibraryFunction)->trigger();
    EXPECT_EQ(app->selectedFunction(), AppDelegate::LibraryFunction);
    EXPECT_EQ(window->currentView(), window->view(AppDelegate::LibraryFunction));
    EXPECT_TRUE(window->genrePopup()->isEnabled());
    QStringList expected{QStringLiteral("All Movies")};
    for (const QVariant& genre : UserDefaults::standard().arrayForKey(key(SettingsKey::GenreList)))
        expected << genre.toString();
    QStringList shown;
    for (int i = 0; i < window->genrePopup()->count(); ++i)
        shown << window->genrePopup()->itemText(i);
    EXPECT_EQ(shown, expected);
    EXPECT_FALSE(window->selectAllAction()->isEnabled());
    window->functionAction(AppDelegate::EncodeFunction)->trigger();
    EXPECT_FALSE(window->genrePopup()->isEnabled());
    EXPECT_EQ(window->genrePopup()->count(), 0);

    // The disc panels keep their "hide" box in the settings.
    for (auto [show, setting] :
         {std::pair{&WindowPanels::showDvdInstructions, SettingsKey::HideDVDInstructions},
          std::pair{&WindowPanels::showBlurayInstructions, SettingsKey::HideBlurayInstructions}}) {
        DialogAnswer close(QStringLiteral("Close"), [](QWidget* dialog) {
            dialog->findChild<QCheckBox*>(QStringLiteral("hideBox"))->click();
        });
        (window->panels()->*show)();
        EXPECT_FALSE(close.shown.isEmpty());
        EXPECT_TRUE(UserDefaults::standard().boolForKey(key(setting))) << setting;
    }
}

TEST_F(MainWindowTest, OutOfDatePresetsAskAtLaunchAndBeforeStart) {
    UserDefaults::standard().setBool(false, key(SettingsKey::UpdatePresets));
    QString text;
    auto read = [&text](QWidget* dialog) {
        auto* box = qobject_cast<QMessageBox*>(dialog);
        ASSERT_TRUE(box);
        text = box->windowTitle() + u'|' + box->informativeText();
    };
    {
        DialogAnswer cancel(QStringLiteral("Cancel"), read);
        launch();
        EXPECT_EQ(cancel.shown, QStringLiteral("UpdateNotice"));
    }
    EXPECT_EQ(text, QString::fromLatin1(Startup::kUpdateNoticeTitle) + u'|' +
                        QString::fromLatin1(Startup::kUpdateNoticeText));
    {
        DialogAnswer cancel(QStringLiteral("Cancel"));
        window->startButton()->trigger();
        EXPECT_EQ(cancel.shown, QStringLiteral("UpdateNotice"));
    }
    expectControls(kStopped, "start refused by the notice");
    DialogAnswer ok(QStringLiteral("Ok"));
    window->startMenu()->trigger();
    expectControls(kStarted, "presets updated, then started");
    EXPECT_TRUE(UserDefaults::standard().boolForKey(key(SettingsKey::UpdatePresets)));
}

TEST_F(MainWindowTest, DroppedSourcesAreScannedMatchedConvertedAndKeptOnNo) {
    if (const std::string missing = jobtest::missingTool(); !missing.empty())
        GTEST_SKIP() << missing << " is not installed";
    launch();
    const QString lighthouse = scantest::sample(QStringLiteral("The Lighthouse Keeper (2019).mkv"));
    const QString unknown = scantest::sampleAs(QStringLiteral("Harbour Lights.mp4"),
                                               QStringLiteral("Quayside Tugboat Story.mp4"));
    ASSERT_FALSE(lighthouse.isEmpty());

    // A file manager's drop on the encode grid.
    BrowserView* view = window->view(AppDelegate::EncodeFunction);
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(lighthouse), QUrl::fromLocalFile(unknown)});
    const QPoint at = view->viewport()->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view->viewport(), &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    // The second name finds nothing: the search panel is skipped.
    DialogAnswer skip(QStringLiteral("Skip"));
    QApplication::sendEvent(view->viewport(), &drop);
    ASSERT_EQ(grid(AppDelegate::EncodeFunction)->rowCount(), 2);

    ASSERT_TRUE(waitUntil([&] { return badge(0) == BrowserModel::Scanning; }, 30000));
    EXPECT_EQ(window->scanToggle()->text(), QStringLiteral("Cancel"));
    EXPECT_EQ(window->imageName(window->scanToggle()), QStringLiteral("Actions-zoom-out-icon"));
    EXPECT_EQ(badge(1), BrowserModel::Added);
    EXPECT_FALSE(window->progressArea()->scanText().isEmpty());
    ASSERT_TRUE(waitUntil(
        [&] { return items().at(0)->status() == 8 && items().at(1)->status() == 8; }, 120000))
        << "statuses " << items().at(0)->status() << " " << items().at(1)->status();
    EXPECT_EQ(skip.shown, QStringLiteral("SearchPanel"));
    EXPECT_EQ(badge(0), BrowserModel::NoBadge);
    EXPECT_EQ(grid(AppDelegate::EncodeFunction)->index(0, 0).data().toString(),
              QStringLiteral("The Lighthouse Keeper"));
    ASSERT_TRUE(waitUntil([&] { return window->scanToggle()->text() == QLatin1String("Scan"); }));

    // The information panel follows the selection.
    view->selectRows({0});
    EXPECT_EQ(window->infoPanel()->nameText(), QStringLiteral("The Lighthouse Keeper"));
    window->selectAllAction()->trigger();
    EXPECT_EQ(window->infoPanel()->summaryText(), QStringLiteral("2 movies selected"));
    view->selectRows({0});

    window->startButton()->trigger();
    ASSERT_TRUE(waitUntil([&] { return items().at(0)->status() == 9; }, 60000));
    EXPECT_EQ(badge(0), BrowserModel::Working);
    // The converting cell shows how far the encoder is.
    EXPECT_GE(grid(AppDelegate::EncodeFunction)->index(0, 0).data(BrowserRole::Progress).toDouble(),
              0.0);
    ASSERT_TRUE(waitUntil([&] { return !window->progressArea()->encodeText().isEmpty(); }));
    expectControls(kStarted, "converting");
    window->pauseToggle()->trigger();
    expectControls(kPaused, "converting, paused");
    window->pauseToggle()->trigger();

    // Delete on the converting movie asks; "No" keeps it converting.
    DialogAnswer no(QStringLiteral("No"));
    view->setFocus();
    QTest::keyClick(view, Qt::Key_Delete);
    EXPECT_EQ(no.shown, QStringLiteral("RemoveQuestion"));
    ASSERT_EQ(items().size(), 2);
    EXPECT_EQ(items().at(0)->status(), 9);
    EXPECT_EQ(grid(AppDelegate::EncodeFunction)->rowCount(), 2);

    // Quitting asks first, then stops like Stop: nothing half-written stays.
    DialogAnswer quit(QStringLiteral("Stop and Quit"));
    EXPECT_TRUE(window->close());
    EXPECT_EQ(quit.shown, QStringLiteral("QuitQuestion"));
    expectControls(kStopped, "quit while converting");
    EXPECT_FALSE(app->encodeController()->progressViewVisible());
    EXPECT_EQ(items().at(0)->status(), 8);
    EXPECT_TRUE(QDir(m_out.path()).entryList(QDir::Files).isEmpty())
        << "a stopped conversion leaves nothing: "
        << QDir(m_out.path()).entryList().join(u' ').toStdString();
}

TEST_F(MainWindowTest, TheLibraryIsGroupedUnderGenreHeadersAndThePopUpFiltersIt) {
    // The user's genre list, reversed so its order is not the alphabet's.
    QVariantList list = UserDefaults::standard().arrayForKey(key(SettingsKey::GenreList));
    ASSERT_GE(list.size(), 2);
    std::reverse(list.begin(), list.end());
    UserDefaults::standard().setObject(list, key(SettingsKey::GenreList));
    const QString first = list.at(0).toString();
    const QString second = list.at(1).toString();
    const QString unlisted = QStringLiteral("Aaa Unlisted");
    QTemporaryDir library;
    using librarytest::MovieTags;
    const struct {
        const char* file;
        const char* name;
        QString genre;
    } movies[] = {{"a.m4v", "Zephyr", second},
                  {"b.m4v", "Aurora", first},
                  {"c.m4v", "Meridian", second},
                  {"d.m4v", "Basalt", unlisted}};
    int id = 1;
    for (const auto& m : movies)
        ASSERT_FALSE(librarytest::makeMovie(
                         library.filePath(QLatin1String(m.file)),
                         MovieTags{.name = m.name, .genre = m.genre, .contentID = uint32_t(id++)})
                         .isEmpty());
    launch();
    app->moviesBrowserController()->setMoviesFolder(library.path());
    window->functionAction(AppDelegate::LibraryFunction)->trigger();
    QAbstractItemModel* grid = this->grid(AppDelegate::LibraryFunction);
    ASSERT_TRUE(waitUntil([&] { return grid->rowCount() == 7; }, 30000));
    auto rows = [grid] {
        QStringList shown;
        for (int row = 0; row < grid->rowCount(); ++row) {
            const QModelIndex index = grid->index(row, 0);
            shown << (index.data(BrowserRole::Header).toBool() ? QStringLiteral("# ") : QString()) +
                         index.data().toString();
        }
        return shown;
    };
    // In the genre list's order, genres it lacks last; sort names within.
    EXPECT_EQ(rows(), (QStringList{"# " + first, "Aurora", "# " + second, "Meridian", "Zephyr",
                                   "# " + unlisted, "Basalt"}));
    EXPECT_FALSE(grid->flags(grid->index(0, 0)) & Qt::ItemIsSelectable);
    EXPECT_TRUE(grid->flags(grid->index(1, 0)) & Qt::ItemIsSelectable);
    // A header has a line of its own: its genre's first cell starts below it
    // at the left edge, next to nothing of the previous genre.
    BrowserView* view = window->view(AppDelegate::LibraryFunction);
    ASSERT_TRUE(waitUntil([&] { return view->visualRect(grid->index(6, 0)).isValid(); }));
    const QRect header = view->visualRect(grid->index(2, 0));
    const QRect aurora = view->visualRect(grid->index(1, 0));
    const QRect meridian = view->visualRect(grid->index(3, 0));
    EXPECT_GT(header.top(), aurora.bottom());
    EXPECT_GT(meridian.top(), header.bottom());
    EXPECT_EQ(meridian.left(), aurora.left());
    EXPECT_GT(header.width(), 2 * aurora.width());

    QComboBox* popup = window->genrePopup();
    const int index = popup->findText(first);
    ASSERT_GE(index, 0);
    emit popup->activated(index);
    EXPECT_EQ(rows(), (QStringList{"# " + first, "Aurora"}));
    emit popup->activated(popup->findText(second));
    EXPECT_EQ(rows(), (QStringList{"# " + second, "Meridian", "Zephyr"}));

    view->selectRows({0, 2});
    EXPECT_EQ(view->selectedRows(), QList<int>{2}) << "headers are not selected";
    EXPECT_EQ(window->infoPanel()->nameText(), QStringLiteral("Zephyr"));
    emit popup->activated(0);
    EXPECT_EQ(grid->rowCount(), 7);
}
