#include "HandBrakeCli.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace handbrake {

namespace {

bool isExecutableFile(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

// Options newer or older HandBrake builds know and 1.6 refuses.
bool isUnsupported(const std::string& arg) {
    return arg == "--use-opencl";
}

// Options with an optional value: 1.6 reads the value only when it is
// attached with "=", a separate value would be taken for a stray argument.
std::string optionalValueOption(const std::string& arg) {
    if (arg == "--subtitle-burn" || arg == "--subtitle-burned")
        return "--subtitle-burned";
    if (arg == "--subtitle-default")
        return "--subtitle-default";
    return {};
}

bool looksLikeValue(const std::string& arg) {
    return !arg.empty() && arg.front() != '-';
}

} // namespace

std::string locate(std::string* tried) {
    const char* env = std::getenv("TARNWICK_HANDBRAKE");
    if (env && *env) {
        if (tried)
            *tried = env;
        return isExecutableFile(env) ? std::string(env) : std::string();
    }
    if (tried)
        *tried = "HandBrakeCLI";
    const char* pathVar = std::getenv("PATH");
    const std::string dirs = pathVar && *pathVar ? pathVar : "/usr/bin:/bin";
    std::string::size_type start = 0;
    while (start <= dirs.size()) {
        std::string::size_type end = dirs.find(':', start);
        if (end == std::string::npos)
            end = dirs.size();
        if (end > start) {
            const std::string candidate = dirs.substr(start, end - start) + "/HandBrakeCLI";
            if (isExecutableFile(candidate))
                return candidate;
        }
        start = end + 1;
    }
    return {};
}

std::string missingMessage(const std::string& tried) {
    return "Tarnwick_Pro_Encoder: cannot run HandBrakeCLI (" + tried +
           "): install the Debian package handbrake-cli (apt-get install handbrake-cli)\n";
}

bool isScanRequest(const Args& args) {
    for (const std::string& arg : args) {
        if (arg == "--output" || arg == "-o" || arg.rfind("--output=", 0) == 0)
            return false;
    }
    return true;
}

std::string outputPath(const Args& args) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        if ((args[i] == "--output" || args[i] == "-o") && i + 1 < args.size())
            return args[i + 1];
        if (args[i].rfind("--output=", 0) == 0)
            return args[i].substr(9);
    }
    return {};
}

Args encodeArguments(const Args& args) {
    Args out;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        // Empty pieces come from double blanks in preset texts.
        if (arg.empty() || isUnsupported(arg))
            continue;
        const std::string joined = optionalValueOption(arg);
        if (!joined.empty()) {
            if (i + 1 < args.size() && looksLikeValue(args[i + 1]))
                out.push_back(joined + '=' + args[++i]);
            else
                out.push_back(joined);
            continue;
        }
        // A bare --subtitle would swallow the next option as its track list.
        if ((arg == "--subtitle" || arg == "-s") &&
            !(i + 1 < args.size() && looksLikeValue(args[i + 1])))
            continue;
        out.push_back(arg);
    }
    return out;
}

Args scanArguments(const Args& args) {
    Args out;
    bool haveScan = false;
    for (const std::string& arg : args) {
        if (arg.empty() || isUnsupported(arg) || arg == "--json")
            continue;
        if (arg == "--scan")
            haveScan = true;
        out.push_back(arg);
    }
    if (!haveScan)
        out.push_back("--scan");
    out.push_back("--json");
    return out;
}

} // namespace handbrake
