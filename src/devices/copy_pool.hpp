#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "devices/device.hpp"
#include "devices/device_view.hpp"

namespace HALYX {

// The device copies callers took with halyx_get_device, by id, until they
// free them. Every member takes the pool's mutex.
class CopyPool {
public:
    // Throws 4 when a copy of that id is already out.
    halyx_device_t* add(const Device& device);
    // Throws 10 "Unable to free device." for anything this pool did not hand out.
    void free(const halyx_device_t* device);

private:
    std::mutex mutex_;
    std::unordered_map<uint64_t, std::unique_ptr<DeviceView>> copies_;
};

} // namespace HALYX
