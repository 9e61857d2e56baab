#include "image_commands.hpp"

#include <cstdio>
#include <exception>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/firmware.hpp"
#include "core/halyx_exception.hpp"
#include "image/binary_image.hpp"
#include "image/firmware_format.hpp"
#include "image/firmware_loader.hpp"
#include "image_report.hpp"

namespace halyx_tool {
namespace {

using nlohmann::ordered_json;

std::string hex32(const ordered_json& value)
{
    return fmt::format("0x{:08X}", value.get<uint64_t>());
}

void printMcuboot(const ordered_json& m, const char* indent)
{
    std::printf("%smcuboot image:\n", indent);
    std::printf("%s  magic:              %s\n", indent, hex32(m["magic"]).c_str());
    std::printf("%s  load address:       %s\n", indent, hex32(m["loadAddress"]).c_str());
    std::printf("%s  header size:        %llu\n", indent, m["headerSize"].get<unsigned long long>());
    std::printf("%s  image size:         %llu\n", indent, m["imageSize"].get<unsigned long long>());
    std::printf("%s  protected TLV size: %llu\n", indent, m["protectedTlvSize"].get<unsigned long long>());
    std::printf("%s  flags:              %s\n", indent, hex32(m["flags"]).c_str());
    std::printf("%s  version:            %s\n", indent, m["version"].get<std::string>().c_str());
    if (m["sha256"].is_null()) {
        std::printf("%s  sha256:             (no trailer)\n", indent);
    } else {
        std::printf("%s  sha256:             %s (%s)\n", indent, m["sha256"].get<std::string>().c_str(),
                    m["hashMatches"].get<bool>() ? "matches the image" : "DOES NOT match the image");
    }
}

void printImage(const ordered_json& info, const char* indent)
{
    std::printf("%sformat:  %s\n", indent, info["format"].get<std::string>().c_str());
    std::printf("%ssize:    %llu bytes in %zu segment%s\n", indent, info["size"].get<unsigned long long>(),
                info["segments"].size(), info["segments"].size() == 1 ? "" : "s");
    for (const auto& segment : info["segments"]) {
        const uint64_t address = segment["address"].get<uint64_t>();
        const uint64_t size = segment["size"].get<uint64_t>();
        std::printf("%s  0x%08llX-0x%08llX  %llu byte%s\n", indent, static_cast<unsigned long long>(address),
                    static_cast<unsigned long long>(address + size - 1), static_cast<unsigned long long>(size),
                    size == 1 ? "" : "s");
    }
    if (!info["startAddress"].is_null()) {
        std::printf("%sstart:   %s (%s)\n", indent, hex32(info["startAddress"]["value"]).c_str(),
                    info["startAddress"]["kind"].get<std::string>().c_str());
    }
    if (info.contains("mcuboot")) {
        printMcuboot(info["mcuboot"], indent);
    }
}

void printInfo(const ordered_json& info)
{
    std::printf("file:    %s\n", info["file"].get<std::string>().c_str());
    if (!info.contains("manifest")) {
        printImage(info, "");
        return;
    }
    std::printf("format:  zip package, %zu file%s in its manifest\n", info["manifest"].size(),
                info["manifest"].size() == 1 ? "" : "s");
    for (const auto& entry : info["manifest"]) {
        std::printf("\n  %s (%llu bytes)\n", entry["file"].get<std::string>().c_str(),
                    entry["fileSize"].get<unsigned long long>());
        for (const auto& [key, value] : entry["item"].items()) {
            if (key != "file") {
                std::printf("    %s: %s\n", key.c_str(),
                            value.is_string() ? value.get<std::string>().c_str() : value.dump().c_str());
            }
        }
        printImage(entry, "    ");
    }
}

// Runs a file command; a file the library refuses is reported, not thrown.
template <typename Command>
int refusedOnError(Command&& command)
{
    try {
        return command();
    } catch (const HALYX::BinaryImage::parse_error& e) {
        std::fprintf(stderr, "halyx: %s\nhalyx:   %s\n", e.what(), e.reason().c_str());
    } catch (const HALYX::HALYXException& e) {
        std::fprintf(stderr, "halyx: error %u: %s\n", static_cast<unsigned>(e.code()), e.what());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "halyx: %s\n", e.what());
    }
    return 1;
}

} // namespace

int imageInfo(const std::string& path, bool json, uint32_t base)
{
    return refusedOnError([&] {
        const auto report = describeImageFile(path, base);
        if (json) {
            std::printf("%s\n", report.dump(2).c_str());
        } else {
            printInfo(report);
        }
        return 0;
    });
}

int imageConvert(const std::string& in, const std::string& out, uint32_t base)
{
    return refusedOnError([&] {
        const std::filesystem::path outPath(out);
        const std::string extension = outPath.extension().string();
        const std::string specifier = extension.empty() ? outPath.filename().string() : extension.substr(1);
        // Refuse an unknown output before reading a large input.
        HALYX::BinaryImage::outputFormat(specifier);

        halyx_firmware firmware;
        firmware.source_kind = HALYX_FW_SOURCE_FILE;
        firmware.format = HALYX::firmwareFileFormat(in);
        firmware.data = in;
        const auto image = HALYX::loadFirmwareImage(firmware, base);
        image.save(outPath, specifier);
        std::printf("%s: %zu bytes in %zu segment%s, 0x%08X-0x%08llX\n", out.c_str(), image.size(),
                    image.segmentCount(), image.segmentCount() == 1 ? "" : "s", image.lowestAddress(),
                    static_cast<unsigned long long>(image.highestAddress() - 1));
        return 0;
    });
}

} // namespace halyx_tool
