#include "devices/device_pool.hpp"

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX {
namespace {

template <typename Map>
auto entryWithSerialNumber(Map& devices, const std::string& serial_number)
{
    for (auto it = devices.begin(); it != devices.end(); ++it) {
        if (it->second.serialNumber == serial_number) {
            return it;
        }
    }
    return devices.end();
}

} // namespace

void applyFinding(Device& device, const event_object& finding)
{
    if (!device.usbIdentifier && finding.usbIdentifier) {
        device.usbIdentifier = finding.usbIdentifier;
    }
    if (!finding.sectionName.empty()) {
        // Through the record's own reading of a device object, so a section
        // like "serialPorts" lands where it belongs.
        nlohmann::json edit{{"id", device.id}, {"serialNumber", nullptr}};
        if (device.serialNumber) {
            edit["serialNumber"] = *device.serialNumber;
        }
        edit[finding.sectionName] = nlohmann::json::parse(finding.sectionJson);
        device.updateFromJson(edit);
    }
    device.mergeTraits(finding.traits);
}

uint64_t DevicePool::addLocked(const event_object& finding, std::map<uint64_t, Device>& into, uint64_t id)
{
    Device device;
    device.id = id;
    device.serialNumber = finding.serialNumber;
    applyFinding(device, finding);
    into.emplace(id, std::move(device));
    return id;
}

DevicePool::MergeResult DevicePool::merge(const event_object& finding)
{
    std::lock_guard lock(mutex_);
    if (finding.serialNumber) {
        if (auto it = entryWithSerialNumber(devices_, *finding.serialNumber); it != devices_.end()) {
            applyFinding(it->second, finding);
            return {it->first, false};
        }
    } else if (finding.usbIdentifier) {
        // A hot-plug update of a device without a serial number: its USB
        // identifier is stable while it stays attached.
        for (auto& [id, device] : devices_) {
            if (!device.serialNumber && device.usbIdentifier == finding.usbIdentifier) {
                applyFinding(device, finding);
                return {id, false};
            }
        }
    }
    return {addLocked(finding, devices_, next_id_++), true};
}

void DevicePool::replaceAll(const std::vector<event_object>& findings)
{
    std::lock_guard lock(mutex_);
    std::map<uint64_t, Device> fresh;
    for (const auto& finding : findings) {
        if (finding.serialNumber) {
            if (auto it = entryWithSerialNumber(fresh, *finding.serialNumber); it != fresh.end()) {
                applyFinding(it->second, finding);
                continue;
            }
            auto old = entryWithSerialNumber(devices_, *finding.serialNumber);
            addLocked(finding, fresh, old != devices_.end() ? old->first : next_id_++);
            continue;
        }
        // Without a serial number the USB identifier is the only thing that
        // can tell it is the same device as before.
        uint64_t id = 0;
        if (finding.usbIdentifier) {
            for (const auto& [old_id, old] : devices_) {
                if (!old.serialNumber && old.usbIdentifier == finding.usbIdentifier && !fresh.contains(old_id)) {
                    id = old_id;
                    break;
                }
            }
        }
        addLocked(finding, fresh, id != 0 ? id : next_id_++);
    }
    devices_ = std::move(fresh);
}

std::optional<uint64_t> DevicePool::find(const event_object& finding) const
{
    std::lock_guard lock(mutex_);
    for (const auto& [id, device] : devices_) {
        if (finding.serialNumber ? device.serialNumber == finding.serialNumber
                                 : (finding.usbIdentifier && device.usbIdentifier == finding.usbIdentifier)) {
            return id;
        }
    }
    return std::nullopt;
}

std::optional<Device> DevicePool::findBySerialNumber(const std::string& serial_number) const
{
    std::lock_guard lock(mutex_);
    const auto it = entryWithSerialNumber(devices_, serial_number);
    if (it == devices_.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::optional<Device> DevicePool::remove(uint64_t id)
{
    std::lock_guard lock(mutex_);
    auto node = devices_.extract(id);
    if (node.empty()) {
        return std::nullopt;
    }
    return std::move(node.mapped());
}

std::optional<Device> DevicePool::get(uint64_t id) const
{
    std::lock_guard lock(mutex_);
    const auto it = devices_.find(id);
    if (it == devices_.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::vector<Device> DevicePool::snapshot() const
{
    std::lock_guard lock(mutex_);
    std::vector<Device> devices;
    devices.reserve(devices_.size());
    for (const auto& [id, device] : devices_) {
        devices.push_back(device);
    }
    return devices;
}

std::vector<Device> DevicePool::snapshot(const std::vector<uint64_t>& ids) const
{
    std::lock_guard lock(mutex_);
    std::vector<Device> devices;
    for (const auto id : ids) {
        if (const auto it = devices_.find(id); it != devices_.end()) {
            devices.push_back(it->second);
        }
    }
    return devices;
}

std::vector<uint64_t> DevicePool::ids() const
{
    std::lock_guard lock(mutex_);
    std::vector<uint64_t> ids;
    for (const auto& [id, device] : devices_) {
        ids.push_back(id);
    }
    return ids;
}

bool DevicePool::empty() const
{
    std::lock_guard lock(mutex_);
    return devices_.empty();
}

void DevicePool::update(const nlohmann::json& device)
{
    if (!device.is_object() || !device.contains("id")) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, "device not found");
    }
    if (!device.contains("serialNumber")) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, "serialnumber not present");
    }
    const auto id = device.at("id").get<uint64_t>();
    std::lock_guard lock(mutex_);
    const auto it = devices_.find(id);
    if (it == devices_.end()) {
        Log::debug("DevicePool::update: device {} left during enumeration", id);
        return;
    }
    it->second.updateFromJson(device);
}

void DevicePool::mergeTraitsIntoAll(const Traits& traits)
{
    std::lock_guard lock(mutex_);
    for (auto& [id, device] : devices_) {
        device.mergeTraits(traits);
    }
}

} // namespace HALYX
