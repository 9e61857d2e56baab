#include "mcuboot/keil_hex_file.hpp"

#include <algorithm>
#include <stdexcept>

namespace HALYX::MCUBOOT {

KeilHexFile::KeilHexFile(BinaryImage image)
    : ImageFile(static_cast<size_t>(image.highestAddress() - image.lowestAddress()), image.lowestAddress()),
      image_(std::move(image))
{
}

std::unique_ptr<KeilHexFile> KeilHexFile::fromFile(const std::filesystem::path& path)
{
    return std::make_unique<KeilHexFile>(BinaryImage::fromHexFile(path));
}

std::unique_ptr<KeilHexFile> KeilHexFile::fromBuffer(std::span<const uint8_t> text, const std::string& name)
{
    return std::make_unique<KeilHexFile>(BinaryImage::fromHex(text, name));
}

size_t KeilHexFile::read(size_t position, std::span<uint8_t> out) const
{
    if (position > length()) {
        throw std::runtime_error("Not enough bytes left in image");
    }
    const size_t count = std::min(out.size(), length() - position);
    image_.copy(uint64_t{image_.lowestAddress()} + position, out.first(count), 0xFF);
    return count;
}

} // namespace HALYX::MCUBOOT
