#pragma once

#include <cstdint>
#include <optional>

#include <spdlog/common.h>

namespace HALYX {

// The library's log levels 0..6 are spdlog's level numbers; anything else is
// "not found" and reads as off.
std::optional<spdlog::level::level_enum> toSpdlogLevel(uint32_t level) noexcept;
std::optional<uint32_t> fromSpdlogLevel(spdlog::level::level_enum level) noexcept;

} // namespace HALYX
