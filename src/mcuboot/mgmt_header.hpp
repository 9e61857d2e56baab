#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace HALYX::MCUBOOT {

using MgmtGroupId = uint16_t;

namespace MgmtGroup {
constexpr MgmtGroupId Os = 0;
constexpr MgmtGroupId Image = 1;
constexpr MgmtGroupId Statistics = 2;
constexpr MgmtGroupId ModemImage = 0x41;
} // namespace MgmtGroup

enum class MgmtOp : uint8_t {
    Read = 0,
    ReadResponse = 1,
    Write = 2,
    WriteResponse = 3,
};

// The eight bytes before every SMP payload; multi-byte fields big-endian.
struct MgmtHeader {
    static constexpr size_t kSize = 8;

    uint8_t op = 0; // only the low three bits go on the wire
    uint8_t flags = 0;
    uint16_t len = 0;
    MgmtGroupId group = 0;
    uint8_t seq = 0;
    uint8_t id = 0;

    std::array<uint8_t, kSize> encode() const;

    // Throws std::invalid_argument for fewer than eight bytes.
    static MgmtHeader decode(std::span<const uint8_t> bytes);

    std::string toString() const;

    bool operator==(const MgmtHeader&) const = default;
};

} // namespace HALYX::MCUBOOT
