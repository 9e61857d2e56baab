#include "image_report.hpp"

#include <fmt/format.h>

#include "core/firmware.hpp"
#include "image/binary_image.hpp"
#include "image/firmware_format.hpp"
#include "image/firmware_loader.hpp"
#include "image/package_entry.hpp"
#include "image/package_manifest.hpp"
#include "image/zip_archive.hpp"
#include "mcuboot/binary_file.hpp"
#include "mcuboot/keil_hex_file.hpp"

namespace halyx_tool {
namespace {

using HALYX::BinaryImage;
using nlohmann::ordered_json;
using Bytes = std::vector<uint8_t>;

bool hasMcubootMagic(std::span<const uint8_t> bytes)
{
    if (bytes.size() < 4) {
        return false;
    }
    const uint32_t magic =
        uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
    return magic == HALYX::MCUBOOT::ImageHeader::kMagic || magic == HALYX::MCUBOOT::ImageHeader::kMagicV1;
}

const char* formatName(halyx_fw_format_t format)
{
    switch (format) {
    case HALYX_FW_FORMAT_INTEL_HEX:
        return "intel-hex";
    case HALYX_FW_FORMAT_ELF:
        return "elf";
    case HALYX_FW_FORMAT_ZIP:
        return "zip";
    default:
        return "binary";
    }
}

std::string hexText(std::span<const uint8_t> bytes)
{
    std::string out;
    for (uint8_t b : bytes) {
        out += fmt::format("{:02x}", b);
    }
    return out;
}

ordered_json mcuboot(const HALYX::MCUBOOT::ImageFile& image)
{
    const auto header = image.header();
    ordered_json out;
    out["magic"] = header.magic;
    out["loadAddress"] = header.loadAddress;
    out["headerSize"] = header.headerSize;
    out["protectedTlvSize"] = header.protectedTlvSize;
    out["imageSize"] = header.imageSize;
    out["flags"] = header.flags;
    out["version"] = header.version.text();
    const auto trailer = image.trailer();
    if (!trailer) {
        out["sha256"] = nullptr;
        out["hashMatches"] = nullptr;
        out["tlvAreas"] = ordered_json::array();
        return out;
    }
    out["sha256"] = hexText(trailer->sha256);
    const uint64_t hashed = header.trailerOffset() + header.protectedTlvSize;
    out["hashMatches"] =
        hashed <= image.length() && hexText(image.digest(static_cast<size_t>(hashed))) == out["sha256"];
    out["tlvAreas"] = ordered_json::array();
    for (const auto& area : trailer->areas) {
        ordered_json entries = ordered_json::array();
        for (const auto& entry : area.entries) {
            entries.push_back({{"type", entry.type}, {"length", entry.value.size()}});
        }
        out["tlvAreas"].push_back({{"magic", area.magic}, {"length", area.length}, {"entries", entries}});
    }
    return out;
}

void describeImage(ordered_json& out, const BinaryImage& image)
{
    out["size"] = image.size();
    out["segments"] = ordered_json::array();
    for (const auto& segment : image.segments()) {
        out["segments"].push_back({{"address", segment.address}, {"size", segment.bytes.size()}});
    }
    if (const auto& start = image.startAddress()) {
        out["startAddress"] = {
            {"kind", start->kind == BinaryImage::StartAddress::Kind::Linear ? "linear" : "segmented"},
            {"value", start->value}};
    } else {
        out["startAddress"] = nullptr;
    }
}

// An image whose first bytes are an MCUboot header is described as one.
void addMcuboot(ordered_json& out, halyx_fw_format_t format, const BinaryImage& image, const Bytes& raw)
{
    if (format == HALYX_FW_FORMAT_BINARY && hasMcubootMagic(raw)) {
        out["mcuboot"] = mcuboot(HALYX::MCUBOOT::BinaryFile(raw));
    } else if (format != HALYX_FW_FORMAT_BINARY && hasMcubootMagic(image.segment(0).bytes)) {
        out["mcuboot"] = mcuboot(HALYX::MCUBOOT::KeilHexFile(image));
    }
}

ordered_json packageEntry(const HALYX::ZipArchive& archive, const HALYX::PackageManifest::Item& item,
                          const std::string& packageName)
{
    const auto entry = HALYX::readPackageEntry(archive, item, packageName);
    ordered_json out;
    out["file"] = item.file();
    out["format"] = formatName(entry.format);
    out["fileSize"] = entry.bytes.size();
    out["item"] = item.fields();
    const auto& image = entry.image;
    describeImage(out, image);
    addMcuboot(out, entry.format, image, entry.bytes);
    return out;
}

} // namespace

nlohmann::ordered_json describeImageFile(const std::filesystem::path& path, uint32_t binaryAddress)
{
    const auto format = HALYX::firmwareFileFormat(path);
    ordered_json out;
    out["file"] = path.string();
    out["format"] = formatName(format);
    if (format == HALYX_FW_FORMAT_ZIP) {
        const auto archive = HALYX::ZipArchive::open(path);
        const auto manifest = HALYX::PackageManifest::read(archive);
        out["manifest"] = ordered_json::array();
        for (const auto& item : manifest.files()) {
            out["manifest"].push_back(packageEntry(archive, item, path.string()));
        }
        return out;
    }
    halyx_firmware firmware;
    firmware.source_kind = HALYX_FW_SOURCE_FILE;
    firmware.format = format;
    firmware.data = path.string();
    const auto image = HALYX::loadFirmwareImage(firmware, binaryAddress);
    describeImage(out, image);
    const Bytes raw = format == HALYX_FW_FORMAT_BINARY
                          ? Bytes(image.segment(0).bytes.begin(), image.segment(0).bytes.end())
                          : Bytes{};
    addMcuboot(out, format, image, raw);
    return out;
}

} // namespace halyx_tool
