#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "devices/plugin_api.hpp"
#include "mcuboot/smp_requests.hpp"

namespace HALYX::MCUBOOT {

// Programs devices that wait in the MCUboot serial-recovery boot loader,
// over their serial port. One instance serves every device of a context;
// program() keeps its per-call state on its own stack, so calls for
// different devices may run at once (the inter-process lock serialises
// calls for one device).
class McubootPlugin : public PluginApi {
public:
    // The named settings, from the plugin's "init_parameters".
    struct Settings {
        uint32_t baudRate = 115200;
        uint32_t modemBaudRate = 1000000;
        uint16_t netCoreUploadWaitSeconds = 20;
        // The limits for a boot loader that tells none (a stock MCUboot
        // reads lines of 128 bytes into a 1024-byte buffer).
        uint32_t lineLength = 128;
        uint32_t packetSize = 1024;
        std::chrono::milliseconds lockTimeout{10000};
    };

    std::string getName() const override { return "mcuboot"; }
    std::vector<std::string> getTraits() const override;
    bool canHandle(const std::string& device, const std::string& operation,
                   const OperationOptions& options) const override;
    void enumerate(nlohmann::json& document, const DeviceChanged& changed, const DeviceFound& found) override;
    void program(const std::string& device, const halyx_firmware& firmware, const ProgramOptions& options,
                 Operation& operation) override;

    // A JSON object with any of "MCUBOOT_SERIALPORT_BAUDRATE",
    // "MCUBOOT_MODEM_SERIALPORT_BAUDRATE", "MCUBOOT_NETCORE_UPLOAD_WAIT_TIME",
    // "MCUBOOT_LINE_LENGTH" and "MCUBOOT_PACKET_SIZE";
    // "null" restores the defaults. Throws HALYXException 50 for a value of
    // the wrong kind.
    void setInitParameters(const std::string& parameters) override;

    Settings settings() const;
    void setLockTimeout(std::chrono::milliseconds timeout);

    // The identification rule: a device with a serial port whose USB product
    // string names MCUboot, or the maker's cellular kit (which also gets "modem").
    struct Identification {
        bool mcuboot = false;
        bool modem = false;
    };
    static Identification identify(const nlohmann::json& device);

private:
    mutable std::mutex settings_mutex_;
    Settings settings_;
    SequenceCounter sequence_;
};

} // namespace HALYX::MCUBOOT
