// tarnwick-encoder-scan: the scan half of Tarnwick_Pro_Encoder, which execs
// it in place with HandBrakeCLI's path and the scan arguments.
//
// HandBrakeCLI scans with its JSON title set; its log and progress are
// relayed on standard error as they come, then the report in the form the
// core parses. We stay in between as the parent, so the report is complete
// before our own exit; terminate, interrupt and continue signals are
// forwarded, and a stop of this process is mirrored onto the scan by a small
// watcher.
//
// Plain C++ with a header-only JSON reader, like the launcher: loading Qt
// would add milliseconds to the start of every scan.
#include "ScanRelay.h"
#include "ScanReport.h"

#include <csignal>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// HandBrakeCLI's own status when a scan finds nothing.
constexpr int kNoTitleStatus = 2;
constexpr int kCannotRunStatus = 127;

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        writeAll(STDERR_FILENO, "tarnwick-encoder-scan: run by Tarnwick_Pro_Encoder, "
                                "with HandBrakeCLI's path and the scan arguments\n");
        return kCannotRunStatus;
    }
    const ScanOutcome outcome = runScan(std::vector<std::string>(argv + 1, argv + argc));
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
