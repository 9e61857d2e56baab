#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "halyx.h"
#include "image/binary_image.hpp"
#include "image/package_manifest.hpp"

namespace HALYX {

class ZipArchive;

// One file of a firmware package as every reader of packages takes it, so
// that describing, programming through a probe and uploading to a boot loader
// cannot disagree about an entry: its format is decided from its name and
// first bytes, a binary is placed at "load_address" (required: code 16
// "load_address key missing"), a HEX or ELF file at its own addresses.
struct PackageEntry {
    std::string file;
    halyx_fw_format_t format;
    std::vector<uint8_t> bytes; // as stored in the package
    BinaryImage image;
};

// packageName, when not empty, goes before the file's name in messages.
PackageEntry readPackageEntry(const ZipArchive& package, const PackageManifest::Item& item,
                              const std::string& packageName);

} // namespace HALYX
