#include "devices/known_kits.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace HALYX::KnownKits {

bool namesMcuboot(std::string_view product)
{
    const auto match = std::search(
        product.begin(), product.end(), kMcubootProductMarker.begin(), kMcubootProductMarker.end(), [](char a, char b) {
            return std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
        });
    return match != product.end();
}

bool isBrokenFirmwarePath(std::string_view os_device_path)
{
    return os_device_path.starts_with(kBrokenFirmwarePathPrefix);
}

std::optional<uint16_t> parseUsbId(std::string_view text)
{
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
    }
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end != text.data() + text.size() || text.empty() || value > 0xFFFF) {
        return std::nullopt;
    }
    return static_cast<uint16_t>(value);
}

} // namespace HALYX::KnownKits
