#include "LanguageNames.h"

#include "ScanRelay.h"

#include <plist/plist.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <iconv.h>
#include <locale.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// Where the installed layout puts the resources, relative to this program's
// folder; the build passes the configured install folders.
#ifndef TARNWICK_RELAY_DATADIR
#define TARNWICK_RELAY_DATADIR "../../share/tarnwick"
#endif

namespace {

// glibc's transliteration to ASCII. Its tables belong to the LC_CTYPE of
// the calling thread, and the C locale a program starts in spells hardly
// any letter, so conversions run under C.UTF-8.
class Transliteration {
public:
    Transliteration()
        : m_utf8(::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0))),
          m_cd(::iconv_open("ASCII//TRANSLIT", "UTF-8")) {}
    Transliteration(const Transliteration&) = delete;
    Transliteration& operator=(const Transliteration&) = delete;
    ~Transliteration() {
        if (m_cd != iconv_t(-1))
            ::iconv_close(m_cd);
        if (m_utf8)
            ::freelocale(m_utf8);
    }

    // The ASCII spelling of one character (empty for a combining accent);
    // nothing when it has none.
    std::optional<std::string> spell(std::string_view character) {
        if (m_cd == iconv_t(-1) || !m_utf8)
            return std::nullopt;
        const locale_t previous = ::uselocale(m_utf8);
        char out[32];
        char* in = const_cast<char*>(character.data());
        std::size_t inLeft = character.size();
        char* to = out;
        std::size_t outLeft = sizeof out;
        ::iconv(m_cd, nullptr, nullptr, nullptr, nullptr);
        const bool done = ::iconv(m_cd, &in, &inLeft, &to, &outLeft) != std::size_t(-1);
        ::uselocale(previous);
        std::string spelt(out, std::size_t(to - out));
        // A character glibc cannot spell comes out as "?".
        if (!done || spelt == "?")
            return std::nullopt;
        return spelt;
    }

private:
    locale_t m_utf8;
    iconv_t m_cd;
};

bool keptAscii(char c) {
    return c >= 0x20 && c < 0x7F && c != '(' && c != ')';
}

// Well-formed UTF-8 `text` in ASCII letters: accents dropped, ligatures
// spelled out, parentheses left out. Nothing when a character has no
// spelling: a name partly in another script reads better as its code's.
std::optional<std::string> fold(std::string_view text) {
    static Transliteration transliteration;
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        const std::string_view character = text.substr(i, length);
        i += length;
        const std::optional<std::string> spelt =
            length == 1 ? std::string(character) : transliteration.spell(character);
        if (!spelt)
            return std::nullopt;
        std::copy_if(spelt->begin(), spelt->end(), std::back_inserter(out), keptAscii);
    }
    return out;
}

std::string ownDirectory() {
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return ".";
    const std::string exe(buf, std::size_t(n));
    return exe.substr(0, exe.rfind('/'));
}

bool isFile(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The project's language table: in the folder TARNWICK_RESOURCES names, the
// installed resources or the build tree's.
std::string languageTablePath() {
    constexpr const char* kName = "/ISO-639.plist";
    std::vector<std::string> candidates;
    if (const char* env = std::getenv("TARNWICK_RESOURCES"); env && *env)
        candidates.push_back(env + std::string(kName));
    const std::string own = ownDirectory();
    candidates.push_back(own + "/" TARNWICK_RELAY_DATADIR + kName);
    candidates.push_back(own + "/../share/tarnwick" + kName);
    for (const std::string& path : candidates) {
        if (isFile(path))
            return path;
    }
    return {};
}

std::string readFile(const std::string& path) {
    std::string bytes;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return bytes;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0)
            bytes.append(buf, std::size_t(n));
        else if (n == 0 || errno != EINTR)
            break;
    }
    ::close(fd);
    return bytes;
}

// English name of an ISO 639-2 code (either form), from the table the core
// uses too; read only when a track's own name is in another script.
std::string englishName(std::string_view code) {
    static plist_t table = [] {
        const std::string bytes = readFile(languageTablePath());
        plist_t root = nullptr;
        if (!bytes.empty())
            plist_from_memory(bytes.data(), uint32_t(bytes.size()), &root);
        return root;
    }();
    const plist_t names = table ? plist_dict_get_item(table, "ISO-639-2") : nullptr;
    const plist_t name = names ? plist_dict_get_item(names, std::string(code).c_str()) : nullptr;
    if (!name || plist_get_node_type(name) != PLIST_STRING)
        return {};
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(name, &length);
    return text ? std::string(text, std::size_t(length)) : std::string();
}

bool hasLetter(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); });
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

// Up to the attributes that follow a language: "English (Wide Screen) [VOBSUB]".
std::string_view withoutAttributes(std::string_view language) {
    for (std::string_view tail : {" [", " ("}) {
        const std::size_t at = language.find(tail);
        if (at != std::string_view::npos && at > 0)
            language = language.substr(0, at);
    }
    return language;
}

} // namespace

std::string reportLanguageName(std::string_view language, std::string_view isoCode) {
    std::string plain = simplified(fold(withoutAttributes(language)).value_or(""));
    // "Undetermined" is the table's word for no language at all.
    if (!hasLetter(plain) && isoCode != "und")
        plain = simplified(fold(withoutAttributes(englishName(isoCode))).value_or(""));
    if (!hasLetter(plain))
        plain = "Unknown";
    if (plain[0] >= 'a' && plain[0] <= 'z')
        plain[0] = char(plain[0] - 'a' + 'A');
    return asciiOnly(plain);
}
