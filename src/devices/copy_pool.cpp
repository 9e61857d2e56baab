#include "devices/copy_pool.hpp"

#include <fmt/format.h>

#include "core/halyx_exception.hpp"

namespace HALYX {

halyx_device_t* CopyPool::add(const Device& device)
{
    auto view = std::make_unique<DeviceView>(device);
    std::lock_guard lock(mutex_);
    auto [it, inserted] = copies_.try_emplace(device.id, std::move(view));
    if (!inserted) {
        throw HALYXException(HALYX_ERR_UNKNOWN_HANDLE,
                             fmt::format("Device with ID={} could not be added to copy pool.", device.id));
    }
    return it->second->get();
}

void CopyPool::free(const halyx_device_t* device)
{
    std::unique_ptr<DeviceView> released;
    {
        std::lock_guard lock(mutex_);
        const auto it = device != nullptr ? copies_.find(device->id) : copies_.end();
        if (it == copies_.end() || it->second->get() != device) {
            throw HALYXException(HALYX_ERR_NOT_FOUND, "Unable to free device.");
        }
        released = std::move(it->second);
        copies_.erase(it);
    }
}

} // namespace HALYX
