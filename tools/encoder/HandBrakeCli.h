#pragma once

#include <string>
#include <vector>

// Finding Debian's HandBrakeCLI and turning the option set the core speaks
// into what HandBrakeCLI 1.6 accepts. Plain C++: the launcher that uses it
// must start without loading Qt.
namespace handbrake {

using Args = std::vector<std::string>;

// TARNWICK_HANDBRAKE when set, else HandBrakeCLI on PATH. Empty when nothing
// executable is there; `tried` receives what was looked for.
std::string locate(std::string* tried);

// The line printed when HandBrakeCLI cannot be run.
std::string missingMessage(const std::string& tried);

// A run without --output/-o is a scan.
bool isScanRequest(const Args& args);

// The file an encode writes, empty for a scan.
std::string outputPath(const Args& args);

// Encode arguments: options 1.6 rejects are dropped (it stops without
// encoding on an unknown option), separate values of options whose value
// 1.6 takes only as "=value" are joined to them.
Args encodeArguments(const Args& args);

// Scan arguments: the caller's, minus what 1.6 rejects, plus --scan and --json.
Args scanArguments(const Args& args);

} // namespace handbrake
