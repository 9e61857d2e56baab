#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace HALYX {

struct USBEndpointDescriptor {
    uint8_t length = 0;
    uint8_t bDescriptorType = 0;
    uint8_t bEndpointAddress = 0;
    uint8_t bmAttributes = 0;
    uint16_t wMaxPacketSize = 0;
    uint8_t bInterval = 0;
};

struct USBInterfaceDescriptor {
    uint8_t length = 0;
    uint8_t bDescriptorType = 0;
    uint8_t bInterfaceNumber = 0;
    uint8_t bAlternateSetting = 0;
    uint8_t bNumEndpoints = 0;
    uint8_t bInterfaceClass = 0;
    uint8_t bInterfaceSubClass = 0;
    uint8_t bInterfaceProtocol = 0;
    uint8_t iInterface = 0;
    std::vector<USBEndpointDescriptor> endpoints;
};

struct USBConfigurationDescriptor {
    uint8_t length = 0;
    uint8_t bDescriptorType = 0;
    uint16_t wTotalLength = 0;
    uint8_t bNumInterfaces = 0;
    uint8_t bConfigurationValue = 0;
    uint8_t iConfiguration = 0;
    uint8_t bmAttributes = 0;
    uint8_t bMaxPower = 0;
    std::vector<USBInterfaceDescriptor> interfaces;
};

struct USBDeviceDescriptor {
    uint8_t length = 0;
    uint8_t bDescriptorType = 0;
    uint16_t bcdUSB = 0;
    uint8_t bDeviceClass = 0;
    uint8_t bDeviceSubClass = 0;
    uint8_t bDeviceProtocol = 0;
    uint8_t bMaxPacketSize0 = 0;
    uint16_t idVendor = 0;
    uint16_t idProduct = 0;
    uint16_t bcdDevice = 0;
    uint8_t iManufacturer = 0;
    uint8_t iProduct = 0;
    uint8_t iSerialNumber = 0;
    uint8_t bNumConfigurations = 0;
};

// One USB device as the platform layer finds it: where it sits on the bus,
// its strings and its descriptors. Strings the device does not give are absent.
struct USBDevice {
    uint8_t busNumber = 0;
    uint8_t address = 0;
    std::optional<std::string> manufacturer;
    std::optional<std::string> product;
    std::optional<std::string> serialNumber;
    std::string osDevicePath;
    // Stable per physical port while attached; the device's serial ports carry it too.
    std::string usbIdentifier;
    USBDeviceDescriptor descriptor;
    std::vector<USBConfigurationDescriptor> configurations;

    // The "usb" section of the device document.
    nlohmann::json toJson() const;
};

// The DFU-trigger interface of the maker's devices (vendor-specific class,
// subclass 1, protocol 1) in the first configuration; nullptr when absent.
const USBInterfaceDescriptor* findDfuTriggerInterface(const USBDevice& device);

// Decodes an 18-byte device descriptor; false when it is too short.
bool parseDeviceDescriptor(const uint8_t* data, size_t size, USBDeviceDescriptor& out);

// Walks configuration descriptors in the order they come, as one blob of
// one or more configurations: an interface belongs to the last configuration
// seen, an endpoint to the last interface seen. Misplaced interfaces and
// endpoints are logged and skipped; a truncated descriptor ends the walk.
std::vector<USBConfigurationDescriptor> walkConfigurationDescriptors(const uint8_t* data, size_t size);

} // namespace HALYX
