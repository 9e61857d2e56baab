#include "image/firmware_format.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "image/binary_image.hpp"

namespace HALYX {
namespace {

constexpr std::array<std::pair<std::string_view, halyx_fw_format_t>, 7> kExtensions = {{
    {".hex", HALYX_FW_FORMAT_INTEL_HEX},
    {".ihex", HALYX_FW_FORMAT_INTEL_HEX},
    {".elf", HALYX_FW_FORMAT_ELF},
    {".axf", HALYX_FW_FORMAT_ELF},
    {".out", HALYX_FW_FORMAT_ELF},
    {".bin", HALYX_FW_FORMAT_BINARY},
    {".zip", HALYX_FW_FORMAT_ZIP},
}};

bool startsWith(std::span<const uint8_t> bytes, std::string_view prefix)
{
    return bytes.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes.begin(),
                                                       [](char p, uint8_t b) { return static_cast<uint8_t>(p) == b; });
}

std::optional<halyx_fw_format_t> recognise(std::string_view name, std::span<const uint8_t> head)
{
    std::string lower(name);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const auto& [extension, format] : kExtensions) {
        if (lower.ends_with(extension)) {
            return format;
        }
    }
    if (startsWith(head, ":") || startsWith(head, "\xEF\xBB\xBF:")) {
        return HALYX_FW_FORMAT_INTEL_HEX;
    }
    if (startsWith(head, "\x7f"
                         "ELF")) {
        return HALYX_FW_FORMAT_ELF;
    }
    if (startsWith(head, "PK\x03\x04")) {
        return HALYX_FW_FORMAT_ZIP;
    }
    return std::nullopt;
}

} // namespace

halyx_fw_format_t firmwareFormat(std::string_view name, std::span<const uint8_t> head)
{
    if (const auto format = recognise(name, head)) {
        return *format;
    }
    throw HALYXException(
        HALYX_ERR_INVALID_ARGUMENT,
        fmt::format("Cannot tell the format of {}: its name does not end in .hex, .ihex, .elf, .axf, .out, .bin "
                    "or .zip, and it does not start like an Intel HEX, ELF or zip file. Name a raw binary image .bin.",
                    name));
}

halyx_fw_format_t firmwareFileFormat(const std::filesystem::path& path)
{
    auto input = BinaryImage::openFile(path);
    std::array<uint8_t, kFormatHeadSize> head{};
    input.read(reinterpret_cast<char*>(head.data()), head.size());
    return firmwareFormat(path.string(), std::span(head).first(static_cast<size_t>(input.gcount())));
}

halyx_fw_format_t packageEntryFormat(std::string_view name, std::span<const uint8_t> bytes)
{
    const auto format = recognise(name, bytes).value_or(HALYX_FW_FORMAT_BINARY);
    if (format == HALYX_FW_FORMAT_ZIP) {
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED,
                             fmt::format("{} is a zip package inside a package; a package's manifest lists HEX, ELF "
                                         "or binary images.",
                                         name));
    }
    return format;
}

} // namespace HALYX
