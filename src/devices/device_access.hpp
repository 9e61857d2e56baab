#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

namespace HALYX {

// A class request to the DFU-trigger interface of one of the maker's USB
// devices: a trigger without data, or a read that fills the caller's buffer.
struct DfuTriggerTransfer {
    enum class Kind {
        Trigger,
        Read
    };
    Kind kind = Kind::Read;
    uint8_t request = 0;
};

// What listers and plugins may ask of the devices a context knows, by id.
// The device lister implements it; a plugin reaches it through the
// operation it runs.
class DeviceAccess {
public:
    virtual ~DeviceAccess() = default;

    // The device's document, or nothing when no device of that id is attached.
    virtual std::optional<nlohmann::json> document(uint64_t id) const = 0;

    // Sends the transfer to the device. For a read the buffer's size is the
    // reply's capacity and on return it holds what came; false when the
    // device refused it. Throws 10 "Device with ID={} is not connected." for
    // an id that is not attached and 1 "Unable to send control transfer to
    // USB device. ..." when the host cannot reach the device at all.
    virtual bool controlTransfer(uint64_t id, const DfuTriggerTransfer& transfer, std::vector<uint8_t>& buffer) = 0;
};

} // namespace HALYX
