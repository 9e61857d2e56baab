#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include <libusb.h>

#include "platform/linux/udev_handles.hpp"
#include "platform/usb_platform_api.hpp"

namespace HALYX::Linux {

// USB on Linux: libusb for the device list, device descriptors, control
// transfers and hot-plug; sysfs (through libudev) for the strings, the raw
// configuration descriptors and the serial ports, so that listing never
// needs permission to open a device.
//
// Threads: callers of enumerate() and the control transfers (any thread);
// between start() and stop() one notification thread (a "run"), which
// sleeps in one poll() over libusb's descriptors, a udev monitor on "tty"
// and the run's own eventfd, and calls the callbacks. libusb's hot-plug
// callback may run on whichever thread handles libusb events; it only
// queues and wakes the run. A stop() from a callback ends the run when the
// callback returns; the next start() or the destructor joins it.
// Locks: callbacks_mutex_ (the callables), queue_mutex_ (the hot-plug
// queue), known_mutex_ (devices seen: their identity, ports and libusb
// reference), lifecycle_mutex_ (the current run). None is held while
// calling out, while joining, or while another is taken.
class USBPlatformAPI final : public HALYX::USBPlatformAPI {
public:
    USBPlatformAPI();
    ~USBPlatformAPI() override;
    USBPlatformAPI(const USBPlatformAPI&) = delete;
    USBPlatformAPI& operator=(const USBPlatformAPI&) = delete;

    void setArrivalCallback(DeviceCallback callback) override;
    void setRemovalCallback(DeviceCallback callback) override;
    void setUpdateCallback(DeviceCallback callback) override;
    std::vector<USBDevice> enumerate() override;
    void stop() override;
    void sendTriggerRequest(const USBDevice& device, uint8_t request) override;
    bool vendorRead(const USBDevice& device, uint8_t request, std::vector<uint8_t>& buffer) override;

    void start() override;
    void setSettleTime(std::chrono::milliseconds settle) override;

private:
    using BusAddress = std::pair<uint8_t, uint8_t>;

    struct Known {
        USBDevice identity;
        std::string syspath;
        std::set<std::string> ports;     // tty nodes already reported
        libusb_device* device = nullptr; // referenced
        uint64_t stamp = 0;              // when it was last seen
    };

    struct Run;

    static int LIBUSB_CALL onHotplug(libusb_context* context, libusb_device* device, libusb_hotplug_event event,
                                     void* self);

    void requireContext() const;
    std::vector<USBDevice> list(bool forget_departed);
    std::optional<USBDevice> copyDeviceToUSB(libusb_device* device, udev* context, std::string* syspath);
    void remember(libusb_device* device, const USBDevice& record, const std::string& syspath,
                  std::set<std::string> ports);
    // Forgets what was seen up to `listed` and is not present any more;
    // what a hot-plug arrival remembered meanwhile stays.
    void forgetAllBut(const std::set<BusAddress>& present, uint64_t listed);
    // Opens the device and sends one control transfer to its DFU-trigger
    // interface; the libusb result (bytes moved or an error).
    int controlTransfer(const USBDevice& device, uint8_t request_type, uint8_t request, uint8_t* data, uint16_t length);

    void run(Run& run);
    void handleArrival(Run& run, libusb_device* device, udev* context, udev_monitor* monitor,
                       std::deque<UdevDevicePtr>& port_events);
    void handleRemoval(libusb_device* device);
    void handlePortEvent(udev_device* tty);
    void drainMonitor(udev_monitor* monitor, std::deque<UdevDevicePtr>& into);
    void call(const DeviceCallback& callback, const USBDevice& device, const char* what);

    libusb_context* usb_ = nullptr;
    std::string init_error_;

    std::mutex callbacks_mutex_;
    DeviceCallback arrival_;
    DeviceCallback removal_;
    DeviceCallback update_;

    std::atomic<int> settle_ms_{60};

    std::mutex known_mutex_;
    std::map<BusAddress, Known> known_;
    std::atomic<uint64_t> stamps_{0};

    std::mutex queue_mutex_;
    std::deque<std::pair<libusb_device*, bool>> queue_; // referenced device, arrived
    std::atomic<int> wake_fd_{-1};                      // the current run's

    std::mutex lifecycle_mutex_;
    std::unique_ptr<Run> run_;
};

} // namespace HALYX::Linux
