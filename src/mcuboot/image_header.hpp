#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace HALYX::MCUBOOT {

// The 32-byte little-endian header at offset 0 of an MCUboot image.
struct ImageHeader {
    static constexpr size_t kSize = 32;
    static constexpr uint32_t kMagic = 0x96F3B83D;
    static constexpr uint32_t kMagicV1 = 0x96F3B83C; // older images

    struct Version {
        uint8_t major = 0;
        uint8_t minor = 0;
        uint16_t revision = 0;
        uint32_t build = 0;

        std::string text() const; // "1.2.3+4"
    };

    uint32_t magic = 0;
    uint32_t loadAddress = 0;
    uint16_t headerSize = 0;       // where the image body starts
    uint16_t protectedTlvSize = 0; // protected TLV area, part of the hashed bytes
    uint32_t imageSize = 0;        // length of the body
    uint32_t flags = 0;
    Version version;

    // Where the TLV trailer starts.
    uint64_t trailerOffset() const { return uint64_t{headerSize} + imageSize; }

    // Throws std::invalid_argument "Unable to parse image header: ..." when
    // bytes are shorter than a header or the magic is wrong.
    static ImageHeader parse(std::span<const uint8_t> bytes);
};

} // namespace HALYX::MCUBOOT
