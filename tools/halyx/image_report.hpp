#pragma once

#include <cstdint>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "halyx.h"

namespace halyx_tool {

// The kind of a firmware file, by its extension (.hex/.ihex, .elf/.axf/.out,
// .bin, .zip) or, for other names, by its first bytes. Throws
// std::runtime_error when neither tells.
halyx_fw_format_t firmwareFormat(const std::filesystem::path& path);

// What "halyx image info --json" prints for a file; a ".bin" file is placed
// at binaryAddress. Throws the library's exceptions for a file it refuses.
nlohmann::ordered_json describeImageFile(const std::filesystem::path& path, uint32_t binaryAddress);

} // namespace halyx_tool
