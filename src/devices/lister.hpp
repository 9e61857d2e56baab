#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "devices/device.hpp"
#include "devices/device_access.hpp"
#include "halyx.h"

namespace HALYX {

// One device's identity and findings as a lister reports them.
struct event_object {
    std::optional<std::string> serialNumber;
    std::optional<std::string> usbIdentifier;
    std::string sectionName; // empty: the lister adds no section
    std::string sectionJson;
    Traits traits;
};

enum class ArrivalType {
    Enumeration, // found while listing everything
    HotPlug,     // reported by the notification thread afterwards
};

// A lister that watches the host on a thread of its own. enumerate() lists
// what is attached now; between start() and stop() arrivals and removals are
// reported through the callables, always from one notification thread.
class AsyncLister {
public:
    using Arrival = std::function<void(const event_object&, ArrivalType)>;
    using Removal = std::function<void(const event_object&)>;

    virtual ~AsyncLister() = default;

    virtual std::vector<event_object> enumerate() = 0;
    virtual void start(Arrival arrival, Removal removal) = 0;
    // Returns once the notification thread has stopped calling back.
    virtual void stop() = 0;
    // The context's time limits (the settle time bounds the wait for an
    // arriving device's serial ports).
    virtual void setTimeouts(const halyx_timeout_configuration_t&) {}

    // What can only be learnt once the devices are pooled under their ids
    // (the USB lister asks the maker's devices through `devices`), as
    // findings to merge. Called after every merge with the ids merged.
    virtual std::vector<event_object> describe(DeviceAccess& devices, const std::vector<uint64_t>& ids);

    // A class request to the DFU-trigger interface of the USB device with
    // this identifier (see DeviceAccess::controlTransfer); throws
    // HALYXException when it cannot be sent.
    virtual bool dfuTriggerTransfer(const std::string& usb_identifier, const DfuTriggerTransfer& transfer,
                                    std::vector<uint8_t>& buffer);
};

} // namespace HALYX
