#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <vector>

// What a HandBrakeCLI scan left behind once it has ended.
struct ScanOutcome {
    nlohmann::json titleSet; // the "JSON Title Set" object, null when none came
    std::string dvdMarker;   // libdvdnav's region line, when it printed one
    int waitStatus = 0;      // as waitpid() gave it
    bool started = false;    // false when the program could not be run
};

// Runs `argv` (HandBrakeCLI's path first, then a --json scan's arguments).
// Its log lines and its scan progress reach our standard error while it
// works; the JSON it prints is collected. Terminate, interrupt, stop and
// continue signals sent to us reach the scan as well; a scan asked to end
// that has not ended a few seconds later is killed. The scan dies with us
// (PR_SET_PDEATHSIG), and its "hb.<pid>" temporary folder is removed
// however it ended.
ScanOutcome runScan(const std::vector<std::string>& argv);

// Writes all of `bytes` to a descriptor, across interruptions.
void writeAll(int fd, std::string_view bytes);

// Keeps a line readable for a reader that decodes ASCII: other bytes
// would make it drop the whole chunk.
std::string asciiOnly(std::string_view line);
