#include <algorithm>
#include <functional>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "core/firmware.hpp"
#include "core/halyx_exception.hpp"
#include "files.hpp"
#include "image/firmware_loader.hpp"
#include "image_report.hpp"
#include "mcuboot/binary_file.hpp"
#include "mcuboot/keil_hex_file.hpp"
#include "mcuboot/multi_image_file.hpp"

namespace {

using nlohmann::json;

// "halyx image info", the MCUboot package reader and the generic loader read
// one package whose entry names say nothing, or the wrong thing, about their
// contents: all three must take each entry for the same kind of image.
TEST(PackageAgreement, ImageInfoAndPackageReadersDecideEntriesAlike)
{
    halyx_test::TempDir dir;
    const auto package = dir / "misleading.zip";
    const json layout = {
        {"files",
         {{{"file", "app.dat"}, {"image_index", 0}},
          {{"file", "net.img"}, {"image_index", 1}, {"load_address", 0x01000000}},
          {{"file", "text.bin"}, {"load_address", 0x02000000}}}},
        {"images",
         {{"app.dat", {{"body", 300}, {"seed", 5}, {"hex", 0x8000}}},  // HEX text, neutral name
          {"net.img", {{"body", 400}, {"seed", 6}}},                   // raw bytes, unknown name
          {"text.bin", {{"body", 50}, {"seed", 7}, {"hex", 0x100}}}}}, // HEX text named .bin
    };
    const auto made = json::parse(halyx_test::runOk(
        fmt::format("{} {} package {} {}", halyx_test::python(),
                    halyx_test::shellQuote(halyx_test::dataFile("image/make_mcuboot_image.py")),
                    halyx_test::shellQuote(package.string()), halyx_test::shellQuote(layout.dump()))));

    const auto info = halyx_tool::describeImageFile(package, 0);
    const auto mcuboot = HALYX::MCUBOOT::MultiImageFile::fromFile(package);
    const auto& entries = info.at("manifest");
    ASSERT_EQ(entries.size(), 3u);
    ASSERT_EQ(mcuboot.images().size(), 3u);

    const std::vector<std::string> expected = {"intel-hex", "binary", "binary"};
    for (size_t i = 0; i < entries.size(); ++i) {
        const auto& entry = entries[i];
        const auto& image = mcuboot.images()[i];
        EXPECT_EQ(entry.at("format"), expected[i]) << image.file;
        const bool readAsHex = dynamic_cast<const HALYX::MCUBOOT::KeilHexFile*>(image.image.get()) != nullptr;
        const bool readAsBinary = dynamic_cast<const HALYX::MCUBOOT::BinaryFile*>(image.image.get()) != nullptr;
        EXPECT_EQ(readAsHex, entry.at("format") == "intel-hex") << image.file;
        EXPECT_EQ(readAsBinary, entry.at("format") == "binary") << image.file;
        EXPECT_EQ(entry.at("segments").at(0).at("address"), image.image->targetAddress()) << image.file;
    }
    // The two MCUboot images are described as such, with the hash the writer put in.
    EXPECT_EQ(entries[0].at("mcuboot").at("sha256").get<std::string>(), made.at("app.dat").at("sha256"));
    EXPECT_EQ(entries[1].at("mcuboot").at("sha256").get<std::string>(), made.at("net.img").at("sha256"));
    EXPECT_FALSE(entries[2].contains("mcuboot")); // its bytes are text
    EXPECT_EQ(entries[2].at("fileSize"), mcuboot.images()[2].image->length());

    // Programming through any other plugin merges the same segments.
    halyx_firmware firmware;
    firmware.format = HALYX_FW_FORMAT_ZIP;
    firmware.data = package.string();
    const auto merged = HALYX::loadFirmwareImage(firmware);
    nlohmann::ordered_json segments = nlohmann::ordered_json::array();
    for (const auto& segment : merged.segments()) {
        segments.push_back({{"address", segment.address}, {"size", segment.bytes.size()}});
    }
    nlohmann::ordered_json described = nlohmann::ordered_json::array();
    for (const auto& entry : entries) {
        for (const auto& segment : entry.at("segments")) {
            described.push_back(segment);
        }
    }
    std::sort(described.begin(), described.end(),
              [](const auto& a, const auto& b) { return a.at("address") < b.at("address"); });
    EXPECT_EQ(segments, described);
}

// A binary entry without "load_address" has no place: describing it, uploading
// it and programming it through a probe all refuse it alike.
TEST(PackageAgreement, ABinaryWithoutLoadAddressIsRefusedByEveryReader)
{
    halyx_test::TempDir dir;
    const auto package = dir / "unplaced.zip";
    const json layout = {{"files", {{{"file", "app.hex"}}, {{"file", "data.bin"}, {"image_index", 1}}}},
                         {"images", {{"app.hex", {{"body", 40}, {"hex", 0x8000}}}, {"data.bin", {{"body", 30}}}}}};
    halyx_test::runOk(fmt::format("{} {} package {} {}", halyx_test::python(),
                                  halyx_test::shellQuote(halyx_test::dataFile("image/make_mcuboot_image.py")),
                                  halyx_test::shellQuote(package.string()), halyx_test::shellQuote(layout.dump())));
    halyx_firmware firmware;
    firmware.format = HALYX_FW_FORMAT_ZIP;
    firmware.data = package.string();
    const std::vector<std::pair<std::string, std::function<void()>>> readers = {
        {"image info", [&] { halyx_tool::describeImageFile(package, 0); }},
        {"MCUboot package", [&] { HALYX::MCUBOOT::MultiImageFile::fromFile(package); }},
        {"memory image", [&] { HALYX::loadFirmwareImage(firmware); }}};
    for (const auto& [name, read] : readers) {
        try {
            read();
            ADD_FAILURE() << name << " placed a binary without an address";
        } catch (const HALYX::HALYXException& e) {
            EXPECT_EQ(e.code(), HALYX_ERR_MANIFEST) << name;
            EXPECT_STREQ(e.what(), "load_address key missing") << name;
        }
    }
}

} // namespace
