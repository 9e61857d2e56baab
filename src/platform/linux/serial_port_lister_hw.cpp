#include "platform/linux/serial_port_lister_hw.hpp"

#include "core/logging.hpp"
#include "platform/linux/usb_serial_ports.hpp"

namespace HALYX::Linux {

std::vector<SerialPort> SerialPortListerHW::list()
{
    Log::ScopeTimer timer("HALYX::Linux::SerialPortListerHW::list");
    auto context = makeUdev();
    return listUsbSerialPorts(context.get());
}

} // namespace HALYX::Linux
