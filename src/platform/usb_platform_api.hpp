#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/usb_device.hpp"

namespace HALYX {

// The host's USB stack: lists devices with their descriptors, sends control
// transfers and reports hot-plug arrivals and removals from one notification
// thread. The order of the virtual operations is part of the design.
class USBPlatformAPI {
public:
    using DeviceCallback = std::function<void(const USBDevice&)>;

    // Told of each arriving device once its serial ports are known (or the
    // settle time is over).
    virtual void setArrivalCallback(DeviceCallback callback) = 0;
    // Told of each departing device; only the identity fields are filled.
    virtual void setRemovalCallback(DeviceCallback callback) = 0;
    // Told when a device already reported gains a serial port.
    virtual void setUpdateCallback(DeviceCallback callback) = 0;
    virtual std::vector<USBDevice> enumerate() = 0;
    // Joins the notification thread; must not be called from it.
    virtual void stop() = 0;
    // Class request without data to the DFU-trigger interface. The device
    // restarts on receipt, so a failed transfer is the expected outcome and
    // both count as success.
    virtual void sendTriggerRequest(const USBDevice& device, uint8_t request) = 0;
    // Class read request to the DFU-trigger interface filling the whole
    // buffer capacity; false when the transfer failed. On return the buffer
    // holds the bytes received.
    virtual bool vendorRead(const USBDevice& device, uint8_t request, std::vector<uint8_t>& buffer) = 0;
    virtual ~USBPlatformAPI() = default;

    // Starts the notification thread; the callbacks must be set before.
    virtual void start() = 0;
    // How long an arrival waits for the device's serial ports.
    virtual void setSettleTime(std::chrono::milliseconds settle) = 0;
};

} // namespace HALYX
