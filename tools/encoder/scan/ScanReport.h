#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

// The scan report the core's parser reads, made from HandBrakeCLI's JSON
// title set: titles with stream, codec, duration, size, audio and subtitle
// lines, source markers for discs, the combing line, the no-title verdict
// and the closing line. ASCII only.
//
// `dvdMarker` is the line libdvdnav printed for a DVD, if any.
std::string scanReport(const nlohmann::json& titleSet, std::string_view dvdMarker);

// Number of titles the report lists (titles whose video is not a movie,
// such as a text-art rendering of an arbitrary file, are left out).
int reportedTitleCount(const nlohmann::json& titleSet);

// `value` with `decimals` digits after the point, independent of the C
// library's locale; a value exactly half-way rounds away from zero, as the
// report has always written it.
std::string fixedPoint(double value, int decimals);
