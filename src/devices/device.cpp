#include "devices/device.hpp"

#include "core/json_fields.hpp"

namespace HALYX {
namespace {

using nlohmann::json;

// Keys the record holds in fields of its own rather than as sections.
bool isRecordKey(const std::string& key)
{
    return key == "id" || key == "serialNumber" || key == "traits" || key == "usbIdentifier" || key == "serialPorts";
}

} // namespace

json serialPortToJson(const SerialPort& port)
{
    json out{
        {"serialNumber", stringOrNull(port.serialNumber)},
        {"comName", stringOrNull(port.comName)},
        {"manufacturer", stringOrNull(port.manufacturer)},
        {"vcom", port.vcom},
    };
    putIfKnown(out, "productId", port.productId);
    putIfKnown(out, "vendorId", port.vendorId);
    putIfKnown(out, "usbIdentifier", port.usbIdentifier);
    putIfKnown(out, "path", port.path ? port.path : port.comName);
    return out;
}

SerialPort serialPortFromJson(const json& port)
{
    SerialPort result;
    result.comName = optionalString(port, "comName");
    result.manufacturer = optionalString(port, "manufacturer");
    result.serialNumber = optionalString(port, "serialNumber");
    result.vendorId = optionalString(port, "vendorId");
    result.productId = optionalString(port, "productId");
    result.usbIdentifier = optionalString(port, "usbIdentifier");
    result.path = optionalString(port, "path");
    if (const auto vcom = port.find("vcom"); vcom != port.end() && vcom->is_number_unsigned()) {
        result.vcom = vcom->get<uint32_t>();
    }
    return result;
}

void Device::mergeTraits(const Traits& incoming)
{
    for (const auto& [name, value] : incoming) {
        auto [it, inserted] = traits.try_emplace(name, value);
        if (!inserted && !it->second) {
            it->second = value;
        }
    }
}

json Device::toJson() const
{
    json device{
        {"id", id},
        {"serialNumber", stringOrNull(serialNumber)},
        {"traits", json::object()},
    };
    for (const auto& [name, value] : traits) {
        device["traits"][name] = value;
    }
    putIfKnown(device, "usbIdentifier", usbIdentifier);
    if (!serialPorts.empty()) {
        auto& ports = device["serialPorts"] = json::array();
        for (const auto& port : serialPorts) {
            ports.push_back(serialPortToJson(port));
        }
    }
    for (const auto& [name, text] : sections) {
        device[name] = json::parse(text);
    }
    return device;
}

void Device::updateFromJson(const json& device)
{
    if (const auto incoming = device.find("traits"); incoming != device.end() && incoming->is_object()) {
        Traits edited;
        for (const auto& [name, value] : incoming->items()) {
            if (value.is_boolean()) {
                edited.emplace(name, value.get<bool>());
            }
        }
        mergeTraits(edited);
    }
    if (auto identifier = optionalString(device, "usbIdentifier")) {
        usbIdentifier = std::move(identifier);
    }
    if (const auto ports = device.find("serialPorts"); ports != device.end() && ports->is_array()) {
        serialPorts.clear();
        for (const auto& port : *ports) {
            serialPorts.push_back(serialPortFromJson(port));
        }
    }
    for (const auto& [key, value] : device.items()) {
        if (!isRecordKey(key)) {
            sections[key] = jsonText(value);
        }
    }
}

json toDocument(const std::vector<Device>& devices)
{
    json list = json::array();
    for (const auto& device : devices) {
        list.push_back(device.toJson());
    }
    return json{{"devices", std::move(list)}};
}

bool hasTrueTrait(const nlohmann::json& device, const std::string& trait)
{
    const auto traits = device.find("traits");
    if (traits == device.end() || !traits->is_object()) {
        return false;
    }
    const auto value = traits->find(trait);
    return value != traits->end() && value->is_boolean() && value->get<bool>();
}

json& devicesOf(json& document)
{
    auto& devices = document.at("devices");
    if (!devices.is_array()) {
        (void)devices.get<json::array_t>(); // throws the library's "type must be array" error
    }
    return devices;
}

} // namespace HALYX
