// `tarnwick-cli presets list | show NAME | add NEW BASE | rename OLD NEW |
// delete NAME | reset [NAME]`: the device presets, as the devices panel edits
// them. Every change goes to the user preset file at once.
#include "cli/Commands.h"

#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <algorithm>
#include <iterator>

namespace {

const QString kCommand = QStringLiteral("presets");

QString display(const QVariant& value) {
    if (value.typeId() == QMetaType::Bool)
        return value.toBool() ? QStringLiteral("YES") : QStringLiteral("NO");
    return value.toString();
}

int unknownPreset(const QString& name) {
    return cli::failure(QStringLiteral("no preset named \"%1\"").arg(name));
}

// Edits need the user file; say where it should be when it is not there.
bool editable() {
    if (MDB_Devices::userDevices())
        return true;
    cli::failure(QStringLiteral("the user preset file %1 is missing or unreadable; "
                                "run \"tarnwick-cli presets reset\" after fixing its folder")
                     .arg(MDB_Devices::userFilePath()));
    return false;
}

int writeFailed() {
    return cli::failure(QStringLiteral("cannot write the user preset file %1: %2")
                            .arg(MDB_Devices::userFilePath(), MDB_Devices::lastWriteError()));
}

// The settings keep naming a preset that was renamed or deleted; point it out.
void noteDeviceSettings(const QString& name) {
    for (const char* key : {SettingsKey::PrimaryDevice, SettingsKey::SecondaryDevice}) {
        if (UserDefaults::standard().stringForKey(QLatin1String(key)) == name)
            cli::err() << "tarnwick-cli: note: the setting \"" << key << "\" still names \"" << name
                       << "\"" << Qt::endl;
    }
}

int list() {
    const QStringList names = MDB_Devices::deviceNames();
    const QVariantMap root = MDB_Devices::devices();
    const QVariantMap shipped = MDB_Devices::defaultDevices();
    const auto text = [&](const QString& name, const char* key) {
        return root.value(name).toMap().value(QLatin1String(key)).toString();
    };
    qsizetype nameWidth = 0, resolutionWidth = 0;
    for (const QString& name : names) {
        nameWidth = std::max(nameWidth, name.size());
        resolutionWidth = std::max(resolutionWidth, text(name, "resolution").size());
    }
    for (const QString& name : names) {
        QString origin;
        if (!shipped.contains(name))
            origin = QStringLiteral("  (custom)");
        else if (shipped.value(name) != root.value(name))
            origin = QStringLiteral("  (modified)");
        cli::out() << name.leftJustified(nameWidth) << "  "
                   << (MDB_Devices::isHD(name) ? "HD" : "SD") << "  "
                   << text(name, "resolution").leftJustified(resolutionWidth) << "  "
                   << text(name, "usage") << origin << '\n';
    }
    return cli::kExitOk;
}

int show(const QString& name) {
    const auto preset = MDB_Devices::device(name);
    if (!preset)
        return unknownPreset(name);
    QStringList keys = MDB_Devices::sections();
    for (const QString& key : preset->keys()) {
        if (!keys.contains(key))
            keys << key;
    }
    qsizetype width = 0;
    for (const QString& key : keys)
        width = std::max(width, key.size());
    for (const QString& key : keys) {
        if (!preset->contains(key))
            continue;
        cli::out() << (key + QLatin1Char(':')).leftJustified(width + 1) << ' '
                   << display(preset->value(key)) << '\n';
    }
    return cli::kExitOk;
}

int checkNewName(const QString& name) {
    if (name.trimmed().isEmpty())
        return cli::failure(QStringLiteral("a preset name cannot be empty"));
    if (name == QLatin1String("Devices") || name == QLatin1String("Sections"))
        return cli::failure(
            QStringLiteral("\"%1\" is reserved and cannot name a preset").arg(name));
    if (MDB_Devices::deviceNames().contains(name) || MDB_Devices::device(name))
        return cli::failure(QStringLiteral("a preset named \"%1\" already exists").arg(name));
    return cli::kExitOk;
}

int add(const QString& name, const QString& base) {
    if (!editable())
        return cli::kExitFailure;
    if (!MDB_Devices::device(base))
        return unknownPreset(base);
    if (const int status = checkNewName(name))
        return status;
    if (!MDB_Devices::addDevice(name, base))
        return writeFailed();
    cli::out() << "Added \"" << name << "\" as a copy of \"" << base << "\"\n";
    return cli::kExitOk;
}

int rename(const QString& oldName, const QString& newName) {
    if (!editable())
        return cli::kExitFailure;
    if (!MDB_Devices::deviceNames().contains(oldName))
        return unknownPreset(oldName);
    if (oldName == newName)
        return cli::kExitOk;
    if (const int status = checkNewName(newName))
        return status;
    if (!MDB_Devices::changeDeviceName(oldName, newName))
        return writeFailed();
    cli::out() << "Renamed \"" << oldName << "\" to \"" << newName << "\"\n";
    noteDeviceSettings(oldName);
    return cli::kExitOk;
}

int remove(const QString& name) {
    if (!editable())
        return cli::kExitFailure;
    if (!MDB_Devices::deviceNames().contains(name) && !MDB_Devices::device(name))
        return unknownPreset(name);
    if (const QString refused = MDB_Devices::deletionRefusal(name); !refused.isEmpty())
        return cli::failure(refused);
    if (!MDB_Devices::deleteDevice(name))
        return writeFailed();
    cli::out() << "Deleted \"" << name << "\"\n";
    noteDeviceSettings(name);
    return cli::kExitOk;
}

int reset(const QStringList& args) {
    if (!editable())
        return cli::kExitFailure;
    if (args.isEmpty()) {
        if (!MDB_Devices::resetAll())
            return writeFailed();
        cli::out() << "All presets reset to the shipped ones\n";
        return cli::kExitOk;
    }
    const QString& name = args.first();
    if (!MDB_Devices::defaultDeviceNames().contains(name)) {
        if (MDB_Devices::device(name))
            return cli::failure(
                QStringLiteral("\"%1\" is not a shipped preset; there is nothing to reset it to")
                    .arg(name));
        return unknownPreset(name);
    }
    if (!MDB_Devices::resetDevice(name))
        return writeFailed();
    cli::out() << "Reset \"" << name << "\" to the shipped preset\n";
    return cli::kExitOk;
}

int runPresets(cli::Invocation& run) {
    const QStringList& args = run.positional();
    if (args.isEmpty())
        return cli::usageError(kCommand, QStringLiteral("no presets action given"));
    const QString action = args.first();
    const QStringList rest = args.mid(1);
    struct Arity {
        const char* action;
        qsizetype low, high;
    };
    static const Arity arities[] = {{"list", 0, 0},   {"show", 1, 1},   {"add", 2, 2},
                                    {"rename", 2, 2}, {"delete", 1, 1}, {"reset", 0, 1}};
    const auto known = std::find_if(std::begin(arities), std::end(arities), [&](const Arity& a) {
        return action == QLatin1String(a.action);
    });
    if (known == std::end(arities))
        return cli::usageError(kCommand,
                               QStringLiteral("unknown presets action \"%1\"").arg(action));
    if (rest.size() < known->low || rest.size() > known->high)
        return cli::usageError(kCommand,
                               QStringLiteral("wrong number of arguments for \"%1\"").arg(action));

    // Start-up makes the user's copy of the presets on the first run.
    QString error;
    cli::StartupScope startup;
    if (!startup.begin(&error))
        return cli::failure(error);
    if (MDB_Devices::defaultDevices().isEmpty())
        return cli::failure(
            QStringLiteral("the shipped presets (Devices.plist) cannot be read from %1")
                .arg(Resources::resourceDir()));

    if (action == QLatin1String("list"))
        return list();
    if (action == QLatin1String("show"))
        return show(rest[0]);
    if (action == QLatin1String("add"))
        return add(rest[0], rest[1]);
    if (action == QLatin1String("rename"))
        return rename(rest[0], rest[1]);
    if (action == QLatin1String("delete"))
        return remove(rest[0]);
    return reset(rest);
}

const cli::CommandRegistration registration({
    kCommand,
    {QStringLiteral("presets list"), QStringLiteral("presets show NAME"),
     QStringLiteral("presets add NEW BASE"), QStringLiteral("presets rename OLD NEW"),
     QStringLiteral("presets delete NAME"), QStringLiteral("presets reset [NAME]")},
    QStringLiteral("list, show and edit the device presets"),
    QStringLiteral(
        "The device presets, as the devices panel edits them: list shows each preset's name, HD "
        "or SD, resolution and use; show prints every field of one; add copies BASE under a new "
        "name; rename and delete change the user's presets; reset puts one shipped preset, or "
        "all presets, back to the shipped ones. Every change goes to the user preset file at "
        "once."),
    {{QStringLiteral("NAME"), QStringLiteral("a preset's name, as presets list shows it (quote "
                                             "names with spaces)")}},
    {},
    false,
    QStringLiteral("0 done, 1 unknown preset, a name taken or reserved, or the preset file "
                   "cannot be written, 2 usage error."),
    runPresets,
});

} // namespace
