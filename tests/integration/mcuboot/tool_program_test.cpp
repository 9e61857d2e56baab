#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sstream>
#include <thread>

#include <unistd.h>

#include "commands.hpp"
#include "program_command.hpp"
#include "program_fixture.hpp"

using namespace halyx_test;
using HALYX::SIM::SmpSimulator;
using nlohmann::json;
using namespace std::chrono_literals;

// The tool's program command over a simulated kit: JSON progress lines, and
// Ctrl-C that cancels the task. The signal must reach only the tool's
// watcher, so StopSignal comes before any thread exists (the signals stay
// blocked in every thread after it).
TEST(ToolProgram, JsonLinesAndCtrlC)
{
    auto stop = std::make_unique<halyx_tool::StopSignal>();
    // A stock boot loader, its flash quick to erase.
    auto config = SmpSimulator::Config::mcuboot();
    config.pageEraseTime = 200us;
    config.rebootTime = 100ms;
    SmpSimulator device(config);
    const std::string serial = uniqueSerial("TOOLKIT-");
    ProgramHarness harness({{serial, "MCUBOOT", "1234", &device, {}, {}}});

    const auto bin = tempPath("tool.bin");
    const auto made = makeImage("image", bin, {{"body", 30000}, {"seed", 12}});
    halyx_tool::ProgramRequest request;
    request.serialNumber = serial;
    request.file = bin;
    request.json = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, halyx_tool::program(harness.context(), request, *stop));
    std::istringstream lines(testing::internal::GetCapturedStdout());
    std::string line;
    int records = 0;
    std::string last_operation;
    while (std::getline(lines, line)) {
        const auto record = json::parse(line);
        last_operation = record.at("operation");
        ++records;
    }
    EXPECT_GT(records, 10);
    EXPECT_EQ("close_device", last_operation);
    EXPECT_EQ(bytesFromHex(made.at("bytes")), device.image(1, 0));
    stop.reset(); // its watcher would take the next Ctrl-C

    // A slow line, and Ctrl-C once the upload is under way.
    SmpSimulator::Config slow = config;
    slow.baudRate = 115200;
    SmpSimulator slow_device(slow);
    halyx_tool::StopSignal stop_slow;
    const std::string slow_serial = uniqueSerial("TOOLKIT-SLOW-");
    ProgramHarness slow_harness({{slow_serial, "MCUBOOT", "1234", &slow_device, {}, {}}});
    const auto big = tempPath("tool-big.bin");
    makeImage("image", big, {{"body", 300000}, {"seed", 13}});
    request.serialNumber = slow_serial;
    request.file = big;
    std::thread interrupter([] {
        std::this_thread::sleep_for(1500ms);
        ::kill(::getpid(), SIGINT);
    });
    testing::internal::CaptureStdout();
    try {
        halyx_tool::program(slow_harness.context(), request, stop_slow);
        ADD_FAILURE() << "the interrupted program succeeded";
    } catch (const halyx_tool::Failure& failure) {
        EXPECT_EQ(HALYX_ERR_DFU_11, failure.code);
        EXPECT_EQ("interrupted: Programming through MCUBoot was cancelled.", failure.message);
    }
    testing::internal::GetCapturedStdout();
    interrupter.join();
    EXPECT_EQ(0u, slow_device.stats().resets);
}
