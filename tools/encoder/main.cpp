// Tarnwick_Pro_Encoder: the encoder tool the core runs, on top of Debian's
// HandBrakeCLI.
//
// Encode mode: HandBrakeCLI's progress and frame-count lines already have
// the wording the core reads, so after adjusting the arguments we exec it in
// place: stop, continue and terminate signals sent to our pid then act on
// the encode itself.
//
// Scan mode (no --output): the scan relay beside us takes over, also in
// place; it stays in between as HandBrakeCLI's parent to turn the JSON title
// set into the report. An encode never starts the relay.
#include "HandBrakeCli.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kCannotRunStatus = 127;
constexpr const char* kScanRelay = "tarnwick-encoder-scan";

void writeAll(int fd, const std::string& text) {
    const char* p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        p += n;
        left -= std::size_t(n);
    }
}

// The folder this executable lives in, where its relay is built and installed.
std::string ownDirectory(const char* argv0) {
    char buf[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    std::string path = n > 0 ? std::string(buf, std::size_t(n)) : std::string(argv0);
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

int execOrReport(const std::string& program, const std::vector<std::string>& args) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    writeAll(STDERR_FILENO,
             "Tarnwick_Pro_Encoder: cannot run " + program + ": " + std::strerror(errno) + '\n');
    return kCannotRunStatus;
}

// A process's state letter and parent, from /proc; false once it is gone.
bool processStat(pid_t pid, char* state, pid_t* parent) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", int(pid));
    const int fd = ::open(path, O_RDONLY);
    if (fd < 0)
        return false;
    char buf[512];
    const ssize_t n = ::read(fd, buf, sizeof buf - 1);
    ::close(fd);
    if (n <= 0)
        return false;
    buf[n] = '\0';
    // The command name in parentheses may itself hold blanks and parentheses.
    const char* rest = std::strrchr(buf, ')');
    int ppid = 0;
    return rest && std::sscanf(rest + 1, " %c %d", state, &ppid) == 2 && (*parent = ppid, true);
}

// When the caller dies mid-encode, HandBrakeCLI gets the terminate signal
// and closes a short but playable movie under the final name, and nobody is
// left to clean it up. A small watcher outlives the exec below: when it sees
// the running encode handed to another parent (its caller died first), it
// removes the output once the encode has ended. An encode whose caller
// outlives it is the caller's to judge.
void removeOutputIfOrphaned(const std::string& output) {
    if (output.empty())
        return;
    const pid_t encoder = ::getpid();
    const pid_t caller = ::getppid();
    if (::fork() != 0)
        return;
    ::setsid();
    // No inherited descriptor may stay open: the caller reads the encoder's
    // pipes until every writer is gone.
    for (int fd = 0; fd < 1024; ++fd)
        ::close(fd);
    bool orphaned = false;
    char state = 0;
    pid_t parent = 0;
    // A zombie has ended, whether or not its new parent ever reaps it.
    while (processStat(encoder, &state, &parent) && state != 'Z') {
        if (parent != caller)
            orphaned = true;
        ::usleep(100 * 1000);
    }
    if (orphaned)
        ::unlink(output.c_str());
    ::_exit(0);
}

} // namespace

int main(int argc, char** argv) {
    const handbrake::Args args(argv + 1, argv + argc);
    const bool scanning = handbrake::isScanRequest(args);

    std::string tried;
    const std::string program = handbrake::locate(&tried);
    if (program.empty()) {
        writeAll(STDERR_FILENO, handbrake::missingMessage(tried));
        // A scan still ends with the verdict, so the item fails with a reason.
        if (scanning)
            writeAll(STDERR_FILENO, "No title found.\nHandBrake has exited.\n");
        return kCannotRunStatus;
    }
    if (!scanning) {
        // HandBrakeCLI waits on its standard input for keyboard commands
        // between status checks; an open pipe nobody writes to (the core's)
        // delays noticing the end of the encode by up to a tenth of a second.
        // A terminal is left alone for a user typing at it.
        if (!::isatty(STDIN_FILENO)) {
            const int devNull = ::open("/dev/null", O_RDONLY);
            if (devNull >= 0 && devNull != STDIN_FILENO) {
                ::dup2(devNull, STDIN_FILENO);
                ::close(devNull);
            }
        }
        removeOutputIfOrphaned(handbrake::outputPath(args));
        return execOrReport(program, handbrake::encodeArguments(args));
    }

    // The relay gets HandBrakeCLI's path first, then the arguments it is to scan with.
    handbrake::Args relayArgs{program};
    const handbrake::Args scanArgs = handbrake::scanArguments(args);
    relayArgs.insert(relayArgs.end(), scanArgs.begin(), scanArgs.end());
    const int status = execOrReport(ownDirectory(argv[0]) + '/' + kScanRelay, relayArgs);
    writeAll(STDERR_FILENO, "No title found.\nHandBrake has exited.\n");
    return status;
}
