#pragma once

#include <cstdint>

#include "core/firmware.hpp"
#include "image/binary_image.hpp"

namespace HALYX {

// Reads a firmware handle into a memory image by its format: Intel HEX, ELF,
// raw bytes placed at binaryAddress, or a zip package whose manifest lists
// HEX, ELF or ".bin" files (a ".bin" item needs "load_address"); a package's
// files are merged into one image and must not overlap. A modem package is
// not a memory image (code 19).
BinaryImage loadFirmwareImage(const halyx_firmware& firmware, uint32_t binaryAddress = 0);

} // namespace HALYX
