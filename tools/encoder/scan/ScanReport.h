#pragma once

#include <QByteArray>
#include <QJsonObject>

// The scan report the core's parser reads, made from HandBrakeCLI's JSON
// title set: titles with stream, codec, duration, size, audio and subtitle
// lines, source markers for discs, the combing line, the no-title verdict
// and the closing line. ASCII only.
//
// `dvdMarker` is the line libdvdnav printed for a DVD, if any.
QByteArray scanReport(const QJsonObject& titleSet, const QByteArray& dvdMarker);

// Number of titles the report lists (titles whose video is not a movie,
// such as a text-art rendering of an arbitrary file, are left out).
int reportedTitleCount(const QJsonObject& titleSet);
