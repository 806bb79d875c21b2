#include "core/PreferencesPanelController.h"

#include "core/Bookmark.h"
#include "core/MDB_Utility.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/Startup.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

namespace {

QString presetText(const QString& device, const char* key) {
    const auto preset = MDB_Devices::device(device);
    return preset ? preset->value(QLatin1String(key)).toString() : QString();
}

} // namespace

void PreferencesPanelController::PopulatePanel() {
    auto& d = UserDefaults::standard();
    applyPrimaryDevice(d.stringForKey(SettingsKey::PrimaryDevice));
    const QString secondary = d.stringForKey(SettingsKey::SecondaryDevice);
    m_secondaryUsage = presetText(secondary, "usage");
    m_secondaryResolution = presetText(secondary, "resolution");
    if (Bookmark::resolve(d.dataForKey(SettingsKey::ITunesPathBookmark)).isEmpty()) {
        m_addToITunesEnabled = false;
        d.setBool(false, SettingsKey::AddITunes);
    } else {
        m_addToITunesEnabled = true;
    }
}

void PreferencesPanelController::applyPrimaryDevice(const QString& name) {
    m_primaryUsage = presetText(name, "usage");
    m_primaryResolution = presetText(name, "resolution");
    if (!MDB_Devices::isHD(name)) {
        m_secondaryVisible = false;
        m_hdsdEnabled = false;
        UserDefaults::standard().setInteger(0, SettingsKey::HDSD);
    } else {
        m_secondaryVisible = true;
        m_hdsdEnabled = true;
    }
}

QString PreferencesPanelController::validateSetting(const QString& key, const QVariant& value) {
    const auto& defaults = UserDefaults::standard();
    if (key == QLatin1String(SettingsKey::PrimaryDevice) ||
        key == QLatin1String(SettingsKey::SecondaryDevice)) {
        const QString name = value.toString();
        if (!MDB_Devices::device(name))
            return QStringLiteral("there is no preset named \"%1\" (see tarnwick-cli presets list)")
                .arg(name);
        if (key == QLatin1String(SettingsKey::PrimaryDevice) && !MDB_Devices::isHD(name) &&
            defaults.boolForKey(QLatin1String(SettingsKey::HDSD)))
            return QStringLiteral("\"%1\" is not an HD preset while \"HD-SD\" is on; turn "
                                  "\"HD-SD\" off first")
                .arg(name);
        return {};
    }
    if (key == QLatin1String(SettingsKey::LanguageRegion)) {
        if (!MDB_Utility::hasLanguageRegion(value.toString()))
            return QStringLiteral("\"%1\" is not a known language region (language-COUNTRY, "
                                  "such as en-US or en-GB)")
                .arg(value.toString());
        return {};
    }
    if (key == QLatin1String(SettingsKey::HDSD)) {
        const QString primary = defaults.stringForKey(QLatin1String(SettingsKey::PrimaryDevice));
        if (value.toBool() && !MDB_Devices::isHD(primary))
            return QStringLiteral("\"HD-SD\" needs an HD primary preset, and \"%1\" is not one")
                .arg(primary);
        return {};
    }
    if (key == QLatin1String(SettingsKey::ContentIDSource)) {
        bool ok = false;
        const qint64 n = value.toLongLong(&ok);
        if (!ok || n < 0 || n > 2)
            return QStringLiteral("\"ContentID Source\" must be 0 (the movie database id), 1 "
                                  "(the IMDb id) or 2 (none)");
        return {};
    }
    return {};
}

void PreferencesPanelController::primaryDeviceChanged(const QString& name) {
    UserDefaults::standard().setObject(name, SettingsKey::PrimaryDevice);
    applyPrimaryDevice(name);
}

void PreferencesPanelController::secondaryDeviceChanged(const QString& name) {
    UserDefaults::standard().setObject(name, SettingsKey::SecondaryDevice);
    m_secondaryUsage = presetText(name, "usage");
    m_secondaryResolution = presetText(name, "resolution");
}

void PreferencesPanelController::languageRegionChanged(const QString& iso639_1Code) {
    auto& d = UserDefaults::standard();
    QString region = d.stringForKey(SettingsKey::LanguageRegion);
    if (region.size() < 5)
        region = QStringLiteral("en-US");
    region.replace(0, 2, iso639_1Code.left(2));
    d.setObject(region, SettingsKey::LanguageRegion);
}

void PreferencesPanelController::countryChanged(const QString& countryCode) {
    auto& d = UserDefaults::standard();
    QString region = d.stringForKey(SettingsKey::LanguageRegion);
    if (region.size() < 5)
        region = QStringLiteral("en-US");
    region.replace(3, 2, countryCode.left(2));
    d.setObject(region, SettingsKey::LanguageRegion);
}

bool PreferencesPanelController::destinationPathChanged(const QString& folder) {
    const QByteArray bookmark = Bookmark::create(folder);
    if (bookmark.isEmpty())
        return false;
    UserDefaults::standard().setObject(bookmark, SettingsKey::DestinationPathBookmark);
    return true;
}

bool PreferencesPanelController::itunesPathChanged(const QString& folder) {
    const QByteArray bookmark = Bookmark::create(folder);
    if (bookmark.isEmpty())
        return false;
    auto& d = UserDefaults::standard();
    d.setObject(bookmark, SettingsKey::ITunesPathBookmark);
    d.setBool(true, SettingsKey::AddITunes);
    m_addToITunesEnabled = true;
    return true;
}

void PreferencesPanelController::onMetadataSegment(int segment) {
    static const char* const groups[] = {
        SettingsKey::TVMetadataList, SettingsKey::MusicMetadataList, SettingsKey::ExtraMetadataList,
        SettingsKey::MiscMetadataList};
    if (segment < 0 || segment > 3)
        return;
    auto& d = UserDefaults::standard();
    QVariantMap list = d.dictionaryForKey(SettingsKey::MetadataList);
    const QString group = QLatin1String(groups[segment]);
    list.insert(group, !list.value(group).toBool());
    d.setObject(list, SettingsKey::MetadataList);
}

void PreferencesPanelController::onReset(const QString& localeIdentifier) {
    const QVariantMap shipped =
        Resources::loadPropertyList(QStringLiteral("Defaults-Pro.plist")).toMap();
    auto& d = UserDefaults::standard();
    d.setObject(Startup::regionForLocale(localeIdentifier), SettingsKey::LanguageRegion);
    d.setObject(shipped.value(SettingsKey::PrimaryDevice), SettingsKey::PrimaryDevice);
    d.setObject(shipped.value(SettingsKey::SecondaryDevice), SettingsKey::SecondaryDevice);
    for (const char* key :
         {SettingsKey::HDSD, SettingsKey::OnlyNative, SettingsKey::GenreNative,
          SettingsKey::DefaultNative, SettingsKey::NoSubtitles, SettingsKey::TextSubtitles,
          SettingsKey::BurnForeign, SettingsKey::SkipTagging, SettingsKey::AdultSearch,
          SettingsKey::AddITunes, SettingsKey::Decomb, SettingsKey::Denoise,
          SettingsKey::Detelecine, SettingsKey::Deblock})
        d.setBool(shipped.value(key).toBool(), key);
    d.setInteger(shipped.value(SettingsKey::ContentIDSource).toLongLong(),
                 SettingsKey::ContentIDSource);
    for (const char* key :
         {SettingsKey::PassthruVideo, SettingsKey::AppendAudio, SettingsKey::NativeFramerate})
        d.setBool(shipped.value(key).toBool(), key);
    // Read under the real key, written under the lower-case one: a reset leaves
    // "Backdrop Art" itself alone.
    d.setBool(shipped.value(SettingsKey::BackdropArt).toBool(), SettingsKey::BackdropArtLower);
    d.setBool(shipped.value(SettingsKey::HideDVDInstructions).toBool(),
              SettingsKey::HideDVDInstructions);
    d.setBool(shipped.value(SettingsKey::HideBlurayInstructions).toBool(),
              SettingsKey::HideBlurayInstructions);
    d.synchronize();
    PopulatePanel();
}

bool PreferencesPanelController::onClose() const {
    return !UserDefaults::standard().dataForKey(SettingsKey::ITunesPathBookmark).isEmpty();
}
