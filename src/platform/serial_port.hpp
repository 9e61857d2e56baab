#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace HALYX {

// One serial port of the host, with what is known of the USB device behind it.
struct SerialPort {
    std::optional<std::string> comName;
    std::optional<std::string> manufacturer;
    std::optional<std::string> serialNumber; // of the USB device the port belongs to
    std::optional<std::string> vendorId;
    std::optional<std::string> productId;
    std::optional<std::string> usbIdentifier;
    std::optional<std::string> path;
    uint32_t vcom = 0; // the port's index among its USB device's serial interfaces
};

} // namespace HALYX
