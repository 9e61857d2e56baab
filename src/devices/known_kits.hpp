#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// Which USB devices are the maker's kits, and what tells them apart. The one
// place that knows vendor and product ids and the identification rules; the
// listers, plugins and simulated kits all read them from here.
namespace HALYX::KnownKits {

constexpr uint16_t kMakerVendorId = 0x7A5C;
// The probe vendor's USB interface on kits with an on-board debug probe.
constexpr uint16_t kProbeVendorId = 0x1366;

constexpr uint16_t kDevelopmentKitProductId = 0x9100;
// The cellular kit: its MCUboot boot loader is reached over its serial port.
constexpr uint16_t kCellularKitProductId = 0x520F;
// A kit restarted into its serial DFU boot loader (same serial number).
constexpr uint16_t kSdfuBootloaderProductId = 0x521F;

// A USB product string that contains this (any case) is an MCUboot boot
// loader in serial recovery.
constexpr std::string_view kMcubootProductMarker = "MCUBOOT";

// The DFU-trigger interface of a kit running its application: class read
// requests for its information record and its version text.
constexpr uint8_t kDfuTriggerInfoRequest = 7;
constexpr uint8_t kDfuTriggerSemVerRequest = 8;
constexpr size_t kDfuTriggerInfoSize = 24;
constexpr size_t kDfuTriggerSemVerSize = 255;

// Kits whose firmware is known to be defective.
constexpr std::string_view kMakerManufacturer = "Kelvane Semiconductor";
// The Windows device path of the firmware whose USB serial number is the
// fixed text "0.01": compared over exactly these 30 characters.
constexpr std::string_view kBrokenFirmwarePathPrefix = R"(\\?\USB#VID_7A5C&PID_520F#0.01)";
static_assert(kBrokenFirmwarePathPrefix.size() == 30);
// Kits whose USB CDC firmware below this version mishandles DTR/RTS and the baud rate.
constexpr uint16_t kFirstGoodCdcFirmware = 0x0204;

constexpr bool isMakerDevice(uint16_t vendor_id)
{
    return vendor_id == kMakerVendorId;
}

constexpr bool isCellularKit(uint16_t vendor_id, uint16_t product_id)
{
    return vendor_id == kMakerVendorId && product_id == kCellularKitProductId;
}

constexpr bool hasCdcFirmwareRule(uint16_t vendor_id, uint16_t product_id)
{
    return vendor_id == kMakerVendorId &&
           (product_id == kDevelopmentKitProductId || product_id == kCellularKitProductId);
}

// True when the USB product string announces MCUboot serial recovery.
bool namesMcuboot(std::string_view product);

// True for the device path of the broken firmware (a prefix test).
bool isBrokenFirmwarePath(std::string_view os_device_path);

// A USB id as listers write it: "7A5C", "0x7a5c" or a number in text.
std::optional<uint16_t> parseUsbId(std::string_view text);

} // namespace HALYX::KnownKits
