#pragma once

#include <string>
#include <string_view>

// The language name of an audio or subtitle track, as the report writes it:
// HandBrakeCLI's own (native) name spelled in ASCII letters by glibc's
// transliteration, or, for a name wholly or partly in another script, the
// English name of its ISO 639-2 code from the resources' ISO-639.plist;
// "Unknown" when neither gives one. No parentheses (they delimit the codec in the
// report), capitalised like the rest of the report's names.
//
// `language` is HandBrakeCLI's "Language" field, UTF-8; `isoCode` the
// lower-case three-letter code the report gives beside it.
std::string reportLanguageName(std::string_view language, std::string_view isoCode);
