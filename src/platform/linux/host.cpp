#include "platform/host.hpp"

#include "platform/linux/dll_utils.hpp"
#include "platform/linux/serial_port_lister_hw.hpp"
#include "platform/linux/usb_platform_api.hpp"

namespace HALYX {

std::unique_ptr<USBPlatformAPI> makeHostUsbPlatform()
{
    return std::make_unique<Linux::USBPlatformAPI>();
}

std::unique_ptr<SerialPortListerHW> makeHostSerialPortListerHW()
{
    return std::make_unique<Linux::SerialPortListerHW>();
}

std::unique_ptr<DLLUtils> makeHostDllUtils()
{
    return std::make_unique<Linux::DLLUtils>();
}

} // namespace HALYX
