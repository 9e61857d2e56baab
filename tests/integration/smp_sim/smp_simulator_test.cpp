// The simulated boot loader is as strict as a stock one: what it answers,
// what it silently drops, and what its flash ends up holding.
#include <gtest/gtest.h>

#include <thread>

#include "console.hpp"
#include "smp_simulator.hpp"

using HALYX::SIM::SmpSimulator;
using nlohmann::json;
using namespace smp_test;
using namespace std::chrono_literals;

namespace {

constexpr uint8_t kRead = 0;
constexpr uint8_t kWrite = 2;

// A stock boot loader whose flash erases at once.
SmpSimulator::Config quickDevice()
{
    auto config = SmpSimulator::Config::mcuboot();
    config.pageEraseTime = std::chrono::microseconds(0);
    config.slotSize = 64 * 1024;
    return config;
}

Request echoControl(uint8_t seq)
{
    return Request{kWrite, 0, 1, seq, json::to_cbor(json::object()), {}};
}

Request upload(uint8_t seq, std::vector<uint8_t> payload)
{
    return Request{kWrite, 1, 1, seq, std::move(payload), {}};
}

// The device answered `bad` never: the next answer is the one to `good`.
void expectOnlyTheSecondAnswered(Console& console, const std::string& bad, uint8_t good_seq)
{
    console.write(bad);
    const auto answer = console.exchange(echoControl(good_seq));
    ASSERT_TRUE(answer);
    EXPECT_EQ(good_seq, answer->seq);
    EXPECT_EQ(json({{"rc", 0}}), answer->map);
}

} // namespace

TEST(SmpSimulatorConsole, LinesAndTheReceiveBufferLimitWhatIsAnswered)
{
    SmpSimulator device(quickDevice());
    Console console(device.port());
    ASSERT_TRUE(console.isOpen());

    // An answer echoes the header with op + 1, no flags, in lines of at most 127 bytes.
    const auto data = pattern(600, 1);
    const auto first = console.exchange(upload(1, chunk(0, data, 5000)));
    ASSERT_TRUE(first);
    EXPECT_EQ(3, first->op);
    EXPECT_EQ(0, first->flags);
    EXPECT_EQ(1, first->group);
    EXPECT_EQ(1, first->seq);
    EXPECT_EQ(1, first->id);
    EXPECT_EQ(0xBF, first->payload.front()) << "answers are indefinite-length maps";
    EXPECT_EQ(json({{"rc", 0}, {"off", 600}}), first->map);
    for (const size_t length : first->lineLengths) {
        EXPECT_LE(length, 127u);
    }

    // A line over 128 bytes is cut and loses its newline: never answered.
    const auto next = chunk(600, std::span(data).first(100));
    expectOnlyTheSecondAnswered(console, consoleLines(upload(2, next), 500), 3);
    EXPECT_EQ(1u, device.stats().line.linesCut);
    // 126 characters: one byte over.
    expectOnlyTheSecondAnswered(console, consoleLines(upload(4, next), 126), 5);
    EXPECT_EQ(2u, device.stats().line.linesCut);
    // Lines whose text is no multiple of four lose characters on the device.
    const auto dropped = device.stats().line.droppedCharacters;
    expectOnlyTheSecondAnswered(console, consoleLines(upload(6, next), 122), 7);
    EXPECT_GT(device.stats().line.droppedCharacters, dropped);
    // The same request in 124-character lines is taken.
    auto answer = console.exchange(upload(8, next), 124);
    ASSERT_TRUE(answer);
    EXPECT_EQ(json({{"rc", 0}, {"off", 700}}), answer->map);

    // A packet beyond the 1024-byte buffer overflows it; the next start recovers.
    const auto big = chunk(700, pattern(1000, 2));
    expectOnlyTheSecondAnswered(console, consoleLines(upload(9, big), 124), 10);
    EXPECT_GE(device.stats().line.overflows, 1u);
    EXPECT_EQ(700u, device.image().size());

    // A wrong CRC, an op that is neither read nor write, a header claiming less
    // payload than there is, a bad character, console noise: all dropped silently.
    expectOnlyTheSecondAnswered(console, consoleLines(packetText(echoControl(11), true), 124), 12);
    EXPECT_GE(device.stats().line.crcErrors, 1u);
    auto odd_op = echoControl(13);
    odd_op.op = 4;
    auto short_header = echoControl(15);
    short_header.payload = json::to_cbor(json{{"x", 1}});
    short_header.headerLength = 1;
    expectOnlyTheSecondAnswered(console, consoleLines(odd_op) + consoleLines(short_header), 14);
    EXPECT_EQ(2u, device.stats().line.headerDrops);
    auto text = packetText(echoControl(16));
    text[5] = '*';
    expectOnlyTheSecondAnswered(console, "boot banner\n" + consoleLines(text, 124), 17);
    EXPECT_GE(device.stats().line.decodeErrors, 1u);
    EXPECT_GE(device.stats().line.noise, 1u);
    EXPECT_EQ(0u, device.stats().rejected);
}

TEST(SmpSimulatorCommands, OnlyWhatAStockBootLoaderHas)
{
    SmpSimulator device(quickDevice());
    Console console(device.port());
    const json unsupported{{"rc", 8}};

    // The image erase some clients send first, and the slot state.
    auto answer = console.exchange(Request{kWrite, 1, 5, 1, json::to_cbor(json::object()), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(unsupported, answer->map);
    answer = console.exchange(Request{kRead, 1, 0, 2, json::to_cbor(json::object()), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(unsupported, answer->map);
    // The statistics query for "smp_com" gets a read response with rc 8.
    answer = console.exchange(Request{kRead, 2, 0, 3, json::to_cbor(json{{"name", "smp_com"}}), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(1, answer->op);
    EXPECT_EQ(2, answer->group);
    EXPECT_EQ(unsupported, answer->map);
    // The MCUmgr parameter query, when the boot loader is not built with it.
    answer = console.exchange(Request{kRead, 0, 6, 4, json::to_cbor(json::object()), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(unsupported, answer->map);
    answer = console.exchange(Request{kWrite, 9, 0, 5, json::to_cbor(json::object()), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(unsupported, answer->map);
    EXPECT_EQ(0u, device.stats().slotErasesStarted);

    // Built with it: the buffer size and no "rc".
    auto config = quickDevice();
    config.answerParameters = true;
    config.receiveBufferSize = 2048;
    SmpSimulator with_parameters(config);
    Console second(with_parameters.port());
    answer = second.exchange(Request{kRead, 0, 6, 6, json::to_cbor(json::object()), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(json({{"buf_size", 2048}, {"buf_count", 1}}), answer->map);
    // Its larger buffer takes a packet that the stock one drops; lines stay at 128 bytes.
    answer = second.exchange(upload(7, chunk(0, pattern(1500, 3), 1500)));
    ASSERT_TRUE(answer);
    EXPECT_EQ(json({{"rc", 0}, {"off", 1500}}), answer->map);

    // The forgiving profile erases on request and tells its limits.
    auto permissive = SmpSimulator::Config::permissive();
    permissive.frameMax = 127;
    permissive.packMax = 4096;
    SmpSimulator forgiving(permissive);
    Console third(forgiving.port());
    answer = third.exchange(Request{kWrite, 1, 5, 8, json::to_cbor(json::object()), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(json({{"rc", 0}}), answer->map);
    answer = third.exchange(Request{kRead, 2, 0, 9, json::to_cbor(json{{"name", "smp_com"}}), {}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(127, answer->map.at("fields").at("frame_max"));
    EXPECT_EQ(4096, answer->map.at("fields").at("pack_max"));
}

TEST(SmpSimulatorUpload, WholeWriteBlocksOffsetsAndImageNumbers)
{
    auto config = quickDevice();
    config.writeBlockSize = 8;
    SmpSimulator device(config);
    Console console(device.port());
    const auto image = pattern(2003, 4);
    const auto part = [&](size_t from, size_t count) { return std::span(image).subspan(from, count); };
    auto send = [&](uint8_t seq, std::vector<uint8_t> payload) {
        const auto answer = console.exchange(upload(seq, std::move(payload)));
        return answer ? answer->map : json();
    };

    // A non-final 692-byte chunk: 688 bytes are written, the tail is asked for again.
    EXPECT_EQ(json({{"rc", 0}, {"off", 688}}), send(1, chunk(0, part(0, 692), 2003, 0)));
    EXPECT_EQ(1u, device.stats().unalignedTails);
    // Elsewhere than where the upload stands: the current offset, nothing written.
    EXPECT_EQ(json({{"rc", 0}, {"off", 688}}), send(2, chunk(692, part(692, 692))));
    EXPECT_EQ(1u, device.stats().repeatedChunks);
    // Only the first chunk's image counts.
    EXPECT_EQ(json({{"rc", 0}, {"off", 1376}}), send(3, chunk(688, part(688, 692), {}, 1)));
    // Past "len": refused.
    EXPECT_EQ(json({{"rc", 3}}), send(4, chunk(1376, pattern(700, 5))));
    // The final chunk is written whole, its last block padded with erased bytes.
    EXPECT_EQ(json({{"rc", 0}, {"off", 2003}}), send(5, chunk(1376, part(1376, 627))));
    EXPECT_EQ(image, device.image(1, 0));
    EXPECT_TRUE(device.image(1, 1).empty());
    const auto flash = device.flash(0);
    ASSERT_EQ(config.slotSize, flash.size());
    EXPECT_EQ(std::vector<uint8_t>(flash.begin() + 2003, flash.begin() + 2008), std::vector<uint8_t>(5, 0xFF));

    // First chunks the boot loader refuses: too long for the slot, no "len",
    // more data than "len", images it has no slot for; and chunks without "off".
    EXPECT_EQ(json({{"rc", 3}}), send(6, chunk(0, part(0, 16), 64 * 1024 + 1)));
    EXPECT_EQ(json({{"rc", 3}}), send(7, chunk(0, part(0, 16))));
    EXPECT_EQ(json({{"rc", 3}}), send(8, chunk(0, part(0, 16), 8)));
    EXPECT_EQ(json({{"rc", 3}}), send(9, chunk(0, part(0, 16), 16, 1)));
    EXPECT_EQ(json({{"rc", 5}}), send(10, chunk(0, part(0, 16), 16, 2)));
    EXPECT_EQ(json({{"rc", 3}}), send(11, json::to_cbor(json{{"data", json::binary_t(std::vector<uint8_t>{1, 2})}})));
    EXPECT_EQ(json({{"rc", 3}}), send(12, json::to_cbor(json::array({1, 2}))));
    // None of them erased the slot.
    EXPECT_EQ(1u, device.stats().slotErasesStarted);
    EXPECT_EQ(image, device.image(1, 0));

    // Unknown keys are skipped, a known one twice is refused.
    nlohmann::ordered_json extra;
    extra["sha"] = json::binary_t(std::vector<uint8_t>{9});
    extra["data"] = json::binary_t(std::vector<uint8_t>{});
    extra["off"] = 0;
    extra["len"] = 0;
    EXPECT_EQ(json({{"rc", 0}, {"off", 0}}), send(13, nlohmann::ordered_json::to_cbor(extra)));
    auto twice = nlohmann::ordered_json::to_cbor(extra);
    twice[0] = static_cast<uint8_t>(twice[0] + 1); // one entry more: "off" again
    const auto off_again = nlohmann::ordered_json::to_cbor(nlohmann::ordered_json{{"off", 0}});
    twice.insert(twice.end(), off_again.begin() + 1, off_again.end());
    EXPECT_EQ(json({{"rc", 3}}), send(14, twice));
}

TEST(SmpSimulatorUpload, AFirstChunkSentAgainDuringTheEraseErasesAgain)
{
    auto config = quickDevice();
    config.pageEraseTime = std::chrono::milliseconds(20); // 16 pages: long enough to send into
    SmpSimulator device(config);
    Console console(device.port());
    const auto data = pattern(400, 6);
    const auto request = consoleLines(upload(1, chunk(0, data, 400)));
    console.write(request);
    ASSERT_TRUE(device.waitForSlotErases(1, 5s));
    // A client that gave up waiting sends it again; the device reads it once the erase is over.
    console.write(request);
    for (int answers = 0; answers < 2; ++answers) {
        const auto answer = console.read(10s);
        ASSERT_TRUE(answer);
        EXPECT_EQ(json({{"rc", 0}, {"off", 400}}), answer->map);
    }
    EXPECT_EQ(2u, device.stats().slotErasesStarted);
    EXPECT_EQ(2u, device.stats().slotErasesCompleted);
    EXPECT_EQ(data, device.image());
}

TEST(SmpSimulatorReboot, ResetTakesThePortAwayAndTheDeviceComesBackWithItsFlash)
{
    auto config = quickDevice();
    config.rebootDelay = 20ms;
    config.rebootTime = 100ms;
    SmpSimulator device(config);
    const auto data = pattern(1000, 7);
    {
        Console console(device.port());
        auto answer = console.exchange(upload(1, chunk(0, std::span(data).first(600), 1000)));
        ASSERT_TRUE(answer);
        answer = console.exchange(upload(2, chunk(600, std::span(data).subspan(600))));
        ASSERT_TRUE(answer);
        EXPECT_EQ(json({{"rc", 0}, {"off", 1000}}), answer->map);
        answer = console.exchange(Request{kWrite, 0, 5, 3, json::to_cbor(json::object()), {}});
        ASSERT_TRUE(answer);
        EXPECT_EQ(json({{"rc", 0}}), answer->map);
        EXPECT_TRUE(console.hangsUp(5s)) << "the port stayed after the reset";
    }
    ASSERT_TRUE(device.waitForReboots(1, 5s));
    EXPECT_EQ(data, device.image());

    // RAM is new: the upload state is gone, the flash is not.
    Console console(device.port());
    ASSERT_TRUE(console.isOpen());
    const auto answer = console.exchange(upload(4, chunk(1000, std::span(data).first(8))));
    ASSERT_TRUE(answer);
    EXPECT_EQ(json({{"rc", 0}, {"off", 0}}), answer->map);
    EXPECT_EQ(data, device.image());
    EXPECT_EQ(1u, device.stats().reboots);

    // The forgiving profile stays.
    auto permissive = SmpSimulator::Config::permissive();
    SmpSimulator forgiving(permissive);
    Console third(forgiving.port());
    ASSERT_TRUE(third.exchange(Request{kWrite, 0, 5, 5, json::to_cbor(json::object()), {}}));
    EXPECT_TRUE(third.exchange(echoControl(6)));
    EXPECT_EQ(0u, forgiving.stats().reboots);
}
