#pragma once

#include <memory>
#include <optional>
#include <string>

#include <libudev.h>

namespace HALYX::Linux {

// Owning handles for libudev objects. libudev objects are not thread-safe:
// each thread works with a context of its own.
struct UdevDeleter {
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
    void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
    void operator()(udev_monitor* m) const { udev_monitor_unref(m); }
};

using UdevPtr = std::unique_ptr<udev, UdevDeleter>;
using UdevDevicePtr = std::unique_ptr<udev_device, UdevDeleter>;
using UdevEnumeratePtr = std::unique_ptr<udev_enumerate, UdevDeleter>;
using UdevMonitorPtr = std::unique_ptr<udev_monitor, UdevDeleter>;

// A new libudev context; throws HALYXException when there is none.
UdevPtr makeUdev();

// A sysfs attribute of the device, or nothing when it has none.
std::optional<std::string> sysattr(udev_device* device, const char* name);

} // namespace HALYX::Linux
