// Tarnwick_Pro_Muxer_Demuxer -dest O -source T -video V [-optimize]
//
// The muxer's path for video sources its own index reader does not take
// (Tarnwick_Pro_Muxer runs this program in its place before writing
// anything): the video is read through libavformat and written with its
// MP4 muxer, then the converted file's metadata is carried over. With
// -optimize the movie header comes before the media data: room for it is
// reserved while writing, so no second pass over the media is needed; only
// when that room turns out too small is the file rewritten ("Optimizing").
//
// TARNWICK_MUXER_MOOV_RESERVE=<bytes> overrides the reserved room (for
// checking the rewrite path). TARNWICK_MUXER_INDEX=off demuxes the video
// source even where its container's index would do; =required fails when
// that index cannot be used.
#include "Command.h"
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

using namespace muxer;

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
    Command command;
    if (const int status = parseCommand(argc, argv, &command))
        return status;
    if (const int status = checkInputs(command))
        return status;
    const std::string &dest = command.dest, &source = command.source, &video = command.video;
    const bool optimize = command.optimize;

    std::string why;
    std::unique_ptr<tarnwick::mp4::File> converted = tarnwick::mp4::File::open(source, false, &why);
    if (!converted)
        return fail("the converted file " + source + " is not a readable MP4 file: " + why);

    std::string temp;
    if (!createTemporary(dest, &temp))
        return kFailed;

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

    return publish(temp, dest);
}
