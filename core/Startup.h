#pragma once

#include <QLocale>
#include <QString>

// The program's start-up and exit steps, shared by every front end.
namespace Startup {

// Seeds the random generator, registers the shipped defaults and creates the
// per-user preset file when missing, then repairs the temporary folder and the
// language region. False (with a message) when the shipped data is missing.
bool run(QString* error = nullptr);

// Loads Defaults-Pro.plist and registers it beneath the user's values.
bool registerDefaults(QString* error = nullptr);

// Hands the shipped presets to the preset store so the user file exists.
void createUserPresets();

// Makes "Temp Directory" name this process's own scratch folder, made with
// mkdtemp from "Tarnwick.XXXXXX" in the system temporary folder at the first
// call (and again when it has gone). The path lives in the store's volatile
// layer, never in the settings file, so processes never share a folder and
// start-up writes nothing. The folder is removed by cleanupAtExit, when the
// application object goes, or, should the process be killed, by a small
// watchdog process. Answers the path (empty when none could be made).
QString repairTempDirectory();

// The language region for a locale identifier such as fr_CA: the identifier with
// "-" for "_" when the region table knows it, else "en-US".
QString regionForLocale(const QString& localeIdentifier);

// Replaces an empty "Language Region" with regionForLocale(); a missing key or a
// non-empty value is left alone.
void repairLanguageRegion(const QString& localeIdentifier = QLocale::system().name());

// The preset update notice: must it be shown now? ("Presets" newer than
// "Presets Current", or the update not accepted yet.)
bool presetUpdateNeeded();
// The "Ok" answer: resets every preset and records the accepted version.
void acceptPresetUpdate();

inline constexpr char kUpdateNoticeTitle[] = "Update Notice";
inline constexpr char kUpdateNoticeText[] =
    "The device presets are out of date and must be updated. Any modifications you have made "
    "to your current device presets will be lost and must be added again.";

// Removes this process's scratch folder and writes the settings.
void cleanupAtExit();

} // namespace Startup
