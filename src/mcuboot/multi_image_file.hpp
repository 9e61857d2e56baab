#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "mcuboot/image_file.hpp"

namespace HALYX {
class ZipArchive;
}

namespace HALYX::MCUBOOT {

// One image of a package, with what its manifest item says about it.
struct PackageImage {
    std::string file;                           // "file": the entry in the archive
    std::optional<uint32_t> imageIndex;         // "image_index": the SMP image number, if given
    uint32_t loadAddress = 0;                   // "load_address", 0 if not given
    std::string version;                        // "version_MCUBOOT"
    std::optional<uint32_t> slotIndexPrimary;   // "slot_index_primary"
    std::optional<uint32_t> slotIndexSecondary; // "slot_index_secondary"
    std::optional<uint64_t> modtime;            // "modtime"; informational
    std::string type;                           // "type"; informational
    std::string board;                          // "board"; informational
    // The bytes; its target address is loadAddress (for a HEX or ELF entry
    // without "load_address", the lowest address in it). packageEntryFormat
    // decides an entry's kind, as for every other reader of packages.
    std::unique_ptr<ImageFile> image;
};

// A zip package of several MCUboot images described by "manifest.json".
// Everything is read and checked when the package is opened; a package that
// fails is not opened at all. Failures are HALYXExceptions: 17 "Unable to
// open multi image file. Internal error code: {}" when libzip refuses the
// archive, 10 "file not found in zip: {}", 18 "file decompression failed:
// {}", 16 for the manifest ("file field missing from json manifest item",
// "files key missing", a value of the wrong kind).
class MultiImageFile {
public:
    static MultiImageFile fromFile(const std::filesystem::path& path);
    static MultiImageFile fromBuffer(std::span<const uint8_t> bytes);

    // In upload order: the order of the manifest's "files".
    const std::vector<PackageImage>& images() const { return images_; }
    std::vector<PackageImage>& images() { return images_; }
    const nlohmann::json& manifest() const { return manifest_; }

private:
    MultiImageFile() = default;
    static MultiImageFile load(const ZipArchive& archive);

    nlohmann::json manifest_;
    std::vector<PackageImage> images_;
};

} // namespace HALYX::MCUBOOT
