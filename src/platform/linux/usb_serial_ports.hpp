#pragma once

#include <string>
#include <vector>

#include "platform/linux/udev_handles.hpp"
#include "platform/serial_port.hpp"

namespace HALYX::Linux {

// The tty devices that sit on a USB device, with their USB parent's facts:
// serial number, ids, manufacturer and sysfs name. "vcom" is the port's
// index among the ttys of its USB device, ordered by interface number.
// With a parent syspath only that device's ports are listed.
std::vector<SerialPort> listUsbSerialPorts(udev* context, const char* usb_syspath = nullptr);

} // namespace HALYX::Linux
