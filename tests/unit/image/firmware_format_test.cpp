#include <gtest/gtest.h>

#include "core/halyx_exception.hpp"
#include "files.hpp"
#include "image/binary_image.hpp"
#include "image/firmware_format.hpp"

namespace HALYX {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes(std::string_view text)
{
    return {text.begin(), text.end()};
}

const Bytes kHex = bytes(":020000040000FA");
const Bytes kElf = bytes("\x7f"
                         "ELF\x01\x01");
const Bytes kZip = bytes("PK\x03\x04\x14\x00");
const Bytes kRaw = {0x3d, 0xb8, 0xf3, 0x96, 0x00};

TEST(FirmwareFormat, NameDecidesBeforeContent)
{
    struct Case {
        const char* name;
        Bytes head;
        halyx_fw_format_t format;
    };
    const std::vector<Case> cases = {
        {"app.hex", kHex, HALYX_FW_FORMAT_INTEL_HEX},
        {"APP.IHEX", kRaw, HALYX_FW_FORMAT_INTEL_HEX},
        {"fw.Elf", kHex, HALYX_FW_FORMAT_ELF},
        {"fw.AXF", kRaw, HALYX_FW_FORMAT_ELF},
        {"build/a.out", kZip, HALYX_FW_FORMAT_ELF},
        // A binary may start with any byte, ':' included.
        {"boot.BIN", kHex, HALYX_FW_FORMAT_BINARY},
        {"update.Zip", kElf, HALYX_FW_FORMAT_ZIP},
        // Only the end of the name counts.
        {"out.hex/app", kElf, HALYX_FW_FORMAT_ELF},
        {"app.hex.txt", kHex, HALYX_FW_FORMAT_INTEL_HEX},
        {"firmware", kZip, HALYX_FW_FORMAT_ZIP},
        {"firmware", bytes("\xEF\xBB\xBF:1000"), HALYX_FW_FORMAT_INTEL_HEX},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(firmwareFormat(c.name, c.head), c.format) << c.name;
        // Inside a package the same rules hold for every kind but a package.
        if (c.format != HALYX_FW_FORMAT_ZIP) {
            EXPECT_EQ(packageEntryFormat(c.name, c.head), c.format) << c.name;
        }
    }
}

TEST(FirmwareFormat, RefusesWhatItCannotTell)
{
    for (const auto& head : {kRaw, Bytes{},
                             bytes("\x7f"
                                   "EL"),
                             bytes(" :1000")}) {
        try {
            firmwareFormat("app.img", head);
            ADD_FAILURE() << "decided a format for " << head.size() << " bytes named app.img";
        } catch (const HALYXException& e) {
            EXPECT_EQ(e.code(), HALYX_ERR_INVALID_ARGUMENT);
            EXPECT_NE(std::string(e.what()).find("Cannot tell the format of app.img"), std::string::npos) << e.what();
            EXPECT_NE(std::string(e.what()).find("Name a raw binary image .bin."), std::string::npos) << e.what();
        }
    }

    // A manifest says its entries are images, so an unknown one is raw binary; a package in a package is not.
    EXPECT_EQ(packageEntryFormat("net.img", kRaw), HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(packageEntryFormat("empty", {}), HALYX_FW_FORMAT_BINARY);
    for (const auto& [name, head] : {std::pair{"inner.ZIP", kRaw}, std::pair{"inner", kZip}}) {
        try {
            packageEntryFormat(name, head);
            ADD_FAILURE() << "accepted " << name;
        } catch (const HALYXException& e) {
            EXPECT_EQ(e.code(), HALYX_ERR_NOT_SUPPORTED);
            EXPECT_EQ(e.what(), std::string(name) + " is a zip package inside a package; a package's manifest lists "
                                                    "HEX, ELF or binary images.");
        }
    }
}

TEST(FirmwareFormat, ReadsTheHeadOfAFile)
{
    halyx_test::TempDir dir;
    halyx_test::writeBytes(dir / "fw.dat", kElf);
    halyx_test::writeBytes(dir / "short", {':'});
    halyx_test::writeBytes(dir / "empty.bin", {});
    EXPECT_EQ(firmwareFileFormat(dir / "fw.dat"), HALYX_FW_FORMAT_ELF);
    EXPECT_EQ(firmwareFileFormat(dir / "short"), HALYX_FW_FORMAT_INTEL_HEX);
    EXPECT_EQ(firmwareFileFormat(dir / "empty.bin"), HALYX_FW_FORMAT_BINARY);
    EXPECT_THROW(firmwareFileFormat(dir / "missing.hex"), BinaryImage::file_error);
    EXPECT_THROW(firmwareFileFormat(dir.path()), BinaryImage::file_error);
}

} // namespace
} // namespace HALYX
