#include "core/documents/document_format.hpp"

#include <array>

#include <fmt/format.h>

#include "core/json_fields.hpp"

namespace HALYX::Documents {

std::string formatName(uint32_t format)
{
    static constexpr std::array<const char*, 5> kNames{"HALYX_DOC_FORMAT_TEXT", "HALYX_DOC_FORMAT_JSON",
                                                       "HALYX_DOC_FORMAT_JSON_PRETTY", "HALYX_DOC_FORMAT_CSV",
                                                       "HALYX_DOC_FORMAT_CSV_WO_HEADER"};
    if (format >= kNames.size()) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "Unknown enum value to convert to text");
    }
    return kNames[format];
}

void requireJsonFormat(uint32_t format)
{
    if (format != HALYX_DOC_FORMAT_JSON && format != HALYX_DOC_FORMAT_JSON_PRETTY) {
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED, fmt::format("{} not supported yet.", formatName(format)));
    }
}

std::string dump(const nlohmann::json& document, uint32_t format)
{
    return format == HALYX_DOC_FORMAT_JSON_PRETTY ? HALYX::jsonText(document, 4) : HALYX::jsonText(document);
}

} // namespace HALYX::Documents
