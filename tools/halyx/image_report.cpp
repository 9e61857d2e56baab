#include "image_report.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>

#include "core/firmware.hpp"
#include "image/binary_image.hpp"
#include "image/firmware_loader.hpp"
#include "image/package_manifest.hpp"
#include "image/zip_archive.hpp"
#include "mcuboot/binary_file.hpp"
#include "mcuboot/keil_hex_file.hpp"

namespace halyx_tool {
namespace {

using HALYX::BinaryImage;
using nlohmann::ordered_json;
using Bytes = std::vector<uint8_t>;

std::string lowercase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return text;
}

bool startsWith(const Bytes& bytes, std::string_view prefix)
{
    return bytes.size() >= prefix.size() && std::memcmp(bytes.data(), prefix.data(), prefix.size()) == 0;
}

bool hasMcubootMagic(std::span<const uint8_t> bytes)
{
    if (bytes.size() < 4) {
        return false;
    }
    const uint32_t magic = uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
                           uint32_t{bytes[3]} << 24;
    return magic == HALYX::MCUBOOT::ImageHeader::kMagic || magic == HALYX::MCUBOOT::ImageHeader::kMagicV1;
}

halyx_fw_format_t formatOf(const std::string& name, const Bytes& head)
{
    const std::string extension = lowercase(std::filesystem::path(name).extension().string());
    if (extension == ".hex" || extension == ".ihex") {
        return HALYX_FW_FORMAT_INTEL_HEX;
    }
    if (extension == ".elf" || extension == ".axf" || extension == ".out") {
        return HALYX_FW_FORMAT_ELF;
    }
    if (extension == ".bin") {
        return HALYX_FW_FORMAT_BINARY;
    }
    if (extension == ".zip") {
        return HALYX_FW_FORMAT_ZIP;
    }
    if (startsWith(head, "\x7f" "ELF")) {
        return HALYX_FW_FORMAT_ELF;
    }
    if (startsWith(head, "PK\x03\x04")) {
        return HALYX_FW_FORMAT_ZIP;
    }
    if (hasMcubootMagic(head)) {
        return HALYX_FW_FORMAT_BINARY;
    }
    if (startsWith(head, ":") || startsWith(head, "\xEF\xBB\xBF:")) {
        return HALYX_FW_FORMAT_INTEL_HEX;
    }
    throw std::runtime_error(
        fmt::format("Cannot tell the format of {}; name it .hex, .elf, .bin or .zip.", name));
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
    out["hashMatches"] = hashed <= image.length() && hexText(image.digest(static_cast<size_t>(hashed))) == out["sha256"];
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

// A HEX or binary file whose first bytes are an MCUboot header is described as one.
void addMcuboot(ordered_json& out, halyx_fw_format_t format, const BinaryImage& image, const Bytes& raw)
{
    if (format == HALYX_FW_FORMAT_BINARY && hasMcubootMagic(raw)) {
        out["mcuboot"] = mcuboot(HALYX::MCUBOOT::BinaryFile(raw));
    } else if (format == HALYX_FW_FORMAT_INTEL_HEX && hasMcubootMagic(image.segment(0).bytes)) {
        out["mcuboot"] = mcuboot(HALYX::MCUBOOT::KeilHexFile(image));
    }
}

ordered_json packageEntry(const HALYX::ZipArchive& archive, const HALYX::PackageManifest::Item& item,
                          const std::string& packageName)
{
    const auto bytes = archive.read(item.file());
    const auto format = formatOf(item.file(), bytes);
    ordered_json out;
    out["file"] = item.file();
    out["format"] = formatName(format);
    out["fileSize"] = bytes.size();
    out["item"] = item.fields();
    const std::string name = packageName + "/" + item.file();
    std::optional<BinaryImage> image;
    if (format == HALYX_FW_FORMAT_INTEL_HEX) {
        image = BinaryImage::fromHex(bytes, name);
    } else if (format == HALYX_FW_FORMAT_ELF) {
        image = BinaryImage::fromElf(bytes, name);
    } else if (format == HALYX_FW_FORMAT_BINARY && !bytes.empty()) {
        const auto address = item.number("load_address").value_or(0);
        image = BinaryImage::fromBytes(bytes, static_cast<uint32_t>(address));
    } else {
        throw std::runtime_error(fmt::format("{} cannot be described: it is empty or not a firmware file.", name));
    }
    describeImage(out, *image);
    addMcuboot(out, format, *image, bytes);
    return out;
}

Bytes head(const std::filesystem::path& path, size_t count)
{
    auto input = BinaryImage::openFile(path);
    Bytes bytes(count);
    input.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
    bytes.resize(static_cast<size_t>(input.gcount()));
    return bytes;
}

} // namespace

halyx_fw_format_t firmwareFormat(const std::filesystem::path& path)
{
    return formatOf(path.string(), head(path, 4));
}

nlohmann::ordered_json describeImageFile(const std::filesystem::path& path, uint32_t binaryAddress)
{
    const auto format = firmwareFormat(path);
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
    const Bytes raw = format == HALYX_FW_FORMAT_BINARY ? Bytes(image.segment(0).bytes.begin(), image.segment(0).bytes.end())
                                                       : Bytes{};
    addMcuboot(out, format, image, raw);
    return out;
}

} // namespace halyx_tool
