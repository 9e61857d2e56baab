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

// The boot loaders the client must work with: a stock MCUboot, one whose
// flash takes 8-byte write blocks, one that answers its parameter query with
// a larger buffer, and the forgiving one of the cellular kit, which names
// its limits in "smp_com".
enum class Profile {
    Stock,
    Align8,
    Params,
    Permissive
};

std::string nameOf(Profile profile)
{
    switch (profile) {
    case Profile::Stock:
        return "Stock";
    case Profile::Align8:
        return "Align8";
    case Profile::Params:
        return "Params";
    case Profile::Permissive:
        return "Permissive";
    }
    return "?";
}

SmpSimulator::Config configFor(Profile profile)
{
    if (profile == Profile::Permissive) {
        auto config = SmpSimulator::Config::permissive();
        config.frameMax = 127;
        config.packMax = 4096;
        return config;
    }
    auto config = SmpSimulator::Config::mcuboot();
    config.pageEraseTime = 200us; // quick tests: the 1 MiB slot in 51 ms
    config.rebootTime = 100ms;
    config.imageCount = 2; // built for two images, so packages can land
    if (profile == Profile::Align8) {
        config.writeBlockSize = 8;
    }
    if (profile == Profile::Params) {
        config.answerParameters = true;
        config.receiveBufferSize = 2048;
    }
    return config;
}

class McubootProfiles : public testing::TestWithParam<Profile> {
protected:
    McubootProfiles() : device_(configFor(GetParam())) {}

    // Programs the kit, and waits until a device that restarts on reset is back.
    ProgramResult program(ProgramHarness& harness, const std::string& path, uint32_t format,
                          int cancel_after_reports = 0)
    {
        auto result = harness.program(harness.idOf(kSerial), path, format, cancel_after_reports);
        settle();
        return result;
    }

    void settle()
    {
        if (device_.config().rebootOnReset) {
            EXPECT_TRUE(device_.waitForReboots(device_.stats().resets, 5s)) << "the device did not come back";
        }
    }

    bool stock() const { return GetParam() != Profile::Permissive; }

    SmpSimulator device_;
};

INSTANTIATE_TEST_SUITE_P(, McubootProfiles,
                         testing::Values(Profile::Stock, Profile::Align8, Profile::Params, Profile::Permissive),
                         [](const auto& info) { return nameOf(info.param); });

TEST_P(McubootProfiles, BinHexAndPackageLandByteForByte)
{
    SmpSimulator other(SmpSimulator::Config::permissive());
    ProgramHarness harness({mcubootKit(device_), {"OTHERKIT", "Dev kit", "1234", &other, {}, {}}});
    const auto listed = harness.enumerate();
    EXPECT_TRUE(listed.at(kSerial).at("traits").at("mcuBoot"));
    EXPECT_FALSE(listed.at(kSerial).at("traits").at("modem"));
    EXPECT_FALSE(listed.at("OTHERKIT").at("traits").at("mcuBoot"));

    const auto bin = tempPath("app.bin");
    const auto bin_bytes = writeImage(bin, 120000, 1);
    auto result = program(harness, bin, HALYX_FW_FORMAT_BINARY);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bin_bytes, device_.image(1, 0));
    auto stats = device_.stats();
    EXPECT_EQ(1u, stats.resets);
    // A stock device has no erase command: it erases the slot on the first chunk.
    EXPECT_EQ(stock() ? 0u : 1u, stats.erases);
    EXPECT_EQ(1u, stats.slotErasesStarted);
    // Nothing the device could not take: no line cut, no bits lost, no overflow.
    EXPECT_EQ(0u, stats.line.linesCut);
    EXPECT_EQ(0u, stats.line.droppedCharacters);
    EXPECT_EQ(0u, stats.line.overflows);
    EXPECT_EQ(0u, stats.oversized);
    if (GetParam() == Profile::Align8) {
        EXPECT_GE(stats.unalignedTails, 1u); // and the client went on from where it stopped
    }
    if (GetParam() == Profile::Params) {
        EXPECT_GT(stats.line.longestPacket, 1024u); // the buffer it named was used
        EXPECT_LE(stats.line.longestPacket, 2048u);
    }
    expectUploadProgressSane(result.progress);
    const auto& first = result.progress.front();
    EXPECT_EQ("open_device", first.at("operation"));
    EXPECT_EQ(1, first.at("step"));
    EXPECT_EQ(5, first.at("amountOfSteps"));
    EXPECT_EQ("close_device", result.progress.back().at("operation"));
    EXPECT_EQ(5, result.progress.back().at("step"));

    const auto hex = tempPath("app.hex");
    const auto hex_bytes = writeImage(hex, 30000, 2, true);
    result = program(harness, hex, HALYX_FW_FORMAT_INTEL_HEX);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(hex_bytes, device_.image(1, 0));

    const auto zip = tempPath("package.zip");
    const json layout{
        {"files", json::array({{{"file", "app.bin"}, {"image_index", 0}, {"load_address", 0}},
                               {{"file", "net.bin"}, {"image_index", 1}, {"load_address", 0x1000000}}})},
        {"images", {{"app.bin", {{"body", 70000}, {"seed", 3}}}, {"net.bin", {{"body", 9000}, {"seed", 4}}}}}};
    const auto made = makeImage("package", zip, layout);
    result = program(harness, zip, HALYX_FW_FORMAT_ZIP);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytesFromHex(made.at("app.bin").at("bytes")), device_.image(1, 0));
    EXPECT_EQ(bytesFromHex(made.at("net.bin").at("bytes")), device_.image(1, 1));

    // A name that is none of the image kinds is refused before the device is opened.
    const auto text = tempPath("notes.txt");
    writeText(text, "not an image");
    const auto uploads = device_.stats().uploads;
    result = program(harness, text, HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(HALYX_ERR_GENERAL, result.code);
    EXPECT_EQ("Error when programming through MCUBoot: Expected to program a filename ending with .hex, .ihex. or .bin "
              "Please verify filename, file format and stream type. Error code: 602 (Invalid).",
              result.message);
    // A buffer in a format the boot loader cannot take is refused with 17, unopened too.
    const std::vector<uint8_t> elf{0x7F, 'E', 'L', 'F', 1, 1, 1, 0};
    halyx_firmware* firmware = nullptr;
    ASSERT_EQ(HALYX_SUCCESS,
              halyx_fw_create_handle(&firmware, elf.data(), elf.size(), HALYX_FW_SOURCE_BUFFER, HALYX_FW_FORMAT_ELF));
    result = programFirmware(harness.context(), harness.idOf(kSerial), firmware);
    EXPECT_EQ(HALYX_ERR_OPEN_FAILED, result.code);
    EXPECT_NE(std::string::npos, result.message.find("Unsupported file stream type")) << result.message;
    EXPECT_EQ(uploads, device_.stats().uploads);
}

TEST_P(McubootProfiles, DeviceFaultsEndWithTheirErrorAndARetrySucceeds)
{
    ProgramHarness harness({mcubootKit(device_)}, 1000);
    const auto bin = tempPath("faults.bin");
    const auto bytes = writeImage(bin, 20000, 7);

    struct Case {
        SmpSimulator::Fault fault;
        halyx_errorcode_t code;
        std::string error;
    };
    const std::vector<Case> cases{
        {SmpSimulator::Fault::ErrorRc, HALYX_ERR_GENERAL, "Error code: 602 (Invalid)."},
        {SmpSimulator::Fault::WrongOffset, HALYX_ERR_GENERAL, "Error code: 605 (BadState)."},
        {SmpSimulator::Fault::Unplug, HALYX_ERR_GENERAL, "Error code: 611 (UartReadError)."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        device_.injectFault(c.fault, SmpSimulator::Command::Upload, 1);
        auto result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY); // fails before any reset
        EXPECT_EQ(c.code, result.code);
        EXPECT_EQ("Error when programming through MCUBoot: Unable to program MCUBoot image. Filename: " + bin + ". " +
                      c.error,
                  result.message);
        expectLockFree();
        device_.replug(); // no-op unless it was unplugged; the port name may change
        result = program(harness, bin, HALYX_FW_FORMAT_BINARY);
        ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
        EXPECT_EQ(bytes, device_.image(1, 0));
    }

    // A lost or garbled answer is asked for again; a wrong CRC is accepted.
    device_.injectFault(SmpSimulator::Fault::DropResponse, SmpSimulator::Command::Upload, 1);
    device_.injectFault(SmpSimulator::Fault::CorruptResponse, SmpSimulator::Command::Upload, 10000);
    device_.injectFault(SmpSimulator::Fault::IgnoreRequest, SmpSimulator::Command::Reset);
    device_.injectFault(SmpSimulator::Fault::BadCrcResponse, SmpSimulator::Command::Erase);
    const auto resets = device_.stats().resets;
    auto result = program(harness, bin, HALYX_FW_FORMAT_BINARY);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytes, device_.image(1, 0));
    EXPECT_GE(device_.stats().repeatedChunks, 1u);
    EXPECT_EQ(resets + 1, device_.stats().resets);

    // The reset's answer lost: the request sent again meets a device that has
    // already restarted and whose port is gone, which is what a reset is for.
    if (device_.config().rebootOnReset) {
        device_.injectFault(SmpSimulator::Fault::DropResponse, SmpSimulator::Command::Reset);
        const auto reboots = device_.stats().reboots;
        result = program(harness, bin, HALYX_FW_FORMAT_BINARY);
        ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
        EXPECT_EQ(reboots + 1, device_.stats().reboots);
    }

    // Silence beyond the response time-out is a time-out (12).
    device_.setResponseDelay(2500ms);
    result = program(harness, bin, HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(HALYX_ERR_TIMEOUT, result.code);
    EXPECT_NE(std::string::npos, result.message.find("Error code: 603 (Timeout).")) << result.message;
    device_.setResponseDelay(0ms);
    expectLockFree();
}

TEST_P(McubootProfiles, CancelStopsBetweenChunksWithCode11)
{
    ProgramHarness harness({mcubootKit(device_)});
    const auto bin = tempPath("cancel.bin");
    writeImage(bin, 200000, 9);
    device_.setResponseDelay(5ms); // slow enough to cancel halfway
    const auto result = program(harness, bin, HALYX_FW_FORMAT_BINARY, 3);
    EXPECT_EQ(HALYX_ERR_DFU_11, result.code) << result.message;
    EXPECT_LT(device_.image(1, 0).size(), 200000u);
    EXPECT_EQ(0u, device_.stats().resets);
    expectLockFree();
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

// A stock boot loader built with a smaller buffer than the usual 1024 bytes,
// which it does not tell: the default packets overflow it and nothing is
// answered; named in the plugin's settings, they fit.
TEST(McubootProgram, PacketsBeyondTheDeviceBufferTimeOutUntilConfigured)
{
    auto config = configFor(Profile::Stock);
    config.receiveBufferSize = 512;
    SmpSimulator device(config);
    ProgramHarness harness({mcubootKit(device)}, 500);
    const auto bin = tempPath("too-large.bin");
    const auto bytes = writeImage(bin, 10000, 8);
    auto result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    EXPECT_EQ(HALYX_ERR_TIMEOUT, result.code) << result.message;
    EXPECT_GE(device.stats().line.overflows, 1u);
    expectLockFree();

    ASSERT_EQ(HALYX_SUCCESS,
              halyx_set_configuration(harness.context(),
                                      R"({"device_lister": [{"name": "mcuboot", "init_parameters": {)"
                                      R"("MCUBOOT_NETCORE_UPLOAD_WAIT_TIME": 0, "MCUBOOT_PACKET_SIZE": 512}}]})"));
    result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytes, device.image(1, 0));
}

// The device erases the slot before it answers the first chunk; asking again
// meanwhile would only start the erase over.
TEST(McubootProgram, TheFirstChunkWaitsForTheSlotErase)
{
    auto config = configFor(Profile::Stock);
    config.pageEraseTime = 8ms; // the 1 MiB slot in about 2 s: longer than a lost answer is waited for
    SmpSimulator device(config);
    ProgramHarness harness({mcubootKit(device)}, 1000);
    const auto bin = tempPath("slow-erase.bin");
    const auto bytes = writeImage(bin, 5000, 12);
    const auto result = harness.program(harness.idOf(kSerial), bin, HALYX_FW_FORMAT_BINARY);
    ASSERT_EQ(HALYX_SUCCESS, result.code) << result.message;
    EXPECT_EQ(bytes, device.image(1, 0));
    EXPECT_EQ(1u, device.stats().slotErasesStarted);
    EXPECT_EQ(0u, device.stats().repeatedChunks);
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
