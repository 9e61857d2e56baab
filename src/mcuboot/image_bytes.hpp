#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace HALYX::MCUBOOT {

// Little-endian fields of image headers and trailers; the caller has checked
// that offset + width fits in bytes.
inline uint16_t readLe16(std::span<const uint8_t> bytes, size_t offset)
{
    return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

inline uint32_t readLe32(std::span<const uint8_t> bytes, size_t offset)
{
    return uint32_t{bytes[offset]} | uint32_t{bytes[offset + 1]} << 8 | uint32_t{bytes[offset + 2]} << 16 |
           uint32_t{bytes[offset + 3]} << 24;
}

} // namespace HALYX::MCUBOOT
