#include "core/log_levels.hpp"

#include <array>
#include <utility>

namespace HALYX {
namespace {

constexpr std::array<std::pair<uint32_t, spdlog::level::level_enum>, 7> kLevels{{
    {0, spdlog::level::trace},
    {1, spdlog::level::debug},
    {2, spdlog::level::info},
    {3, spdlog::level::warn},
    {4, spdlog::level::err},
    {5, spdlog::level::critical},
    {6, spdlog::level::off},
}};

} // namespace

std::optional<spdlog::level::level_enum> toSpdlogLevel(uint32_t level) noexcept
{
    for (const auto& [ours, theirs] : kLevels) {
        if (ours == level) {
            return theirs;
        }
    }
    return std::nullopt;
}

std::optional<uint32_t> fromSpdlogLevel(spdlog::level::level_enum level) noexcept
{
    for (const auto& [ours, theirs] : kLevels) {
        if (theirs == level) {
            return ours;
        }
    }
    return std::nullopt;
}

} // namespace HALYX
