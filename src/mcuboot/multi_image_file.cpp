#include "mcuboot/multi_image_file.hpp"

#include <limits>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"
#include "image/package_entry.hpp"
#include "image/package_manifest.hpp"
#include "image/zip_archive.hpp"
#include "mcuboot/binary_file.hpp"
#include "mcuboot/keil_hex_file.hpp"

namespace HALYX::MCUBOOT {
namespace {

std::optional<uint32_t> number32(const PackageManifest::Item& item, std::string_view key)
{
    const auto value = item.number(key);
    if (value && *value > std::numeric_limits<uint32_t>::max()) {
        throw HALYXException(HALYX_ERR_MANIFEST, fmt::format("\"{}\" of manifest item {} does not fit in 32 bits: {}",
                                                             key, item.file(), *value));
    }
    return value ? std::optional<uint32_t>(static_cast<uint32_t>(*value)) : std::nullopt;
}

PackageImage entry(const ZipArchive& archive, const PackageManifest::Item& item)
{
    PackageImage image;
    image.file = item.file();
    image.imageIndex = number32(item, "image_index");
    const auto loadAddress = number32(item, "load_address");
    image.loadAddress = loadAddress.value_or(0);
    image.version = item.text("version_MCUBOOT").value_or("");
    image.slotIndexPrimary = number32(item, "slot_index_primary");
    image.slotIndexSecondary = number32(item, "slot_index_secondary");
    image.modtime = item.number("modtime");
    image.type = item.text("type").value_or("");
    image.board = item.text("board").value_or("");

    auto entry = readPackageEntry(archive, item, "");
    if (entry.format != HALYX_FW_FORMAT_BINARY) {
        // A HEX or ELF file's lowest address is where it goes, unless the manifest says otherwise.
        image.image = std::make_unique<KeilHexFile>(std::move(entry.image));
        if (loadAddress) {
            image.image->setTargetAddress(*loadAddress);
        } else {
            image.loadAddress = image.image->targetAddress();
        }
    } else {
        image.image = std::make_unique<BinaryFile>(std::move(entry.bytes), image.loadAddress);
    }
    return image;
}

} // namespace

MultiImageFile MultiImageFile::load(const ZipArchive& archive)
{
    const auto manifest = PackageManifest::read(archive);
    MultiImageFile package;
    package.manifest_ = manifest.document();
    for (const auto& item : manifest.files()) {
        try {
            package.images_.push_back(entry(archive, item));
        } catch (const std::exception& e) {
            Log::error("Error parsing multi image file entry: {}", e.what());
            throw;
        }
    }
    return package;
}

MultiImageFile MultiImageFile::fromFile(const std::filesystem::path& path)
{
    try {
        return load(ZipArchive::open(path));
    } catch (const ZipArchive::OpenError& e) {
        throw HALYXException(HALYX_ERR_OPEN_FAILED,
                             fmt::format("Unable to open multi image file. Internal error code: {}", e.zipError()));
    }
}

MultiImageFile MultiImageFile::fromBuffer(std::span<const uint8_t> bytes)
{
    try {
        return load(ZipArchive::fromBuffer(bytes));
    } catch (const ZipArchive::OpenError& e) {
        throw HALYXException(HALYX_ERR_OPEN_FAILED,
                             fmt::format("Unable to open multi image file. Internal error code: {}", e.zipError()));
    }
}

} // namespace HALYX::MCUBOOT
