#pragma once

#include <QString>

// The files an encode writes. No output ever replaces another file: a
// taken name (another movie of the run, an earlier run's file, the other
// file of an HD and SD pair) gets a number, "Name (2).m4v", then "(3)"; the
// name is claimed by creating the file exclusively before the encoder
// writes into it, so two processes cannot pick the same one. A failed or
// partial encode is kept only when it plays, as "Name (incomplete).m4v".
namespace OutputFile {

// `path` with the number n in its name: "Movie.m4v" -> "Movie (2).m4v",
// "Movie(HD).m4v" -> "Movie (2)(HD).m4v". n = 1 gives `path` itself.
QString numbered(const QString& path, int n);

// Claims the first free numbered name of `path` by creating it (empty) and
// answers it. With `pairedWithSD`, `path` is the HD file of a pair and the SD
// name that goes with the candidate ("(HD)" dropped) must be free too. On a
// folder that cannot take files the result is `path` itself, unclaimed (the
// encoder then fails and says so).
QString claim(const QString& path, bool pairedWithSD = false);

// "Movie.m4v" -> "Movie (incomplete).m4v".
QString incompleteName(const QString& path);

// Whether the file is an MP4 a player can open: its movie header is there
// and at least one track has samples.
bool plays(const QString& path);

// After a failed or partial pass: keeps a file that plays under a free
// "(incomplete)" name and answers that name, or removes it and answers an
// empty string.
QString keepIfPlayable(const QString& path);

// Why an encode into `path` failed, as one sentence: no space left on the
// destination, a folder that cannot be written, or the encoder's exit
// status or signal. `encoderLog` is what the encoder wrote on its standard
// error (its words name the cause when the folder does not show it).
QString failureCause(const QString& path, int exitStatus, const QString& encoderLog);

} // namespace OutputFile
