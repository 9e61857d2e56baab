#include "image/firmware_loader.hpp"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <vector>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "image/package_manifest.hpp"
#include "image/zip_archive.hpp"

namespace HALYX {
namespace {

constexpr const char* kBufferName = "(buffer)";

std::span<const uint8_t> bytesOf(const std::string& data)
{
    return {reinterpret_cast<const uint8_t*>(data.data()), data.size()};
}

bool endsWithBin(const std::string& name)
{
    if (name.size() < 4) {
        return false;
    }
    std::string suffix = name.substr(name.size() - 4);
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return suffix == ".bin";
}

BinaryImage packageItem(const ZipArchive& package, const PackageManifest::Item& item, const std::string& name)
{
    const auto bytes = package.read(item.file());
    if (endsWithBin(item.file())) {
        const auto address = item.number("load_address");
        if (!address) {
            throw HALYXException(HALYX_ERR_MANIFEST, "load_address key missing");
        }
        if (*address + bytes.size() > uint64_t{1} << 32) {
            throw BinaryImage::memory_error(
                fmt::format("{} does not fit below 4 GiB at its load_address 0x{:X}.", name, *address));
        }
        return BinaryImage::fromBytes(bytes, static_cast<uint32_t>(*address));
    }
    if (bytes.size() >= 4 && std::memcmp(bytes.data(), "\x7f" "ELF", 4) == 0) {
        return BinaryImage::fromElf(bytes, name);
    }
    return BinaryImage::fromHex(bytes, name);
}

BinaryImage package(const halyx_firmware& firmware)
{
    const auto archive =
        firmware.isFile() ? ZipArchive::open(firmware.data) : ZipArchive::fromBuffer(bytesOf(firmware.data));
    const auto manifest = PackageManifest::read(archive);
    const std::string packageName = firmware.isFile() ? firmware.data : kBufferName;
    BinaryImage image;
    for (const auto& item : manifest.files()) {
        image.merge(packageItem(archive, item, packageName + "/" + item.file()));
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

BinaryImage loadFirmwareImage(const halyx_firmware& firmware, uint32_t binaryAddress)
{
    switch (firmware.format) {
    case HALYX_FW_FORMAT_INTEL_HEX:
        return firmware.isFile() ? BinaryImage::fromHexFile(firmware.data)
                                 : BinaryImage::fromHex(bytesOf(firmware.data), kBufferName);
    case HALYX_FW_FORMAT_ELF:
        return firmware.isFile() ? BinaryImage::fromElfFile(firmware.data)
                                 : BinaryImage::fromElf(bytesOf(firmware.data), kBufferName);
    case HALYX_FW_FORMAT_BINARY: {
        const auto bytes = firmware.isFile() ? readFile(firmware.data) : std::vector<uint8_t>(firmware.data.begin(),
                                                                                              firmware.data.end());
        if (bytes.empty()) {
            throw BinaryImage::file_error(
                fmt::format("BinaryImage {} is empty.", firmware.isFile() ? firmware.data : kBufferName));
        }
        if (binaryAddress + uint64_t{bytes.size()} > uint64_t{1} << 32) {
            throw BinaryImage::memory_error(fmt::format("{} bytes do not fit below 4 GiB at address 0x{:08X}.",
                                                        bytes.size(), binaryAddress));
        }
        return BinaryImage::fromBytes(bytes, binaryAddress);
    }
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
