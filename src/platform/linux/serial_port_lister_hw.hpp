#pragma once

#include "platform/serial_port_lister_hw.hpp"

namespace HALYX::Linux {

// Serial ports from libudev: every tty with a USB parent. "path" is the
// /dev/serial/by-id link when udev made one.
class SerialPortListerHW final : public HALYX::SerialPortListerHW {
public:
    std::vector<SerialPort> list() override;
};

} // namespace HALYX::Linux
