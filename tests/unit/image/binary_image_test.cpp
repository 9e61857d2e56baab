#include <sstream>

#include <gtest/gtest.h>

#include "files.hpp"
#include "image/binary_image.hpp"

namespace HALYX {
namespace {

using Bytes = std::vector<uint8_t>;

BinaryImage twoSegments()
{
    BinaryImage image;
    image.append(0x1000, Bytes{1, 2, 3, 4});
    image.append(0x1008, Bytes{9});
    image.finalize();
    return image;
}

TEST(BinaryImage, ReadsBackBytesAndFillsGaps)
{
    const auto image = twoSegments();
    EXPECT_EQ(image.read(0x1001, 3), (Bytes{2, 3, 4}));
    EXPECT_EQ(image.read(0x1008, 1), (Bytes{9}));
    try {
        image.read(0x1002, 4);
        ADD_FAILURE() << "read past a segment";
    } catch (const BinaryImage::memory_error& e) {
        EXPECT_STREQ(e.what(), "Number of bytes read from hex file was not as expected for address=0x00001002. "
                               "Expected to read: 4, but got: 2");
    }
    EXPECT_THROW(image.read(0x0FFF, 1), BinaryImage::memory_error);
    EXPECT_THROW(image.read(0x1009, 1), BinaryImage::memory_error);

    Bytes out(12);
    image.copy(0x0FFE, out, 0xFF);
    EXPECT_EQ(out, (Bytes{0xFF, 0xFF, 1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 9, 0xFF}));

    std::ostringstream binary;
    image.writeBinary(binary);
    EXPECT_EQ(binary.str(), std::string("\x01\x02\x03\x04\xFF\xFF\xFF\xFF\x09", 9));
    EXPECT_THROW(image.contiguous(), BinaryImage::DiscontiguousError);
    EXPECT_STREQ(BinaryImage::DiscontiguousError().what(), "Memory segments were not contiguous.");
}

TEST(BinaryImage, SortsMergesAndRefusesOverlaps)
{
    BinaryImage image;
    image.append(0x20, Bytes{3});
    image.append(0x10, Bytes{1});
    image.append(0x11, Bytes{2}); // continues 0x10 but arrives after 0x20
    image.append(0x21, Bytes{4});
    image.finalize();
    ASSERT_EQ(image.segmentCount(), 2u);
    EXPECT_EQ(image.read(0x10, 2), (Bytes{1, 2}));
    EXPECT_EQ(image.read(0x20, 2), (Bytes{3, 4}));

    BinaryImage touching;
    touching.append(0x12, Bytes{7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20});
    image.merge(touching);
    ASSERT_EQ(image.segmentCount(), 1u);
    EXPECT_EQ(image.contiguous().bytes.size(), 18u);
    EXPECT_EQ(image.read(0x1F, 2), (Bytes{20, 3}));

    try {
        image.merge(BinaryImage::fromBytes(Bytes{0, 0}, 0x0F));
        ADD_FAILURE() << "merged an overlap";
    } catch (const BinaryImage::memory_error& e) {
        EXPECT_STREQ(e.what(), "Overlapping segments detected at address 0x00000010.");
    }
    EXPECT_THROW(BinaryImage::fromBytes(Bytes{1, 2}, 0xFFFFFFFF), BinaryImage::memory_error);
    EXPECT_NO_THROW(BinaryImage::fromBytes(Bytes{1}, 0xFFFFFFFF));
}

TEST(BinaryImage, SavesWholeFilesOrNothing)
{
    halyx_test::TempDir dir;
    const auto image = twoSegments();
    image.save(dir / "a.bin", "bin");
    EXPECT_EQ(halyx_test::readBytes(dir / "a.bin"), (Bytes{1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 9}));
    image.save(dir / "a.hex", "HEX");
    const auto back = BinaryImage::fromHexFile(dir / "a.hex");
    EXPECT_EQ(back.segmentCount(), 2u);
    EXPECT_EQ(back.read(0x1000, 4), (Bytes{1, 2, 3, 4}));

    try {
        image.save(dir / "a.s19", "s19");
        ADD_FAILURE() << "saved in an unknown format";
    } catch (const BinaryImage::format_error& e) {
        EXPECT_STREQ(e.what(), "s19 was not recognized as a supported format specifier.");
    }
    EXPECT_THROW(image.save(dir / "no" / "such" / "dir.bin", "bin"), BinaryImage::file_error);
    // Only the two finished files remain: no temporary ones, nothing partial.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), std::filesystem::directory_iterator()), 2);
}

} // namespace
} // namespace HALYX
