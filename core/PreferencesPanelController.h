#pragma once

#include <QLocale>
#include <QString>
#include <QVariant>

// The preferences panel without its widgets: every action writes its settings
// key at once; the enabled and visible states the panel shows are exposed as
// read-only state for a front end to bind to.
class PreferencesPanelController {
public:
    inline static constexpr char kDestinationMissingText[] =
        "You must set your Destination Path before you can process any movies";

    // Whether `value` may be stored under `key` as things stand: a known
    // preset for the device keys, a known language region, "HD-SD" only with
    // an HD primary preset, "ContentID Source" 0 to 2. Answers the reason in
    // one sentence, or an empty string when the value is acceptable.
    static QString validateSetting(const QString& key, const QVariant& value);

    // Loads the state from the store; a stale iTunes bookmark turns "Add iTunes" off.
    void PopulatePanel();

    void primaryDeviceChanged(const QString& name);
    void secondaryDeviceChanged(const QString& name);
    // Replaces the language part (characters 0-1) of "Language Region".
    void languageRegionChanged(const QString& iso639_1Code);
    // Replaces the country part (characters 3-4) of "Language Region".
    void countryChanged(const QString& countryCode);
    // Stores a bookmark of the folder; false when it is not a folder.
    bool destinationPathChanged(const QString& folder);
    // As above for the iTunes folder; a stored bookmark also turns "Add iTunes" on.
    bool itunesPathChanged(const QString& folder);
    // Inverts the group flag of a metadata segment (0 TV, 1 Music, 2 Extra, 3 Misc).
    void onMetadataSegment(int segment);
    // Copies the shipped values back (see the settings reset rules).
    void onReset(const QString& localeIdentifier = QLocale::system().name());
    // The panel may close only once an iTunes bookmark is stored; otherwise the
    // front end shows kDestinationMissingText.
    bool onClose() const;

    bool hdsdEnabled() const { return m_hdsdEnabled; }
    bool secondaryVisible() const { return m_secondaryVisible; }
    bool addToITunesEnabled() const { return m_addToITunesEnabled; }
    QString primaryUsage() const { return m_primaryUsage; }
    QString primaryResolution() const { return m_primaryResolution; }
    QString secondaryUsage() const { return m_secondaryUsage; }
    QString secondaryResolution() const { return m_secondaryResolution; }

private:
    void applyPrimaryDevice(const QString& name);

    bool m_hdsdEnabled = true;
    bool m_secondaryVisible = true;
    bool m_addToITunesEnabled = true;
    QString m_primaryUsage, m_primaryResolution, m_secondaryUsage, m_secondaryResolution;
};
