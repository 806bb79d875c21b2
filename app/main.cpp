// `tarnwick [FILE_OR_FOLDER...]`: the desktop application. The sources named
// on the command line go to the encode browser once the window is up.
#include "core/Startup.h"
#include "media/EncodeBrowserController.h"
#include "processing/AppDelegate.h"
#include "ui/MainWindow.h"

#include <QApplication>
#include <QFileInfo>
#include <QMessageBox>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = {-1, -1};

// Only writes a byte: the quitting is done by the event loop.
void onTerminationSignal(int signal) {
    const unsigned char byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t n = ::write(g_signalPipe[1], &byte, 1);
}

// SIGINT and SIGTERM quit as "Stop and Quit" does, without asking.
void quitOnTerminationSignals(MainWindow& window) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalPipe) != 0) {
        std::perror("tarnwick: socketpair");
        return;
    }
    auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, &window);
    QObject::connect(notifier, &QSocketNotifier::activated, &window, [&window, notifier] {
        unsigned char byte = 0;
        [[maybe_unused]] const ssize_t n = ::read(g_signalPipe[0], &byte, 1);
        // A second signal while the tools are being stopped changes nothing.
        notifier->setEnabled(false);
        window.quitWithoutAsking();
    });
    struct sigaction action = {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

} // namespace

int main(int argc, char** argv) {
    QApplication qapp(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationVersion(QStringLiteral(TARNWICK_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("tarnwick"));

    QStringList sources;
    const QStringList args = qapp.arguments().mid(1);
    for (const QString& arg : args) {
        if (arg == QLatin1String("--version")) {
            std::printf("tarnwick %s\n", TARNWICK_VERSION);
            return 0;
        }
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            std::printf("usage: tarnwick [FILE_OR_FOLDER...]\n");
            return 0;
        }
        if (arg.startsWith(u'-')) {
            std::fprintf(stderr, "tarnwick: unknown option %s\n", qPrintable(arg));
            return 2;
        }
        if (!QFileInfo::exists(arg)) {
            std::fprintf(stderr, "tarnwick: %s: no such file or folder\n", qPrintable(arg));
            continue;
        }
        sources << QFileInfo(arg).absoluteFilePath();
    }

    QString error;
    if (!Startup::run(&error)) {
        std::fprintf(stderr, "tarnwick: %s\n", qPrintable(error));
        QMessageBox::critical(nullptr, QStringLiteral("Tarnwick"), error);
        return 1;
    }

    AppDelegate app;
    MainWindow window(&app);
    QObject::connect(&qapp, &QCoreApplication::aboutToQuit, &app,
                     [&app] { app.applicationWillTerminate(); });
    quitOnTerminationSignals(window);

    // Start-up timing: leave as soon as the window has been painted once.
    if (qEnvironmentVariable("TARNWICK_QUIT_AFTER_SHOW") == QLatin1String("1"))
        QObject::connect(&window, &MainWindow::firstPainted, &qapp,
                         [] { QTimer::singleShot(0, [] { QCoreApplication::exit(0); }); });

    window.show();
    // The start-up questions are sheets on the window, so they come once it
    // is up; the sources follow them.
    QTimer::singleShot(0, &app, [&app, sources] {
        app.applicationWillFinishLaunching();
        if (!sources.isEmpty())
            app.openFiles(sources);
    });
    return qapp.exec();
}
