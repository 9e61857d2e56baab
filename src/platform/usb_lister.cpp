#include "platform/usb_lister.hpp"

#include <algorithm>

#include "core/logging.hpp"

namespace HALYX {
namespace {

uint32_t le32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}

uint16_t le16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

// A request the platform could not complete, or one that threw, leaves the key absent.
bool vendorRead(USBPlatformAPI& platform, const USBDevice& device, uint8_t request, std::vector<uint8_t>& buffer)
{
    try {
        return platform.vendorRead(device, request, buffer);
    } catch (const HALYXException& e) {
        Log::exception(spdlog::level::debug, e, "USBLister:");
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::debug, e, "USBLister:");
    }
    return false;
}

event_object identity(const USBDevice& device)
{
    event_object finding;
    finding.serialNumber = device.serialNumber;
    finding.usbIdentifier = device.usbIdentifier;
    return finding;
}

} // namespace

std::optional<DfuTriggerInfo> decodeDfuTriggerInfo(const std::vector<uint8_t>& reply)
{
    if (reply.size() < 24) {
        return std::nullopt;
    }
    const uint8_t* p = reply.data();
    DfuTriggerInfo info;
    info.wAddress = le32(p);
    info.wVersionMajor = le16(p + 8);
    info.wVersionMinor = le16(p + 10);
    info.wFirmwareId = le32(p + 12);
    info.wFlashSize = le32(p + 16);
    info.wFlashPageSize = le32(p + 20);
    return info;
}

USBLister::USBLister(std::unique_ptr<USBPlatformAPI> platform) : platform_(std::move(platform)) {}

USBLister::~USBLister()
{
    platform_->stop();
}

std::vector<event_object> USBLister::enumerate()
{
    std::vector<event_object> findings;
    for (const auto& device : platform_->enumerate()) {
        findings.push_back(toFinding(device));
    }
    return findings;
}

event_object USBLister::toFinding(const USBDevice& device)
{
    Log::info("USBLister: Adding device with serial number: {}", device.serialNumber.value_or("NONE"));
    auto finding = identity(device);
    auto usb = device.toJson();
    finding.traits["usb"] = true;

    if (device.descriptor.idVendor == kMakerVendorId) {
        finding.traits["kelvaneUsb"] = true;
        if (!usb.contains("dfuTriggerVersion")) {
            std::vector<uint8_t> reply(255);
            if (vendorRead(*platform_, device, kSemVerRequest, reply)) {
                // Zero-terminated, but a device may fill the buffer without the terminator.
                const auto end = std::find(reply.begin(), reply.end(), uint8_t{0});
                usb["dfuTriggerVersion"] = {{"semVer", std::string(reply.begin(), end)}};
            } else {
                Log::error("USBLister: failed to send setup packet KELVANE_SEM_VER_REQUEST");
            }
        }
        if (!usb.contains("dfuTriggerInfo")) {
            std::vector<uint8_t> reply(24);
            const auto info = vendorRead(*platform_, device, kDfuInfoRequest, reply) ? decodeDfuTriggerInfo(reply)
                                                                                     : std::nullopt;
            if (info) {
                usb["dfuTriggerInfo"] = {{"wAddress", info->wAddress},
                                         {"wVersionMajor", info->wVersionMajor},
                                         {"wVersionMinor", info->wVersionMinor},
                                         {"wFirmwareId", info->wFirmwareId},
                                         {"wFlashSize", info->wFlashSize},
                                         {"wFlashPageSize", info->wFlashPageSize}};
            } else {
                Log::error("USBLister: failed to send setup packet KELVANE_DFU_INFO_REQUEST");
            }
        }
    }
    finding.sectionName = "usb";
    finding.sectionJson = usb.dump();
    return finding;
}

void USBLister::start(Arrival arrival, Removal removal)
{
    platform_->setArrivalCallback(
        [this, arrival](const USBDevice& device) { arrival(toFinding(device), ArrivalType::HotPlug); });
    platform_->setRemovalCallback([removal](const USBDevice& device) { removal(identity(device)); });
    // A late serial port: the record is already there, the plugins redo its ports.
    platform_->setUpdateCallback(
        [arrival](const USBDevice& device) { arrival(identity(device), ArrivalType::HotPlug); });
    platform_->start();
}

void USBLister::stop()
{
    platform_->stop();
}

void USBLister::setTimeouts(const halyx_timeout_configuration_t& timeouts)
{
    platform_->setSettleTime(std::chrono::milliseconds(timeouts.settle_ms));
}

} // namespace HALYX
