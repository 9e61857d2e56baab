#pragma once

#include <cstdint>
#include <string>

#include "halyx.h"

namespace HALYX::Documents {

// Each accepts JSON and JSON_PRETTY only.
std::string renderCoreInfo(const halyx_device_core_info_t* info, uint32_t format);
// {"imageInfoList": [{"imageType", "imageLocation", "address", "size", "bootloaderType", "version"}]}
std::string renderFirmwareImages(const halyx_firmware_device_firmware_images_t* images, uint32_t format);
// {"modules": [{"moduleName", "description", "versionFormat", "version", "expectedVersion", "dependencies"}]}
std::string renderVersionList(const halyx_version_list_t* list, uint32_t format);

} // namespace HALYX::Documents
