#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/halyx_exception.hpp"
#include "files.hpp"
#include "image/firmware_loader.hpp"
#include "image/package_manifest.hpp"
#include "image/zip_archive.hpp"

namespace HALYX {
namespace {

using halyx_test::runOk;
using halyx_test::shellQuote;
using Bytes = std::vector<uint8_t>;

// Expects fn to throw a HALYXException with this code and message.
template <typename Fn>
void expectHalyxError(Fn&& fn, halyx_errorcode_t code, const std::string& message)
{
    try {
        fn();
        ADD_FAILURE() << "no exception; expected " << message;
    } catch (const HALYXException& e) {
        EXPECT_EQ(e.code(), code) << e.what();
        EXPECT_EQ(e.what(), message);
    }
}

// Zips the files of dir (paths relative to it, in this order) with the zip tool.
std::filesystem::path zipUp(const halyx_test::TempDir& dir, const std::string& name, const std::string& files,
                            const std::string& options = "")
{
    runOk(fmt::format("cd {} && zip -q {} {} {}", shellQuote(dir.path().string()), options, name, files));
    return dir / name;
}

std::string text(const Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

TEST(ZipArchive, FindsTheFirstEntryThatContainsTheName)
{
    halyx_test::TempDir dir;
    std::filesystem::create_directories(dir / "pkg");
    halyx_test::writeText(dir / "pkg/manifest.json", "in a folder");
    halyx_test::writeText(dir / "pkg/app.hex", "app");
    halyx_test::writeText(dir / "manifest.json", "at the root");
    const auto folderOnly = zipUp(dir, "folder.zip", "pkg/app.hex pkg/manifest.json");

    const auto archive = ZipArchive::open(folderOnly);
    EXPECT_EQ(archive.entries(), (std::vector<std::string>{"pkg/app.hex", "pkg/manifest.json"}));
    EXPECT_EQ(text(archive.read("manifest.json")), "in a folder");
    EXPECT_EQ(text(archive.read("app")), "app");
    expectHalyxError([&] { archive.read("boot.bin"); }, HALYX_ERR_NOT_FOUND, "file not found in zip: boot.bin");
    // Both entries contain the name: archive order decides, an exact name gets no preference.
    const auto folderFirst = ZipArchive::open(zipUp(dir, "folder-first.zip", "pkg/manifest.json manifest.json"));
    EXPECT_EQ(folderFirst.find("manifest.json"), 0u);
    EXPECT_EQ(text(folderFirst.read("manifest.json")), "in a folder");
    EXPECT_EQ(
        text(ZipArchive::open(zipUp(dir, "root-first.zip", "manifest.json pkg/manifest.json")).read("manifest.json")),
        "at the root");

    const auto fromMemory = ZipArchive::fromBuffer(halyx_test::readBytes(folderOnly));
    EXPECT_EQ(text(fromMemory.read("manifest.json")), "in a folder");

    expectHalyxError([&] { ZipArchive::open(dir / "pkg/app.hex"); }, HALYX_ERR_OPEN_FAILED,
                     "unable to open zip file: " + (dir / "pkg/app.hex").string());
    expectHalyxError(
        [&] {
            ZipArchive::fromBuffer(Bytes{'P', 'K', 3, 4, 0});
        },
        HALYX_ERR_OPEN_FAILED, "unable to open zip file buffer");
}

TEST(ZipArchive, ReportsDamagedEntries)
{
    halyx_test::TempDir dir;
    std::string content;
    for (int i = 0; i < 2000; ++i) {
        content += fmt::format(":10{:04X}00000102030405060708090A0B0C0D0E0F00\n", i * 16);
    }
    halyx_test::writeText(dir / "big.hex", content);
    auto bytes = halyx_test::readBytes(zipUp(dir, "p.zip", "big.hex", "-9"));
    // The deflated data follows the 30-byte local header, the name and the extra field.
    const size_t data = 30 + (bytes[26] | bytes[27] << 8) + (bytes[28] | bytes[29] << 8);
    for (size_t i = data + 20; i < data + 60; ++i) {
        bytes[i] ^= 0x5A;
    }
    const auto archive = ZipArchive::fromBuffer(bytes);
    expectHalyxError([&] { archive.read("big.hex"); }, HALYX_ERR_ARCHIVE, "file decompression failed: big.hex");
}

TEST(PackageManifest, RefusesManifestsWithoutFiles)
{
    expectHalyxError([] { PackageManifest::parse("{\"files\": [{\"file\": \"a.bin\"}, {\"load_address\": 0}]}"); },
                     HALYX_ERR_MANIFEST, "file field missing from json manifest item");
    expectHalyxError([] { PackageManifest::parse("{\"files\": [{\"file\": \"\"}]}"); }, HALYX_ERR_MANIFEST,
                     "file field missing from json manifest item");
    expectHalyxError([] { PackageManifest::parse("{\"name\": 1}"); }, HALYX_ERR_MANIFEST, "files key missing");
    expectHalyxError([] { PackageManifest::parse("[1]"); }, HALYX_ERR_MANIFEST, "files key missing");
    expectHalyxError([] { PackageManifest::parse("{\"files\": ["); }, HALYX_ERR_MANIFEST,
                     "manifest.json is not valid JSON");

    const auto manifest = PackageManifest::parse(
        R"({"files": [{"file": "a.bin", "n": 16, "s": "16", "x": "0x10", "bad": "16k", "neg": -1, "v": "1.2.3"}]})");
    const auto& item = manifest.files().at(0);
    EXPECT_EQ(item.number("n"), 16u);
    EXPECT_EQ(item.number("s"), 16u);
    EXPECT_EQ(item.number("x"), 16u);
    EXPECT_EQ(item.number("absent"), std::nullopt);
    EXPECT_EQ(item.text("v"), "1.2.3");
    EXPECT_EQ(item.text("n"), "16");
    expectHalyxError([&] { item.number("bad"); }, HALYX_ERR_MANIFEST,
                     "\"bad\" of manifest item a.bin is not an unsigned number: \"16k\"");
    EXPECT_THROW(item.number("neg"), HALYXException);
}

halyx_firmware firmware(uint32_t format, std::string data, bool file)
{
    halyx_firmware fw;
    fw.format = format;
    fw.source_kind = file ? HALYX_FW_SOURCE_FILE : HALYX_FW_SOURCE_BUFFER;
    fw.data = std::move(data);
    return fw;
}

TEST(FirmwareLoader, ReadsEveryFormatOfAHandle)
{
    halyx_test::TempDir dir;
    const std::string hex = ":020010000102EB\n:00000001FF\n";
    EXPECT_EQ(loadFirmwareImage(firmware(HALYX_FW_FORMAT_INTEL_HEX, hex, false)).read(0x10, 2), (Bytes{1, 2}));
    EXPECT_EQ(loadFirmwareImage(firmware(HALYX_FW_FORMAT_BINARY, "\x07\x08", false), 0x8000).read(0x8000, 2),
              (Bytes{7, 8}));

    std::filesystem::create_directories(dir / "fw");
    halyx_test::writeText(dir / "fw/a.hex", hex);
    halyx_test::writeText(dir / "fw/b.bin", std::string(4, '\x09'));
    halyx_test::writeText(dir / "fw/manifest.json",
                          R"({"files": [{"file": "a.hex"}, {"file": "b.bin", "load_address": "0x12"}]})");
    const auto package = zipUp(dir, "p.zip", "fw/a.hex fw/b.bin fw/manifest.json");
    for (bool fromFile : {true, false}) {
        const auto image = loadFirmwareImage(firmware(
            HALYX_FW_FORMAT_ZIP, fromFile ? package.string() : text(halyx_test::readBytes(package)), fromFile));
        ASSERT_EQ(image.segmentCount(), 1u);
        EXPECT_EQ(image.read(0x10, 6), (Bytes{1, 2, 9, 9, 9, 9}));
    }

    halyx_test::writeText(dir / "fw/manifest.json", R"({"files": [{"file": "a.hex"}, {"file": "b.bin"}]})");
    expectHalyxError(
        [&] {
            loadFirmwareImage(firmware(HALYX_FW_FORMAT_ZIP,
                                       zipUp(dir, "q.zip", "fw/a.hex fw/b.bin fw/manifest.json").string(), true));
        },
        HALYX_ERR_MANIFEST, "load_address key missing");
    halyx_test::writeText(dir / "fw/manifest.json",
                          R"({"files": [{"file": "a.hex"}, {"file": "b.bin", "load_address": 17}]})");
    EXPECT_THROW(loadFirmwareImage(firmware(HALYX_FW_FORMAT_ZIP,
                                            zipUp(dir, "r.zip", "fw/a.hex fw/b.bin fw/manifest.json").string(), true)),
                 BinaryImage::memory_error);
    expectHalyxError([&] { loadFirmwareImage(firmware(HALYX_FW_FORMAT_MODEM_PACKAGE, package.string(), true)); },
                     HALYX_ERR_NOT_SUPPORTED,
                     "A modem package is not a memory image; it is programmed through the modem's bootloader.");
}

} // namespace
} // namespace HALYX
