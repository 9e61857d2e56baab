#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "image/binary_image.hpp"
#include "mcuboot/image_file.hpp"

namespace HALYX::MCUBOOT {

// An image given as Intel HEX (".hex", ".ihex"). The image runs from the
// lowest address in the file to the highest; gaps read as 0xFF, which is
// what the erased slot holds anyway. The target address is the lowest
// address. Reading errors are BinaryImage's.
class KeilHexFile : public ImageFile {
public:
    explicit KeilHexFile(BinaryImage image);
    static std::unique_ptr<KeilHexFile> fromFile(const std::filesystem::path& path);
    static std::unique_ptr<KeilHexFile> fromBuffer(std::span<const uint8_t> text, const std::string& name);

    size_t read(size_t position, std::span<uint8_t> out) const override;
    const BinaryImage& image() const { return image_; }

private:
    BinaryImage image_;
};

} // namespace HALYX::MCUBOOT
