#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "devices/lister.hpp"
#include "platform/usb_platform_api.hpp"

namespace HALYX {

// What the maker's DFU-trigger information request answers (24 bytes, little-endian).
struct DfuTriggerInfo {
    uint32_t wAddress = 0;
    uint16_t wVersionMajor = 0;
    uint16_t wVersionMinor = 0;
    uint32_t wFirmwareId = 0;
    uint32_t wFlashSize = 0;
    uint32_t wFlashPageSize = 0;
};

std::optional<DfuTriggerInfo> decodeDfuTriggerInfo(const std::vector<uint8_t>& reply);

// Brings USB devices into the device pool: one finding per device with the
// "usb" section and the traits "usb" and, for the maker's vendor id,
// "kelvaneUsb". Once pooled, each of the maker's devices is asked once for
// its DFU-trigger version and information (describe()); the answers, or
// that it did not answer, are kept while the device stays attached, so a
// silent device costs its time-out once, not at every enumeration.
//
// Threads: enumerate() and describe() on the enumeration task or the
// notification thread, transfers from any thread. Locks: devices_mutex_
// guards the platform records by USB identifier, answers_mutex_ the answers
// by device id; neither is held while the platform is called.
class USBLister : public AsyncLister {
public:
    explicit USBLister(std::unique_ptr<USBPlatformAPI> platform);
    ~USBLister() override;

    std::vector<event_object> enumerate() override;
    void start(Arrival arrival, Removal removal) override;
    void stop() override;
    void setTimeouts(const halyx_timeout_configuration_t& timeouts) override;
    std::vector<event_object> describe(DeviceAccess& devices, const std::vector<uint64_t>& ids) override;
    bool dfuTriggerTransfer(const std::string& usb_identifier, const DfuTriggerTransfer& transfer,
                            std::vector<uint8_t>& buffer) override;

private:
    struct Answers {
        nlohmann::json where;                  // bus number and address: a re-plugged device is asked again
        std::optional<nlohmann::json> version; // null: asked, not answered
        std::optional<nlohmann::json> info;
    };

    event_object toFinding(const USBDevice& device);
    void remember(const USBDevice& device);
    // Fills in the device's "usb" section from what it answered before, or asks it.
    bool complete(DeviceAccess& devices, uint64_t id, nlohmann::json& usb);

    const std::unique_ptr<USBPlatformAPI> platform_;

    std::mutex devices_mutex_;
    std::map<std::string, USBDevice> devices_;

    std::mutex answers_mutex_;
    std::map<uint64_t, Answers> answers_;
};

} // namespace HALYX
