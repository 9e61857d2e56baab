#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Fixed-width fields of device records and file formats. The caller has
// checked that offset + width fits in bytes.
namespace HALYX {

inline uint16_t readLe16(std::span<const uint8_t> bytes, size_t offset)
{
    return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

inline uint32_t readLe32(std::span<const uint8_t> bytes, size_t offset)
{
    return uint32_t{bytes[offset]} | uint32_t{bytes[offset + 1]} << 8 | uint32_t{bytes[offset + 2]} << 16 |
           uint32_t{bytes[offset + 3]} << 24;
}

inline uint16_t readBe16(std::span<const uint8_t> bytes, size_t offset)
{
    return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

} // namespace HALYX
