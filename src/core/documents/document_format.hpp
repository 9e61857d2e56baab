#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "core/halyx_exception.hpp"

namespace HALYX::Documents {

// "HALYX_DOC_FORMAT_TEXT" and so on; throws 50 "Unknown enum value to convert
// to text" for a value outside the enumeration.
std::string formatName(uint32_t format);

// Throws 19 "{name} not supported yet." unless the format is JSON or JSON_PRETTY.
void requireJsonFormat(uint32_t format);

// Compact for JSON, four-space indentation for JSON_PRETTY.
std::string dump(const nlohmann::json& document, uint32_t format);

// Runs a renderer: a failure of the JSON library becomes code 50 with its message.
template <typename Render>
std::string guardJson(Render&& render)
{
    try {
        return render();
    } catch (const nlohmann::json::exception& e) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, e.what());
    }
}

// The array a caller-built record points to with its count; a count without
// an array is refused with 50, never read.
template <typename T>
std::span<const T> itemsOf(const T* items, size_t count, std::string_view what)
{
    if (count > 0 && items == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, fmt::format("{} has {} entries but no array", what, count));
    }
    return {items, items != nullptr ? count : 0};
}

// A JSON document of a record the caller handed in: a null record is refused
// with 50 and `missing`, a format other than JSON with 19.
template <typename Record, typename ToJson>
std::string renderRecord(const Record* record, const char* missing, uint32_t format, ToJson&& to_json)
{
    if (record == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, missing);
    }
    requireJsonFormat(format);
    return guardJson([&] { return dump(to_json(*record), format); });
}

} // namespace HALYX::Documents
