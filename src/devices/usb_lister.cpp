#include "devices/usb_lister.hpp"

#include <algorithm>
#include <span>

#include "core/byte_order.hpp"
#include "core/json_fields.hpp"
#include "core/logging.hpp"
#include "devices/known_kits.hpp"

namespace HALYX {
namespace {

using nlohmann::json;

event_object identity(const USBDevice& device)
{
    event_object finding;
    finding.serialNumber = device.serialNumber;
    finding.usbIdentifier = device.usbIdentifier;
    return finding;
}

// A request the device refused or the host could not send leaves the key absent.
bool ask(DeviceAccess& devices, uint64_t id, uint8_t request, std::vector<uint8_t>& reply)
{
    try {
        return devices.controlTransfer(id, DfuTriggerTransfer{DfuTriggerTransfer::Kind::Read, request}, reply);
    } catch (const HALYXException& e) {
        Log::exception(spdlog::level::debug, e, "USBLister:");
    }
    return false;
}

json askVersion(DeviceAccess& devices, uint64_t id)
{
    std::vector<uint8_t> reply(KnownKits::kDfuTriggerSemVerSize);
    if (ask(devices, id, KnownKits::kDfuTriggerSemVerRequest, reply)) {
        // Zero-terminated, but a device may fill the buffer without the terminator.
        const auto end = std::find(reply.begin(), reply.end(), uint8_t{0});
        return json{{"semVer", std::string(reply.begin(), end)}};
    }
    Log::error("USBLister: failed to send setup packet KELVANE_SEM_VER_REQUEST");
    return nullptr;
}

json askInfo(DeviceAccess& devices, uint64_t id)
{
    std::vector<uint8_t> reply(KnownKits::kDfuTriggerInfoSize);
    const auto info =
        ask(devices, id, KnownKits::kDfuTriggerInfoRequest, reply) ? decodeDfuTriggerInfo(reply) : std::nullopt;
    if (info) {
        return json{{"wAddress", info->wAddress},           {"wVersionMajor", info->wVersionMajor},
                    {"wVersionMinor", info->wVersionMinor}, {"wFirmwareId", info->wFirmwareId},
                    {"wFlashSize", info->wFlashSize},       {"wFlashPageSize", info->wFlashPageSize}};
    }
    Log::error("USBLister: failed to send setup packet KELVANE_DFU_INFO_REQUEST");
    return nullptr;
}

} // namespace

std::optional<DfuTriggerInfo> decodeDfuTriggerInfo(const std::vector<uint8_t>& reply)
{
    if (reply.size() < KnownKits::kDfuTriggerInfoSize) {
        return std::nullopt;
    }
    const std::span<const uint8_t> bytes(reply);
    DfuTriggerInfo info;
    info.wAddress = readLe32(bytes, 0);
    info.wVersionMajor = readLe16(bytes, 8);
    info.wVersionMinor = readLe16(bytes, 10);
    info.wFirmwareId = readLe32(bytes, 12);
    info.wFlashSize = readLe32(bytes, 16);
    info.wFlashPageSize = readLe32(bytes, 20);
    return info;
}

USBLister::USBLister(std::unique_ptr<USBPlatformAPI> platform) : platform_(std::move(platform))
{
}

USBLister::~USBLister()
{
    platform_->stop();
}

std::vector<event_object> USBLister::enumerate()
{
    const auto listed = platform_->enumerate();
    {
        std::lock_guard lock(devices_mutex_);
        devices_.clear();
    }
    std::vector<event_object> findings;
    for (const auto& device : listed) {
        remember(device);
        findings.push_back(toFinding(device));
    }
    return findings;
}

void USBLister::remember(const USBDevice& device)
{
    std::lock_guard lock(devices_mutex_);
    devices_.insert_or_assign(device.usbIdentifier, device);
}

event_object USBLister::toFinding(const USBDevice& device)
{
    Log::info("USBLister: Adding device with serial number: {}", device.serialNumber.value_or("NONE"));
    auto finding = identity(device);
    finding.traits["usb"] = true;
    if (KnownKits::isMakerDevice(device.descriptor.idVendor)) {
        finding.traits["kelvaneUsb"] = true;
    }
    finding.sectionName = "usb";
    finding.sectionJson = jsonText(device.toJson());
    return finding;
}

std::vector<event_object> USBLister::describe(DeviceAccess& devices, const std::vector<uint64_t>& ids)
{
    std::vector<event_object> findings;
    for (const auto id : ids) {
        const auto document = devices.document(id);
        if (!document || !hasTrueTrait(*document, "kelvaneUsb")) {
            continue;
        }
        const auto usb = document->find("usb");
        if (usb == document->end() || !usb->is_object()) {
            continue;
        }
        auto section = *usb;
        if (!complete(devices, id, section)) {
            continue;
        }
        event_object finding;
        finding.serialNumber = optionalString(*document, "serialNumber");
        finding.usbIdentifier = optionalString(*document, "usbIdentifier");
        finding.sectionName = "usb";
        finding.sectionJson = jsonText(section);
        findings.push_back(std::move(finding));
    }

    // What departed devices answered is of no further use.
    std::vector<uint64_t> asked;
    {
        std::lock_guard lock(answers_mutex_);
        for (const auto& [id, answers] : answers_) {
            asked.push_back(id);
        }
    }
    for (const auto id : asked) {
        if (!devices.document(id)) {
            std::lock_guard lock(answers_mutex_);
            answers_.erase(id);
        }
    }
    return findings;
}

bool USBLister::complete(DeviceAccess& devices, uint64_t id, json& usb)
{
    const json where{usb.value("busNumber", json()), usb.value("address", json())};
    Answers known;
    {
        std::lock_guard lock(answers_mutex_);
        if (const auto it = answers_.find(id); it != answers_.end() && it->second.where == where) {
            known = it->second;
        }
    }
    known.where = where;
    bool changed = false;
    const auto fill = [&](const char* key, std::optional<json>& answer, json (*ask)(DeviceAccess&, uint64_t)) {
        if (usb.contains(key)) {
            return;
        }
        if (!answer) {
            answer = ask(devices, id);
        }
        if (!answer->is_null()) {
            usb[key] = *answer;
            changed = true;
        }
    };
    fill("dfuTriggerVersion", known.version, askVersion);
    fill("dfuTriggerInfo", known.info, askInfo);
    std::lock_guard lock(answers_mutex_);
    answers_[id] = std::move(known);
    return changed;
}

bool USBLister::dfuTriggerTransfer(const std::string& usb_identifier, const DfuTriggerTransfer& transfer,
                                   std::vector<uint8_t>& buffer)
{
    USBDevice device;
    {
        std::lock_guard lock(devices_mutex_);
        const auto it = devices_.find(usb_identifier);
        if (it == devices_.end()) {
            throw HALYXException(HALYX_ERR_NOT_FOUND, fmt::format("USB device {} is not attached.", usb_identifier));
        }
        device = it->second;
    }
    if (transfer.kind == DfuTriggerTransfer::Kind::Trigger) {
        platform_->sendTriggerRequest(device, transfer.request);
        return true;
    }
    return platform_->vendorRead(device, transfer.request, buffer);
}

void USBLister::start(Arrival arrival, Removal removal)
{
    platform_->setArrivalCallback([this, arrival](const USBDevice& device) {
        remember(device);
        arrival(toFinding(device), ArrivalType::HotPlug);
    });
    platform_->setRemovalCallback([this, removal](const USBDevice& device) {
        {
            std::lock_guard lock(devices_mutex_);
            devices_.erase(device.usbIdentifier);
        }
        removal(identity(device));
    });
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
