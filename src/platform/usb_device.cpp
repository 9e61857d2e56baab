#include "platform/usb_device.hpp"

#include "core/byte_order.hpp"
#include "core/json_fields.hpp"
#include "core/logging.hpp"

namespace HALYX {
namespace {

using nlohmann::json;

constexpr uint8_t kConfigurationType = 0x02;
constexpr uint8_t kInterfaceType = 0x04;
constexpr uint8_t kEndpointType = 0x05;

json toJson(const USBEndpointDescriptor& e)
{
    return json{{"length", e.length},
                {"bDescriptorType", e.bDescriptorType},
                {"bEndpointAddress", e.bEndpointAddress},
                {"bmAttributes", e.bmAttributes},
                {"wMaxPacketSize", e.wMaxPacketSize},
                {"bInterval", e.bInterval}};
}

json toJson(const USBInterfaceDescriptor& i)
{
    json endpoints = json::array();
    for (const auto& e : i.endpoints) {
        endpoints.push_back(toJson(e));
    }
    return json{{"length", i.length},
                {"bDescriptorType", i.bDescriptorType},
                {"bInterfaceNumber", i.bInterfaceNumber},
                {"bAlternateSetting", i.bAlternateSetting},
                {"bNumEndpoints", i.bNumEndpoints},
                {"bInterfaceClass", i.bInterfaceClass},
                {"bInterfaceSubClass", i.bInterfaceSubClass},
                {"bInterfaceProtocol", i.bInterfaceProtocol},
                {"iInterface", i.iInterface},
                {"endpointLists", std::move(endpoints)}};
}

json toJson(const USBConfigurationDescriptor& c)
{
    json interfaces = json::array();
    for (const auto& i : c.interfaces) {
        interfaces.push_back(toJson(i));
    }
    return json{{"length", c.length},
                {"bDescriptorType", c.bDescriptorType},
                {"wTotalLength", c.wTotalLength},
                {"bNumInterfaces", c.bNumInterfaces},
                {"bConfigurationValue", c.bConfigurationValue},
                {"iConfiguration", c.iConfiguration},
                {"bmAttributes", c.bmAttributes},
                {"bMaxPower", c.bMaxPower},
                {"interfaceLists", std::move(interfaces)}};
}

json toJson(const USBDeviceDescriptor& d)
{
    return json{{"length", d.length},
                {"bDescriptorType", d.bDescriptorType},
                {"bcdUSB", d.bcdUSB},
                {"bDeviceClass", d.bDeviceClass},
                {"bDeviceSubClass", d.bDeviceSubClass},
                {"bDeviceProtocol", d.bDeviceProtocol},
                {"bMaxPacketSize0", d.bMaxPacketSize0},
                {"idVendor", d.idVendor},
                {"idProduct", d.idProduct},
                {"bcdDevice", d.bcdDevice},
                {"iManufacturer", d.iManufacturer},
                {"iProduct", d.iProduct},
                {"iSerialNumber", d.iSerialNumber},
                {"bNumConfigurations", d.bNumConfigurations}};
}

} // namespace

json USBDevice::toJson() const
{
    json configurations_json = json::array();
    for (const auto& c : configurations) {
        configurations_json.push_back(HALYX::toJson(c));
    }
    return json{
        {"busNumber", busNumber},
        {"address", address},
        {"device",
         {{"manufacturer", stringOrNull(manufacturer)},
          {"product", stringOrNull(product)},
          {"serialNumber", stringOrNull(serialNumber)},
          {"osDevicePath", osDevicePath},
          {"descriptor", HALYX::toJson(descriptor)}}},
        {"descriptors", {{"configList", std::move(configurations_json)}}},
    };
}

const USBInterfaceDescriptor* findDfuTriggerInterface(const USBDevice& device)
{
    if (device.configurations.empty()) {
        return nullptr;
    }
    for (const auto& interface : device.configurations.front().interfaces) {
        if (interface.bInterfaceClass == 0xFF && interface.bInterfaceSubClass == 0x01 &&
            interface.bInterfaceProtocol == 0x01) {
            return &interface;
        }
    }
    return nullptr;
}

bool parseDeviceDescriptor(const uint8_t* data, size_t size, USBDeviceDescriptor& out)
{
    if (size < 18) {
        return false;
    }
    const std::span<const uint8_t> d(data, size);
    out.length = data[0];
    out.bDescriptorType = data[1];
    out.bcdUSB = readLe16(d, 2);
    out.bDeviceClass = data[4];
    out.bDeviceSubClass = data[5];
    out.bDeviceProtocol = data[6];
    out.bMaxPacketSize0 = data[7];
    out.idVendor = readLe16(d, 8);
    out.idProduct = readLe16(d, 10);
    out.bcdDevice = readLe16(d, 12);
    out.iManufacturer = data[14];
    out.iProduct = data[15];
    out.iSerialNumber = data[16];
    out.bNumConfigurations = data[17];
    return true;
}

std::vector<USBConfigurationDescriptor> walkConfigurationDescriptors(const uint8_t* data, size_t size)
{
    Log::debug("Iterating descriptors.");
    std::vector<USBConfigurationDescriptor> configurations;
    size_t offset = 0;
    while (offset + 2 <= size) {
        const uint8_t length = data[offset];
        const uint8_t type = data[offset + 1];
        if (length < 2 || offset + length > size) {
            Log::warn("USB descriptor at offset {} has length {} of {} bytes left; the rest is ignored", offset, length,
                      size - offset);
            break;
        }
        const std::span<const uint8_t> d(data + offset, length);
        if (type == kConfigurationType && length >= 9) {
            USBConfigurationDescriptor c;
            c.length = length;
            c.bDescriptorType = type;
            c.wTotalLength = readLe16(d, 2);
            c.bNumInterfaces = d[4];
            c.bConfigurationValue = d[5];
            c.iConfiguration = d[6];
            c.bmAttributes = d[7];
            c.bMaxPower = d[8];
            configurations.push_back(std::move(c));
        } else if (type == kInterfaceType && length >= 9) {
            if (configurations.empty()) {
                Log::warn("Found USB interface, but did not find any configuration first.");
            } else {
                USBInterfaceDescriptor i;
                i.length = length;
                i.bDescriptorType = type;
                i.bInterfaceNumber = d[2];
                i.bAlternateSetting = d[3];
                i.bNumEndpoints = d[4];
                i.bInterfaceClass = d[5];
                i.bInterfaceSubClass = d[6];
                i.bInterfaceProtocol = d[7];
                i.iInterface = d[8];
                configurations.back().interfaces.push_back(std::move(i));
            }
        } else if (type == kEndpointType && length >= 7) {
            if (configurations.empty()) {
                Log::warn("Found USB endpoint, but did not find any configuration first.");
            } else if (configurations.back().interfaces.empty()) {
                Log::warn("Found USB endpoint, but did not find any interface first.");
            } else {
                USBEndpointDescriptor e;
                e.length = length;
                e.bDescriptorType = type;
                e.bEndpointAddress = d[2];
                e.bmAttributes = d[3];
                e.wMaxPacketSize = readLe16(d, 4);
                e.bInterval = d[6];
                configurations.back().interfaces.back().endpoints.push_back(e);
            }
        }
        // Class-specific and other descriptors carry nothing the record keeps.
        offset += length;
    }
    return configurations;
}

} // namespace HALYX
