// Renders the main window in each function, with items in several states,
// and every dialog, to PNG files in $TARNWICK_SCREENSHOT_DIR for review
// (scripts/screenshots.sh). Skipped unless that folder is named.

#include "UiTestSupport.h"

#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "lookup/SearchPanelController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Media.h"
#include "processing/EncoderController.h"
#include "ui/AboutDialog.h"
#include "ui/DiscInstructionsPanel.h"
#include "ui/InstructionsPanel.h"
#include "ui/LoadPanel.h"
#include "ui/SearchPanel.h"
#include "ui/WindowPanels.h"

#include <QLinearGradient>
#include <QPainter>

using namespace uitest;

namespace {

// A stand-in poster: a gradient with the title on it.
QString makePoster(const QString& path, const QString& title, const QColor& tint) {
    QImage image(300, 450, QImage::Format_RGB32);
    QPainter p(&image);
    QLinearGradient g(0, 0, 0, 450);
    g.setColorAt(0, tint.lighter(140));
    g.setColorAt(1, tint.darker(250));
    p.fillRect(image.rect(), g);
    QFont f = p.font();
    f.setPixelSize(34);
    f.setBold(true);
    p.setFont(f);
    p.setPen(Qt::white);
    p.drawText(image.rect().adjusted(20, 0, -20, -60),
               Qt::AlignBottom | Qt::AlignHCenter | Qt::TextWordWrap, title.toUpper());
    p.end();
    image.save(path);
    return path;
}

bool addArtwork(const QString& movie, const QString& poster) {
    QFile file(poster);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QByteArray bytes = file.readAll();
    MP4FileHandle handle = MP4Modify(QFile::encodeName(movie).constData());
    if (!handle)
        return false;
    const MP4Tags* tags = MP4TagsAlloc();
    MP4TagsFetch(tags, handle);
    MP4TagArtwork art{bytes.data(), uint32_t(bytes.size()), MP4_ART_PNG};
    MP4TagsAddArtwork(tags, &art);
    const bool stored = MP4TagsStore(tags, handle);
    MP4TagsFree(tags);
    MP4Close(handle);
    return stored;
}

class Screenshots : public MainWindowTest {
protected:
    void save(QWidget* widget, const QString& name) {
        const QPixmap shot = widget->grab();
        EXPECT_FALSE(shot.isNull()) << name.toStdString();
        EXPECT_TRUE(shot.save(m_dir + u'/' + name + QStringLiteral(".png"))) << name.toStdString();
    }
    template <typename Dialog> void saveDialog(Dialog& dialog, const QString& name) {
        dialog.show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(&dialog));
        QTest::qWait(50);
        save(&dialog, name);
        dialog.close();
    }
    QString m_dir;
    QTemporaryDir m_work;
};

} // namespace

TEST_F(Screenshots, MainWindowAndDialogs) {
    m_dir = qEnvironmentVariable("TARNWICK_SCREENSHOT_DIR");
    if (m_dir.isEmpty())
        GTEST_SKIP() << "TARNWICK_SCREENSHOT_DIR names no folder (scripts/screenshots.sh does)";
    QDir().mkpath(m_dir);
    launch();
    window->resize(1280, 800);
    EncodeBrowserController* encode = app->encodeBrowseController();

    // One real source, scanned and matched through the loopback database...
    app->openFiles({scantest::sample(QStringLiteral("The Lighthouse Keeper (2019).mkv"))});
    ASSERT_TRUE(
        waitUntil([&] { return items().size() == 1 && items().at(0)->status() == 8; }, 60000));
    // ...and others shown in the states a long session goes through.
    struct Fake {
        const char* name;
        qint32 status;
        QColor tint;
        const char* warnings;
    };
    const Fake fakes[] = {
        {"Harbour Lights", 19, QColor(0x2a, 0x6f, 0x97), nullptr},
        {"Tidewater", 9, QColor(0x8e, 0x44, 0x2b), nullptr},
        {"Northern Crossing", 0, QColor(0x44, 0x44, 0x55),
         "No valid title was found!. Either the file is corrupt, unsupported, or contains no title "
         "tracks."},
        {"Salt Marsh Summer", 2, QColor(0x3e, 0x7d, 0x4f), nullptr},
        {"The Quiet Orchard", 2, QColor(0x7a, 0x5c, 0x99), nullptr},
    };
    QStringList paths;
    for (const Fake& f : fakes) {
        paths << m_work.filePath(QString::fromLatin1(f.name) + QStringLiteral(".mkv"));
        QFile(paths.last()).open(QIODevice::WriteOnly);
    }
    // The empty files would only fail their scans: without the encoder tool
    // they stay waiting, and are put in the states shown.
    const QByteArray libexec = qgetenv("TARNWICK_LIBEXEC");
    qputenv("TARNWICK_LIBEXEC", m_work.filePath(QStringLiteral("no-tools")).toUtf8());
    {
        DialogAnswer alert(QStringLiteral("OK"), [this](QWidget* dialog) {
            save(dialog, QStringLiteral("dialog-alert"));
        });
        encode->loadFiles(paths);
    }
    qputenv("TARNWICK_LIBEXEC", libexec);
    for (int i = 0; i < int(std::size(fakes)); ++i) {
        const auto& item = items().at(i + 1);
        item->setStatus(fakes[i].status);
        if (fakes[i].warnings)
            item->setWarnings(QString::fromLatin1(fakes[i].warnings));
        if (fakes[i].status != 0)
            item->setLocalThumbnails({QUrl::fromLocalFile(
                makePoster(m_work.filePath(QStringLiteral("poster%1.png").arg(i)),
                           QString::fromLatin1(fakes[i].name), fakes[i].tint))});
    }
    encode->statusUpdate();
    window->view(AppDelegate::EncodeFunction)->selectRows({0});
    QTest::qWait(300);
    save(window.get(), QStringLiteral("main-encode"));
    window->view(AppDelegate::EncodeFunction)->selectRows({3});
    QTest::qWait(100);
    save(window.get(), QStringLiteral("main-encode-failed"));

    // The real source converting: its cell's progress and the encode line.
    window->startButton()->trigger();
    EncoderController* encoder = app->encodeController();
    ASSERT_TRUE(waitUntil(
        [&] { return encoder->progressViewVisible() && encoder->progressIndicator() > 20; },
        60000));
    window->view(AppDelegate::EncodeFunction)->selectRows({0});
    QTest::qWait(100);
    save(window.get(), QStringLiteral("main-encode-converting"));
    window->stopButton()->trigger();
    ASSERT_TRUE(waitUntil([&] { return !encoder->progressViewVisible(); }, 30000));

    // Retag: a tagged file of the library looked up again.
    window->functionAction(AppDelegate::RetagFunction)->trigger();
    const QString tagged = librarytest::makeMovie(
        m_work.filePath(QStringLiteral("retag/The Lighthouse Keeper.m4v")),
        librarytest::MovieTags{.name = QStringLiteral("The Lighthouse Keeper")});
    app->openFiles({tagged});
    RetagBrowserController* retag = app->retagBrowseController();
    ASSERT_TRUE(waitUntil(
        [&] { return retag->count() == 1 && retag->movieList().at(0)->status() == 8; }, 60000));
    window->view(AppDelegate::RetagFunction)->selectRows({0});
    QTest::qWait(200);
    save(window.get(), QStringLiteral("main-retag"));

    // The library, by genre, with cover art in the files.
    const struct {
        const char* name;
        const char* genre;
        QColor tint;
    } library[] = {
        {"Aurora", "Drama", QColor(0x5b, 0x3a, 0x8c)},
        {"Breakwater", "Thriller", QColor(0x22, 0x44, 0x66)},
        {"Copper Sky", "Western", QColor(0xa0, 0x5a, 0x2c)},
        {"Driftwood", "Drama", QColor(0x6a, 0x7a, 0x5a)},
        {"Ember Hall", "Horror", QColor(0x70, 0x1c, 0x1c)},
        {"Foghorn", "Comedy", QColor(0xc0, 0x90, 0x20)},
        {"Glasshouse", "Drama", QColor(0x2c, 0x7c, 0x7c)},
        {"Harbour Lights", "Comedy", QColor(0x2a, 0x6f, 0x97)},
    };
    int id = 1;
    for (const auto& m : library) {
        const QString name = QString::fromLatin1(m.name);
        const QString file = librarytest::makeMovie(
            m_work.filePath(QStringLiteral("Movies/") + name + QStringLiteral(".m4v")),
            librarytest::MovieTags{
                .name = name, .genre = QString::fromLatin1(m.genre), .contentID = uint32_t(id++)});
        ASSERT_TRUE(addArtwork(
            file, makePoster(m_work.filePath(name + QStringLiteral(".png")), name, m.tint)));
    }
    app->moviesBrowserController()->setMoviesFolder(m_work.filePath(QStringLiteral("Movies")));
    window->functionAction(AppDelegate::LibraryFunction)->trigger();
    QAbstractItemModel* grid = this->grid(AppDelegate::LibraryFunction);
    ASSERT_TRUE(waitUntil(
        [&] { return app->moviesBrowserController()->count() == int(std::size(library)); }, 30000));
    ASSERT_GT(grid->rowCount(), int(std::size(library)));
    window->view(AppDelegate::LibraryFunction)
        ->selectRows({qobject_cast<LibraryBrowserModel*>(grid)->rowForSource(2)});
    QTest::qWait(400);
    save(window.get(), QStringLiteral("main-library"));

    // Every dialog of the window.
    SearchPanelController search;
    search.setSearchName(QStringLiteral("Quayside Tugboat Story"));
    SearchPanel searchPanel(search, window.get());
    saveDialog(searchPanel, QStringLiteral("dialog-search"));
    LoadPanel load(window.get());
    saveDialog(load, QStringLiteral("dialog-load"));
    DiscInstructionsPanel dvd(DiscInstructionsPanel::Dvd, window.get());
    saveDialog(dvd, QStringLiteral("dialog-dvd"));
    DiscInstructionsPanel bluray(DiscInstructionsPanel::Bluray, window.get());
    saveDialog(bluray, QStringLiteral("dialog-bluray"));
    InstructionsPanel instructions(window.get());
    saveDialog(instructions, QStringLiteral("dialog-instructions"));
    AboutDialog about(window.get());
    saveDialog(about, QStringLiteral("dialog-about"));
    auto grabAs = [this](const QString& name) {
        return [this, name](QWidget* dialog) { save(dialog, name); };
    };
    {
        DialogAnswer answer(QStringLiteral("Cancel"),
                            grabAs(QStringLiteral("dialog-update-notice")));
        window->panels()->runUpdateNotice(QString::fromLatin1(Startup::kUpdateNoticeTitle),
                                          QString::fromLatin1(Startup::kUpdateNoticeText));
    }
    {
        DialogAnswer answer(QStringLiteral("No"), grabAs(QStringLiteral("dialog-remove")));
        window->panels()->runRemoveQuestion(
            QString::fromLatin1(AppDelegate::kRemoveQuestion).arg(QStringLiteral("Tidewater")));
    }
    {
        DialogAnswer answer(QStringLiteral("Cancel"), grabAs(QStringLiteral("dialog-destination")));
        window->panels()->setPreferences();
    }
}
