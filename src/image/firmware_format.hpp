#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

#include "halyx.h"

namespace HALYX {

// The first bytes the decisions below look at (a UTF-8 mark and ':').
constexpr size_t kFormatHeadSize = 4;

// The format of a firmware file, decided the same way wherever a file comes in.
// The name's extension decides first, in any case: .hex/.ihex Intel HEX,
// .elf/.axf/.out ELF, .bin raw binary, .zip package. Otherwise the first
// bytes: ':' (after an optional UTF-8 mark) Intel HEX, "\x7fELF" ELF,
// "PK\x03\x04" zip. Raw binary has no signature to recognise, so one not named
// .bin is refused rather than guessed: HALYXException 50, naming the file and
// asking for a .bin name.
halyx_fw_format_t firmwareFormat(std::string_view name, std::span<const uint8_t> head);

// firmwareFormat for a file on disk, reading its first bytes; an unreadable
// file is BinaryImage::file_error.
halyx_fw_format_t firmwareFileFormat(const std::filesystem::path& path);

// The format of an entry of a zip package, by the same rules, with two
// differences: the manifest already says the entry is an image, so one that
// neither name nor bytes identify is raw binary; and a package inside a
// package is refused (HALYXException 19).
halyx_fw_format_t packageEntryFormat(std::string_view name, std::span<const uint8_t> bytes);

} // namespace HALYX
