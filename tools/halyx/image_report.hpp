#pragma once

#include <cstdint>
#include <filesystem>

#include <nlohmann/json.hpp>

namespace halyx_tool {

// What "halyx image info --json" prints for a file; a ".bin" file is placed
// at binaryAddress. Throws the library's exceptions for a file it refuses.
nlohmann::ordered_json describeImageFile(const std::filesystem::path& path, uint32_t binaryAddress);

} // namespace halyx_tool
