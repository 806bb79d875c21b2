#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

// Read-only access to HandBrakeCLI's JSON that never fails: a field that is
// absent or of the wrong kind gives an empty or zero value, so a title set
// with one field of an unexpected type still reads as far as it can.
class JsonView {
public:
    JsonView(const nlohmann::json& value) : m_value(&value) {}

    // True only for a JSON true.
    bool toBool() const { return m_value->is_boolean() && m_value->get<bool>(); }
    // A number that is a whole value within int's range; 0 otherwise.
    int toInt() const;
    // Any number; 0 for other kinds.
    double toDouble() const { return m_value->is_number() ? m_value->get<double>() : 0.0; }
    const std::string& toString() const;
    const nlohmann::json::array_t& toArray() const;

    // An object's member; null when absent or when this is not an object.
    JsonView operator[](std::string_view key) const;
    bool contains(std::string_view key) const;

private:
    const nlohmann::json* m_value;
};

// The document in `text`, or nothing when it is not well-formed JSON
// (trailing garbage, invalid UTF-8 or a lone surrogate escape included) or
// nests deeper than any title set does.
std::optional<nlohmann::json> parseJson(std::string_view text);
