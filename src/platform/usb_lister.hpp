#pragma once

#include <memory>
#include <optional>
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
// "kelvaneUsb" plus what its DFU-trigger interface tells. Hot-plug notices
// come from the platform's notification thread and are passed on there.
class USBLister : public AsyncLister {
public:
    static constexpr uint16_t kMakerVendorId = 0x7A5C;
    static constexpr uint8_t kDfuInfoRequest = 7;
    static constexpr uint8_t kSemVerRequest = 8;

    explicit USBLister(std::unique_ptr<USBPlatformAPI> platform);
    ~USBLister() override;

    std::vector<event_object> enumerate() override;
    void start(Arrival arrival, Removal removal) override;
    void stop() override;
    void setTimeouts(const halyx_timeout_configuration_t& timeouts) override;

    // The finding for one device, asking the maker's devices what they are.
    event_object toFinding(const USBDevice& device);

private:
    const std::unique_ptr<USBPlatformAPI> platform_;
};

} // namespace HALYX
