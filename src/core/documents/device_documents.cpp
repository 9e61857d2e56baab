#include "core/documents/device_documents.hpp"

#include <fmt/format.h>

#include "core/documents/document_format.hpp"
#include "devices/device_view.hpp"

namespace HALYX::Documents {
namespace {

using nlohmann::json;

// A record the application built may claim more than it holds; every
// renderer refuses it the same way rather than reading past what it owns.
void checkView(const halyx_device_t& device)
{
    (void)itemsOf(device.traits, device.trait_count, fmt::format("device {}'s traits", device.id));
    (void)itemsOf(device.serial_ports, device.serial_port_count, fmt::format("device {}'s serial_ports", device.id));
}

json deviceJson(const halyx_device_t& device)
{
    checkView(device);
    if (device.json != nullptr) {
        return json::parse(device.json);
    }
    // A record the application filled in itself: what its fields say.
    return recordFromView(device).toJson();
}

std::string csvLine(const halyx_device_t& device)
{
    checkView(device);
    std::string ports;
    for (const auto& port : itemsOf(device.serial_ports, device.serial_port_count, "serial_ports")) {
        const char* name = port.com_name;
        if (name == nullptr) {
            continue;
        }
        if (!ports.empty()) {
            ports += ',';
        }
        ports += name;
    }
    return fmt::format("{}{}{}", device.serial_number != nullptr ? device.serial_number : "", ";", ports) + "\n";
}

} // namespace

std::string renderDevice(const halyx_device_t* device, uint32_t format)
{
    return renderRecord(device, "device must have a valid value", format, deviceJson);
}

std::string renderDeviceList(const halyx_device_list_t* list, uint32_t format)
{
    if (list == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "device_list must have a valid value");
    }
    const auto devices = itemsOf(list->devices, list->count, "device_list");
    switch (format) {
    case HALYX_DOC_FORMAT_JSON:
    case HALYX_DOC_FORMAT_JSON_PRETTY:
        return guardJson([&] {
            json documents = json::array();
            for (const auto& device : devices) {
                documents.push_back(deviceJson(device));
            }
            return dump(json{{"devices", std::move(documents)}}, format);
        });
    case HALYX_DOC_FORMAT_CSV:
    case HALYX_DOC_FORMAT_CSV_WO_HEADER: {
        std::string text;
        if (format == HALYX_DOC_FORMAT_CSV_WO_HEADER) {
            text = fmt::format("serialnumber{}serialports\n", ";");
        }
        for (const auto& device : devices) {
            text += csvLine(device);
        }
        return text;
    }
    default:
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED, fmt::format("{} not supported yet.", formatName(format)));
    }
}

} // namespace HALYX::Documents
