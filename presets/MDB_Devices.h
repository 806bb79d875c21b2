#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <optional>

// The device presets: the shipped "Devices.plist" and the user's editable copy
// "<Documents>/Oswenna/User-Devices.plist". Nothing is kept in memory; every
// call rereads the files, and every edit rewrites the user file atomically.
// Edits need the user file to exist (createUserFile makes it at start-up);
// without it they change nothing and answer false. Preset names must not be
// empty nor one of the file's own keys ("Devices", "Sections").
//
// The class also turns a preset into encoder arguments (MDB_DevicesArgs.cpp).
class MDB_Devices {
public:
    // The user file's root if it exists (and can be read), else the shipped one.
    static QVariantMap devices();
    static QVariantMap defaultDevices();
    // None when there is no readable user file.
    static std::optional<QVariantMap> userDevices();
    static QStringList sections();
    static QStringList deviceNames();
    static QStringList defaultDeviceNames();
    // None when `devices` has no preset of that name.
    static std::optional<QVariantMap> device(const QString& name);
    static bool isHD(const QString& name);

    static bool addDevice(const QString& name, const QString& baseline);
    // Renaming onto an existing name overwrites that preset and leaves the
    // name twice in "Devices"; callers that care check first.
    static bool changeDeviceName(const QString& oldName, const QString& toName);
    // Refused (false, nothing written) for a preset a device setting names;
    // deletionRefusal() says why.
    static bool deleteDevice(const QString& name);
    // Why `name` cannot be deleted now ("Primary Device" or "Secondary
    // Device" names it), or an empty string.
    static QString deletionRefusal(const QString& name);
    // False when the shipped file has no preset of that name. A shipped
    // preset the user deleted comes back, at its shipped place in the list.
    static bool resetDevice(const QString& name);
    static bool resetAll();
    // "Custom N" with N one above the highest number already used.
    static QString GenerateCustomName();

    // Writes `dictionary` as the user file unless one exists already. True
    // when the user file exists afterwards.
    static bool createUserFile(const QVariantMap& dictionary);
    // Replaces the user file, but never creates it.
    static bool writeToUserFile(const QVariantMap& dictionary);

    // Why the last write of the user file failed (the system's words).
    static QString lastWriteError();

    static QString userFilePath();
    static QString defaultFilePath();

    // --- encoder arguments --------------------------------------------------

    // Video options of a preset as one text; the bit rate is scaled down for a
    // source smaller than the preset's maximum picture. `nativeRate` is
    // ignored: the "Native Framerate" setting decides.
    static QString videoCmdArgs(const QString& name, bool nativeRate, const QString& nativeSize);
    // Audio options for the given track numbers in output order. `titles` and
    // `codecs` are accepted for callers' symmetry and not used. `duplicates`
    // (optional) gets one flag per track: whether the template emits it twice.
    static QStringList audioCmdArgs(const QString& name, const QList<qint64>& tracks,
                                    const QStringList& titles, const QStringList& codecs,
                                    QList<bool>* duplicates);
    // Subtitle options. `burn` and `native` are track numbers, 0 for "scan for
    // a forced track" / "none chosen yet", negative for "none".
    static QStringList subtitleCmdArgs(const QString& name,
                                       const std::optional<QList<qint64>>& tracks,
                                       const std::optional<QStringList>& titles, qint64 burn,
                                       qint64 native);
    static QStringList filterCmdArgs();
    // Drops options the application sets itself (help, verbosity, presets,
    // scanning, output name, format). "-v" and "--preset" take their value
    // along; "-o" and "-f" go alone, their value stays.
    static void removeUnsupportedArgs(QStringList& args);
};
