#pragma once

#include <cstdint>
#include <string>

namespace halyx_tool {

// "halyx image info" and "halyx image convert": files only, no context; a raw
// binary is placed at base. Return the exit status: 0, or 1 for a file that
// was refused (its message on stderr, nothing written).
int imageInfo(const std::string& path, bool json, uint32_t base);
int imageConvert(const std::string& in, const std::string& out, uint32_t base);

} // namespace halyx_tool
