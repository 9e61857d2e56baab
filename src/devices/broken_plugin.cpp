#include "devices/broken_plugin.hpp"

#include <fmt/format.h>

#include "core/logging.hpp"
#include "devices/known_kits.hpp"

namespace HALYX {
namespace {

using nlohmann::json;

// The section is stored under the device's id, so a device object without
// one is refused before anything is written, with the JSON library's error.
uint64_t idOf(const json& device)
{
    const auto id = device.find("id");
    if (id == device.end()) {
        throw json::type_error::create(
            305, fmt::format("cannot use operator[] with a string argument with {}", device.type_name()), &device);
    }
    return id->get<uint64_t>();
}

void markBroken(json& device, const PluginApi::DeviceChanged& changed)
{
    const auto id = idOf(device);
    Log::warn("This Trekkit firmware is broken on Windows.");
    device["broken"] = json{{"description", BrokenPlugin::kDescription}, {"url", BrokenPlugin::kUrl}};
    device["traits"]["broken"] = true;
    changed(id);
}

void checkCdcFirmware(const json& usb_device)
{
    const auto manufacturer = usb_device.find("manufacturer");
    if (manufacturer == usb_device.end() || manufacturer->is_null() ||
        manufacturer->get<std::string>() != KnownKits::kMakerManufacturer) {
        return;
    }
    const auto& descriptor = usb_device.at("descriptor");
    if (!KnownKits::hasCdcFirmwareRule(descriptor.at("idVendor").get<uint16_t>(),
                                       descriptor.at("idProduct").get<uint16_t>())) {
        return;
    }
    // Reported only: the device still works once the user updates it.
    if (descriptor.at("bcdDevice").get<uint16_t>() >= KnownKits::kFirstGoodCdcFirmware) {
        Log::info("The firmware on this Trekkit has no known USB CDC bugs.");
    } else {
        Log::warn("The firmware on this device has a bug related to DTR/RTS and setting of baud rate. Upgrade the "
                  "KVB firmware to version 1.6.0 or newer to be able to use the device.");
    }
}

} // namespace

BrokenPlugin::~BrokenPlugin() = default;

std::string BrokenPlugin::getName() const
{
    return "broken";
}

std::vector<std::string> BrokenPlugin::getTraits() const
{
    return {"broken"};
}

void BrokenPlugin::enumerate(json& document, const DeviceChanged& changed, const DeviceFound&)
{
    Log::debug("BrokenPlugin::enumerate");
    for (auto& device : devicesOf(document)) {
        const auto usb = device.find("usb");
        if (usb == device.end() || !usb->is_object()) {
            continue;
        }
        const auto usb_device = usb->find("device");
        if (usb_device == usb->end() || !usb_device->is_object()) {
            continue;
        }
        if (const auto path = usb_device->find("osDevicePath"); path != usb_device->end()) {
            if (KnownKits::isBrokenFirmwarePath(path->get<std::string>())) {
                markBroken(device, changed);
            }
        }
        if (usb_device->contains("descriptor")) {
            checkCdcFirmware(*usb_device);
        }
    }
}

} // namespace HALYX
