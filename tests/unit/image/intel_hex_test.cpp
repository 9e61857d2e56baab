#include <fstream>
#include <random>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "files.hpp"
#include "image/binary_image.hpp"
#include "image/intel_hex_reader.hpp"

namespace HALYX {
namespace {

using halyx_test::dataFile;
using halyx_test::python;
using halyx_test::runOk;
using halyx_test::shellQuote;

std::span<const uint8_t> bytesOf(const std::string& text)
{
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

BinaryImage parse(const std::string& text)
{
    return BinaryImage::fromHex(bytesOf(text), "test.hex");
}

// A record with a correct checksum.
std::string record(uint8_t type, uint16_t address, const std::vector<uint8_t>& data)
{
    uint8_t sum = static_cast<uint8_t>(data.size() + (address >> 8) + (address & 0xFF) + type);
    std::string line = fmt::format(":{:02X}{:04X}{:02X}", data.size(), address, type);
    for (uint8_t b : data) {
        line += fmt::format("{:02X}", b);
        sum = static_cast<uint8_t>(sum + b);
    }
    return line + fmt::format("{:02X}", static_cast<uint8_t>(-sum));
}

const std::string kEof = ":00000001FF";

nlohmann::json oracleDump(const std::filesystem::path& file)
{
    return nlohmann::json::parse(
        runOk(python() + " " + shellQuote(dataFile("image/hex_oracle.py")) + " dump " + shellQuote(file.string())));
}

std::string hexString(std::span<const uint8_t> bytes)
{
    std::string out;
    for (uint8_t b : bytes) {
        out += fmt::format("{:02x}", b);
    }
    return out;
}

void expectSameAsOracle(const BinaryImage& image, const nlohmann::json& dump)
{
    const auto segments = image.segments();
    ASSERT_EQ(segments.size(), dump["segments"].size());
    for (size_t i = 0; i < segments.size(); ++i) {
        EXPECT_EQ(segments[i].address, dump["segments"][i][0].get<uint32_t>()) << "segment " << i;
        EXPECT_EQ(hexString(segments[i].bytes), dump["segments"][i][1].get<std::string>()) << "segment " << i;
    }
    if (dump["start"].is_null()) {
        EXPECT_FALSE(image.startAddress());
    } else {
        ASSERT_TRUE(image.startAddress());
        const bool linear = dump["start"]["kind"] == "linear";
        EXPECT_EQ(image.startAddress()->kind,
                  linear ? BinaryImage::StartAddress::Kind::Linear : BinaryImage::StartAddress::Kind::Segmented);
        EXPECT_EQ(image.startAddress()->value, dump["start"]["value"].get<uint32_t>());
    }
}

TEST(IntelHexReader, RefusesEachMalformedLineWithItsReason)
{
    struct Case {
        std::string line;
        std::string reason;
    };
    const std::vector<Case> cases = {
        {":10000000zz", "Line does not end in valid hex."},
        {":0100 000000", "Line does not end in valid hex."},
        {":", "Could not parse hex file line length tag."},
        {":1", "Could not parse hex file line length tag."},
        {":0100000000", "Line is not of the expected length. Expected 13 characters, got 11."},
        {record(0, 0, {1, 2}) + "00", "Line is not of the expected length. Expected 15 characters, got 17."},
        {record(6, 0, {}), "Invalid record type / linear address record tag 6."},
        {record(1, 0, {0}), "Line is longer than expected for an EOF record."},
        {record(2, 0, {0, 1, 2}), "Line is longer than expected for an extended segment address record."},
        {record(4, 0, {0}), "Line is longer than expected for a linear address record."},
        {":0300300002337A1F", "Checksum for line is not correct. Expected 0x1E, got 0x1F."},
    };
    for (const auto& c : cases) {
        const std::string text = record(4, 0, {0, 0}) + "\r\n" + c.line + "\r\n" + kEof + "\r\n";
        try {
            parse(text);
            ADD_FAILURE() << "accepted " << c.line;
        } catch (const BinaryImage::parse_error& e) {
            EXPECT_EQ(e.what(), fmt::format("Failed to parse line 2 : \"{}\"", c.line));
            EXPECT_EQ(e.reason(), c.reason) << c.line;
        }
    }
    // The last record of the address space may end at 4 GiB, not beyond.
    EXPECT_NO_THROW(parse(record(4, 0, {0xFF, 0xFF}) + "\n" + record(0, 0xFFFF, {1}) + "\n" + kEof));
    try {
        parse(record(4, 0, {0xFF, 0xFF}) + "\n" + record(0, 0xFFFF, {1, 2}) + "\n" + kEof);
        ADD_FAILURE() << "accepted a record past 4 GiB";
    } catch (const BinaryImage::parse_error& e) {
        EXPECT_EQ(e.reason(), "Record runs past the end of the 32-bit address space.");
    }
}

TEST(IntelHexReader, ChecksTheFileAsAWhole)
{
    halyx_test::TempDir dir;
    auto expectError = [&](const std::string& content, const std::string& message) {
        const auto path = dir / "f.hex";
        halyx_test::writeText(path, content);
        try {
            BinaryImage::fromHexFile(path);
            ADD_FAILURE() << "accepted: " << message;
        } catch (const BinaryImage::error& e) {
            EXPECT_EQ(e.what(), fmt::format(fmt::runtime(message), path.string()));
        }
    };
    expectError("", "BinaryImage {} is empty.");
    expectError(kEof + "\n", "BinaryImage {} is empty.");
    expectError("\xFE\xFF" + kEof, "BinaryImage {} contains a UTF-16BE BOM.");
    expectError("\xFF\xFE" + kEof, "BinaryImage {} contains a UTF-16LE BOM.");
    expectError(record(0, 0, {1}) + "\n", "Unexpected end of file {}.");
    expectError(record(0, 0, {1}) + "\n" + kEof + "\n" + record(0, 1, {1}) + "\n",
                "Found end of content before end of file in {}.");
    expectError(record(0, 0x100, {1, 2, 3}) + "\n" + record(0, 0x102, {4}) + "\n" + kEof,
                "Overlapping segments detected at address 0x00000102.");
    for (const auto& path : {dir / "missing.hex", dir.path()}) {
        try {
            BinaryImage::fromHexFile(path);
            ADD_FAILURE() << "opened " << path;
        } catch (const BinaryImage::file_error& e) {
            EXPECT_EQ(e.what(), fmt::format("BinaryImage access error, could not open {}.", path.string()));
        }
    }

    // Accepted: a UTF-8 mark, blank lines, tabs and CRs around lines, no final newline.
    const auto image = parse("\xEF\xBB\xBF" + record(0, 0x10, {0xAA}) + "\t\r\n\n\r\n\t" + record(0, 0x11, {0xBB}) +
                             "\r\n" + kEof + "\r\n\r\n");
    EXPECT_EQ(image.read(0x10, 2), (std::vector<uint8_t>{0xAA, 0xBB}));
}

TEST(IntelHexReader, SkipsLinesThatAreNotRecords)
{
    const std::string data = record(0, 0x20, {0xAA, 0xBB});
    const auto plain = parse(data + "\n" + kEof + "\n");
    // Comments before, between and after the records, one looking like a record without its ':'.
    const auto commented =
        parse("# built by a script\n" + data.substr(1) + "\n" + data + "\n; note\n" + kEof + "\ntrailing text\n");
    EXPECT_EQ(commented.segments().size(), 1u);
    EXPECT_EQ(commented.read(0x20, 2), plain.read(0x20, 2));

    // Skipped lines still count, so a bad record is reported at its own line.
    try {
        parse("comment\n\n" + record(0, 0, {1}) + "FF\n" + kEof);
        ADD_FAILURE() << "accepted a long record";
    } catch (const BinaryImage::parse_error& e) {
        EXPECT_EQ(e.what(), fmt::format("Failed to parse line 3 : \"{}FF\"", record(0, 0, {1})));
    }
    // Text without records has no end-of-file record.
    EXPECT_THROW(parse("no records here\n"), BinaryImage::format_error);
}

TEST(IntelHexReader, AppliesAddressRecordsAndMergesRecords)
{
    const auto image = parse(record(2, 0, {0x12, 0x34}) + "\n" +             // base 0x12340
                             record(0, 0x0010, {1, 2}) + "\n" +              // 0x12350
                             record(0, 0x0012, {3}) + "\n" +                 // continues it
                             record(4, 0, {0x80, 0x01}) + "\n" +             // base 0x80010000
                             record(0, 0xFFFF, {4, 5}) + "\n" +              // crosses into 0x80020000
                             record(0, 0x0000, {6}) + "\n" +                 // out of order: before it
                             record(3, 0, {0x00, 0x01, 0x23, 0x45}) + "\n" + // CS:IP
                             record(5, 0, {1, 2}) + "\n" +                   // wrong length: ignored
                             kEof);
    const auto segments = image.segments();
    ASSERT_EQ(segments.size(), 3u);
    EXPECT_EQ(segments[0].address, 0x12350u);
    EXPECT_EQ(std::vector<uint8_t>(segments[0].bytes.begin(), segments[0].bytes.end()),
              (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(segments[1].address, 0x80010000u);
    EXPECT_EQ(segments[2].address, 0x8001FFFFu);
    EXPECT_EQ(image.read(0x8001FFFF, 2), (std::vector<uint8_t>{4, 5}));
    ASSERT_TRUE(image.startAddress());
    EXPECT_EQ(*image.startAddress(),
              (BinaryImage::StartAddress{BinaryImage::StartAddress::Kind::Segmented, 0x00012345}));
}

TEST(IntelHexReader, LinesSplitAcrossPiecesReadTheSame)
{
    halyx_test::TempDir dir;
    const auto path = dir / "m.hex";
    runOk(python() + " " + shellQuote(dataFile("image/hex_oracle.py")) + " make " + shellQuote(path.string()) + " 7");
    const auto text = halyx_test::readBytes(path);
    const auto whole = BinaryImage::fromHex(text, "m.hex");
    for (size_t piece : {1, 2, 3, 5, 13, 64}) {
        BinaryImage image;
        IntelHexReader reader("m.hex", image);
        for (size_t at = 0; at < text.size(); at += piece) {
            const size_t n = std::min(piece, text.size() - at);
            reader.feed(std::span(reinterpret_cast<const char*>(text.data()) + at, n));
        }
        reader.finish();
        ASSERT_EQ(image.segmentCount(), whole.segmentCount()) << piece;
        for (size_t i = 0; i < image.segmentCount(); ++i) {
            EXPECT_EQ(image.segment(i).address, whole.segment(i).address);
            EXPECT_TRUE(std::ranges::equal(image.segment(i).bytes, whole.segment(i).bytes));
        }
    }
}

// Files from two independent writers, read as Python's intelhex reads them.
TEST(IntelHexReader, ReadsIndependentlyWrittenFilesAsIntelhexDoes)
{
    halyx_test::TempDir dir;
    for (int seed = 1; seed <= 5; ++seed) {
        for (const char* mode : {"make", "write"}) {
            const auto path = dir / fmt::format("{}{}.hex", mode, seed);
            runOk(python() + " " + shellQuote(dataFile("image/hex_oracle.py")) + " " + mode + " " +
                  shellQuote(path.string()) + " " + std::to_string(seed));
            SCOPED_TRACE(path.filename().string());
            expectSameAsOracle(BinaryImage::fromHexFile(path), oracleDump(path));
        }
    }
}

TEST(IntelHexReader, ReadsSrecCatOutput)
{
    halyx_test::TempDir dir;
    std::mt19937 random(42);
    std::vector<uint8_t> payload(200000);
    for (auto& b : payload) {
        b = static_cast<uint8_t>(random());
    }
    halyx_test::writeBytes(dir / "p.bin", payload);
    // Default (04 records) and segmented (02/03 records) addressing.
    for (const auto& [options, offset] :
         {std::pair{std::string(""), 0x1FFF8u}, std::pair{std::string("-address-length=3"), 0x2345u}}) {
        const auto hex = dir / "p.hex";
        runOk(fmt::format("srec_cat {} -binary -offset {:#x} -execution-start-address={:#x} -o {} -intel {}",
                          shellQuote((dir / "p.bin").string()), offset, offset + 1, shellQuote(hex.string()), options));
        const auto image = BinaryImage::fromHexFile(hex);
        ASSERT_EQ(image.segmentCount(), 1u) << options;
        EXPECT_EQ(image.lowestAddress(), offset);
        EXPECT_EQ(image.read(offset, payload.size()), payload);
        ASSERT_TRUE(image.startAddress());
        EXPECT_EQ(image.startAddress()->value, offset + 1);
    }
}

TEST(IntelHexWriter, OutputReadsBackInEveryReader)
{
    halyx_test::TempDir dir;
    for (int seed = 1; seed <= 4; ++seed) {
        const auto source = dir / "in.hex";
        runOk(python() + " " + shellQuote(dataFile("image/hex_oracle.py")) + " make " + shellQuote(source.string()) +
              " " + std::to_string(seed));
        const auto image = BinaryImage::fromHexFile(source);
        const auto written = dir / "out.hex";
        image.save(written, "hex");

        const auto text = halyx_test::readBytes(written);
        std::istringstream lines(std::string(text.begin(), text.end()));
        for (std::string line; std::getline(lines, line);) {
            ASSERT_TRUE(!line.empty() && line.back() == '\r') << "line without CRLF: " << line;
            ASSERT_LE(line.size(), 1 + 8 + 32 + 2 + 1u) << line;
        }
        // Python's intelhex and our own reader see what was written...
        const auto oracle = oracleDump(written);
        expectSameAsOracle(image, oracle);
        expectSameAsOracle(BinaryImage::fromHexFile(written), oracle);
        // ...and srec_cat reads it and writes the same bytes back.
        const auto again = dir / "srec.hex";
        runOk(fmt::format("srec_cat {} -intel -o {} -intel", shellQuote(written.string()), shellQuote(again.string())));
        auto segmentsOnly = oracleDump(again);
        segmentsOnly["start"] = oracle["start"];
        expectSameAsOracle(image, segmentsOnly);
    }
}

} // namespace
} // namespace HALYX
