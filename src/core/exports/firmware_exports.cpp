// Firmware handles: made and freed without a context.
#include "core/call_guard.hpp"
#include "core/firmware.hpp"

using HALYX::HALYXException;

extern "C" {

HALYX_API halyx_errorcode_t halyx_fw_create_handle(halyx_firmware** firmware, const uint8_t* data, size_t size,
                                                   uint32_t source_kind, uint32_t format)
{
    return HALYX::guardedCallWithoutContext([&] {
        HALYX::requireArgument(firmware, "halyx_fw_create_handle", "firmware");
        *firmware = HALYX::createFirmware(data, size, source_kind, format);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_fw_release_handle(halyx_firmware* firmware)
{
    delete firmware;
    return HALYX_SUCCESS;
}

} // extern "C"
