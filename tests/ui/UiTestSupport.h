#pragma once

// The main window on real controllers for the widget tests: private
// settings, a destination folder, and answers to the window's dialogs.

#include "library/LibraryTestMedia.h"
#include "processing/ProcessingTestSupport.h"
#include "scan/ScanTestSupport.h"

#include "processing/AppDelegate.h"
#include "ui/BrowserModel.h"
#include "ui/BrowserView.h"
#include "ui/MainWindow.h"

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QDialog>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QPointer>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <functional>

namespace uitest {

using testsupport::waitUntil;

inline QString key(const char* name) {
    return QString::fromLatin1(name);
}

// Answers the next modal dialog once it is on screen: records its object
// name and presses the button labelled `button`.
class DialogAnswer {
public:
    // `onShown` sees the dialog before the button is pressed.
    explicit DialogAnswer(const QString& button, std::function<void(QWidget*)> onShown = nullptr) {
        m_timer.setInterval(20);
        QObject::connect(&m_timer, &QTimer::timeout, [this, button, onShown] {
            QWidget* dialog = QApplication::activeModalWidget();
            if (!dialog || !dialog->isVisible())
                return;
            m_timer.stop();
            shown = dialog->objectName();
            if (onShown)
                onShown(dialog);
            for (QAbstractButton* b : dialog->findChildren<QAbstractButton*>()) {
                if (b->text().remove(u'&') == button) {
                    b->click();
                    return;
                }
            }
            ADD_FAILURE() << "no button " << button.toStdString() << " in " << shown.toStdString();
        });
        m_timer.start();
    }
    QString shown;

private:
    QTimer m_timer;
};

// A dialog run modally with nobody to answer it would block the test for
// good: after a few seconds the watchdog fails the test and closes it.
class ModalWatchdog {
public:
    explicit ModalWatchdog(int limitMs = 8000) {
        m_timer.setInterval(200);
        QObject::connect(&m_timer, &QTimer::timeout, [this, limitMs] {
            // Only a nested loop (exec) blocks; a window-modal editor opened
            // without one is driven by the test itself.
            QWidget* modal = QApplication::activeModalWidget();
            if (!modal || QThread::currentThread()->loopLevel() == 0) {
                m_seen = nullptr;
                return;
            }
            if (modal != m_seen) {
                m_seen = modal;
                m_since.start();
                return;
            }
            if (m_since.elapsed() < limitMs)
                return;
            ADD_FAILURE() << "modal " << modal->metaObject()->className() << " \""
                          << modal->objectName().toStdString() << "\" was left unanswered";
            m_seen = nullptr;
            if (auto* dialog = qobject_cast<QDialog*>(modal))
                dialog->reject();
            else
                modal->close();
        });
        m_timer.start();
    }

private:
    QTimer m_timer;
    QPointer<QWidget> m_seen;
    QElapsedTimer m_since;
};

struct Controls {
    bool start, startMenu, pause, pauseMenu, pauseChecked, stop, stopMenu;
    const char* pauseLabel;
    const char* pauseImage;
};

class MainWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        scantest::server();
        scantest::resetSettings();
        // Made before the settings reset removed the last run's scratch
        // folder, the output folder must still be there.
        ASSERT_TRUE(QFileInfo(m_out.path()).isDir()) << m_out.path().toStdString();
        UserDefaults& defaults = UserDefaults::standard();
        defaults.setObject(defaults.objectForKey(key(SettingsKey::Presets)),
                           key(SettingsKey::PresetsCurrent));
        defaults.setBool(true, key(SettingsKey::UpdatePresets));
        defaults.setObject(QStringLiteral("SD 480p"), key(SettingsKey::PrimaryDevice));
        defaults.setObject(QStringLiteral("SD 480p"), key(SettingsKey::SecondaryDevice));
        defaults.setBool(true, key(SettingsKey::HideInstructions));
        ASSERT_TRUE(m_out.isValid());
        defaults.setObject(Bookmark::create(m_out.path()),
                           key(SettingsKey::DestinationPathBookmark));
        EncodeList::releaseInstance();
        TagList::releaseInstance();
    }
    void TearDown() override {
        window.reset();
        app.reset();
        waitUntil([] { return false; }, 200);
        EncodeList::releaseInstance();
        TagList::releaseInstance();
    }
    void launch() {
        app = std::make_unique<AppDelegate>();
        window = std::make_unique<MainWindow>(app.get());
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
        app->applicationWillFinishLaunching();
    }
    void expectControls(const Controls& c, const char* when) const {
        SCOPED_TRACE(when);
        EXPECT_EQ(window->startButton()->isEnabled(), c.start);
        EXPECT_EQ(window->startMenu()->isEnabled(), c.startMenu);
        EXPECT_EQ(window->pauseToggle()->isEnabled(), c.pause);
        EXPECT_EQ(window->pauseMenu()->isEnabled(), c.pauseMenu);
        EXPECT_EQ(window->pauseMenu()->isChecked(), c.pauseChecked);
        EXPECT_EQ(window->stopButton()->isEnabled(), c.stop);
        EXPECT_EQ(window->stopMenu()->isEnabled(), c.stopMenu);
        EXPECT_EQ(window->pauseToggle()->text(), QLatin1String(c.pauseLabel));
        EXPECT_EQ(window->imageName(window->pauseToggle()), QLatin1String(c.pauseImage));
    }
    const MediaItemList& items() const { return app->encodeBrowseController()->movieList(); }
    QAbstractItemModel* grid(int function) const { return window->view(function)->model(); }
    int badge(int row) const {
        return grid(AppDelegate::EncodeFunction)->index(row, 0).data(BrowserRole::Badge).toInt();
    }

    ModalWatchdog m_watchdog;
    QTemporaryDir m_out;
    std::unique_ptr<AppDelegate> app;
    std::unique_ptr<MainWindow> window;
};

} // namespace uitest
