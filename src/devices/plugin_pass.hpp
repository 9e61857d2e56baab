#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "devices/device_pool.hpp"
#include "devices/plugin_api.hpp"

namespace HALYX {

// Lets every plugin decorate pooled devices: each plugin's enumerate() edits
// the devices' document in turn, the edits are folded back into the pool,
// the devices a plugin found of its own are merged, and every device is
// given every trait the plugins serve (false unless set).
//
// Threads: the enumeration task and the notification thread. Lock: mutex_
// keeps passes from overlapping, since a plugin's enumerate() is not
// reentrant; the pool takes its own.
class PluginPass {
public:
    explicit PluginPass(std::vector<std::shared_ptr<PluginApi>> plugins);

    const std::vector<std::shared_ptr<PluginApi>>& plugins() const { return plugins_; }

    // Returns the ids the plugins changed or added.
    std::vector<uint64_t> run(DevicePool& pool, const std::vector<uint64_t>& ids);

private:
    const std::vector<std::shared_ptr<PluginApi>> plugins_;
    std::mutex mutex_;
};

} // namespace HALYX
