#include "image/firmware_loader.hpp"

#include <fstream>
#include <iterator>
#include <vector>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "image/package_entry.hpp"
#include "image/package_manifest.hpp"
#include "image/zip_archive.hpp"

namespace HALYX {
namespace {

constexpr const char* kBufferName = "(buffer)";

std::span<const uint8_t> bytesOf(const std::string& data)
{
    return {reinterpret_cast<const uint8_t*>(data.data()), data.size()};
}

BinaryImage package(const halyx_firmware& firmware)
{
    const auto archive =
        firmware.isFile() ? ZipArchive::open(firmware.data) : ZipArchive::fromBuffer(bytesOf(firmware.data));
    const auto manifest = PackageManifest::read(archive);
    const std::string packageName = firmware.isFile() ? firmware.data : kBufferName;
    BinaryImage image;
    for (const auto& item : manifest.files()) {
        image.merge(readPackageEntry(archive, item, packageName).image);
    }
    if (image.empty()) {
        throw BinaryImage::file_error(fmt::format("BinaryImage {} is empty.", packageName));
    }
    return image;
}

std::vector<uint8_t> readFile(const std::string& path)
{
    auto input = BinaryImage::openFile(path);
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
    if (input.bad()) {
        throw BinaryImage::file_error(fmt::format("BinaryImage access error, could not read {}.", path));
    }
    return bytes;
}

} // namespace

BinaryImage loadImageBytes(std::span<const uint8_t> bytes, halyx_fw_format_t format, const std::string& name,
                           uint64_t binaryAddress)
{
    switch (format) {
    case HALYX_FW_FORMAT_INTEL_HEX:
        return BinaryImage::fromHex(bytes, name);
    case HALYX_FW_FORMAT_ELF:
        return BinaryImage::fromElf(bytes, name);
    case HALYX_FW_FORMAT_BINARY:
        if (bytes.empty()) {
            throw BinaryImage::file_error(fmt::format("BinaryImage {} is empty.", name));
        }
        if (binaryAddress > UINT32_MAX || binaryAddress + bytes.size() > uint64_t{1} << 32) {
            throw BinaryImage::memory_error(fmt::format("{}: {} bytes do not fit below 4 GiB at address 0x{:08X}.",
                                                        name, bytes.size(), binaryAddress));
        }
        return BinaryImage::fromBytes(bytes, static_cast<uint32_t>(binaryAddress));
    default:
        throw HALYXException(
            HALYX_ERR_INVALID_ARGUMENT,
            fmt::format("{} is not a HEX, ELF or binary image (format {}).", name, static_cast<unsigned>(format)));
    }
}

BinaryImage loadFirmwareImage(const halyx_firmware& firmware, uint32_t binaryAddress)
{
    const std::string name = firmware.isFile() ? firmware.data : kBufferName;
    switch (firmware.format) {
    case HALYX_FW_FORMAT_INTEL_HEX:
        // Files are streamed: a large HEX file is never held as text.
        return firmware.isFile() ? BinaryImage::fromHexFile(firmware.data)
                                 : loadImageBytes(bytesOf(firmware.data), HALYX_FW_FORMAT_INTEL_HEX, name, 0);
    case HALYX_FW_FORMAT_ELF:
        return firmware.isFile() ? BinaryImage::fromElfFile(firmware.data)
                                 : loadImageBytes(bytesOf(firmware.data), HALYX_FW_FORMAT_ELF, name, 0);
    case HALYX_FW_FORMAT_BINARY:
        return firmware.isFile() ? loadImageBytes(readFile(firmware.data), HALYX_FW_FORMAT_BINARY, name, binaryAddress)
                                 : loadImageBytes(bytesOf(firmware.data), HALYX_FW_FORMAT_BINARY, name, binaryAddress);
    case HALYX_FW_FORMAT_ZIP:
        return package(firmware);
    case HALYX_FW_FORMAT_MODEM_PACKAGE:
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED,
                             "A modem package is not a memory image; it is programmed through the modem's bootloader.");
    default:
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, fmt::format("Unknown firmware format: {}.", firmware.format));
    }
}

} // namespace HALYX
