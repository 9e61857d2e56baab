#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "devices/operation.hpp"
#include "devices/plugin_api.hpp"
#include "halyx.h"

namespace HALYX {

struct DispatchRequest {
    uint32_t deviceId = 0;
    uint64_t* taskId = nullptr;
    OperationOptions options;
    std::optional<halyx_mcu_state_t> mcuEndState;
    Operation::Callbacks callbacks;
    halyx_complete_callback_t complete = nullptr;
};

// Calls the chosen plugin's operation on the task's worker. Result callbacks
// are called from here; completion is reported by the dispatcher.
using OperationBody = std::function<void(PluginApi& plugin, const std::string& device, Operation& operation)>;

// Finds the device, chooses the plugin and starts the operation as a task
// whose id is written to *request.taskId. Failures before the task exists
// throw (10 unknown device, 200 no plugin, 50 bad argument) and call nothing.
void dispatch(halyx_context& context, DispatchRequest request, OperationBody body);

} // namespace HALYX
