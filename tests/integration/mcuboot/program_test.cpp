#include <gtest/gtest.h>

#include <thread>

#include "platform/interprocess_lock.hpp"
#include "program_fixture.hpp"

using namespace halyx_test;
using HALYX::SIM::SmpSimulator;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

const std::string kSerial = uniqueSerial("SIMMCUBOOT-");

SimulatedKitLister::Kit mcubootKit(SmpSimulator& simulator, std::string serial = kSerial)
{
    return {std::move(serial), "Kit in MCUBOOT serial recovery", "1234", &simulator, {}, {}};
}

// An image of `size` bytes in `format`, and the bytes the device must end up with.
std::vector<uint8_t> writeImage(const std::string& path, size_t size, int seed, bool hex = false)
{
    json options{{"body", size}, {"seed", seed}};
    if (hex) {
        options["hex"] = 0x10000;
    }
    return bytesFromHex(makeImage("image", path, options).at("bytes").get<std::string>());
}

void expectUploadProgressSane(const std::vector<json>& progress)
{
    int last = -1;
    bool done = false;
    for (const auto& record : progress) {
        if (record.at("operation") != "upload_image") {
            last = -1;
            continue;
        }
        const int percentage = record.at("progressPercentage");
        if (record.at("message") == "Image was uploaded successfully.") {
            EXPECT_EQ(100, percentage);
            done = true;
            continue;
        }
        EXPECT_LE(percentage, 90);
        EXPECT_GE(percentage, last);
        last = percentage;
    }
    EXPECT_TRUE(done);
}

void expectLockFree()
{
    auto lock = HALYX::createInterprocessLock(kSerial);
    EXPECT_NO_THROW(lock->lock(100ms));
    lock->unlock();
}

} // namespace

TEST(McubootIdentify, MarksMcubootKitsAndTheCellularKit)
{
    const json port{{"path", "/dev/ttyACM0"}, {"vendorId", "7A5C"}, {"productId", "1234"}};
    const json mcuboot{{"serialPorts", json::array({port})}, {"usb", {{"device", {{"product", "MCUboot"}}}}}};
    EXPECT_TRUE(HALYX::MCUBOOT::McubootPlugin::identify(mcuboot).mcuboot);
    EXPECT_FALSE(HALYX::MCUBOOT::McubootPlugin::identify(mcuboot).modem);

    json cellular{{"serialPorts", json::array({port})}};
    cellular["serialPorts"][0]["productId"] = "0x520f";
    const auto found = HALYX::MCUBOOT::McubootPlugin::identify(cellular);
    EXPECT_TRUE(found.mcuboot);
    EXPECT_TRUE(found.modem);

    json application{{"serialPorts", json::array({port})}, {"usb", {{"device", {{"product", "Dev kit"}}}}}};
    EXPECT_FALSE(HALYX::MCUBOOT::McubootPlugin::identify(application).mcuboot);
    json portless{{"usb", {{"device", {{"product", "MCUBOOT"}}}}}};
    EXPECT_FALSE(HALYX::MCUBOOT::McubootPlugin::identify(portless).mcuboot);
}

TEST(McubootProgram, BinHexAndPackageLandByteForByte)
{
    SmpSimulator device(SmpSimulator::Config::permissive());
    SmpSimulator other(SmpSimulator::Config::permissive());
    ProgramHarness harness({mcubootKit(device), {"OTHERKIT", "Dev kit", "1234", &other, {}, {}}});
    const auto listed = harness.enumerate();
    EXPECT_TRUE(listed.at(kSerial).at("traits").at("mcuBoot"));
    EXPECT_FALSE(listed.at(kSerial).at("traits").at("modem"));
    EXPECT_FALSE(listed.at("OTHERKIT").at("traits").at("mcuBoot"));
    const auto id = harness.idOf(kSerial);

    // No answer to the parameter query: the transport's defaults, 48748-byte first chunks.
    const auto bin = tempPath("app.bin");
    const auto bin_bytes = writeImage(bin, 120000, 1);
    auto result = harness.program(id, bin, HALYX_FW_FORMAT_BINARY);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bin_bytes, device.image(1, 0));
    EXPECT_EQ(3u, device.stats().uploads); // 48748 + 48800 + the rest
    EXPECT_EQ(1u, device.stats().resets);
    EXPECT_EQ(1u, device.stats().erases);
    EXPECT_EQ(0u, device.stats().rejected);
    expectUploadProgressSane(result.progress);
    const auto& first = result.progress.front();
    EXPECT_EQ("open_device", first.at("operation"));
    EXPECT_EQ(1, first.at("step"));
    EXPECT_EQ(5, first.at("amountOfSteps"));
    EXPECT_EQ("close_device", result.progress.back().at("operation"));
    EXPECT_EQ(5, result.progress.back().at("step"));

    const auto hex = tempPath("app.hex");
    const auto hex_bytes = writeImage(hex, 30000, 2, true);
    result = harness.program(id, hex, HALYX_FW_FORMAT_INTEL_HEX);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(hex_bytes, device.image(1, 0));

    const auto zip = tempPath("package.zip");
    const json layout{{"files", json::array({{{"file", "app.bin"}, {"image_index", 0}, {"load_address", 0}},
                                           {{"file", "net.bin"}, {"image_index", 1}, {"load_address", 0x1000000}}})},
                    {"images", {{"app.bin", {{"body", 70000}, {"seed", 3}}}, {"net.bin", {{"body", 9000}, {"seed", 4}}}}}};
    const auto made = makeImage("package", zip, layout);
    result = harness.program(id, zip, HALYX_FW_FORMAT_ZIP);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytesFromHex(made.at("app.bin").at("bytes")), device.image(1, 0));
    EXPECT_EQ(bytesFromHex(made.at("net.bin").at("bytes")), device.image(1, 1));

    // A name that is none of the image kinds is refused before the device is opened.
    const auto text = tempPath("notes.txt");
    writeText(text, "not an image");
    const auto uploads = device.stats().uploads;
    result = harness.program(id, text, HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(HALYX_ERR_GENERAL, result.code);
    EXPECT_EQ("Error when programming through MCUBoot: Expected to program a filename ending with .hex, .ihex. or .bin "
              "Please verify filename, file format and stream type. Error code: 602 (Invalid).",
              result.message);
    EXPECT_EQ(uploads, device.stats().uploads);
}

TEST(McubootProgram, NegotiatedLimitsAreKept)
{
    auto config = SmpSimulator::Config::permissive();
    config.frameMax = 127;
    config.packMax = 2048;
    SmpSimulator device(config);
    ProgramHarness harness({mcubootKit(device)});
    const auto bin = tempPath("small-frames.bin");
    const auto bytes = writeImage(bin, 20000, 5);
    const auto result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytes, device.image(1, 0));
    const auto stats = device.stats();
    EXPECT_EQ(0u, stats.oversized);
    EXPECT_LE(stats.line.longestFrame, 127u);
    EXPECT_LE(stats.line.longestPacket, 2048u);
    EXPECT_EQ(1u + (20000 - 1388 + 1443) / 1444, stats.uploads); // 1388-byte first chunk, 1444 after
}

TEST(McubootProgram, ModemPackageGoesToTheModemGroup)
{
    SmpSimulator device(SmpSimulator::Config::permissive());
    ProgramHarness harness({{kSerial, "Cellular kit", "520F", &device, {}, {}}});
    const auto listed = harness.enumerate();
    EXPECT_TRUE(listed.at(kSerial).at("traits").at("modem"));
    const auto zip = tempPath("modem.zip");
    const json layout{{"files", json::array({{{"file", "modem.bin"}, {"image_index", 0}, {"load_address", 0x50000}}})},
                    {"images", {{"modem.bin", {{"body", 50000}, {"seed", 6}}}}}};
    const auto made = makeImage("package", zip, layout);
    const auto result = harness.program(harness.idOf(kSerial), zip, HALYX_FW_FORMAT_MODEM_PACKAGE);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytesFromHex(made.at("modem.bin").at("bytes")), device.image(0x41, 0));
    EXPECT_EQ(0x50000u, device.address(0));
    EXPECT_TRUE(device.image(1, 0).empty());
    EXPECT_EQ(0u, device.stats().erases); // the modem group is not erased first
}

TEST(McubootProgram, DeviceFaultsEndWithTheirErrorAndARetrySucceeds)
{
    SmpSimulator device(SmpSimulator::Config::permissive());
    ProgramHarness harness({mcubootKit(device)}, 1000);
    const auto id = harness.idOf(kSerial);
    const auto bin = tempPath("faults.bin");
    const auto bytes = writeImage(bin, 100000, 7);

    struct Case {
        SmpSimulator::Fault fault;
        halyx_errorcode_t code;
        std::string error;
    };
    const std::vector<Case> cases{
        {SmpSimulator::Fault::ErrorRc, HALYX_ERR_GENERAL, "Error code: 602 (Invalid)."},
        {SmpSimulator::Fault::WrongOffset, HALYX_ERR_GENERAL, "Error code: 605 (BadState)."},
        {SmpSimulator::Fault::Unplug, HALYX_ERR_GENERAL, "Error code: 610 (UartWriteError)."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        device.injectFault(c.fault, SmpSimulator::Command::Upload, 1);
        auto result = harness.program(id, bin, HALYX_FW_FORMAT_BINARY);
        EXPECT_EQ(c.code, result.code);
        EXPECT_EQ("Error when programming through MCUBoot: Unable to program MCUBoot image. Filename: " + bin + ". " +
                      c.error,
                  result.message);
        EXPECT_LT(result.took, 5000ms);
        expectLockFree();
        device.replug(); // no-op unless it was unplugged; the port name may change
        result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
        ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
        EXPECT_EQ(bytes, device.image(1, 0));
    }

    // A lost or garbled answer is asked for again; a wrong CRC is accepted.
    device.injectFault(SmpSimulator::Fault::DropResponse, SmpSimulator::Command::Upload, 1);
    device.injectFault(SmpSimulator::Fault::CorruptResponse, SmpSimulator::Command::Upload, 60000);
    device.injectFault(SmpSimulator::Fault::IgnoreRequest, SmpSimulator::Command::Reset);
    device.injectFault(SmpSimulator::Fault::BadCrcResponse, SmpSimulator::Command::Erase);
    const auto resets = device.stats().resets;
    auto result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytes, device.image(1, 0));
    EXPECT_GE(device.stats().repeatedChunks, 1u);
    EXPECT_EQ(resets + 1, device.stats().resets);

    // Silence beyond the response time-out is a time-out (12).
    device.setResponseDelay(2500ms);
    result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(HALYX_ERR_TIMEOUT, result.code);
    EXPECT_NE(std::string::npos, result.message.find("Error code: 603 (Timeout)."));
    device.setResponseDelay(0ms);
    expectLockFree();
}

TEST(McubootProgram, PacketsBeyondTheDeviceLimitTimeOut)
{
    // A device that takes 2048-character packets but does not say so: the
    // default-sized packets overflow it and it answers nothing.
    auto config = SmpSimulator::Config::permissive();
    config.frameMax = 127;
    config.packMax = 2048;
    config.answerStatistics = false;
    SmpSimulator device(config);
    ProgramHarness harness({mcubootKit(device)}, 500);
    const auto bin = tempPath("too-large.bin");
    writeImage(bin, 10000, 8);
    const auto result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(HALYX_ERR_TIMEOUT, result.code);
    EXPECT_GE(device.stats().oversized, 1u);
    expectLockFree();
}

TEST(McubootProgram, CancelStopsBetweenChunksWithCode11)
{
    auto config = SmpSimulator::Config::permissive();
    config.baudRate = 115200;
    config.frameMax = 127;
    config.packMax = 2048;
    SmpSimulator device(config);
    ProgramHarness harness({mcubootKit(device)});
    const auto bin = tempPath("cancel.bin");
    writeImage(bin, 200000, 9); // about 25 s at this rate
    const auto result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY, 3);
    EXPECT_EQ(HALYX_ERR_DFU_11, result.code) << result.message;
    EXPECT_LT(result.took, 5000ms);
    EXPECT_LT(device.image(1, 0).size(), 200000u);
    EXPECT_EQ(0u, device.stats().resets);
    expectLockFree();
}

TEST(McubootProgram, RefusalsBeforeTheDeviceIsOpened)
{
    SmpSimulator device(SmpSimulator::Config::permissive());
    // A kit marked as MCUboot by another lister but without a serial port.
    const auto no_ports = uniqueSerial("NOPORTS-");
    ProgramHarness harness({mcubootKit(device), {no_ports, "MCUBOOT", "1234", nullptr, {{"mcuBoot", true}}, {}}});
    const auto bin = tempPath("refusals.bin");
    writeImage(bin, 1000, 10);
    auto result = harness.program(harness.idOf(no_ports), bin, HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(HALYX_ERR_OPEN_FAILED, result.code);
    EXPECT_EQ("Error when programming through MCUBoot: Serialport is needed for MCUBoot DFU over serial. Error code: "
              "608 (UartNotFound).",
              result.message);

    // Another holder of the device's lock: 100 after the lock time-out.
    auto lock = HALYX::createInterprocessLock(kSerial);
    lock->lock(100ms);
    result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    lock->unlock();
    EXPECT_EQ(HALYX_ERR_ALREADY_STARTED, result.code);
    EXPECT_EQ("interprocess lock is held by another process", result.message);
    EXPECT_EQ(0u, device.stats().uploads);
}
