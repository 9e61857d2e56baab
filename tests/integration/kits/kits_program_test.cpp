// Kits in MCUboot serial recovery, end to end: the host's listers find them
// on the simulated bus, the plugin names them, and programming through the C
// interface leaves the image in the simulated boot loader byte for byte.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "halyx.h"
#include "program_fixture.hpp"
#include "smp_simulator.hpp"
#include "testbed.hpp"

namespace {

using HALYX::SIM::Testbed;
using halyx_test::ProgramResult;
using nlohmann::json;
using namespace std::chrono_literals;

struct ContextRelease {
    void operator()(halyx_context* context) const { halyx_release_context(context); }
};
using Context = std::unique_ptr<halyx_context, ContextRelease>;

// A context over the host's listers, as an application gets it.
Context hostContext(uint32_t response_ms)
{
    halyx_context* raw = nullptr;
    EXPECT_EQ(halyx_create_context(&raw), HALYX_SUCCESS);
    Context context(raw);
    const halyx_timeout_configuration_t timeouts{60000, 60, response_ms, 30000};
    EXPECT_EQ(halyx_set_timeout(raw, &timeouts), HALYX_SUCCESS);
    EXPECT_EQ(
        halyx_set_configuration(
            raw,
            R"({"device_lister": [{"name": "mcuboot", "init_parameters": {"MCUBOOT_NETCORE_UPLOAD_WAIT_TIME": 0}}]})"),
        HALYX_SUCCESS);
    return context;
}

// The listed devices by serial number.
json listBySerial(halyx_context* context)
{
    halyx_device_list_t* list = nullptr;
    EXPECT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    json devices = json::object();
    for (size_t i = 0; list != nullptr && i < list->count; ++i) {
        auto device = json::parse(list->devices[i].json);
        const auto serial = device.at("serialNumber");
        if (serial.is_string()) {
            devices[serial.get<std::string>()] = std::move(device);
        }
    }
    halyx_free_device_list(context, list);
    return devices;
}

std::vector<uint8_t> randomImage(size_t size, unsigned seed, const std::string& path)
{
    std::mt19937 generator(seed);
    std::vector<uint8_t> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<uint8_t>(generator());
    }
    halyx_test::writeBytes(path, bytes);
    return bytes;
}

std::vector<std::string> keysOf(const std::string& record)
{
    std::vector<std::string> keys;
    const auto parsed = nlohmann::ordered_json::parse(record);
    for (const auto& item : parsed.items()) {
        keys.push_back(item.key());
    }
    return keys;
}

TEST(KitsInSerialRecovery, AreListedWithTheirTraitsAndProgrammedByteForByte)
{
    Testbed testbed;
    const auto generic_serial = halyx_test::uniqueSerial("MB");
    const auto align8_serial = halyx_test::uniqueSerial("MA");
    const auto params_serial = halyx_test::uniqueSerial("MP");
    const auto cellular_serial = halyx_test::uniqueSerial("KC");
    const auto maker_serial = halyx_test::uniqueSerial("KV");
    // Stock boot loaders, with flash that erases quicker than the real kind.
    auto quick = [](HALYX::SIM::KitModel kit) {
        kit.bootloader.pageEraseTime = std::chrono::milliseconds(1);
        return kit;
    };
    const auto generic = testbed.plug(quick(HALYX::SIM::mcubootDevice(generic_serial))).id;
    const auto align8 = testbed.plug(quick(HALYX::SIM::mcubootAlign8Device(align8_serial))).id;
    const auto params = testbed.plug(quick(HALYX::SIM::mcubootParamsDevice(params_serial))).id;
    const auto cellular = testbed.plug(HALYX::SIM::cellularKit(cellular_serial)).id;
    testbed.plug(HALYX::SIM::makerKit(maker_serial));
    auto context = hostContext(5000);

    const auto listed = listBySerial(context.get());
    for (const auto& serial : {generic_serial, align8_serial, params_serial, cellular_serial, maker_serial}) {
        ASSERT_TRUE(listed.contains(serial)) << serial << " in " << listed.dump(1);
    }
    const auto& generic_traits = listed[generic_serial].at("traits");
    EXPECT_TRUE(generic_traits.at("mcuBoot"));
    EXPECT_FALSE(generic_traits.at("modem"));
    EXPECT_FALSE(generic_traits.value("kelvaneUsb", false));
    const auto& cellular_traits = listed[cellular_serial].at("traits");
    EXPECT_TRUE(cellular_traits.at("mcuBoot"));
    EXPECT_TRUE(cellular_traits.at("modem"));
    EXPECT_TRUE(cellular_traits.at("kelvaneUsb"));
    EXPECT_EQ(listed[cellular_serial].at("serialPorts").size(), 2u);
    EXPECT_FALSE(listed[maker_serial].at("traits").at("mcuBoot"));
    // The plugin opens the by-id link, as on a host where udev made it.
    const std::string generic_port = listed[generic_serial].at("serialPorts").at(0).at("path");
    EXPECT_EQ(generic_port.rfind("/dev/serial/by-id/", 0), 0u) << generic_port;

    const auto app_path = halyx_test::tempPath("kit-app.bin");
    const auto app = randomImage(150000, 7, app_path);
    const auto modem_path = halyx_test::tempPath("kit-modem.zip");
    const json layout{{"files", json::array({{{"file", "modem.bin"}, {"image_index", 0}, {"load_address", 0x50000}}})},
                      {"images", {{"modem.bin", {{"body", 40000}, {"seed", 3}}}}}};
    const auto made = halyx_test::makeImage("package", modem_path, layout);

    // Four kits at once: each program call keeps its own port and lock.
    auto program = [&](const std::string& serial, const std::string& path, uint32_t format) {
        return std::async(std::launch::async, [&, serial, path, format] {
            return halyx_test::programDevice(context.get(), listed[serial].at("id").get<uint64_t>(), path, format);
        });
    };
    auto app_run = program(generic_serial, app_path, HALYX_FW_FORMAT_BINARY);
    auto align8_run = program(align8_serial, app_path, HALYX_FW_FORMAT_BINARY);
    auto params_run = program(params_serial, app_path, HALYX_FW_FORMAT_BINARY);
    auto modem_run = program(cellular_serial, modem_path, HALYX_FW_FORMAT_ZIP);
    const ProgramResult app_result = app_run.get();
    const ProgramResult modem_result = modem_run.get();
    ASSERT_EQ(app_result.code, HALYX_SUCCESS) << app_result.message;
    ASSERT_EQ(modem_result.code, HALYX_SUCCESS) << modem_result.message;
    for (auto* run : {&align8_run, &params_run}) {
        const auto result = run->get();
        EXPECT_EQ(result.code, HALYX_SUCCESS) << result.message;
    }

    // Each stock boot loader erased its slot itself, once, and restarted after the reset.
    for (const auto kit : {generic, align8, params}) {
        const auto& loader = *testbed.bootloader(kit);
        EXPECT_TRUE(loader.image(1, 0) == app) << "the stored application image differs on kit " << kit;
        EXPECT_EQ(loader.stats().erases, 0u);
        EXPECT_EQ(loader.stats().slotErasesStarted, 1u);
        EXPECT_EQ(loader.stats().resets, 1u);
        EXPECT_TRUE(loader.waitForReboots(1, 5s)) << "kit " << kit << " did not come back";
    }
    EXPECT_GE(testbed.bootloader(align8)->stats().unalignedTails, 1u);
    EXPECT_GT(testbed.bootloader(params)->stats().line.longestPacket, 1024u);
    const auto& cellular_loader = *testbed.bootloader(cellular);
    EXPECT_TRUE(cellular_loader.image(0x41, 0) == halyx_test::bytesFromHex(made.at("modem.bin").at("bytes")))
        << "the stored modem image differs";
    EXPECT_EQ(cellular_loader.address(0), 0x50000u);
    EXPECT_TRUE(cellular_loader.image(1, 0).empty());
    EXPECT_EQ(cellular_loader.stats().resets, 1u);
    // It announced its limits, so the chunks fit its 4096-character packets.
    EXPECT_EQ(cellular_loader.stats().oversized, 0u);
    EXPECT_GT(cellular_loader.stats().uploads, 10u);

    const std::vector<std::string> order{"operation", "step",     "amountOfSteps", "description", "progressPercentage",
                                         "message",   "duration", "result",        "errorCode"};
    ASSERT_FALSE(app_result.progressText.empty());
    for (const auto* result : {&app_result, &modem_result}) {
        for (const auto& record : result->progressText) {
            ASSERT_EQ(keysOf(record), order) << record;
        }
    }
}

TEST(KitsInSerialRecovery, UnpluggedWhileProgrammingFailsWithoutHanging)
{
    Testbed testbed;
    auto stock = HALYX::SIM::mcubootDevice(halyx_test::uniqueSerial("MU"));
    stock.bootloader.pageEraseTime = std::chrono::microseconds(200);
    for (const auto& model : {HALYX::SIM::cellularKit(halyx_test::uniqueSerial("KU")), stock}) {
        SCOPED_TRACE(*model.serialNumber);
        const auto kit = testbed.plug(model).id;
        auto* loader = testbed.bootloader(kit);
        ASSERT_NE(loader, nullptr);
        // Slow answers keep the upload going long enough to pull the cable.
        loader->setResponseDelay(20ms);
        auto context = hostContext(1000);
        const auto id = listBySerial(context.get()).at(*model.serialNumber).at("id").get<uint64_t>();

        const auto path = halyx_test::tempPath("kit-unplug.bin");
        randomImage(400000, 11, path);
        auto run = std::async(std::launch::async, [&] {
            return halyx_test::programDevice(context.get(), id, path, HALYX_FW_FORMAT_BINARY);
        });
        const auto until = std::chrono::steady_clock::now() + 10s;
        while (loader->stats().uploads < 3 && std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(5ms);
        }
        ASSERT_GE(loader->stats().uploads, 3u) << "the upload did not start";
        testbed.unplug(kit);

        ASSERT_EQ(run.wait_for(20s), std::future_status::ready) << "programming hung after the kit was unplugged";
        const auto result = run.get();
        EXPECT_NE(result.code, HALYX_SUCCESS);
        EXPECT_NE(result.message.find("Unable to program MCUBoot image"), std::string::npos) << result.message;
    }
}

} // namespace
