#include "ScanReport.h"

#include "JsonView.h"
#include "LanguageNames.h"
#include "ScanRelay.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

// HandBrake's title types.
constexpr int kDvdTitle = 0;
constexpr int kBlurayTitle = 1;

std::string num(long long v) {
    return std::to_string(v);
}

// Integers only, so the C library's locale cannot change the text.
template <typename... Args> std::string fmt(const char* format, Args... args) {
    char buf[128];
    const int n = std::snprintf(buf, sizeof buf, format, args...);
    return std::string(buf, std::size_t(std::clamp(n, 0, int(sizeof buf) - 1)));
}

char lowerAscii(char c) {
    return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

char upperAscii(char c) {
    return c >= 'a' && c <= 'z' ? char(c - 'a' + 'A') : c;
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), lowerAscii);
    return s;
}

std::string upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), upperAscii);
    return s;
}

std::string hms(JsonView duration) {
    return fmt("%02d:%02d:%02d", duration["Hours"].toInt(), duration["Minutes"].toInt(),
               duration["Seconds"].toInt());
}

// Files of any kind can be opened by the text-art demuxers; what they
// render is not a movie.
bool isMovie(JsonView title) {
    static const std::string_view textArt[] = {"bintext", "xbin", "idf", "ansi", "tty"};
    const JsonView geometry = title["Geometry"];
    return std::find(std::begin(textArt), std::end(textArt), title["VideoCodec"].toString()) ==
               std::end(textArt) &&
           geometry["Width"].toInt() > 0 && geometry["Height"].toInt() > 0;
}

std::vector<JsonView> movieTitles(JsonView titleSet) {
    std::vector<JsonView> titles;
    for (const nlohmann::json& v : titleSet["TitleList"].toArray()) {
        if (isMovie(v))
            titles.push_back(v);
    }
    return titles;
}

std::string videoCodec(const std::string& name) {
    if (name == "mpeg2video")
        return "mpeg2";
    if (name == "mpeg1video")
        return "mpeg1";
    return asciiOnly(name);
}

std::string audioCodec(JsonView track) {
    const std::string name = lower(track["CodecName"].toString());
    static const std::pair<std::string_view, const char*> names[] = {
        {"ac3", "AC3"},   {"eac3", "E-AC3"},    {"aac", "AAC"},        {"aac_latm", "AAC"},
        {"dts", "DTS"},   {"truehd", "TrueHD"}, {"mp3", "MP3"},        {"mp2", "MP2"},
        {"mp1", "MP1"},   {"flac", "FLAC"},     {"vorbis", "Vorbis"},  {"opus", "Opus"},
        {"alac", "ALAC"}, {"pcm_dvd", "LPCM"},  {"pcm_bluray", "LPCM"}};
    for (const auto& [from, to] : names) {
        if (name == from)
            return to;
    }
    if (name.starts_with("pcm_"))
        return "PCM";
    if (!name.empty())
        return asciiOnly(upper(name));
    // Without a codec name the description's first parenthesis names it.
    const std::string& description = track["Description"].toString();
    const std::size_t open = description.find('(');
    const std::size_t close =
        open == std::string::npos ? std::string::npos : description.find(')', open + 1);
    if (close != std::string::npos)
        return asciiOnly(description.substr(open + 1, close - open - 1));
    return "Unknown";
}

std::string channels(JsonView track) {
    const int count = track["ChannelCount"].toInt();
    const int lfe = track["LFECount"].toInt();
    if (count > 0)
        return num(count - lfe) + '.' + num(lfe) + " ch";
    const std::string& description = track["Description"].toString();
    const std::size_t at = description.find(" ch)");
    if (at != std::string::npos && at > 0) {
        const std::size_t open = description.rfind('(', at);
        if (open != std::string::npos)
            return asciiOnly(description.substr(open + 1, at + 3 - open - 1));
    }
    return "0.0 ch";
}

std::string isoCode(JsonView track) {
    const std::string code = lower(track["LanguageCode"].toString());
    if (code.size() == 3 &&
        std::all_of(code.begin(), code.end(), [](char c) { return c >= 'a' && c <= 'z'; }))
        return code;
    return "und";
}

std::string languageName(JsonView track) {
    return reportLanguageName(track["Language"].toString(), isoCode(track));
}

std::string frameRate(JsonView rate) {
    const double den = rate["Den"].toDouble();
    const double fps = den > 0 ? rate["Num"].toDouble() / den : 0.0;
    if (std::fabs(fps - std::round(fps)) < 0.0005)
        return num(std::llround(fps));
    return fixedPoint(fps, 3);
}

// Up to `size` bytes from the start of a regular file; fewer on failure.
std::string fileHead(const std::string& path, std::size_t size) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    std::string head(size, '\0');
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = ::read(fd, head.data() + got, size - got);
        if (n > 0)
            got += std::size_t(n);
        else if (n == 0 || errno != EINTR)
            break;
    }
    ::close(fd);
    head.resize(got);
    return head;
}

// HandBrakeCLI 1.6 names the region only on standard output, and not for
// every source; the disc's own IFO carries the same mask.
std::string dvdRegionLine(const std::string& path) {
    for (const std::string& candidate :
         {path + "/VIDEO_TS/VIDEO_TS.IFO", path + "/VIDEO_TS.IFO", path}) {
        const std::string head = fileHead(candidate, 0x24);
        if (head.size() < 0x24 || !head.starts_with("DVDVIDEO-VMG"))
            continue;
        const auto mask = static_cast<unsigned char>(head[0x23]);
        std::string line = "libdvdnav: DVD disk reports itself with Region mask " +
                           fmt("0x%08x", unsigned(mask) << 16) + ". Regions:";
        for (int region = 1; region <= 8; ++region) {
            if (!(mask & (1u << (region - 1))))
                line += fmt(" %02d", region);
        }
        return line;
    }
    return "libdvdnav: DVD disk reports no region information";
}

std::string titleBlock(JsonView title, int mainFeature) {
    const int type = title["Type"].toInt();
    const int index = title["Index"].toInt();
    std::string out = "+ title " + num(index) + ":\n";
    if (index == mainFeature)
        out += "  + Main Feature\n";
    if (type == kBlurayTitle) {
        if (title["Playlist"].toInt() >= 0)
            out += fmt("  + playlist: %05d.MPLS\n", title["Playlist"].toInt());
    } else if (type != kDvdTitle) {
        out += "  + stream: " + asciiOnly(title["Path"].toString()) + '\n';
    }
    out += "  + codec: " + videoCodec(title["VideoCodec"].toString()) + '\n';
    out += "  + duration: " + hms(title["Duration"]) + '\n';

    const JsonView geometry = title["Geometry"];
    const JsonView par = geometry["PAR"];
    const int width = geometry["Width"].toInt(), height = geometry["Height"].toInt();
    const int parNum = std::max(1, par["Num"].toInt()), parDen = std::max(1, par["Den"].toInt());
    const double aspect = double(width) * parNum / (double(height) * parDen);
    out += "  + size: " + num(width) + 'x' + num(height) + ", pixel aspect: " + num(parNum) + '/' +
           num(parDen) + ", display aspect: " + fixedPoint(aspect, 2) + ", " +
           frameRate(title["FrameRate"]) + " FPS\n";

    const nlohmann::json::array_t& crop = title["Crop"].toArray();
    if (crop.size() == 4)
        out += "  + autocrop: " + num(JsonView(crop[0]).toInt()) + '/' +
               num(JsonView(crop[1]).toInt()) + '/' + num(JsonView(crop[2]).toInt()) + '/' +
               num(JsonView(crop[3]).toInt()) + '\n';

    out += "  + chapters:\n";
    int chapter = 0;
    for (JsonView c : title["ChapterList"].toArray())
        out += "    + " + num(++chapter) + ": duration " + hms(c["Duration"]) + '\n';

    // Both headers always appear: the parser ends a title's audio list at
    // the subtitle header.
    out += "  + audio tracks:\n";
    int position = 0;
    for (JsonView track : title["AudioList"].toArray()) {
        ++position;
        const int number = track.contains("TrackNumber") ? track["TrackNumber"].toInt() : position;
        out += "    + " + num(number) + ", " + languageName(track) + " (" + audioCodec(track) +
               ") (" + channels(track) + ") (iso639-2: " + isoCode(track) + ')';
        // HandBrake reports 1 for a bit rate it does not know; rate and bit
        // rate come as a pair or not at all.
        const int rate = track["SampleRate"].toInt();
        const int bitRate = track["BitRate"].toInt();
        if (rate > 0 && bitRate > 1)
            out += ", " + num(rate) + "Hz, " + num(bitRate) + "bps";
        out += '\n';
    }

    out += "  + subtitle tracks:\n";
    position = 0;
    for (JsonView track : title["SubtitleList"].toArray()) {
        ++position;
        const int number = track.contains("TrackNumber") ? track["TrackNumber"].toInt() : position;
        const char* format = lower(track["Format"].toString()) == "bitmap" ? "Bitmap" : "Text";
        std::string source = asciiOnly(track["SourceName"].toString());
        std::replace(source.begin(), source.end(), '(', '[');
        std::replace(source.begin(), source.end(), ')', ']');
        if (source.empty())
            source = "Unknown";
        out += "    + " + num(number) + ", " + languageName(track) +
               " (iso639-2: " + isoCode(track) + ") (" + format + ")(" + source + ")\n";
    }

    if (title["InterlaceDetected"].toBool())
        out += "+ combing detected, may be interlaced or telecined\n";
    return out;
}

} // namespace

std::string fixedPoint(double value, int decimals) {
    // printf rounds an exact tie to even; step past it to round it away
    // from zero instead. Scaled by a power of ten and two, a double is
    // exact in long double for the few decimals used here.
    long double twice = static_cast<long double>(value) * 2;
    for (int i = 0; i < decimals; ++i)
        twice *= 10;
    if (std::isfinite(twice) && twice == std::trunc(twice) && std::fmod(twice, 2.0L) != 0)
        value = std::nextafter(value, value > 0 ? HUGE_VAL : -HUGE_VAL);
    if (value == 0)
        value = 0; // no "-0.00"
    const int n = std::snprintf(nullptr, 0, "%.*f", decimals, value);
    std::string out(std::size_t(std::max(n, 0)), '\0');
    std::snprintf(out.data(), out.size() + 1, "%.*f", decimals, value);
    return out;
}

int reportedTitleCount(const nlohmann::json& titleSet) {
    return int(movieTitles(titleSet).size());
}

std::string scanReport(const nlohmann::json& titleSet, std::string_view dvdMarker) {
    const std::vector<JsonView> titles = movieTitles(titleSet);
    if (titles.empty())
        return "No title found.\nHandBrake has exited.\n";

    std::string out;
    bool dvd = false, bluray = false;
    for (JsonView t : titles) {
        dvd = dvd || t["Type"].toInt() == kDvdTitle;
        bluray = bluray || t["Type"].toInt() == kBlurayTitle;
    }
    if (dvd)
        out += (dvdMarker.empty() ? dvdRegionLine(titles.front()["Path"].toString())
                                  : std::string(dvdMarker)) +
               '\n';
    else if (bluray)
        out += "scan: BD has " + num(static_cast<long long>(titles.size())) + " title(s)\n";

    const int mainFeature = JsonView(titleSet)["MainFeature"].toInt();
    for (JsonView t : titles)
        out += titleBlock(t, mainFeature);
    out += "HandBrake has exited.\n";
    return out;
}
