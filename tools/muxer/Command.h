#pragma once

// What both muxer programs share: the command line, the error and usage
// messages, and the output written under a hidden temporary name beside the
// destination, renamed over it only when complete (and removed on failure
// or a signal).

#include <string>

namespace muxer {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Command {
    std::string dest, source, video;
    bool optimize = false;
};

// 0 when the arguments are complete, else the usage status after its message.
int parseCommand(int argc, char** argv, Command* command);

// Writes "Tarnwick_Pro_Muxer: message", removes the temporary file, and
// gives the failure status.
int fail(const std::string& message);

// The checks made before any file is created: inputs exist and differ from
// the destination. 0 or the failure status after its message.
int checkInputs(const Command& command);

// Creates the temporary file beside the destination (keeping its
// extension, which picks the file brand) and arranges its removal on
// failure or a signal. False after the failure message.
bool createTemporary(const std::string& dest, std::string* path);

// Gives the temporary file the usual permissions and renames it to `dest`.
// 0 or the failure status after its message.
int publish(const std::string& temp, const std::string& dest);

std::string directoryOf(const std::string& path);
std::string baseName(const std::string& path);

} // namespace muxer
