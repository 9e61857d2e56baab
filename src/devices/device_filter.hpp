#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "devices/device.hpp"

namespace HALYX {

// The trait names an enumeration is narrowed to: a device passes when the
// filter is empty or one of the names is set true in its traits. Every
// member takes the mutex.
class DeviceFilter {
public:
    void set(std::vector<std::string> traits);
    void reset();
    bool passes(const Device& device) const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> traits_;
};

} // namespace HALYX
