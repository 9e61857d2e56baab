#pragma once

#include <memory>

#include "platform/dll_utils.hpp"
#include "platform/serial_port_lister_hw.hpp"
#include "platform/usb_platform_api.hpp"

namespace HALYX {

// The implementations for the host this library is built for.
std::unique_ptr<USBPlatformAPI> makeHostUsbPlatform();
std::unique_ptr<SerialPortListerHW> makeHostSerialPortListerHW();
std::unique_ptr<DLLUtils> makeHostDllUtils();

} // namespace HALYX
