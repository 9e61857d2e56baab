#include "image_commands.hpp"

#include <cstdio>
#include <exception>
#include <optional>
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

const char* const kImageUsage =
    "usage: halyx image info FILE [--json] [--base ADDRESS]\n"
    "       halyx image convert IN OUT [--base ADDRESS]\n"
    "\n"
    "FILE and IN: Intel HEX (.hex, .ihex), ELF (.elf, .axf, .out), raw binary (.bin, placed at\n"
    "--base, 0 by default) or a zip package with a manifest.json (.zip).\n"
    "OUT: .hex writes Intel HEX; .bin writes the bytes from the lowest to the highest address,\n"
    "gaps filled with 0xFF.\n";

int usage(const std::string& problem)
{
    std::fprintf(stderr, "halyx image: %s\n\n%s", problem.c_str(), kImageUsage);
    return 2;
}

std::optional<uint32_t> parseAddress(const std::string& text)
{
    try {
        size_t used = 0;
        const unsigned long long value = std::stoull(text, &used, 0);
        if (used == text.size() && value <= 0xFFFFFFFFull && text[0] != '-') {
            return static_cast<uint32_t>(value);
        }
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

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
                std::printf("    %s: %s\n", key.c_str(), value.is_string() ? value.get<std::string>().c_str()
                                                                           : value.dump().c_str());
            }
        }
        printImage(entry, "    ");
    }
}

int info(const std::string& path, bool json, uint32_t base)
{
    const auto report = describeImageFile(path, base);
    if (json) {
        std::printf("%s\n", report.dump(2).c_str());
    } else {
        printInfo(report);
    }
    return 0;
}

int convert(const std::string& in, const std::string& out, uint32_t base)
{
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
    std::printf("%s: %zu bytes in %zu segment%s, 0x%08X-0x%08llX\n", out.c_str(), image.size(), image.segmentCount(),
                image.segmentCount() == 1 ? "" : "s", image.lowestAddress(),
                static_cast<unsigned long long>(image.highestAddress() - 1));
    return 0;
}

} // namespace

int image(const std::vector<std::string>& args)
{
    if (args.empty() || args[0] == "--help" || args[0] == "-h") {
        std::fputs(kImageUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    const std::string& command = args[0];
    std::vector<std::string> files;
    bool json = false;
    uint32_t base = 0;
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--json" && command == "info") {
            json = true;
        } else if (args[i] == "--base" && i + 1 < args.size()) {
            const auto address = parseAddress(args[++i]);
            if (!address) {
                return usage("--base takes an address from 0 to 0xFFFFFFFF: " + args[i]);
            }
            base = *address;
        } else if (args[i].starts_with("--")) {
            return usage("unexpected option for '" + command + "': " + args[i]);
        } else {
            files.push_back(args[i]);
        }
    }
    const size_t wanted = command == "info" ? 1 : command == "convert" ? 2 : 0;
    if (wanted == 0) {
        return usage("unknown image command: " + command);
    }
    if (files.size() != wanted) {
        return usage(command == "info" ? "info takes one FILE" : "convert takes IN and OUT");
    }

    try {
        return command == "info" ? info(files[0], json, base) : convert(files[0], files[1], base);
    } catch (const HALYX::BinaryImage::parse_error& e) {
        std::fprintf(stderr, "halyx: %s\nhalyx:   %s\n", e.what(), e.reason().c_str());
    } catch (const HALYX::HALYXException& e) {
        std::fprintf(stderr, "halyx: error %u: %s\n", static_cast<unsigned>(e.code()), e.what());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "halyx: %s\n", e.what());
    }
    return 1;
}

} // namespace halyx_tool
