#pragma once

// Every key of the user-defaults store, spelled exactly as stored.
namespace SettingsKey {
inline constexpr char PrimaryDevice[] = "Primary Device";
inline constexpr char SecondaryDevice[] = "Secondary Device";
inline constexpr char HDSD[] = "HD-SD";
inline constexpr char LanguageRegion[] = "Language Region";
inline constexpr char OnlyNative[] = "Only Native";
inline constexpr char GenreNative[] = "Genre Native";
inline constexpr char DefaultNative[] = "Default Native";
inline constexpr char NoSubtitles[] = "No Subtitles";
inline constexpr char TextSubtitles[] = "Text Subtitles";
inline constexpr char BurnForeign[] = "Burn Foreign";
inline constexpr char SkipTagging[] = "Skip Tagging";
inline constexpr char AdultSearch[] = "Adult Search";
inline constexpr char AddITunes[] = "Add iTunes";
inline constexpr char Decomb[] = "Decomb";
inline constexpr char Denoise[] = "Denoise";
inline constexpr char Detelecine[] = "Detelecine";
inline constexpr char Deblock[] = "Deblock";
inline constexpr char PassthruVideo[] = "Passthru Video";
inline constexpr char NativeFramerate[] = "Native Framerate";
inline constexpr char AppendAudio[] = "Append Audio";
inline constexpr char BackdropArt[] = "Backdrop Art";
// Written only by the reset action; nothing reads it.
inline constexpr char BackdropArtLower[] = "backdrop Art";
inline constexpr char ContentIDSource[] = "ContentID Source";
inline constexpr char MetadataList[] = "Metadata List";
inline constexpr char DefaultMetadataList[] = "Default Metadata List";
inline constexpr char GenreList[] = "Genre List";
inline constexpr char GenreMap[] = "Genre Map";
inline constexpr char DefaultGenreList[] = "Default Genre List";
inline constexpr char DefaultGenreMap[] = "Default Genre Map";
inline constexpr char TempDirectory[] = "Temp Directory";
inline constexpr char DestinationPathBookmark[] = "Destination Path Bookmark";
inline constexpr char ITunesPathBookmark[] = "iTunes Path Bookmark";
inline constexpr char Presets[] = "Presets";
inline constexpr char PresetsCurrent[] = "Presets Current";
inline constexpr char UpdatePresets[] = "Update Presets";
inline constexpr char HideInstructions[] = "Hide Instructions";
inline constexpr char HideDVDInstructions[] = "Hide DVD Instructions";
inline constexpr char HideBlurayInstructions[] = "Hide Bluray Instructions";
// Seconds a scan may take before it is stopped and its item fails.
inline constexpr char ScanTimeLimit[] = "Scan Time Limit";

// Segments of the "Metadata List" dictionary.
inline constexpr char TVMetadataList[] = "TV Metadata List";
inline constexpr char MusicMetadataList[] = "Music Metadata List";
inline constexpr char ExtraMetadataList[] = "Extra Metadata List";
inline constexpr char MiscMetadataList[] = "Misc Metadata List";
} // namespace SettingsKey
