// Tarnwick_Pro_Muxer -dest O -source T -video V [-optimize]
//
// Joins the converted file T (a tiny stand-by video, the converted audio and
// subtitles, chapters, tags) with the video stream of the source V, copied
// as it is, into O. With -optimize the movie header comes before the media
// data: room for it is reserved while writing, so no second pass over the
// media is needed; only when that room turns out too small is the file
// rewritten ("Optimizing").
//
// Progress goes to standard error as "Phase: percent" lines; errors as one
// "Tarnwick_Pro_Muxer: ..." line, with a non-zero exit status. O appears
// only when complete: the file is written under a hidden temporary name
// beside it and renamed at the end.
//
// TARNWICK_MUXER_MOOV_RESERVE=<bytes> overrides the reserved room (for
// checking the rewrite path). TARNWICK_MUXER_INDEX=off demuxes the video
// source even where its container's index would do; =required fails when
// that index cannot be used (for checking either path).
#include "MetadataCopy.h"
#include "Progress.h"
#include "Remux.h"

#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Temporary files a signal must not leave behind (paths fixed before use).
char g_tempPath[4096];

void onSignal(int sig) {
    if (g_tempPath[0])
        ::unlink(g_tempPath);
    std::signal(sig, SIG_DFL);
    ::raise(sig);
}

int fail(const std::string& message) {
    muxer::writeError("Tarnwick_Pro_Muxer: " + message + "\n");
    if (g_tempPath[0])
        ::unlink(g_tempPath);
    return kFailed;
}

int usage(const std::string& problem) {
    muxer::writeError("Tarnwick_Pro_Muxer: " + problem +
                      "\nusage: Tarnwick_Pro_Muxer -dest OUTPUT -source CONVERTED -video VIDEO "
                      "[-optimize]\n");
    return kUsage;
}

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

bool sameFile(const std::string& a, const std::string& b) {
    struct stat sa {
    }, sb{};
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// The rewrite works on a hidden file beside the target; its size against
// the original tells how far it got.
void watchRewrite(const std::string& path, uint64_t total, std::atomic<bool>& done,
                  muxer::Progress& progress) {
    const std::string dir = directoryOf(path);
    const std::string prefix = "." + baseName(path) + ".optimize-";
    while (!done.load()) {
        for (int i = 0; i < 5 && !done.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (done.load() || total == 0)
            break;
        DIR* d = ::opendir(dir.c_str());
        if (!d)
            continue;
        uint64_t written = 0;
        while (dirent* e = ::readdir(d)) {
            if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0)
                continue;
            struct stat st {};
            if (::stat((dir + "/" + e->d_name).c_str(), &st) == 0)
                written = std::max<uint64_t>(written, uint64_t(st.st_size));
        }
        ::closedir(d);
        progress.update(std::min(99.9, 100.0 * double(written) / double(total)));
    }
}

} // namespace

int main(int argc, char** argv) {
    // Packets of high-rate video are megabytes each: keep their memory in
    // the heap for reuse instead of mapping and faulting in fresh pages for
    // every one (the dominant cost of a pass-through otherwise).
    mallopt(M_MMAP_THRESHOLD, 64 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
    std::string dest, source, video;
    bool optimize = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string* into) {
            if (i + 1 >= argc)
                return false;
            *into = argv[++i];
            return !into->empty();
        };
        if (a == "-dest") {
            if (!value(&dest))
                return usage("-dest needs a file name");
        } else if (a == "-source") {
            if (!value(&source))
                return usage("-source needs a file name");
        } else if (a == "-video") {
            if (!value(&video))
                return usage("-video needs a file name");
        } else if (a == "-optimize") {
            optimize = true;
        } else {
            return usage("unknown argument \"" + a + "\"");
        }
    }
    if (dest.empty() || source.empty() || video.empty())
        return usage("-dest, -source and -video are all required");
    if (sameFile(dest, source) || sameFile(dest, video))
        return fail("the destination " + dest + " is one of the input files");

    struct stat st {};
    if (::stat(video.c_str(), &st) != 0)
        return fail("cannot open the video source " + video + ": " + std::strerror(errno));
    if (::stat(source.c_str(), &st) != 0)
        return fail("cannot open the converted file " + source + ": " + std::strerror(errno));

    std::string why;
    std::unique_ptr<tarnwick::mp4::File> converted = tarnwick::mp4::File::open(source, false, &why);
    if (!converted)
        return fail("the converted file " + source + " is not a readable MP4 file: " + why);

    // The temporary keeps the extension: the muxer picks the file brand by it.
    const std::string name = baseName(dest);
    const size_t dot = name.find_last_of('.');
    const std::string ext = dot == std::string::npos || dot == 0 ? ".m4v" : name.substr(dot);
    std::string temp = directoryOf(dest) + "/." + name.substr(0, dot) + ".muxing-XXXXXX" + ext;
    if (temp.size() >= sizeof g_tempPath)
        return fail("the destination path is too long: " + dest);
    const int fd = ::mkostemps(temp.data(), int(ext.size()), O_CLOEXEC);
    if (fd < 0)
        return fail("cannot create a file in " + directoryOf(dest) + ": " + std::strerror(errno));
    ::close(fd);
    std::strcpy(g_tempPath, temp.c_str());
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        std::signal(sig, onSignal);

    muxer::RemuxRequest request;
    request.videoPath = video;
    request.sourcePath = source;
    request.outputPath = temp;
    request.formatHint = dest;
    request.moovInFront = optimize;
    request.extraMoovBytes = muxer::metadataSize(*converted);
    if (const char* forced = std::getenv("TARNWICK_MUXER_MOOV_RESERVE"))
        request.forcedReserve = std::atoll(forced);
    if (const char* index = std::getenv("TARNWICK_MUXER_INDEX")) {
        if (std::strcmp(index, "off") == 0)
            request.index = muxer::IndexMode::Off;
        else if (std::strcmp(index, "required") == 0)
            request.index = muxer::IndexMode::Required;
    }

    muxer::Progress muxing("Muxing");
    muxing.report(0);
    muxer::RemuxResult result;
    std::string error;
    if (!muxer::remux(request, &result, muxing, &error))
        return fail(error);

    bool moovFirst = false;
    if (!muxer::copyMetadata(*converted, temp, result.sourceTrackIds, result.layout, &moovFirst,
                             &error))
        return fail(error);
    converted.reset();
    muxing.report(100);

    if (optimize && !moovFirst) {
        muxer::Progress rewriting("Optimizing");
        rewriting.report(0);
        struct stat ts {};
        const uint64_t total = ::stat(temp.c_str(), &ts) == 0 ? uint64_t(ts.st_size) : 0;
        std::atomic<bool> done{false};
        std::thread watcher(watchRewrite, temp, total, std::ref(done), std::ref(rewriting));
        const bool ok = tarnwick::mp4::optimize(temp, temp, &error);
        done = true;
        watcher.join();
        if (!ok)
            return fail("cannot put the movie header in front: " + error);
        rewriting.report(100);
    }

    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(temp.c_str(), 0666 & ~mask);
    if (::rename(temp.c_str(), dest.c_str()) != 0)
        return fail("cannot create " + dest + ": " + std::strerror(errno));
    g_tempPath[0] = '\0';
    return 0;
}
