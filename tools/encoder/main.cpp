// Tarnwick_Pro_Encoder: the encoder tool the core runs, on top of Debian's
// HandBrakeCLI.
//
// Scan mode (no --output): HandBrakeCLI scans with its JSON title set; its
// log and progress are relayed on standard error as they come, then the
// report in the form the core parses. We stay in between as the parent, so
// the report is complete before our own exit; terminate, interrupt and
// continue signals are forwarded, and a stop of this process is mirrored
// onto the scan by a small watcher.
//
// Encode mode: HandBrakeCLI's progress and frame-count lines already have
// the wording the core reads, so after adjusting the arguments we exec it in
// place: stop, continue and terminate signals sent to our pid then act on
// the encode itself.
#include "HandBrakeCli.h"
#include "ScanRelay.h"
#include "ScanReport.h"

#include <QFile>

#include <csignal>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// HandBrakeCLI's own status when a scan finds nothing.
constexpr int kNoTitleStatus = 2;
constexpr int kCannotRunStatus = 127;

int scan(const QString& program, const QStringList& args) {
    const ScanOutcome outcome = runScan(program, handbrake::scanArguments(args));
    if (!outcome.started) {
        writeAll(STDERR_FILENO, "No title found.\nHandBrake has exited.\n");
        return kCannotRunStatus;
    }
    writeAll(STDERR_FILENO, scanReport(outcome.titleSet, outcome.dvdMarker));

    const int status = outcome.waitStatus;
    if (WIFSIGNALED(status)) {
        // End the way the scan ended, so our parent sees the same signal.
        const int sig = WTERMSIG(status);
        std::signal(sig, SIG_DFL);
        ::raise(sig);
        return 128 + sig;
    }
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    if (code == 0 && reportedTitleCount(outcome.titleSet) == 0)
        return kNoTitleStatus;
    return code;
}

int encode(const QString& program, const QStringList& args) {
    QList<QByteArray> store{QFile::encodeName(program)};
    for (const QString& a : handbrake::encodeArguments(args))
        store << a.toLocal8Bit();
    std::vector<char*> argv;
    for (QByteArray& a : store)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    writeAll(STDERR_FILENO, "Tarnwick_Pro_Encoder: cannot run " + store.front() + ": " +
                                std::strerror(errno) + '\n');
    return kCannotRunStatus;
}

} // namespace

int main(int argc, char** argv) {
    QStringList args;
    for (int i = 1; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    const bool scanning = handbrake::isScanRequest(args);

    QString tried;
    const QString program = handbrake::locate(&tried);
    if (program.isEmpty()) {
        writeAll(STDERR_FILENO, handbrake::missingMessage(tried));
        // A scan still ends with the verdict, so the item fails with a reason.
        if (scanning)
            writeAll(STDERR_FILENO, "No title found.\nHandBrake has exited.\n");
        return kCannotRunStatus;
    }
    return scanning ? scan(program, args) : encode(program, args);
}
