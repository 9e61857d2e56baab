#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "image/binary_image.hpp"

namespace HALYX {

// Loads a 32-bit little-endian ELF file the way a flash programmer sees it:
// the contents of every allocated section that has file bytes, at its load
// (physical) address, which the PT_LOAD segment holding the section gives.
// Sections that only occupy memory (.bss) are left out, and so are segment
// bytes no section owns (alignment padding, ELF headers). A file without
// section headers falls back to each PT_LOAD segment's file bytes.
class ElfLoader {
public:
    static BinaryImage load(std::span<const uint8_t> bytes, const std::string& name);
};

} // namespace HALYX
