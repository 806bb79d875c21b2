#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

// What a HandBrakeCLI scan left behind once it has ended.
struct ScanOutcome {
    QJsonObject titleSet; // the "JSON Title Set" object, empty when none came
    QByteArray dvdMarker; // libdvdnav's region line, when it printed one
    int waitStatus = 0;   // as waitpid() gave it
    bool started = false; // false when the program could not be run
};

// Runs `program` with `args` (a --json scan). Its log lines and its scan
// progress reach our standard error while it works; the JSON it prints is
// collected. Terminate, interrupt, stop and continue signals sent to us
// reach the scan as well.
ScanOutcome runScan(const QString& program, const QStringList& args);

// Writes all of `bytes` to a descriptor, across interruptions.
void writeAll(int fd, const QByteArray& bytes);

// Keeps a line readable for a reader that decodes ASCII: other bytes
// would make it drop the whole chunk.
QByteArray asciiOnly(const QByteArray& line);
