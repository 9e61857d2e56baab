#pragma once

#include <cstdint>
#include <string>

#include "halyx.h"

namespace HALYX::Documents {

// A device as its JSON document (JSON, JSON_PRETTY).
std::string renderDevice(const halyx_device_t* device, uint32_t format);

// A device list under "devices" (JSON, JSON_PRETTY), or as CSV lines of
// "serial number;serial ports" where the ports' COM names are joined by ",".
// CSV_WO_HEADER is the variant that writes the header line and CSV the one
// that does not: the names say the reverse, and applications rely on it.
std::string renderDeviceList(const halyx_device_list_t* list, uint32_t format);

} // namespace HALYX::Documents
