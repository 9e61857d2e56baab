#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "core/async_task.hpp"
#include "core/timeouts.hpp"
#include "devices/device_access.hpp"
#include "halyx.h"

namespace HALYX {

// What the dispatcher knows about the requested operation before a plugin is
// chosen: its name and the core the caller selected, if any.
struct OperationOptions {
    std::string operation;
    std::optional<uint32_t> core;
};

// A running operation as a plugin sees it: its task (id, cancellation), the
// caller's selections, the context's time limits, the devices it may reach
// by id, and the callbacks that report progress and data. Lives on the
// task's worker for the duration of one plugin call.
class Operation {
public:
    struct Callbacks {
        halyx_context* context = nullptr;
        halyx_progress_callback_t progress = nullptr;
        halyx_data_callback_t data = nullptr;
        void* user_data = nullptr;
    };

    struct Environment {
        halyx_timeout_configuration_t timeouts = kDefaultTimeouts;
        DeviceAccess* devices = nullptr;
    };

    Operation(const ASYNC::operation_call_wrapper_t& task, OperationOptions options,
              std::optional<halyx_mcu_state_t> mcu_end_state, Callbacks callbacks, Environment environment);

    halyx_context* context() const { return callbacks_.context; }
    uint64_t taskId() const { return task_.id(); }
    const std::string& name() const { return options_.operation; }
    const std::optional<uint32_t>& core() const { return options_.core; }
    const std::optional<halyx_mcu_state_t>& mcuEndState() const { return mcu_end_state_; }
    const halyx_timeout_configuration_t& timeouts() const { return environment_.timeouts; }
    // Throws 19 when the operation runs without a device lister.
    DeviceAccess& devices() const;

    // Plugins call this between their steps; a cancelled operation ends with
    // code 1 "Operation cancelled.".
    bool cancelRequested() const { return task_.cancelRequested(); }
    void throwIfCancelled() const;

    // Reports {"step": ..., "message": ..., "percentage": ...} to the caller.
    void progress(const std::string& step, const std::string& message, int percentage) const;
    void progress(const nlohmann::json& report) const;
    // For records whose keys the caller reads in a set order.
    void progress(const nlohmann::ordered_json& report) const;
    void data(const char* bytes, uint64_t size) const;

private:
    void emitProgress(const std::string& json) const;

    const ASYNC::operation_call_wrapper_t& task_;
    OperationOptions options_;
    std::optional<halyx_mcu_state_t> mcu_end_state_;
    Callbacks callbacks_;
    Environment environment_;
};

} // namespace HALYX
