// One tag write as the application does it (15 tags and a cover), timed, with
// the bytes it cost. Driven by bench/mp4-tag-write.sh.
//
//   bench_mp4_tagwrite FILE COVER.png
//
// Prints one line: seconds, bytes passed to write calls (wchar), bytes sent to
// storage (write_bytes), change of the file size, the moov size after.

#include "mp4/Mp4File.h"
#include "mp4/mp4.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

struct IoCounters {
    unsigned long long wchar = 0, writeBytes = 0;
};

IoCounters ioCounters() {
    IoCounters c;
    std::ifstream io("/proc/self/io");
    std::string key;
    unsigned long long value = 0;
    while (io >> key >> value) {
        if (key == "wchar:")
            c.wchar = value;
        else if (key == "write_bytes:")
            c.writeBytes = value;
    }
    return c;
}

long long fileSize(const char* path) {
    struct stat st {};
    return ::stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s FILE COVER.png\n", argv[0]);
        return 2;
    }
    const char* path = argv[1];
    std::ifstream in(argv[2], std::ios::binary);
    const std::vector<char> cover((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    if (cover.empty()) {
        std::fprintf(stderr, "cannot read cover %s\n", argv[2]);
        return 2;
    }
    const long long sizeBefore = fileSize(path);
    const IoCounters before = ioCounters();
    const auto start = std::chrono::steady_clock::now();

    MP4FileHandle h = MP4Modify(path);
    if (!h) {
        std::fprintf(stderr, "cannot open %s for writing\n", path);
        return 1;
    }
    const MP4Tags* t = MP4TagsAlloc();
    MP4TagsFetch(t, h);
    const uint32_t season = 2, episode = 7;
    const uint8_t movie = 9;
    MP4TagsSetName(t, "Benchmark Movie");
    MP4TagsSetArtist(t, "Director Name");
    MP4TagsSetAlbumArtist(t, "Studio Name");
    MP4TagsSetAlbum(t, "Collection");
    MP4TagsSetGenre(t, "Drama");
    MP4TagsSetReleaseDate(t, "2024-05-17");
    MP4TagsSetComments(t, "Tagged by the benchmark");
    MP4TagsSetDescription(t, "A short description of the movie.");
    MP4TagsSetLongDescription(t, std::string(1500, 'x').c_str());
    MP4TagsSetTVShow(t, "Show");
    MP4TagsSetTVNetwork(t, "Network");
    MP4TagsSetTVSeason(t, &season);
    MP4TagsSetTVEpisode(t, &episode);
    MP4TagsSetMediaType(t, &movie);
    MP4TagsSetCopyright(t, "(c) Nobody");
    MP4TagArtwork art{const_cast<char*>(cover.data()), uint32_t(cover.size()), MP4_ART_PNG};
    if (t->artworkCount)
        MP4TagsSetArtwork(t, 0, &art);
    else
        MP4TagsAddArtwork(t, &art);
    MP4TagsStore(t, h);
    MP4TagsFree(t);
    MP4Close(h);

    const auto seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const IoCounters after = ioCounters();
    std::string error;
    auto file = tarnwick::mp4::File::open(path, false, &error);
    const unsigned long long moov =
        file && file->topLevelMoov() ? static_cast<unsigned long long>(file->topLevelMoov()->size)
                                     : 0;
    std::printf("seconds=%.6f wchar=%llu write_bytes=%llu size_change=%lld moov=%llu\n", seconds,
                after.wchar - before.wchar, after.writeBytes - before.writeBytes,
                fileSize(path) - sizeBefore, moov);
    return file ? 0 : 1;
}
