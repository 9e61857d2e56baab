#include "mcuboot/image_header.hpp"

#include <stdexcept>

#include <fmt/format.h>

#include "core/byte_order.hpp"

namespace HALYX::MCUBOOT {

std::string ImageHeader::Version::text() const
{
    return fmt::format("{}.{}.{}+{}", major, minor, revision, build);
}

ImageHeader ImageHeader::parse(std::span<const uint8_t> bytes)
{
    if (bytes.size() < kSize) {
        throw std::invalid_argument("Unable to parse image header: remaining bytes are less than header size");
    }
    ImageHeader header;
    header.magic = readLe32(bytes, 0);
    if (header.magic != kMagic && header.magic != kMagicV1) {
        throw std::invalid_argument("Unable to parse image header: invalid magic value");
    }
    header.loadAddress = readLe32(bytes, 4);
    header.headerSize = readLe16(bytes, 8);
    header.protectedTlvSize = readLe16(bytes, 10);
    header.imageSize = readLe32(bytes, 12);
    header.flags = readLe32(bytes, 16);
    header.version.major = bytes[20];
    header.version.minor = bytes[21];
    header.version.revision = readLe16(bytes, 22);
    header.version.build = readLe32(bytes, 24);
    return header;
}

} // namespace HALYX::MCUBOOT
