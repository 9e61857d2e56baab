#include <gtest/gtest.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "mcuboot/console_framing.hpp"
#include "mcuboot/frame_receiver.hpp"
#include "mcuboot/serial_settings.hpp"
#include "mcuboot/smp_requests.hpp"
#include "python_oracle.hpp"

using namespace HALYX::MCUBOOT;
using nlohmann::json;

namespace {

// Reassembles the frames with Python's base64 and checks the CRC with binascii.
const char* const kDecodeFrames = R"PY(
import sys, json, base64, binascii
raw = open(sys.argv[1], 'rb').read()
assert raw.endswith(b'\n')
lines = raw[:-1].split(b'\n')
markers = [l[:2].hex() for l in lines]
text = b''.join(l[2:] for l in lines)
body = base64.b64decode(text, validate=True)
length = int.from_bytes(body[:2], 'big')
crc = int.from_bytes(body[-2:], 'big')
print(json.dumps({
  'markers': markers, 'sizes': [len(l) + 1 for l in lines], 'text_len': len(text),
  'length_ok': length == len(body) - 2,
  'crc_ok': binascii.crc_hqx(body[2:-2], 0) == crc,
  'header_and_payload': body[2:-2].hex(),
}))
)PY";

std::vector<uint8_t> joined(const ConsoleFraming::EncodedPacket& encoded)
{
    std::vector<uint8_t> bytes;
    for (const auto& frame : encoded.frames) {
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    return bytes;
}

std::string hex(const std::vector<uint8_t>& bytes)
{
    std::string out;
    for (const uint8_t b : bytes) {
        out += fmt::format("{:02x}", b);
    }
    return out;
}

SmpPacket bigPacket(uint8_t seq, size_t size)
{
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    return uploadChunkRequest(seq, MgmtGroup::Image, ChunkRequest{data, 0, static_cast<uint32_t>(size), {}, 0});
}

std::vector<uint8_t> bytesOf(std::string_view text)
{
    return std::vector<uint8_t>(text.begin(), text.end());
}

} // namespace

TEST(ConsoleFraming, FramesDecodeIndependently)
{
    // No payload at all makes a 12-byte body: 16 base64 characters.
    const auto small = SmpPacket::request(MgmtOp::Write, 0, MgmtGroup::Os, 3, 5, {});
    const auto one = ConsoleFraming::encode(small, 500);
    ASSERT_EQ(1u, one.frames.size());
    EXPECT_EQ(19u, one.frames[0].size());
    EXPECT_EQ(16u, one.size);
    auto decoded = halyx_test::runPythonOracle(kDecodeFrames, joined(one));
    EXPECT_EQ((json{"0609"}), decoded["markers"]);
    EXPECT_TRUE(decoded["crc_ok"]);
    EXPECT_TRUE(decoded["length_ok"]);
    EXPECT_EQ(hex(small.headerAndPayload()), decoded["header_and_payload"]);

    const auto cut = ConsoleFraming::encode(small, 10);
    decoded = halyx_test::runPythonOracle(kDecodeFrames, joined(cut));
    // A device decodes each line on its own: whole groups of four per line.
    EXPECT_EQ((json{"0609", "0414", "0414", "0414"}), decoded["markers"]);
    EXPECT_EQ((json{7, 7, 7, 7}), decoded["sizes"]); // 4 characters each
    EXPECT_EQ(hex(small.headerAndPayload()), decoded["header_and_payload"]);

    const auto big = bigPacket(4, 3000);
    const auto many = ConsoleFraming::encode(big, 127);
    decoded = halyx_test::runPythonOracle(kDecodeFrames, joined(many));
    EXPECT_TRUE(decoded["crc_ok"]);
    EXPECT_EQ(hex(big.headerAndPayload()), decoded["header_and_payload"]);
    EXPECT_EQ(many.size, decoded["text_len"]);
    const auto& sizes = decoded["sizes"];
    for (size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_LE(sizes[i].get<int>(), 127);
        if (i + 1 < sizes.size()) {
            EXPECT_EQ(0, (sizes[i].get<int>() - 3) % 4) << "line " << i;
        }
    }

    EXPECT_THROW(ConsoleFraming::encode(SmpPacket(), 500), SmpException);
}

TEST(ConsoleFraming, CrcAndContentSizes)
{
    const std::vector<uint8_t> check{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(0x31C3, ConsoleFraming::crc16(check)); // the CRC-16/XMODEM check value

    EXPECT_EQ(48840, ConsoleFraming::maxFrameContentSize(65535, 500));
    EXPECT_EQ(1483, ConsoleFraming::maxFrameContentSize(2048, 127));
    EXPECT_EQ(0, ConsoleFraming::maxFrameContentSize(0, 500));
    EXPECT_EQ(0, ConsoleFraming::maxFrameContentSize(2048, 0));
    EXPECT_EQ(0, ConsoleFraming::maxFrameContentSize(10, 5)); // never negative
}

TEST(FrameReceiver, ReassemblesAcrossReadsAndSurvivesNoise)
{
    const auto packet = bigPacket(42, 2000);
    const auto wire = joined(ConsoleFraming::encode(packet, 127));

    FrameReceiver receiver;
    // Byte by byte, with a late carriage return and stray text in front.
    auto stream = bytesOf("\rabc");
    stream.insert(stream.end(), wire.begin(), wire.end());
    std::vector<SmpPacket> got;
    for (const uint8_t b : stream) {
        for (auto& p : receiver.feed(std::span(&b, 1))) {
            got.push_back(std::move(p));
        }
    }
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(packet.header(), got[0].header());
    EXPECT_EQ(packet.payload(), got[0].payload());
    EXPECT_EQ(0u, receiver.pendingFrames());

    // Noise and a frame in one read: the frame is not lost with the noise.
    auto noisy = bytesOf("boot log line\r\n");
    const auto reset = joined(ConsoleFraming::encode(resetRequest(7), 500));
    noisy.insert(noisy.end(), reset.begin(), reset.end());
    ASSERT_EQ(1u, receiver.feed(noisy).size());

    // Stray letters are dropped whole; a trailing 0x06 may begin a marker and stays.
    EXPECT_TRUE(receiver.feed(bytesOf("xyz")).empty());
    EXPECT_EQ(0u, receiver.bufferedBytes());
    auto split = bytesOf("xyz");
    split.push_back(0x06);
    EXPECT_TRUE(receiver.feed(split).empty());
    EXPECT_EQ(1u, receiver.bufferedBytes());
    const std::vector<uint8_t> rest(reset.begin() + 1, reset.end());
    const auto completed = receiver.feed(rest);
    ASSERT_EQ(1u, completed.size());
    EXPECT_EQ(7, completed[0].header().seq);
}

TEST(FrameReceiver, RestartsOnStartAndDropsUndecodablePackets)
{
    FrameReceiver receiver;
    const auto first = ConsoleFraming::encode(bigPacket(1, 600), 127);
    const auto second = joined(ConsoleFraming::encode(resetRequest(2), 500));

    // Half a packet, then a new START: the half is abandoned.
    EXPECT_TRUE(receiver.feed(first.frames[0]).empty());
    EXPECT_EQ(1u, receiver.pendingFrames());
    auto got = receiver.feed(second);
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(2, got[0].header().seq);

    // A continuation with no start, and a frame that is not base64: dropped,
    // and the next good packet still arrives.
    EXPECT_TRUE(receiver.feed(first.frames[1]).empty());
    EXPECT_EQ(0u, receiver.pendingFrames());
    auto bad = bytesOf("\x06\x09****\n");
    EXPECT_TRUE(receiver.feed(bad).empty());
    EXPECT_EQ(1u, receiver.feed(second).size());

    // A wrong CRC is accepted.
    auto body = ConsoleFraming::packetBody(resetRequest(9));
    body.back() ^= 0xFF;
    auto text = ConsoleFraming::base64Encode(body);
    std::vector<uint8_t> frame{0x06, 0x09};
    frame.insert(frame.end(), text.begin(), text.end());
    frame.push_back('\n');
    got = receiver.feed(frame);
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(9, got[0].header().seq);

    // A header that claims more payload than the packet holds.
    auto lying = ConsoleFraming::packetBody(resetRequest(10));
    lying[5] = 0x10; // header len 16, nothing follows
    text = ConsoleFraming::base64Encode(lying);
    frame.assign({0x06, 0x09});
    frame.insert(frame.end(), text.begin(), text.end());
    frame.push_back('\n');
    EXPECT_TRUE(receiver.feed(frame).empty());
    EXPECT_EQ(0u, receiver.pendingFrames());
}

// A device that streams without ever ending a line, or frames without ever
// completing a packet, costs bounded memory; a good packet still gets through.
TEST(FrameReceiver, HoldsBoundedMemoryAgainstEndlessInput)
{
    FrameReceiver receiver;
    const auto good = joined(ConsoleFraming::encode(resetRequest(3), 500));
    std::vector<uint8_t> endless{0x06, 0x09};
    endless.resize(4096, 'A');
    EXPECT_TRUE(receiver.feed(endless).empty());
    endless.assign(4096, 'A');
    for (int i = 0; i < 256; ++i) { // 1 MiB without a line end
        EXPECT_TRUE(receiver.feed(endless).empty());
        ASSERT_LE(receiver.bufferedBytes(), FrameReceiver::kMaxLine + endless.size());
    }
    EXPECT_EQ(1u, receiver.feed(good).size());

    // Continuation lines keep coming: the frames held never exceed the
    // largest packet the length field allows.
    std::vector<uint8_t> line{0x04, 0x14};
    line.resize(1002, 'A');
    line.push_back('\n');
    auto start = ConsoleFraming::encode(bigPacket(6, 60000), 1003);
    EXPECT_TRUE(receiver.feed(start.frames[0]).empty());
    for (int i = 0; i < 200; ++i) {
        receiver.feed(line);
        ASSERT_LE(receiver.pendingFrames(), FrameReceiver::kMaxPacketText / 1000 + 1);
    }
    EXPECT_EQ(1u, receiver.feed(good).size());
}

TEST(SerialSettings, RefusesValuesOutsideTheirRanges)
{
    SerialSettings settings{"/dev/ttyACM0", 115200, 0, 0, 0, 8};
    EXPECT_NO_THROW(settings.validate());
    EXPECT_EQ("port: /dev/ttyACM0@115200,flow_control:0,parity:0", settings.toString());

    const auto message = [](SerialSettings s) -> std::string {
        try {
            s.validate();
        } catch (const std::invalid_argument& e) {
            return std::string("invalid_argument: ") + e.what();
        } catch (const std::out_of_range& e) {
            return std::string("out_of_range: ") + e.what();
        }
        return "accepted";
    };
    auto s = settings;
    s.flowControl = 3;
    EXPECT_EQ("invalid_argument: Invalid flowControl argument", message(s));
    s = settings;
    s.parity = 3;
    EXPECT_EQ("invalid_argument: Invalid parity argument", message(s));
    s = settings;
    s.stopBits = 3;
    EXPECT_EQ("invalid_argument: Invalid stopBits argument {}", message(s));
    s = settings;
    s.characterSize = 4;
    EXPECT_EQ("out_of_range: invalid character_size value", message(s));
    s.characterSize = 9;
    EXPECT_EQ("out_of_range: invalid character_size value", message(s));
}
