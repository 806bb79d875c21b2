#include "JsonView.h"

#include <climits>
#include <cmath>

namespace {

const nlohmann::json kNull;
const std::string kNoString;
const nlohmann::json::array_t kNoArray;

// The parser keeps its own stack, but a bound still turns a hostile
// document into a malformed one rather than a large allocation.
constexpr int kMaxDepth = 1024;

} // namespace

int JsonView::toInt() const {
    if (m_value->is_number_unsigned()) {
        const auto v = m_value->get<std::uint64_t>();
        return v <= std::uint64_t(INT_MAX) ? int(v) : 0;
    }
    if (m_value->is_number_integer()) {
        const auto v = m_value->get<std::int64_t>();
        return v >= INT_MIN && v <= INT_MAX ? int(v) : 0;
    }
    // A number written as 3.0 or 1e3 still counts when it is whole.
    if (m_value->is_number_float()) {
        const double v = m_value->get<double>();
        if (v >= INT_MIN && v <= INT_MAX && std::trunc(v) == v)
            return int(v);
    }
    return 0;
}

const std::string& JsonView::toString() const {
    return m_value->is_string() ? m_value->get_ref<const std::string&>() : kNoString;
}

const nlohmann::json::array_t& JsonView::toArray() const {
    return m_value->is_array() ? m_value->get_ref<const nlohmann::json::array_t&>() : kNoArray;
}

JsonView JsonView::operator[](std::string_view key) const {
    if (!m_value->is_object())
        return kNull;
    const auto it = m_value->find(key);
    return it != m_value->end() ? JsonView(*it) : JsonView(kNull);
}

bool JsonView::contains(std::string_view key) const {
    return m_value->is_object() && m_value->contains(key);
}

std::optional<nlohmann::json> parseJson(std::string_view text) {
    bool tooDeep = false;
    const auto depthCheck = [&tooDeep](int depth, nlohmann::json::parse_event_t event,
                                       nlohmann::json&) {
        if ((event == nlohmann::json::parse_event_t::object_start ||
             event == nlohmann::json::parse_event_t::array_start) &&
            depth >= kMaxDepth)
            tooDeep = true;
        return true;
    };
    // Not throwing: a malformed block is an expected outcome, not an error.
    nlohmann::json value = nlohmann::json::parse(text, depthCheck, false);
    if (value.is_discarded() || tooDeep)
        return std::nullopt;
    return value;
}
