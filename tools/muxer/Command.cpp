#include "Command.h"

#include "Progress.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace muxer {

namespace {

// The temporary file a signal must not leave behind (fixed before use).
char g_tempPath[4096];

void onSignal(int sig) {
    if (g_tempPath[0])
        ::unlink(g_tempPath);
    std::signal(sig, SIG_DFL);
    ::raise(sig);
}

int usage(const std::string& problem) {
    writeError("Tarnwick_Pro_Muxer: " + problem +
               "\nusage: Tarnwick_Pro_Muxer -dest OUTPUT -source CONVERTED -video VIDEO "
               "[-optimize]\n");
    return kUsage;
}

bool sameFile(const std::string& a, const std::string& b) {
    struct stat sa {
    }, sb{};
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

} // namespace

std::string directoryOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int parseCommand(int argc, char** argv, Command* command) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string* into) {
            if (i + 1 >= argc)
                return false;
            *into = argv[++i];
            return !into->empty();
        };
        if (a == "-dest") {
            if (!value(&command->dest))
                return usage("-dest needs a file name");
        } else if (a == "-source") {
            if (!value(&command->source))
                return usage("-source needs a file name");
        } else if (a == "-video") {
            if (!value(&command->video))
                return usage("-video needs a file name");
        } else if (a == "-optimize") {
            command->optimize = true;
        } else {
            return usage("unknown argument \"" + a + "\"");
        }
    }
    if (command->dest.empty() || command->source.empty() || command->video.empty())
        return usage("-dest, -source and -video are all required");
    return 0;
}

int fail(const std::string& message) {
    writeError("Tarnwick_Pro_Muxer: " + message + "\n");
    if (g_tempPath[0])
        ::unlink(g_tempPath);
    return kFailed;
}

int checkInputs(const Command& command) {
    if (sameFile(command.dest, command.source) || sameFile(command.dest, command.video))
        return fail("the destination " + command.dest + " is one of the input files");
    struct stat st {};
    if (::stat(command.video.c_str(), &st) != 0)
        return fail("cannot open the video source " + command.video + ": " + std::strerror(errno));
    if (::stat(command.source.c_str(), &st) != 0)
        return fail("cannot open the converted file " + command.source + ": " +
                    std::strerror(errno));
    return 0;
}

bool createTemporary(const std::string& dest, std::string* path) {
    const std::string name = baseName(dest);
    const size_t dot = name.find_last_of('.');
    const std::string ext = dot == std::string::npos || dot == 0 ? ".m4v" : name.substr(dot);
    std::string temp = directoryOf(dest) + "/." + name.substr(0, dot) + ".muxing-XXXXXX" + ext;
    if (temp.size() >= sizeof g_tempPath) {
        fail("the destination path is too long: " + dest);
        return false;
    }
    const int fd = ::mkostemps(temp.data(), int(ext.size()), O_CLOEXEC);
    if (fd < 0) {
        fail("cannot create a file in " + directoryOf(dest) + ": " + std::strerror(errno));
        return false;
    }
    ::close(fd);
    std::strcpy(g_tempPath, temp.c_str());
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        std::signal(sig, onSignal);
    *path = temp;
    return true;
}

int publish(const std::string& temp, const std::string& dest) {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(temp.c_str(), 0666 & ~mask);
    if (::rename(temp.c_str(), dest.c_str()) != 0)
        return fail("cannot create " + dest + ": " + std::strerror(errno));
    g_tempPath[0] = '\0';
    return 0;
}

} // namespace muxer
