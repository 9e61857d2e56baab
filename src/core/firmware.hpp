#pragma once

#include <cstdint>
#include <string>

#include "halyx.h"

// A firmware image handed in by the application: either a file path or the
// image bytes, with the format the application says it is. Lives
// independently of any context.
struct halyx_firmware {
    uint32_t source_kind = HALYX_FW_SOURCE_FILE;
    uint32_t format = HALYX_FW_FORMAT_INTEL_HEX;
    std::string data; // the path (no terminator) or the image bytes

    bool isFile() const { return source_kind == HALYX_FW_SOURCE_FILE; }
};

namespace HALYX {

// Validates the arguments of halyx_fw_create_handle and builds the handle.
// Throws HALYXException 50 for a bad argument or a file that cannot be read.
halyx_firmware* createFirmware(const uint8_t* data, size_t size, uint32_t source_kind, uint32_t format);

} // namespace HALYX
