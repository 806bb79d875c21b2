#include "LanguageNames.h"

#include "ScanRelay.h"

#include <algorithm>
#include <utility>

namespace {

// What each character's compatibility decomposition keeps of printable
// ASCII (parentheses aside), for the blocks the native names of
// HandBrakeCLI's language table draw their Latin letters from: "~" keeps
// nothing, "#" is one of kSeveral. Other characters keep nothing.
constexpr std::string_view kLatin =
    " ~~~~~~~ ~a~~~~ ~~23 ~~~ 1o~###~AAAAAA~CEEEEIIII~NOOOOO~~UUUUY~~" // U+00A0
    "aaaaaa~ceeeeiiii~nooooo~~uuuuy~yAaAaAaCcCcCcCcDd~~EeEeEeEeEeGgGg" // U+00E0
    "GgGgHh~~IiIiIiIiI~##JjKk~LlLlLlLl~~NnNnNnn~~OoOoOo~~RrRrRrSsSsSs" // U+0120
    "SsTtTt~~UuUuUuUuUuUuWwYyYZzZzZzs~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~" // U+0160
    "Oo~~~~~~~~~~~~~Uu~~~~~~~~~~~~~~~~~~~#########AaIiOoUuUuUuUuUu~Aa" // U+01A0
    "Aa~~~~GgKkOoOo~~j###Gg~~NnAa~~~~AaAaEeEeIiIiOoOoRrRrUuUuSsTt~~Hh" // U+01E0
    "~~~~~~AaEeOoOoOoOoYy~~~~~~~~~~~~~~~~~~~~~~~~~~~~";                // U+0220
constexpr std::string_view kLatinAdditional =
    "AaBbBbBbCcDdDdDdDdDdEeEeEeEeEeFfGgHhHhHhHhHhIiIiKkKkKkLlLlLlLlMm"  // U+1E00
    "MmMmNnNnNnNnOoOoOoOoPpPpRrRrRrRrSsSsSsSsSsTtTtTtTtUuUuUuUuUuVvVv"  // U+1E40
    "WwWwWwWwWwXxXxYyZzZzZzhtwyas~~~~AaAaAaAaAaAaAaAaAaAaAaAaEeEeEeEe"  // U+1E80
    "EeEeEeEeIiIiOoOoOoOoOoOoOoOoOoOoOoOoUuUuUuUuUuUuUuYyYyYyYy~~~~~~"; // U+1EC0
constexpr std::string_view kPunctuation =
    "           ~~~~~~~~~~~~ ~~~~~~~~~~~~.##~~~~~~~~ ~~~~~~~~~~~~#~ ~" // U+2000
    "~~~~~~~###~~~~~~~~~~~~~~~~~~~~~ ~~~~~~~~~~~~~~~~";                // U+2040

constexpr std::pair<char32_t, std::string_view> kSeveral[] = {
    {0x00BC, "14"},  {0x00BD, "12"}, {0x00BE, "34"}, {0x0132, "IJ"}, {0x0133, "ij"}, {0x01C4, "DZ"},
    {0x01C5, "Dz"},  {0x01C6, "dz"}, {0x01C7, "LJ"}, {0x01C8, "Lj"}, {0x01C9, "lj"}, {0x01CA, "NJ"},
    {0x01CB, "Nj"},  {0x01CC, "nj"}, {0x01F1, "DZ"}, {0x01F2, "Dz"}, {0x01F3, "dz"}, {0x2025, ".."},
    {0x2026, "..."}, {0x203C, "!!"}, {0x2047, "??"}, {0x2048, "?!"}, {0x2049, "!?"},
};

// English names of the ISO 639-2 codes HandBrakeCLI reports (both forms
// where a language has two), for names written in another script.
constexpr std::string_view kEnglishNames =
    "|aar:Afar|abk:Abkhazian|afr:Afrikaans|aka:Akan|alb:Albanian|amh:Amharic|arg:Aragonese"
    "|arm:Armenian|asm:Assamese|ava:Avaric|ave:Avestan|aym:Aymara|aze:Azerbaijani"
    "|bak:Bashkir|bam:Bambara|baq:Basque|bel:Belarusian|ben:Bangla|bod:Tibetan|bos:Bosnian"
    "|bre:Breton|bul:Bulgarian|bur:Burmese|cat:Catalan|ces:Czech|che:Chechen|chi:Chinese"
    "|chu:Church|chv:Chuvash|cor:Cornish|cos:Corsican|cre:Cree|cym:Welsh|cze:Czech"
    "|dan:Danish|deu:German|div:Divehi|dut:Dutch|dzo:Dzongkha|ell:Greek|eng:English"
    "|epo:Esperanto|eus:Basque|ewe:Ewe|fao:Faroese|fas:Persian|fij:Fijian|fin:Finnish"
    "|fra:French|fre:French|fry:Western Frisian|ful:Fulah|geo:Georgian|ger:German"
    "|glg:Galician|glv:Manx|gre:Greek|grn:Guarani|guj:Gujarati|hat:Haitian|hau:Hausa"
    "|heb:Hebrew|hin:Hindi|hmo:Hiri Motu|hrv:Croatian|hun:Hungarian|hye:Armenian|ibo:Igbo"
    "|ice:Icelandic|ido:Ido|iii:Sichuan Yi|iku:Inuktitut|ina:Interlingua|ind:Indonesian"
    "|ipk:Inupiaq|isl:Icelandic|ita:Italian|jav:Javanese|jpn:Japanese|kal:Kalaallisut"
    "|kas:Kashmiri|kat:Georgian|kau:Kanuri|kaz:Kazakh|khm:Khmer|kik:Kikuyu|kin:Kinyarwanda"
    "|kom:Komi|kon:Kongo|kor:Korean|kua:Kuanyama|kur:Kurdish|lao:Lao|lat:Latin|lav:Latvian"
    "|lim:Limburgish|lin:Lingala|lit:Lithuanian|ltz:Luxembourgish|lub:Luba Katanga"
    "|lug:Ganda|mac:Macedonian|mah:Marshallese|mao:Maori|mar:Marathi|may:Malay"
    "|mkd:Macedonian|mlg:Malagasy|mlt:Maltese|mri:Maori|msa:Malay|mya:Burmese|nau:Nauru"
    "|nbl:South Ndebele|nde:North Ndebele|ndo:Ndonga|nep:Nepali|nld:Dutch"
    "|nno:Norwegian Nynorsk|nob:Norwegian Bokmal|oci:Occitan|oji:Ojibwa|ori:Odia|orm:Oromo"
    "|oss:Ossetic|pan:Punjabi|per:Persian|pli:Pali|pol:Polish|por:Portuguese|roh:Romansh"
    "|ron:Romanian|rum:Romanian|run:Rundi|rus:Russian|sag:Sango|san:Sanskrit|slk:Slovak"
    "|slo:Slovak|slv:Slovenian|sme:Northern Sami|smo:Samoan|sna:Shona|snd:Sindhi|som:Somali"
    "|sot:Southern Sotho|spa:Spanish|sqi:Albanian|srd:Sardinian|srp:Serbian|ssw:Swati"
    "|sun:Sundanese|swa:Swahili|swe:Swedish|tah:Tahitian|tam:Tamil|tat:Tatar|tel:Telugu"
    "|tgk:Tajik|tha:Thai|tib:Tibetan|tir:Tigrinya|tsn:Tswana|tso:Tsonga|tuk:Turkmen"
    "|tur:Turkish|uig:Uyghur|ukr:Ukrainian|urd:Urdu|uzb:Uzbek|ven:Venda|vie:Vietnamese"
    "|vol:Volapuk|wel:Welsh|wln:Walloon|wol:Wolof|xho:Xhosa|yid:Yiddish|yor:Yoruba"
    "|zha:Zhuang|zho:Chinese|zul:Zulu|";

std::string_view englishName(std::string_view code) {
    const std::string key = "|" + std::string(code) + ":";
    const std::size_t at = kEnglishNames.find(key);
    if (at == std::string_view::npos)
        return "Unknown";
    const std::size_t from = at + key.size();
    return kEnglishNames.substr(from, kEnglishNames.find('|', from) - from);
}

std::string_view foldChar(char32_t c) {
    const auto lookup = [c](std::string_view table, char32_t first) -> std::string_view {
        const char32_t offset = c - first;
        if (c < first || offset >= table.size() || table[offset] == '~')
            return {};
        if (table[offset] != '#')
            return table.substr(offset, 1);
        for (const auto& [from, to] : kSeveral) {
            if (from == c)
                return to;
        }
        return {};
    };
    if (c < 0x80) {
        static constexpr char kAscii[] =
            " !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ"
            "[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~";
        if (c < 0x20 || c == 0x7F || c == '(' || c == ')')
            return {};
        return std::string_view(kAscii + (c - 0x20), 1);
    }
    for (const auto& [table, first] :
         {std::pair{kLatin, char32_t(0xA0)}, std::pair{kLatinAdditional, char32_t(0x1E00)},
          std::pair{kPunctuation, char32_t(0x2000)}}) {
        const std::string_view kept = lookup(table, first);
        if (!kept.empty())
            return kept;
    }
    return {};
}

// The ASCII that the characters of well-formed UTF-8 `text` decompose to.
std::string fold(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const int length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        char32_t c = length == 1 ? lead : lead & (0x7F >> length);
        for (int k = 1; k < length && i + std::size_t(k) < text.size(); ++k)
            c = (c << 6) | (static_cast<unsigned char>(text[i + std::size_t(k)]) & 0x3F);
        out += foldChar(c);
        i += std::size_t(length);
    }
    return out;
}

// Trimmed, with each run of blanks made one.
std::string simplified(std::string_view text) {
    std::string out;
    for (char c : text) {
        if (c == ' ' && (out.empty() || out.back() == ' '))
            continue;
        out += c;
    }
    if (!out.empty() && out.back() == ' ')
        out.pop_back();
    return out;
}

} // namespace

std::string reportLanguageName(std::string_view language, std::string_view isoCode) {
    // Attributes follow the language: "English (Wide Screen) [VOBSUB]".
    for (std::string_view tail : {" [", " ("}) {
        const std::size_t at = language.find(tail);
        if (at != std::string_view::npos && at > 0)
            language = language.substr(0, at);
    }
    std::string plain = simplified(fold(language));
    if (std::none_of(plain.begin(), plain.end(),
                     [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }))
        plain = englishName(isoCode);
    if (plain[0] >= 'a' && plain[0] <= 'z')
        plain[0] = char(plain[0] - 'a' + 'A');
    return asciiOnly(plain);
}
