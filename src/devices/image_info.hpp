#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace HALYX {

// One firmware image found on a device (halyx_image_info_t's owned form).
struct ImageInfo {
    uint32_t imageType = 0;
    uint32_t imageLocation = 0;
    uint32_t address = 0;
    uint32_t size = 0;
    uint32_t bootloaderType = 0;
    std::optional<std::string> version;
};

} // namespace HALYX
