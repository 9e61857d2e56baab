// A simulated kit whose boot loader reboots after a reset leaves the bus, as
// a USB CDC device does, and comes back with the same serial number on new
// ttys, its flash intact. The binary runs itself under umockdev-wrapper.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "console.hpp"
#include "kit.hpp"
#include "smp_simulator.hpp"
#include "testbed.hpp"

using HALYX::SIM::Testbed;
using nlohmann::json;
using namespace smp_test;
using namespace std::chrono_literals;

namespace {

std::optional<Testbed::Kit> find(const Testbed& testbed, unsigned id)
{
    for (const auto& kit : testbed.kits()) {
        if (kit.id == id) {
            return kit;
        }
    }
    return std::nullopt;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

Request reset(uint8_t seq)
{
    return Request{2, 0, 5, seq, json::to_cbor(json::object()), {}};
}

} // namespace

TEST(SimulatedKitReboot, LeavesTheBusAndComesBackWithItsFlash)
{
    Testbed testbed;
    auto model = HALYX::SIM::mcubootDevice("MBREBOOT1");
    model.bootloader.pageEraseTime = std::chrono::microseconds(0);
    model.bootloader.slotSize = 64 * 1024;
    model.bootloader.rebootDelay = 20ms;
    model.bootloader.rebootTime = 1000ms; // long enough to see it gone
    const auto before = testbed.plug(model);
    const unsigned id = before.id;
    auto* bootloader = testbed.bootloader(id);
    ASSERT_NE(nullptr, bootloader);
    const std::string by_id = before.devlinks.front();
    ASSERT_TRUE(std::filesystem::exists(before.usbSyspath));

    const auto data = pattern(512, 9);
    {
        Console console(by_id);
        ASSERT_TRUE(console.isOpen());
        auto answer = console.exchange(Request{2, 1, 1, 1, chunk(0, data, 512), {}});
        ASSERT_TRUE(answer);
        EXPECT_EQ(json({{"rc", 0}, {"off", 512}}), answer->map);
        answer = console.exchange(reset(2));
        ASSERT_TRUE(answer);
        EXPECT_EQ(json({{"rc", 0}}), answer->map);
    }
    ASSERT_TRUE(waitUntil([&] { return !find(testbed, id); }, 5s)) << "the kit stayed on the bus";
    EXPECT_FALSE(std::filesystem::exists(before.usbSyspath)) << "its USB device stayed";
    EXPECT_FALSE(std::filesystem::exists(by_id)) << "its by-id link stayed";

    ASSERT_TRUE(bootloader->waitForReboots(1, 10s));
    const auto after = find(testbed, id);
    ASSERT_TRUE(after);
    EXPECT_EQ(before.model.serialNumber, after->model.serialNumber);
    EXPECT_EQ(before.usbSyspath, after->usbSyspath) << "the same port";
    EXPECT_NE(before.place.devnum, after->place.devnum);
    EXPECT_NE(before.ttys, after->ttys);
    EXPECT_EQ(before.devlinks, after->devlinks);
    EXPECT_EQ(bootloader, testbed.bootloader(id));
    EXPECT_EQ(after->ttys.front(), bootloader->port());
    EXPECT_EQ(data, bootloader->image());
    {
        Console console(by_id);
        ASSERT_TRUE(console.isOpen());
        const auto answer = console.exchange(Request{2, 0, 1, 3, json::to_cbor(json::object()), {}});
        ASSERT_TRUE(answer);
        EXPECT_EQ(json({{"rc", 0}}), answer->map);

        // Unplugged while away for another reboot: it stays away.
        ASSERT_TRUE(console.exchange(reset(4)));
    }
    ASSERT_TRUE(waitUntil([&] { return !find(testbed, id); }, 5s));
    testbed.unplug(id);
    std::this_thread::sleep_for(1500ms);
    EXPECT_FALSE(find(testbed, id));
    EXPECT_EQ(nullptr, testbed.bootloader(id));
}
