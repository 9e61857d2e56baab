#include <cstring>
#include <fstream>
#include <memory>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "files.hpp"
#include "image/binary_image.hpp"

namespace HALYX {
namespace {

using halyx_test::dataFile;
using halyx_test::runOk;
using halyx_test::shellQuote;
using Bytes = std::vector<uint8_t>;

// Builds the little Cortex-M program once for all tests here.
class ElfLoader : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = std::make_unique<halyx_test::TempDir>();
        std::ifstream in(dataFile("image/cortex_m/link.ld.in"));
        std::string script{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        script.replace(script.find("@CONFIG_ORIGIN@"), 15, "0x10001000");
        halyx_test::writeText(*dir_ / "link.ld", script);
        const auto source = shellQuote(dataFile("image/cortex_m/main.c").string());
        runOk(fmt::format("arm-none-eabi-gcc -mcpu=cortex-m4 -mthumb -O1 -nostdlib -ffreestanding -T {} {} -o {}",
                          shellQuote((*dir_ / "link.ld").string()), source, shellQuote(elf().string())));
        runOk(fmt::format("arm-none-eabi-gcc -mbig-endian -c {} -o {}", source, shellQuote((*dir_ / "be.o").string())));
        runOk(fmt::format("gcc -c -x c /dev/null -o {}", shellQuote((*dir_ / "x64.o").string())));
        runOk(fmt::format("arm-none-eabi-gcc -c -x c /dev/null -o {}", shellQuote((*dir_ / "empty.o").string())));
    }
    static void TearDownTestSuite() { dir_.reset(); }

    static std::filesystem::path elf() { return *dir_ / "fw.elf"; }
    static std::filesystem::path file(const std::string& name) { return *dir_ / name; }

    static uint32_t symbol(const std::string& name)
    {
        const auto out = runOk("arm-none-eabi-nm " + shellQuote(elf().string()));
        const auto at = out.find(" " + name + "\n");
        return static_cast<uint32_t>(std::stoul(out.substr(out.rfind('\n', at) + 1, 8), nullptr, 16));
    }

    static std::unique_ptr<halyx_test::TempDir> dir_;
};
std::unique_ptr<halyx_test::TempDir> ElfLoader::dir_;

TEST_F(ElfLoader, LoadsWhatObjcopyWouldWrite)
{
    const auto image = BinaryImage::fromElfFile(elf());
    const auto hex = file("fw.hex");
    runOk(fmt::format("arm-none-eabi-objcopy -O ihex {} {}", shellQuote(elf().string()), shellQuote(hex.string())));
    const auto oracle =
        nlohmann::json::parse(runOk(halyx_test::python() + " " + shellQuote(dataFile("image/hex_oracle.py")) +
                                    " dump " + shellQuote(hex.string())));
    const auto segments = image.segments();
    ASSERT_EQ(segments.size(), oracle["segments"].size());
    for (size_t i = 0; i < segments.size(); ++i) {
        EXPECT_EQ(segments[i].address, oracle["segments"][i][0].get<uint32_t>());
        std::string bytes;
        for (uint8_t b : segments[i].bytes) {
            bytes += fmt::format("{:02x}", b);
        }
        EXPECT_EQ(bytes, oracle["segments"][i][1].get<std::string>());
    }
    ASSERT_TRUE(image.startAddress());
    EXPECT_EQ(image.startAddress()->value, oracle["start"]["value"].get<uint32_t>());

    // .data sits at its load address in flash; nothing of RAM (.data's run
    // address, .bss) is in the image; the second region is.
    EXPECT_EQ(image.read(symbol("__data_load__"), 4), (Bytes{0x44, 0x33, 0x22, 0x11}));
    EXPECT_LT(image.highestAddress(), 0x20000000u);
    EXPECT_EQ(image.read(0x10001000, 4), (Bytes{0x01, 0xEE, 0xFF, 0xC0}));
    // Padding before .rodata belongs to no section and stays out.
    EXPECT_THROW(image.read(symbol("banner") - 1, 1), BinaryImage::memory_error);
}

TEST_F(ElfLoader, WithoutSectionHeadersLoadsWholeSegments)
{
    auto bytes = halyx_test::readBytes(elf());
    // e_shoff, e_shnum and e_shstrndx of a 32-bit header
    std::memset(bytes.data() + 0x20, 0, 4);
    std::memset(bytes.data() + 0x30, 0, 4);
    const auto segments = BinaryImage::fromElf(bytes, "stripped.elf");
    const auto sections = BinaryImage::fromElfFile(elf());
    for (const auto& segment : sections.segments()) {
        EXPECT_EQ(segments.read(segment.address, segment.bytes.size()),
                  Bytes(segment.bytes.begin(), segment.bytes.end()));
    }
    // The padding is part of the segment's file bytes.
    EXPECT_EQ(segments.read(symbol("banner") - 1, 1), Bytes{0});
}

TEST_F(ElfLoader, RefusesWhatItCannotLoad)
{
    auto expectError = [](const std::vector<uint8_t>& bytes, const std::string& message) {
        try {
            BinaryImage::fromElf(bytes, "x.elf");
            ADD_FAILURE() << "accepted: " << message;
        } catch (const BinaryImage::error& e) {
            EXPECT_EQ(e.what(), message);
        }
    };
    const auto good = halyx_test::readBytes(elf());
    expectError(halyx_test::readBytes(file("x64.o")), "Content is not a 32bit elf file.");
    expectError(halyx_test::readBytes(file("be.o")), "Content is not a little endian elf file.");
    expectError(Bytes(good.begin(), good.begin() + 15), "Could not load elf data.");
    expectError({}, "Could not load elf data.");
    expectError(Bytes(good.begin(), good.begin() + good.size() / 2), "Could not load elf data.");
    Bytes badClass = good;
    badClass[4] = 3;
    expectError(badClass, "Could not load elf data.");
    Bytes notElf = good;
    notElf[1] = 'X';
    expectError(notElf, "Could not load elf data.");
    expectError(halyx_test::readBytes(file("empty.o")), "BinaryImage x.elf is empty.");

    try {
        BinaryImage::fromElfFile(file("missing.elf"));
        ADD_FAILURE() << "opened a missing file";
    } catch (const BinaryImage::file_error& e) {
        EXPECT_EQ(e.what(), fmt::format("BinaryImage access error, could not open {}.", file("missing.elf").string()));
    }
}

} // namespace
} // namespace HALYX
