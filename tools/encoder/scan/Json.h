#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A small, strict JSON reader for what HandBrakeCLI prints: its title set
// and its progress blocks. Strings are kept as UTF-8. Accessors of the wrong
// kind give an empty or zero value rather than failing, so a title set with
// a field of an unexpected type still reads as far as it can.
namespace json {

class Value {
public:
    enum class Kind { Null, Bool, Number, String, Array, Object };
    using Member = std::pair<std::string, Value>;

    Value() = default;

    Kind kind() const { return m_kind; }
    bool isObject() const { return m_kind == Kind::Object; }

    // True only for a JSON true.
    bool toBool() const;
    // A number that is a whole value within int's range; 0 otherwise.
    int toInt() const;
    // Any number; 0 for other kinds.
    double toDouble() const;
    const std::string& toString() const;
    const std::vector<Value>& toArray() const;

    // An object's member (the last of equal keys); null when absent.
    const Value& operator[](std::string_view key) const;
    bool contains(std::string_view key) const;

private:
    friend class Parser;

    Kind m_kind = Kind::Null;
    bool m_bool = false;
    bool m_integral = false; // written without fraction or exponent, fits 64 bits
    std::int64_t m_integer = 0;
    double m_number = 0;
    std::string m_string;
    std::vector<Value> m_array;
    std::vector<Member> m_object;
};

// The document in `text`, or nothing when it is not well-formed JSON
// (trailing garbage, invalid UTF-8 or a lone surrogate escape included).
std::optional<Value> parse(std::string_view text);

} // namespace json
