#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "core/firmware.hpp"
#include "image/binary_image.hpp"

namespace HALYX {

// Reads a firmware handle into a memory image by its format: Intel HEX, ELF,
// raw bytes placed at binaryAddress, or a zip package whose manifest lists
// HEX, ELF or raw binary files (packageEntryFormat tells which; a binary item
// needs "load_address"); a package's files are merged into one image and must
// not overlap. A modem package is not a memory image (code 19).
BinaryImage loadFirmwareImage(const halyx_firmware& firmware, uint32_t binaryAddress = 0);

// Bytes in memory of a HEX, ELF or binary format into an image; binary bytes
// are placed at binaryAddress and must fit below 4 GiB. name is for messages.
BinaryImage loadImageBytes(std::span<const uint8_t> bytes, halyx_fw_format_t format, const std::string& name,
                           uint64_t binaryAddress);

} // namespace HALYX
