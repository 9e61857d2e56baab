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
    if (device.trait_count > 0 && device.traits == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, fmt::format("device {} has trait_count {} but traits is NULL",
                                                                     device.id, device.trait_count));
    }
    if (device.serial_port_count > 0 && device.serial_ports == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT,
                             fmt::format("device {} has serial_port_count {} but serial_ports is NULL", device.id,
                                         device.serial_port_count));
    }
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
    for (size_t i = 0; i < device.serial_port_count; ++i) {
        const char* name = device.serial_ports[i].com_name;
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
    if (list->count > 0 && list->devices == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "device_list has a count but no devices");
    }
    switch (format) {
    case HALYX_DOC_FORMAT_JSON:
    case HALYX_DOC_FORMAT_JSON_PRETTY:
        return guardJson([&] {
            json devices = json::array();
            for (size_t i = 0; i < list->count; ++i) {
                devices.push_back(deviceJson(list->devices[i]));
            }
            return dump(json{{"devices", std::move(devices)}}, format);
        });
    case HALYX_DOC_FORMAT_CSV:
    case HALYX_DOC_FORMAT_CSV_WO_HEADER: {
        std::string text;
        if (format == HALYX_DOC_FORMAT_CSV_WO_HEADER) {
            text = fmt::format("serialnumber{}serialports\n", ";");
        }
        for (size_t i = 0; i < list->count; ++i) {
            text += csvLine(list->devices[i]);
        }
        return text;
    }
    default:
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED, fmt::format("{} not supported yet.", formatName(format)));
    }
}

} // namespace HALYX::Documents
