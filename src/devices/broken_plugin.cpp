#include "devices/broken_plugin.hpp"

#include "core/logging.hpp"

namespace HALYX {
namespace {

using nlohmann::json;

// The device path of the firmware whose USB serial number is the fixed "0.01".
constexpr std::string_view kBrokenPathPrefix = R"(\\?\USB#VID_7A5C&PID_520F#0.01)";
static_assert(kBrokenPathPrefix.size() == 30);

constexpr uint16_t kMakerVendorId = 0x7A5C;
constexpr uint16_t kFirstGoodCdcFirmware = 0x0204;

bool isCdcRuleProduct(uint16_t product)
{
    return product == 0x9100 || product == 0x520F;
}

void markBroken(json& device, const PluginApi::DeviceChanged& changed)
{
    Log::warn("This Trekkit firmware is broken on Windows.");
    device["broken"] = json{{"description", BrokenPlugin::kDescription}, {"url", BrokenPlugin::kUrl}};
    device["traits"]["broken"] = true;
    changed(device["id"].get<uint64_t>());
}

void checkCdcFirmware(const json& usb_device)
{
    const auto manufacturer = usb_device.find("manufacturer");
    if (manufacturer == usb_device.end() || manufacturer->is_null() ||
        manufacturer->get<std::string>() != "Kelvane Semiconductor") {
        return;
    }
    const auto& descriptor = usb_device.at("descriptor");
    if (descriptor.at("idVendor").get<uint16_t>() != kMakerVendorId ||
        !isCdcRuleProduct(descriptor.at("idProduct").get<uint16_t>())) {
        return;
    }
    // Reported only: the device still works once the user updates it.
    if (descriptor.at("bcdDevice").get<uint16_t>() >= kFirstGoodCdcFirmware) {
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
    auto& devices = document.at("devices");
    if (!devices.is_array()) {
        (void)devices.get<json::array_t>(); // the JSON library's own "type must be array" error
    }
    for (auto& device : devices) {
        const auto usb = device.find("usb");
        if (usb == device.end() || !usb->is_object()) {
            continue;
        }
        const auto usb_device = usb->find("device");
        if (usb_device == usb->end() || !usb_device->is_object()) {
            continue;
        }
        if (const auto path = usb_device->find("osDevicePath"); path != usb_device->end()) {
            const auto text = path->get<std::string>();
            if (text.compare(0, kBrokenPathPrefix.size(), kBrokenPathPrefix) == 0 &&
                text.size() >= kBrokenPathPrefix.size()) {
                markBroken(device, changed);
            }
        }
        if (usb_device->contains("descriptor")) {
            checkCdcFirmware(*usb_device);
        }
    }
}

} // namespace HALYX
