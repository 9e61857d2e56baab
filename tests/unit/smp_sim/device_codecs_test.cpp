// The simulated boot loader's base64 and upload-map readers follow the
// device's rules, including where they are odder than textbook ones.
#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "smp_wire.hpp"
#include "upload_map.hpp"

using HALYX::SIM::decodeLikeDevice;
using HALYX::SIM::LineDecoding;
using HALYX::SIM::readUploadMap;
using Status = LineDecoding::Status;
using nlohmann::json;

namespace {

LineDecoding decode(const std::string& text, size_t room = 1024)
{
    return decodeLikeDevice(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()), room);
}

std::vector<uint8_t> bytes(const std::string& text)
{
    return {text.begin(), text.end()};
}

} // namespace

TEST(DeviceBase64, GroupsOfFourPaddingAndWhatItRefuses)
{
    EXPECT_EQ(bytes("Man"), decode("TWFu").bytes);
    EXPECT_EQ(bytes("Ma"), decode("TWE=").bytes);
    EXPECT_EQ(bytes("M"), decode("TQ==").bytes);
    EXPECT_EQ(Status::Ok, decode("").status);

    // Characters short of a group of four are skipped, not an error.
    const auto short_group = decode("TWFuTWE");
    EXPECT_EQ(Status::Ok, short_group.status);
    EXPECT_EQ(bytes("Man"), short_group.bytes);
    EXPECT_EQ(3u, short_group.skippedCharacters);

    // Line ends and trailing spaces are skipped; a space inside, a lone CR,
    // a third '=', a character after '=' or outside the alphabet are refused.
    EXPECT_EQ(bytes("ManMan"), decode("TWFu\r\nTWFu\n  ").bytes);
    for (const char* text : {"TW Fu", "TWFu\rTWFu", "TQ===", "TQ=A", "TW-u", "TWFu\x80"}) {
        EXPECT_EQ(Status::Invalid, decode(text).status) << text;
    }

    // The room check counts the rounded-up length before the padding: five
    // characters ask for four bytes though three come out.
    EXPECT_EQ(Status::NoRoom, decode("TWFuT", 3).status);
    EXPECT_EQ(bytes("Man"), decode("TWFuT", 4).bytes);
    EXPECT_EQ(Status::NoRoom, decode("TWFu", 2).status);
    EXPECT_EQ(Status::Ok, decode("TWE=", 2).status);
}

TEST(DeviceUploadMap, KeysTypesAndShapesAsTheBulkDecoderTakesThem)
{
    const auto cbor = [](const json& value) { return json::to_cbor(value); };
    auto fields = readUploadMap(cbor(json{{"image", 1}, {"len", 70000}, {"off", 0}, {"data", json::binary_t({1, 2})}}));
    ASSERT_TRUE(fields);
    EXPECT_EQ(1u, fields->image);
    EXPECT_EQ(70000u, fields->length);
    EXPECT_EQ(0u, fields->offset);
    EXPECT_EQ((std::vector<uint8_t>{1, 2}), fields->data);

    // Other keys are skipped whatever they hold; missing ones stay empty.
    fields = readUploadMap(cbor(json{{"sha", json::binary_t({9})}, {"note", {{"a", json::array({1, "x", 2.5})}}}}));
    ASSERT_TRUE(fields);
    EXPECT_FALSE(fields->offset || fields->data || fields->length || fields->image);

    // Indefinite-length maps and skipped indefinite strings are fine.
    const std::vector<uint8_t> indefinite{0xBF, 0x63, 'o',  'f', 'f',  0x18, 0x40, 0x61,
                                          'x',  0x7F, 0x61, 'a', 0x61, 'b',  0xFF, 0xFF};
    fields = readUploadMap(indefinite);
    ASSERT_TRUE(fields);
    EXPECT_EQ(64u, fields->offset);

    // Refused: no map, a value of the wrong kind or beyond 32 bits, data as
    // an indefinite byte string, a key that is no text, a truncated map.
    EXPECT_FALSE(readUploadMap(cbor(json::array({1}))));
    EXPECT_FALSE(readUploadMap(cbor(json{{"off", -1}})));
    EXPECT_FALSE(readUploadMap(cbor(json{{"off", "0"}})));
    EXPECT_FALSE(readUploadMap(cbor(json{{"len", 0x100000000ULL}})));
    EXPECT_FALSE(readUploadMap(cbor(json{{"data", "text"}})));
    EXPECT_FALSE(readUploadMap(std::vector<uint8_t>{0xA1, 0x64, 'd', 'a', 't', 'a', 0x5F, 0x41, 1, 0xFF}));
    EXPECT_FALSE(readUploadMap(std::vector<uint8_t>{0xA1, 0x01, 0x02}));
    EXPECT_FALSE(readUploadMap(std::vector<uint8_t>{0xA2, 0x63, 'o', 'f', 'f', 0x00}));
    EXPECT_FALSE(readUploadMap(std::vector<uint8_t>{}));
}
