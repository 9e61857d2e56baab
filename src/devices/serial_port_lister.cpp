#include "devices/serial_port_lister.hpp"

#include <algorithm>

#include "core/json_fields.hpp"
#include "core/logging.hpp"

namespace HALYX {
namespace {

using nlohmann::json;

void markBridge(SerialPort& port)
{
    if (port.manufacturer == "FTDI" || port.manufacturer == "SEGGER") {
        *port.manufacturer += " (serial bridge)";
    }
}

} // namespace

SerialPortLister::SerialPortLister(std::shared_ptr<SerialPortListerHW> hardware) : hardware_(std::move(hardware))
{
}

SerialPortLister::~SerialPortLister() = default;

std::string SerialPortLister::getName() const
{
    return "serialport";
}

std::vector<std::string> SerialPortLister::getTraits() const
{
    return {"serialPorts"};
}

void SerialPortLister::enumerate(json& document, const DeviceChanged& changed, const DeviceFound& found)
{
    Log::ScopeTimer timer("HALYX::SerialPortLister::enumerate");
    auto& devices = devicesOf(document);

    auto ports = hardware_->list();
    for (auto& port : ports) {
        markBridge(port);
    }
    std::vector<bool> taken(ports.size(), false);

    for (auto& device : devices) {
        const auto serial_number = optionalString(device, "serialNumber");
        const auto usb_identifier = optionalString(device, "usbIdentifier");
        std::vector<const SerialPort*> mine;
        for (size_t i = 0; i < ports.size(); ++i) {
            const auto& port = ports[i];
            if ((serial_number && port.serialNumber == serial_number) ||
                (usb_identifier && port.usbIdentifier == usb_identifier)) {
                mine.push_back(&port);
                taken[i] = true;
            }
        }
        if (mine.empty()) {
            continue;
        }
        std::stable_sort(mine.begin(), mine.end(),
                         [](const SerialPort* a, const SerialPort* b) { return a->vcom < b->vcom; });
        json list = json::array();
        for (const auto* port : mine) {
            list.push_back(serialPortToJson(*port));
        }
        device["serialPorts"] = std::move(list);
        device["traits"]["serialPorts"] = true;
        changed(device.at("id").get<uint64_t>());
    }

    for (size_t i = 0; i < ports.size(); ++i) {
        const auto& port = ports[i];
        if (taken[i] || port.serialNumber || port.usbIdentifier) {
            continue;
        }
        event_object finding;
        finding.sectionName = "serialPorts";
        finding.sectionJson = jsonText(json::array({serialPortToJson(port)}));
        finding.traits["serialPorts"] = true;
        found(finding);
    }
}

} // namespace HALYX
