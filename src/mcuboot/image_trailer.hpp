#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace HALYX::MCUBOOT {

// The TLV areas that follow an MCUboot image's body (little-endian). Each
// area: magic (16 bits), length including its 4-byte header (16 bits), then
// entries of type (16 bits), length (16 bits) and value.
struct ImageTrailer {
    static constexpr uint16_t kAreaMagic = 0x6907;          // the last area; holds the hash
    static constexpr uint16_t kProtectedAreaMagic = 0x6908; // optional, before it
    static constexpr uint16_t kSha256Type = 0x10;

    struct Entry {
        uint16_t type = 0;
        std::vector<uint8_t> value;
    };
    struct Area {
        uint16_t magic = 0;
        uint16_t length = 0;
        std::vector<Entry> entries;
    };

    std::vector<Area> areas;
    std::vector<uint8_t> sha256; // the image hash, 32 bytes

    // bytes: from the trailer's start to the end of the file. Areas are read
    // until the one with kAreaMagic; what follows it (slot padding) is not
    // looked at. Throws std::invalid_argument with the reason, including
    // "Image missing SHA256 hash in trailer".
    static ImageTrailer parse(std::span<const uint8_t> bytes);
};

} // namespace HALYX::MCUBOOT
