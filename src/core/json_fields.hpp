#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

// How optional texts are written to and read from JSON records.
namespace HALYX {

// The text, or null when absent.
inline nlohmann::json stringOrNull(const std::optional<std::string>& value)
{
    return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
}

// Writes the key only when the value is known.
inline void putIfKnown(nlohmann::json& object, const char* key, const std::optional<std::string>& value)
{
    if (value) {
        object[key] = *value;
    }
}

// The key's text; absent when missing or not a text.
inline std::optional<std::string> optionalString(const nlohmann::json& object, const char* key)
{
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

// The text of a JSON value. Texts a device or a caller gave need not be
// UTF-8; their bad bytes become U+FFFD instead of making the dump throw.
template <typename Json>
std::string jsonText(const Json& value, int indent = -1)
{
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

} // namespace HALYX
