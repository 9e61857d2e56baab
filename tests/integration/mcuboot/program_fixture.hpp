#pragma once

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/context.hpp"
#include "devices/lister.hpp"
#include "files.hpp"
#include "halyx.h"
#include "mcuboot/mcuboot_plugin.hpp"
#include "smp_simulator.hpp"

namespace halyx_test {

// Reports one kit whose serial port is the simulator's terminal, as the USB
// and serial-port listers would: a "usb" finding and a "serialPorts" finding
// under one serial number.
class SimulatedKitLister : public HALYX::AsyncLister {
public:
    struct Kit {
        std::string serialNumber;
        std::string product;                           // USB product string
        std::string productId;                         // hex, as the serial-port lister writes it
        HALYX::SIM::SmpSimulator* simulator = nullptr; // null: a kit without serial ports
        HALYX::Traits traits;
        std::string port; // a terminal of someone else's, when there is no simulator
    };

    explicit SimulatedKitLister(std::vector<Kit> kits) : kits_(std::move(kits)) {}

    std::vector<HALYX::event_object> enumerate() override;
    void start(Arrival, Removal) override {}
    void stop() override {}

private:
    std::vector<Kit> kits_;
};

struct ProgramResult {
    halyx_errorcode_t code = HALYX_ERR_GENERAL;
    std::string message;
    std::vector<nlohmann::json> progress;
    std::vector<std::string> progressText; // as the callback got it, keys in their order
    std::chrono::milliseconds took{0};
};

// A context over the simulated kits with the MCUboot plugin, driven through
// the C exports.
class ProgramHarness {
public:
    explicit ProgramHarness(std::vector<SimulatedKitLister::Kit> kits, uint32_t response_ms = 1500);
    ~ProgramHarness();

    halyx_context* context() { return context_; }
    HALYX::MCUBOOT::McubootPlugin& plugin() { return *plugin_; }

    // The ids of the listed devices by serial number, with their JSON.
    nlohmann::json enumerate();
    uint64_t idOf(const std::string& serial_number);

    // Programs and waits. cancel_after_reports > 0 cancels once that many
    // upload reports came in.
    ProgramResult program(uint64_t device_id, const std::string& path, uint32_t format, int cancel_after_reports = 0);

private:
    halyx_context* context_ = nullptr;
    HALYX::MCUBOOT::McubootPlugin* plugin_ = nullptr;
};

// Programs a file into a device of the context through the C exports and
// waits; cancel_after_reports > 0 cancels once that many upload reports came in.
ProgramResult programDevice(halyx_context* context, uint64_t device_id, const std::string& path, uint32_t format,
                            int cancel_after_reports = 0);

// The same for a firmware handle, which it releases.
ProgramResult programFirmware(halyx_context* context, uint64_t device_id, halyx_firmware* firmware,
                              int cancel_after_reports = 0);

// A serial number of this test process's own. The programming lock is named
// after it, so tests running side by side never share one; the lock's host
// objects are removed when the process exits.
std::string uniqueSerial(const std::string& prefix);

// Test data written by tests/data/image/make_mcuboot_image.py; returns what it prints.
nlohmann::json makeImage(const std::string& kind, const std::string& out, const nlohmann::json& options);
std::vector<uint8_t> bytesFromHex(const std::string& hex);

} // namespace halyx_test
