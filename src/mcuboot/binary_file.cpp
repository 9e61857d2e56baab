#include "mcuboot/binary_file.hpp"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "core/logging.hpp"
#include "image/binary_image.hpp"

namespace HALYX::MCUBOOT {

BinaryFile::BinaryFile(std::vector<uint8_t> bytes, uint32_t targetAddress)
    : ImageFile(bytes.size(), targetAddress), bytes_(std::move(bytes))
{
}

std::unique_ptr<BinaryFile> BinaryFile::fromFile(const std::filesystem::path& path, uint32_t targetAddress)
{
    std::ifstream input;
    try {
        input = BinaryImage::openFile(path);
    } catch (const BinaryImage::file_error&) {
    }
    std::vector<uint8_t> bytes;
    if (input.is_open()) {
        bytes.assign(std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>());
    }
    if (!input.is_open() || input.bad()) {
        Log::error("Cannot read image file {}", path.string());
        throw std::runtime_error("Image file read failed");
    }
    return std::make_unique<BinaryFile>(std::move(bytes), targetAddress);
}

size_t BinaryFile::read(size_t position, std::span<uint8_t> out) const
{
    if (position > bytes_.size()) {
        throw std::runtime_error("Not enough bytes left in image");
    }
    const size_t count = std::min(out.size(), bytes_.size() - position);
    if (count > 0) {
        std::memcpy(out.data(), bytes_.data() + position, count);
    }
    return count;
}

} // namespace HALYX::MCUBOOT
