#pragma once

#include <QString>
#include <QStringList>

// Finding Debian's HandBrakeCLI and turning the option set the core speaks
// into what HandBrakeCLI 1.6 accepts.
namespace handbrake {

// TARNWICK_HANDBRAKE when set, else HandBrakeCLI on PATH. Empty when nothing
// executable is there; `tried` receives what was looked for.
QString locate(QString* tried);

// The line printed when HandBrakeCLI cannot be run.
QByteArray missingMessage(const QString& tried);

// A run without --output/-o is a scan.
bool isScanRequest(const QStringList& args);

// Encode arguments: options 1.6 rejects are dropped (it stops without
// encoding on an unknown option), separate values of options whose value
// 1.6 takes only as "=value" are joined to them.
QStringList encodeArguments(const QStringList& args);

// Scan arguments: the caller's, minus what 1.6 rejects, plus --scan and --json.
QStringList scanArguments(const QStringList& args);

} // namespace handbrake
