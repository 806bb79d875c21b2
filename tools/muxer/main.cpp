// Tarnwick_Pro_Muxer -dest O -source T -video V [-optimize]
//
// Joins the converted file T (a tiny stand-by video, the converted audio and
// subtitles, chapters, tags) with the video stream of the source V, copied
// as it is, into O. With -optimize the movie header comes before the media
// data.
//
// H.264 and HEVC in Matroska or MP4 are taken from the container's own
// index and copied without being read (see FastMux.h); this program does
// not link a demuxer, so it starts at once. Any other source is handed,
// before anything is written, to Tarnwick_Pro_Muxer_Demuxer beside it.
//
// Progress goes to standard error as "Phase: percent" lines; errors as one
// "Tarnwick_Pro_Muxer: ..." line, with a non-zero exit status. O appears
// only when complete: the file is written under a hidden temporary name
// beside it and renamed at the end.
//
// TARNWICK_MUXER_INDEX=off hands every source to the demuxing program;
// =required fails when the index cannot be used (for checking either path).
#include "Command.h"
#include "FastMux.h"
#include "Progress.h"

#include "mp4/Mp4File.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

using namespace muxer;

// The demuxing program, in the folder this one was started from.
std::string demuxerPath() {
    char self[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    const std::string dir = n > 0 ? directoryOf(std::string(self, size_t(n))) : ".";
    return dir + "/Tarnwick_Pro_Muxer_Demuxer";
}

int handOver(char** argv) {
    const std::string path = demuxerPath();
    argv[0] = const_cast<char*>(path.c_str());
    ::execv(path.c_str(), argv);
    return fail("cannot start " + path + ": " + std::strerror(errno));
}

} // namespace

int main(int argc, char** argv) {
    Command command;
    if (const int status = parseCommand(argc, argv, &command))
        return status;
    if (const int status = checkInputs(command))
        return status;
    const char* mode = std::getenv("TARNWICK_MUXER_INDEX");
    if (mode && std::strcmp(mode, "off") == 0)
        return handOver(argv);

    std::string why;
    const std::unique_ptr<tarnwick::mp4::File> converted =
        tarnwick::mp4::File::open(command.source, false, &why);
    if (!converted)
        return fail("the converted file " + command.source + " is not a readable MP4 file: " + why);

    FastMux mux;
    FastMuxRequest request;
    request.videoPath = command.video;
    request.sourcePath = command.source;
    request.formatHint = command.dest;
    request.moovInFront = command.optimize;
    if (!mux.prepare(request, *converted, &why)) {
        if (mode && std::strcmp(mode, "required") == 0)
            return fail("the video source " + command.video + " cannot be indexed: " + why);
        return handOver(argv);
    }

    std::string temp;
    if (!createTemporary(command.dest, &temp))
        return kFailed;
    Progress muxing("Muxing");
    muxing.report(0);
    std::string error;
    if (!mux.write(temp, muxing, &error))
        return fail(error);
    muxing.report(100);
    return publish(temp, command.dest);
}
