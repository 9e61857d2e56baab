// What a USB device tells about itself: its descriptors, walked as the host
// reads them, and its replies to the DFU-trigger requests. Anything is read
// or skipped; nothing is read past what the device sent.
#include <algorithm>
#include <vector>

#include "devices/usb_lister.hpp"
#include "platform/usb_device.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    HALYX::USBDevice device;
    if (HALYX::parseDeviceDescriptor(data, size, device.descriptor) && size > 18) {
        device.configurations = HALYX::walkConfigurationDescriptors(data + 18, size - 18);
    } else {
        device.configurations = HALYX::walkConfigurationDescriptors(data, size);
    }
    (void)HALYX::findDfuTriggerInterface(device);
    (void)device.toJson().dump();

    const std::vector<uint8_t> reply(data, data + std::min<size_t>(size, 24));
    (void)HALYX::decodeDfuTriggerInfo(reply);
    return 0;
}
