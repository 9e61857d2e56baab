#include "platform/linux/usb_serial_ports.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>
#include <tuple>

#include "core/halyx_exception.hpp"

namespace HALYX::Linux {
namespace {

constexpr const char* kByIdPrefix = "/dev/serial/by-id/";

std::optional<std::string> byIdLink(udev_device* tty)
{
    for (auto* link = udev_device_get_devlinks_list_entry(tty); link != nullptr;
         link = udev_list_entry_get_next(link)) {
        const char* name = udev_list_entry_get_name(link);
        if (std::strncmp(name, kByIdPrefix, std::strlen(kByIdPrefix)) == 0) {
            return std::string(name);
        }
    }
    // Without a udev database entry the links are only in the property.
    if (const char* links = udev_device_get_property_value(tty, "DEVLINKS")) {
        std::string_view rest(links);
        while (!rest.empty()) {
            const auto end = rest.find(' ');
            const auto link = rest.substr(0, end);
            if (link.starts_with(kByIdPrefix)) {
                return std::string(link);
            }
            rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        }
    }
    return std::nullopt;
}

// Upper-case hex, as the ids read on other hosts, so records compare alike.
std::optional<std::string> upperHex(std::optional<std::string> value)
{
    if (value) {
        std::transform(value->begin(), value->end(), value->begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    }
    return value;
}

struct Found {
    SerialPort port;
    std::string usbSyspath;
    unsigned interfaceNumber;
};

} // namespace

std::vector<SerialPort> listUsbSerialPorts(udev* context, const char* usb_syspath)
{
    UdevEnumeratePtr enumerate(udev_enumerate_new(context));
    if (!enumerate) {
        throw HALYXException(HALYX_ERR_GENERAL, "Unable to get device paths for serial port lister.");
    }
    udev_enumerate_add_match_subsystem(enumerate.get(), "tty");
    if (usb_syspath != nullptr) {
        UdevDevicePtr parent(udev_device_new_from_syspath(context, usb_syspath));
        if (!parent) {
            return {};
        }
        udev_enumerate_add_match_parent(enumerate.get(), parent.get());
    }
    if (udev_enumerate_scan_devices(enumerate.get()) < 0) {
        throw HALYXException(HALYX_ERR_GENERAL, "Unable to get device paths for serial port lister.");
    }

    std::vector<Found> found;
    for (auto* entry = udev_enumerate_get_list_entry(enumerate.get()); entry != nullptr;
         entry = udev_list_entry_get_next(entry)) {
        UdevDevicePtr tty(udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        const char* node = tty ? udev_device_get_devnode(tty.get()) : nullptr;
        if (node == nullptr) {
            continue;
        }
        // Parents are owned by their child.
        udev_device* usb = udev_device_get_parent_with_subsystem_devtype(tty.get(), "usb", "usb_device");
        if (usb == nullptr) {
            continue; // not on USB: a UART of the host itself
        }
        udev_device* interface = udev_device_get_parent_with_subsystem_devtype(tty.get(), "usb", "usb_interface");
        Found item;
        item.port.comName = node;
        item.port.path = byIdLink(tty.get());
        item.port.serialNumber = sysattr(usb, "serial");
        item.port.manufacturer = sysattr(usb, "manufacturer");
        item.port.vendorId = upperHex(sysattr(usb, "idVendor"));
        item.port.productId = upperHex(sysattr(usb, "idProduct"));
        item.port.usbIdentifier = udev_device_get_sysname(usb);
        item.usbSyspath = udev_device_get_syspath(usb);
        const auto number = sysattr(interface, "bInterfaceNumber");
        item.interfaceNumber = number ? static_cast<unsigned>(std::strtoul(number->c_str(), nullptr, 16)) : 0;
        found.push_back(std::move(item));
    }

    std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return std::tie(a.usbSyspath, a.interfaceNumber, *a.port.comName) <
               std::tie(b.usbSyspath, b.interfaceNumber, *b.port.comName);
    });
    std::map<std::string, uint32_t> next_vcom;
    std::vector<SerialPort> ports;
    for (auto& item : found) {
        item.port.vcom = next_vcom[item.usbSyspath]++;
        ports.push_back(std::move(item.port));
    }
    return ports;
}

} // namespace HALYX::Linux
