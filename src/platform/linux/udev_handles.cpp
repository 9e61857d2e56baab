#include "platform/linux/udev_handles.hpp"

#include "core/halyx_exception.hpp"

namespace HALYX::Linux {

UdevPtr makeUdev()
{
    UdevPtr context(udev_new());
    if (!context) {
        throw HALYXException(HALYX_ERR_GENERAL, "Unable to create a udev context; is /sys mounted?");
    }
    return context;
}

std::optional<std::string> sysattr(udev_device* device, const char* name)
{
    const char* value = device != nullptr ? udev_device_get_sysattr_value(device, name) : nullptr;
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
}

} // namespace HALYX::Linux
