#include "Json.h"

#include <charconv>
#include <climits>
#include <cmath>

namespace json {

namespace {

const Value kNull;
const std::string kNoString;
const std::vector<Value> kNoArray;

// Deep enough for any title set; a bound keeps a hostile document from
// exhausting the stack.
constexpr int kMaxDepth = 1024;

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | (c >> 6));
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | (c >> 12));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else {
        out += char(0xF0 | (c >> 18));
        out += char(0x80 | ((c >> 12) & 0x3F));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    }
}

} // namespace

class Parser {
public:
    explicit Parser(std::string_view text) : m_text(text) {}

    std::optional<Value> document() {
        Value v;
        skipSpace();
        if (!value(v, 0))
            return std::nullopt;
        skipSpace();
        if (m_pos != m_text.size())
            return std::nullopt;
        return v;
    }

private:
    bool atEnd() const { return m_pos >= m_text.size(); }
    char peek() const { return atEnd() ? '\0' : m_text[m_pos]; }

    void skipSpace() {
        while (!atEnd()) {
            const char c = m_text[m_pos];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r')
                return;
            ++m_pos;
        }
    }

    bool literal(std::string_view word) {
        if (m_text.substr(m_pos, word.size()) != word)
            return false;
        m_pos += word.size();
        return true;
    }

    bool value(Value& v, int depth) {
        switch (peek()) {
        case '{':
            return object(v, depth + 1);
        case '[':
            return array(v, depth + 1);
        case '"':
            v.m_kind = Value::Kind::String;
            return string(v.m_string);
        case 't':
            v.m_kind = Value::Kind::Bool;
            v.m_bool = true;
            return literal("true");
        case 'f':
            v.m_kind = Value::Kind::Bool;
            return literal("false");
        case 'n':
            return literal("null");
        default:
            return number(v);
        }
    }

    bool object(Value& v, int depth) {
        if (depth > kMaxDepth)
            return false;
        v.m_kind = Value::Kind::Object;
        ++m_pos;
        skipSpace();
        if (peek() == '}') {
            ++m_pos;
            return true;
        }
        for (;;) {
            Value::Member member;
            if (peek() != '"' || !string(member.first))
                return false;
            skipSpace();
            if (peek() != ':')
                return false;
            ++m_pos;
            skipSpace();
            if (!value(member.second, depth))
                return false;
            v.m_object.push_back(std::move(member));
            skipSpace();
            if (peek() == ',') {
                ++m_pos;
                skipSpace();
            } else if (peek() == '}') {
                ++m_pos;
                return true;
            } else {
                return false;
            }
        }
    }

    bool array(Value& v, int depth) {
        if (depth > kMaxDepth)
            return false;
        v.m_kind = Value::Kind::Array;
        ++m_pos;
        skipSpace();
        if (peek() == ']') {
            ++m_pos;
            return true;
        }
        for (;;) {
            v.m_array.emplace_back();
            if (!value(v.m_array.back(), depth))
                return false;
            skipSpace();
            if (peek() == ',') {
                ++m_pos;
                skipSpace();
            } else if (peek() == ']') {
                ++m_pos;
                return true;
            } else {
                return false;
            }
        }
    }

    bool number(Value& v) {
        const std::size_t start = m_pos;
        auto digits = [&] {
            const std::size_t from = m_pos;
            while (!atEnd() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9')
                ++m_pos;
            return m_pos - from;
        };
        if (peek() == '-')
            ++m_pos;
        if (peek() == '0')
            ++m_pos;
        else if (digits() == 0)
            return false;
        bool integral = true;
        if (peek() == '.') {
            ++m_pos;
            integral = false;
            if (digits() == 0)
                return false;
        }
        if (peek() == 'e' || peek() == 'E') {
            ++m_pos;
            integral = false;
            if (peek() == '+' || peek() == '-')
                ++m_pos;
            if (digits() == 0)
                return false;
        }
        const char* first = m_text.data() + start;
        const char* last = m_text.data() + m_pos;
        v.m_kind = Value::Kind::Number;
        // Out of range of a double counts as malformed, like any other
        // number we could not represent.
        const auto parsed = std::from_chars(first, last, v.m_number);
        if (parsed.ec != std::errc() || parsed.ptr != last)
            return false;
        if (integral) {
            const auto whole = std::from_chars(first, last, v.m_integer);
            v.m_integral = whole.ec == std::errc() && whole.ptr == last;
        }
        return true;
    }

    bool hex4(char32_t& out) {
        if (m_pos + 4 > m_text.size())
            return false;
        out = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = m_text[m_pos++];
            out <<= 4;
            if (c >= '0' && c <= '9')
                out |= char32_t(c - '0');
            else if (c >= 'a' && c <= 'f')
                out |= char32_t(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                out |= char32_t(c - 'A' + 10);
            else
                return false;
        }
        return true;
    }

    bool escape(std::string& out) {
        const char c = peek();
        ++m_pos;
        switch (c) {
        case '"':
        case '\\':
        case '/':
            out += c;
            return true;
        case 'b':
            out += '\b';
            return true;
        case 'f':
            out += '\f';
            return true;
        case 'n':
            out += '\n';
            return true;
        case 'r':
            out += '\r';
            return true;
        case 't':
            out += '\t';
            return true;
        case 'u':
            break;
        default:
            return false;
        }
        char32_t unit = 0;
        if (!hex4(unit))
            return false;
        if (unit >= 0xDC00 && unit <= 0xDFFF)
            return false;
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            char32_t low = 0;
            if (!literal("\\u") || !hex4(low) || low < 0xDC00 || low > 0xDFFF)
                return false;
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        }
        appendUtf8(out, unit);
        return true;
    }

    // One UTF-8 sequence, copied when it is well-formed (no overlong forms,
    // surrogates or values past U+10FFFF).
    bool utf8(std::string& out) {
        const auto lead = static_cast<unsigned char>(m_text[m_pos]);
        int length = 0;
        char32_t min = 0, c = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2, min = 0x80, c = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3, min = 0x800, c = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4, min = 0x10000, c = lead & 0x07;
        } else {
            return false;
        }
        if (m_pos + std::size_t(length) > m_text.size())
            return false;
        for (int i = 1; i < length; ++i) {
            const auto next = static_cast<unsigned char>(m_text[m_pos + std::size_t(i)]);
            if ((next & 0xC0) != 0x80)
                return false;
            c = (c << 6) | (next & 0x3F);
        }
        if (c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            return false;
        out.append(m_text.substr(m_pos, std::size_t(length)));
        m_pos += std::size_t(length);
        return true;
    }

    bool string(std::string& out) {
        ++m_pos; // the opening quote
        for (;;) {
            if (atEnd())
                return false;
            const auto c = static_cast<unsigned char>(m_text[m_pos]);
            if (c == '"') {
                ++m_pos;
                return true;
            }
            if (c < 0x20) {
                return false;
            } else if (c == '\\') {
                ++m_pos;
                if (!escape(out))
                    return false;
            } else if (c < 0x80) {
                out += char(c);
                ++m_pos;
            } else if (!utf8(out)) {
                return false;
            }
        }
    }

    std::string_view m_text;
    std::size_t m_pos = 0;
};

bool Value::toBool() const {
    return m_kind == Kind::Bool && m_bool;
}

int Value::toInt() const {
    if (m_kind != Kind::Number)
        return 0;
    if (m_integral)
        return m_integer >= INT_MIN && m_integer <= INT_MAX ? int(m_integer) : 0;
    // A number written as 3.0 or 1e3 still counts when it is whole.
    if (m_number >= INT_MIN && m_number <= INT_MAX && std::trunc(m_number) == m_number)
        return int(m_number);
    return 0;
}

double Value::toDouble() const {
    if (m_kind != Kind::Number)
        return 0;
    return m_integral ? double(m_integer) : m_number;
}

const std::string& Value::toString() const {
    return m_kind == Kind::String ? m_string : kNoString;
}

const std::vector<Value>& Value::toArray() const {
    return m_kind == Kind::Array ? m_array : kNoArray;
}

const Value& Value::operator[](std::string_view key) const {
    if (m_kind != Kind::Object)
        return kNull;
    for (auto it = m_object.rbegin(); it != m_object.rend(); ++it) {
        if (it->first == key)
            return it->second;
    }
    return kNull;
}

bool Value::contains(std::string_view key) const {
    return &(*this)[key] != &kNull;
}

std::optional<Value> parse(std::string_view text) {
    return Parser(text).document();
}

} // namespace json
