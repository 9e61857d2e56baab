#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "core/halyx_exception.hpp"
#include "files.hpp"
#include "mcuboot/binary_file.hpp"
#include "mcuboot/keil_hex_file.hpp"
#include "mcuboot/multi_image_file.hpp"

namespace HALYX::MCUBOOT {
namespace {

using Bytes = std::vector<uint8_t>;
using halyx_test::shellQuote;
using nlohmann::json;

// Runs the image script; returns what it prints.
json script(const std::string& command, const std::filesystem::path& out, const json& layout)
{
    return json::parse(halyx_test::runOk(fmt::format("{} {} {} {} {}", halyx_test::python(),
                                                     shellQuote(halyx_test::dataFile("image/make_mcuboot_image.py")),
                                                     command, shellQuote(out.string()), shellQuote(layout.dump()))));
}

Bytes fromHex(const std::string& hex)
{
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::string toHex(std::span<const uint8_t> bytes)
{
    std::string out;
    for (uint8_t b : bytes) {
        out += fmt::format("{:02x}", b);
    }
    return out;
}

template <typename Fn>
void expectMessage(Fn&& fn, const std::string& message)
{
    try {
        fn();
        ADD_FAILURE() << "no exception; expected " << message;
    } catch (const std::exception& e) {
        EXPECT_EQ(e.what(), message);
    }
}

TEST(McubootImage, HeaderAndTrailerMatchTheWriter)
{
    halyx_test::TempDir dir;
    const std::vector<json> variants = {
        {{"body", 1000}},
        {{"body", 300}, {"magic", 0x96F3B83C}, {"header_size", 0x200}, {"version", {9, 8, 0x1234, 0x56789ABC}}},
        {{"body", 64}, {"protected", true}, {"extra_tlv", true}, {"load_address", 0x12000}, {"flags", 0x10}},
        {{"body", 100}, {"protected", true}, {"pad", 4096}}, // slot padding after the trailer
    };
    for (const auto& options : variants) {
        SCOPED_TRACE(options.dump());
        const auto path = dir / "image.bin";
        const auto expected = script("image", path, options);
        const auto file = BinaryFile::fromFile(path);
        ASSERT_EQ(file->length(), expected["length"].get<size_t>());

        const auto header = file->header();
        EXPECT_EQ(header.magic, options.value("magic", 0x96F3B83Du));
        EXPECT_EQ(header.headerSize, expected["header_size"].get<uint16_t>());
        EXPECT_EQ(header.imageSize, expected["image_size"].get<uint32_t>());
        EXPECT_EQ(header.protectedTlvSize, expected["protected_tlv_size"].get<uint16_t>());
        EXPECT_EQ(header.loadAddress, options.value("load_address", 0u));
        EXPECT_EQ(header.flags, options.value("flags", 0u));
        const auto version = options.value("version", json{1, 2, 3, 4});
        EXPECT_EQ(header.version.text(), fmt::format("{}.{}.{}+{}", version[0].get<int>(), version[1].get<int>(),
                                                     version[2].get<int>(), version[3].get<uint32_t>()));

        const auto trailer = file->trailer();
        ASSERT_TRUE(trailer);
        EXPECT_EQ(toHex(trailer->sha256), expected["sha256"].get<std::string>());
        EXPECT_EQ(trailer->areas.size(), options.value("protected", false) ? 2u : 1u);
        const auto hashed = header.trailerOffset() + header.protectedTlvSize;
        EXPECT_EQ(toHex(file->digest(hashed)), expected["sha256"].get<std::string>());
    }
}

TEST(McubootImage, RefusesDamagedHeadersAndTrailers)
{
    Bytes header = {0x3D, 0xB8, 0xF3, 0x96, 0, 0, 0, 0, 32, 0, 0, 0, 1, 0, 0, 0};
    header.resize(32);
    expectMessage([&] { ImageHeader::parse(std::span(header).first(31)); },
                  "Unable to parse image header: remaining bytes are less than header size");
    Bytes wrongMagic = header;
    wrongMagic[0] = 0x3E;
    expectMessage([&] { ImageHeader::parse(wrongMagic); }, "Unable to parse image header: invalid magic value");

    const std::vector<std::pair<Bytes, std::string>> trailers = {
        {{}, "Unable to parse TLV area: remaining bytes are less than TLV area header"},
        {{0x07, 0x69, 0x10}, "Unable to parse TLV area: remaining bytes are less than TLV area header"},
        {{0x07, 0x69, 0x03, 0x00}, "Unable to parse TLV area: invalid size in TLV area header"},
        {{0x07, 0x69, 0x08, 0x00, 1, 2, 3}, "Unable to parse TLV area: remaining bytes are less than TLV area length"},
        {{0x07, 0x69, 0x04, 0x00}, "Image missing SHA256 hash in trailer"},
        {{0x07, 0x69, 0x07, 0x00, 0x10, 0x00, 0x00},
         "Unable to parse TLV entry: remaining bytes are less than TLV header size"},
        {{0x07, 0x69, 0x09, 0x00, 0x10, 0x00, 0x02, 0x00, 0xAA},
         "Unable to parse TLV entry: remaining bytes are less than TLV length"},
        {{0x07, 0x69, 0x09, 0x00, 0x01, 0x00, 0x01, 0x00, 0xAA}, "Image missing SHA256 hash in trailer"},
        // The hash only counts in the last area.
        {{0x08, 0x69, 0x08, 0x00, 0x10, 0x00, 0x00, 0x00, 0x07, 0x69, 0x04, 0x00},
         "Image missing SHA256 hash in trailer"},
        {{0x07, 0x69, 0x09, 0x00, 0x10, 0x00, 0x01, 0x00, 0xAA},
         "Image SHA256 hash in trailer has 1 bytes instead of 32"},
    };
    for (const auto& [bytes, message] : trailers) {
        EXPECT_THROW(ImageTrailer::parse(bytes), std::invalid_argument) << message;
        expectMessage([&] { ImageTrailer::parse(bytes); }, message);
    }

    // Header size + image size below 33: no trailer is looked for.
    Bytes noTrailer = header;
    noTrailer[12] = 0;
    EXPECT_FALSE(BinaryFile(noTrailer).trailer());
    // One more byte and it is required.
    Bytes shortTrailer = header;
    shortTrailer.push_back(0xAA);
    expectMessage([&] { BinaryFile(shortTrailer).trailer(); },
                  "Unable to parse TLV area: remaining bytes are less than TLV area header");
    // A body that claims more than the file holds.
    Bytes tooLong = header;
    tooLong[13] = 0x10;
    expectMessage([&] { BinaryFile(tooLong).trailer(); },
                  "Unable to parse TLV area: remaining bytes are less than TLV area header");
}

TEST(McubootImage, HandsOutChunksInOrder)
{
    Bytes bytes(100);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i);
    }
    BinaryFile file(bytes, 0x8000);
    Bytes joined;
    std::vector<size_t> lengths;
    for (auto chunk = file.nextChunk(32); !chunk.bytes.empty(); chunk = file.nextChunk(32)) {
        EXPECT_EQ(chunk.offset, joined.size());
        EXPECT_EQ(chunk.address, 0x8000 + joined.size());
        joined.insert(joined.end(), chunk.bytes.begin(), chunk.bytes.end());
        lengths.push_back(chunk.bytes.size());
    }
    EXPECT_EQ(lengths, (std::vector<size_t>{32, 32, 32, 4}));
    EXPECT_EQ(joined, bytes);
    EXPECT_EQ(file.nextChunk(32).bytes.size(), 0u);
    file.rewind();
    EXPECT_EQ(file.nextChunk(1000).bytes.size(), 100u);

    EXPECT_EQ(file.readAt(98, 2), (Bytes{98, 99}));
    expectMessage([&] { file.readAt(99, 2); }, "Not enough bytes left in image");
    expectMessage([&] { file.readAt(101, 0); }, "Not enough bytes left in image");
    BinaryFile empty(Bytes{});
    EXPECT_EQ(empty.nextChunk(16).bytes.size(), 0u);
    halyx_test::TempDir dir;
    expectMessage([&] { BinaryFile::fromFile(dir / "missing.bin"); }, "Image file read failed");
}

TEST(McubootImage, ReadsHexImagesWithGapsAsErasedFlash)
{
    halyx_test::TempDir dir;
    const auto path = dir / "image.hex";
    // Starts just below a 64 KiB boundary; 40 body bytes are missing from the file.
    const auto expected = script("image", path, {{"body", 3000}, {"hex", 0x1FFF0}, {"hole", {100, 40}}});
    const auto file = KeilHexFile::fromFile(path);
    EXPECT_EQ(file->targetAddress(), 0x1FFF0u);
    EXPECT_GT(file->image().segmentCount(), 1u);
    EXPECT_EQ(file->readAt(0, file->length()), fromHex(expected["bytes"]));
    ASSERT_TRUE(file->trailer());
    EXPECT_EQ(toHex(file->trailer()->sha256), expected["sha256"].get<std::string>());
    EXPECT_EQ(toHex(file->digest(file->header().trailerOffset())), expected["sha256"].get<std::string>());
}

TEST(McubootImage, PackagesListImagesInManifestOrder)
{
    halyx_test::TempDir dir;
    const auto path = dir / "package.zip";
    const json layout = {
        {"files",
         {{{"file", "net.bin"},
           {"image_index", "1"},
           {"load_address", 0x01000000},
           {"version_MCUBOOT", "1.0.0+0"},
           {"slot_index_primary", "3"},
           {"slot_index_secondary", "4"},
           {"type", "application"},
           {"board", "kit"},
           {"modtime", 1700000000}},
          {{"file", "app.hex"}, {"image_index", 0}},
          {{"file", "extra.bin"}, {"load_address", "0x2000"}}}},
        {"images",
         {{"net.bin", {{"body", 5000}, {"seed", 2}}},
          {"app.hex", {{"body", 700}, {"seed", 3}, {"hex", 0x8000}}},
          {"extra.bin", {{"body", 10}, {"seed", 4}}}}},
    };
    const auto expected = script("package", path, layout);
    const auto fromFile = MultiImageFile::fromFile(path);
    const auto fromBuffer = MultiImageFile::fromBuffer(halyx_test::readBytes(path));
    for (const auto* package : {&fromFile, &fromBuffer}) {
        const auto& images = package->images();
        ASSERT_EQ(images.size(), 3u);
        EXPECT_EQ(images[0].file, "net.bin");
        EXPECT_EQ(images[0].imageIndex, 1u);
        EXPECT_EQ(images[0].loadAddress, 0x01000000u);
        EXPECT_EQ(images[0].image->targetAddress(), 0x01000000u);
        EXPECT_EQ(images[0].version, "1.0.0+0");
        EXPECT_EQ(images[0].slotIndexPrimary, 3u);
        EXPECT_EQ(images[0].slotIndexSecondary, 4u);
        EXPECT_EQ(images[0].modtime, 1700000000u);
        EXPECT_EQ(images[0].type, "application");
        EXPECT_EQ(images[0].board, "kit");
        EXPECT_EQ(images[1].imageIndex, 0u);
        EXPECT_EQ(images[1].loadAddress, 0x8000u); // from the HEX file itself
        EXPECT_FALSE(images[2].imageIndex);
        EXPECT_EQ(images[2].loadAddress, 0x2000u);
        for (const auto& image : images) {
            EXPECT_EQ(image.image->readAt(0, image.image->length()), fromHex(expected[image.file]["bytes"]))
                << image.file;
            EXPECT_EQ(toHex(image.image->trailer()->sha256), expected[image.file]["sha256"].get<std::string>());
        }
    }
}

TEST(McubootImage, RefusesBrokenPackages)
{
    halyx_test::TempDir dir;
    auto expectCode = [&](const json& layout, halyx_errorcode_t code, const std::string& message) {
        const auto path = dir / "p.zip";
        script("package", path, layout);
        try {
            MultiImageFile::fromFile(path);
            ADD_FAILURE() << "opened: " << message;
        } catch (const HALYXException& e) {
            EXPECT_EQ(e.code(), code);
            EXPECT_EQ(e.what(), message);
        }
    };
    const json image = {{"body", 50}};
    expectCode({{"files", {{{"file", "a.bin"}}, {{"image_index", 1}}}}, {"images", {{"a.bin", image}}}},
               HALYX_ERR_MANIFEST, "file field missing from json manifest item");
    expectCode({{"files", {{{"file", "b.bin"}}}}, {"images", {{"a.bin", image}}}}, HALYX_ERR_NOT_FOUND,
               "file not found in zip: b.bin");
    expectCode({{"files", {{{"file", "a.bin"}, {"image_index", "one"}}}}, {"images", {{"a.bin", image}}}},
               HALYX_ERR_MANIFEST, "\"image_index\" of manifest item a.bin is not an unsigned number: \"one\"");

    halyx_test::writeText(dir / "not.zip", "not a zip");
    try {
        MultiImageFile::fromFile(dir / "not.zip");
        ADD_FAILURE() << "opened a text file";
    } catch (const HALYXException& e) {
        EXPECT_EQ(e.code(), HALYX_ERR_OPEN_FAILED);
        EXPECT_STREQ(e.what(), "Unable to open multi image file. Internal error code: 19");
    }
    EXPECT_THROW(MultiImageFile::fromBuffer(Bytes{1, 2, 3}), HALYXException);
}

} // namespace
} // namespace HALYX::MCUBOOT
