// Entry point of every test executable: a Qt application object for event
// loops, and a private home folder so no test touches the user's settings,
// Documents folder or temporary files.
#include <QCoreApplication>
#ifdef TARNWICK_TEST_WIDGETS
#include <QApplication>
#endif
#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    QTemporaryDir home(QDir::tempPath() + QStringLiteral("/tarnwick-test-home-XXXXXX"));
    if (home.isValid() && !std::getenv("TARNWICK_KEEP_HOME")) {
        const QByteArray h = home.path().toUtf8();
        setenv("HOME", h.constData(), 1);
        setenv("XDG_CONFIG_HOME", (h + "/.config").constData(), 1);
        setenv("XDG_DATA_HOME", (h + "/.local/share").constData(), 1);
        setenv("XDG_CACHE_HOME", (h + "/.cache").constData(), 1);
        unsetenv("TARNWICK_SETTINGS");
        QDir().mkpath(home.path() + QStringLiteral("/Documents"));
        // Scratch folders made by the code under test (and by the tools it
        // runs) go with the home folder.
        QDir().mkpath(home.path() + QStringLiteral("/tmp"));
        setenv("TMPDIR", (h + "/tmp").constData(), 1);
    }
    if (!std::getenv("TARNWICK_RESOURCES"))
        setenv("TARNWICK_RESOURCES", TARNWICK_BINARY_DIR "/share/tarnwick", 1);
    if (!std::getenv("TARNWICK_LIBEXEC"))
        setenv("TARNWICK_LIBEXEC", TARNWICK_BINARY_DIR "/bin", 1);
#ifdef TARNWICK_TEST_WIDGETS
    // Windows are drawn off screen unless a test run asks for a display.
    if (!std::getenv("QT_QPA_PLATFORM"))
        setenv("QT_QPA_PLATFORM", "offscreen", 1);
    QApplication app(argc, argv);
#else
    QCoreApplication app(argc, argv);
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
