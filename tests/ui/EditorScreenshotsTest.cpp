// Renders the search results panel, the metadata editors with real records
// and the presentation, poster and warnings panels to PNG files in
// $TARNWICK_SCREENSHOT_DIR for review (scripts/screenshots.sh). Skipped
// unless that folder is named.

#include "UiTestSupport.h"
#include "retag/RetagTestSupport.h"

#include "library/RetagBrowserController.h"
#include "lookup/SearchResultsPanelController.h"
#include "media/MDI_Media.h"
#include "ui/EditorActions.h"
#include "ui/MetadataEditor.h"
#include "ui/PresentationPanels.h"
#include "ui/SearchResultsPanel.h"

using uitest::waitUntil;

namespace {

class EditorScreenshots : public uitest::MainWindowTest {
protected:
    void save(QWidget* widget, const QString& name) {
        widget->show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(widget));
        QTest::qWait(100);
        EXPECT_TRUE(widget->grab().save(m_dir + u'/' + name + QStringLiteral(".png")))
            << name.toStdString();
    }
    QString m_dir;
    QTemporaryDir m_work;
};

} // namespace

TEST_F(EditorScreenshots, ResultsPanelEditorsAndMoviePanels) {
    m_dir = qEnvironmentVariable("TARNWICK_SCREENSHOT_DIR");
    if (m_dir.isEmpty())
        GTEST_SKIP() << "TARNWICK_SCREENSHOT_DIR names no folder (scripts/screenshots.sh does)";
    QDir().mkpath(m_dir);
    launch();

    // A file looked up again, and one that is no movie at all.
    const QString file = retagtest::taggedCopy(m_work.path(), "The Lighthouse Keeper.m4v", {});
    const QString junk = m_work.filePath(QStringLiteral("Northern Crossing.m4v"));
    librarytest::makeJunk(junk);
    window->functionAction(AppDelegate::RetagFunction)->trigger();
    RetagBrowserController* retag = app->retagBrowseController();
    retag->loadFiles({file, junk});
    ASSERT_TRUE(waitUntil(
        [&] {
            return retag->count() == 2 && !retag->isScanning() &&
                   retag->movieList().at(0)->status() == 8 &&
                   retag->movieList().at(1)->status() == 0;
        },
        60000));
    window->view(AppDelegate::RetagFunction)->selectRows({0});

    SearchResultsPanelController search;
    search.withParentWindow(retag->movieList().at(0), false);
    SearchResultsPanel results(&search, window.get());
    save(&results, QStringLiteral("dialog-search-results"));
    results.chooseRow(1);
    save(&results, QStringLiteral("dialog-search-results-other-hit"));
    results.reject();

    TagController editor(retag, window.get());
    editor.resize(900, 760);
    save(&editor, QStringLiteral("editor-tag"));
    editor.close();

    EditorActions* actions = window->editorActions();
    for (const auto& [panel, name] : {std::pair{actions->showPresentation(), "panel-presentation"},
                                      std::pair{actions->showPoster(), "panel-poster"},
                                      std::pair{actions->showWarnings(), "panel-warnings"}}) {
        ASSERT_NE(panel, nullptr) << name;
        save(panel, QString::fromLatin1(name));
        panel->close();
    }
}
