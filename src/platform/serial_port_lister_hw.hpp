#pragma once

#include <vector>

#include "platform/serial_port.hpp"

namespace HALYX {

// The host's serial ports with what is known of the USB device behind each:
// its serial number, ids, manufacturer and USB identifier, and the port's
// "vcom" index on that device. Throws HALYXException when the host cannot
// be asked.
class SerialPortListerHW {
public:
    virtual ~SerialPortListerHW() = default;
    virtual std::vector<SerialPort> list() = 0;
};

} // namespace HALYX
