#include "devices/device_filter.hpp"

#include <algorithm>

namespace HALYX {

void DeviceFilter::set(std::vector<std::string> traits)
{
    std::lock_guard lock(mutex_);
    traits_ = std::move(traits);
}

void DeviceFilter::reset()
{
    std::lock_guard lock(mutex_);
    traits_.clear();
}

bool DeviceFilter::passes(const Device& device) const
{
    std::lock_guard lock(mutex_);
    return traits_.empty() || std::any_of(traits_.begin(), traits_.end(), [&](const std::string& trait) {
               const auto it = device.traits.find(trait);
               return it != device.traits.end() && it->second;
           });
}

} // namespace HALYX
