#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <vector>

#include "mcuboot/image_file.hpp"

namespace HALYX::MCUBOOT {

// A raw image (a ".bin" file or a buffer), held in memory.
class BinaryFile : public ImageFile {
public:
    explicit BinaryFile(std::vector<uint8_t> bytes, uint32_t targetAddress = 0);
    // std::runtime_error "Image file read failed" when the file cannot be read.
    static std::unique_ptr<BinaryFile> fromFile(const std::filesystem::path& path, uint32_t targetAddress = 0);

    size_t read(size_t position, std::span<uint8_t> out) const override;
    std::span<const uint8_t> bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

} // namespace HALYX::MCUBOOT
