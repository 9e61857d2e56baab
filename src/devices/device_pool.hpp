#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "devices/device.hpp"
#include "devices/lister.hpp"

namespace HALYX {

// The merged records of the attached devices by id, in arrival order. One
// record per serial number; a finding without one is a device of its own.
// Ids start at 1 and are never reused. Every member takes the pool's mutex.
class DevicePool {
public:
    struct MergeResult {
        uint64_t id;
        bool added;
    };

    // Adds a lister's finding to the record of its serial number (without
    // one, to the serial-less record of its USB identifier), or makes a new
    // record.
    MergeResult merge(const event_object& finding);

    // Replaces the pool with a fresh listing; a device found again keeps its id.
    void replaceAll(const std::vector<event_object>& findings);

    // The record a departing device had: by serial number, else by USB identifier.
    std::optional<uint64_t> find(const event_object& finding) const;

    std::optional<Device> findBySerialNumber(const std::string& serial_number) const;
    std::optional<Device> remove(uint64_t id);
    std::optional<Device> get(uint64_t id) const;
    std::vector<Device> snapshot() const;
    std::vector<Device> snapshot(const std::vector<uint64_t>& ids) const;
    std::vector<uint64_t> ids() const;
    bool empty() const;

    // Folds a plugin-edited device object back into the record of its "id".
    // Throws 10 "device not found" without "id" and 10 "serialnumber not
    // present" without "serialNumber"; a device that left in the meantime is
    // skipped.
    void update(const nlohmann::json& device);

    void mergeTraitsIntoAll(const Traits& traits);

private:
    uint64_t addLocked(const event_object& finding, std::map<uint64_t, Device>& into, uint64_t id);

    mutable std::mutex mutex_;
    std::map<uint64_t, Device> devices_;
    uint64_t next_id_ = 1;
};

// Applies one lister's finding to a record: its section, traits and USB identifier.
void applyFinding(Device& device, const event_object& finding);

} // namespace HALYX
