#include "devices/operation.hpp"

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "core/json_fields.hpp"

namespace HALYX {

Operation::Operation(const ASYNC::operation_call_wrapper_t& task, OperationOptions options,
                     std::optional<halyx_mcu_state_t> mcu_end_state, Callbacks callbacks, Environment environment)
    : task_(task), options_(std::move(options)), mcu_end_state_(mcu_end_state), callbacks_(callbacks),
      environment_(environment)
{
}

DeviceAccess& Operation::devices() const
{
    if (environment_.devices == nullptr) {
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED,
                             fmt::format("{}: no devices can be reached from here", options_.operation));
    }
    return *environment_.devices;
}

void Operation::throwIfCancelled() const
{
    if (cancelRequested()) {
        throw HALYXException(HALYX_ERR_GENERAL, "Operation cancelled.");
    }
}

void Operation::progress(const std::string& step, const std::string& message, int percentage) const
{
    progress(nlohmann::json{{"step", step}, {"message", message}, {"percentage", percentage}});
}

void Operation::progress(const nlohmann::json& report) const
{
    if (callbacks_.progress != nullptr) {
        emitProgress(jsonText(report));
    }
}

void Operation::progress(const nlohmann::ordered_json& report) const
{
    if (callbacks_.progress != nullptr) {
        emitProgress(jsonText(report));
    }
}

void Operation::emitProgress(const std::string& json) const
{
    callbacks_.progress(callbacks_.context, taskId(), json.c_str(), callbacks_.user_data);
}

void Operation::data(const char* bytes, uint64_t size) const
{
    if (callbacks_.data != nullptr) {
        callbacks_.data(callbacks_.context, bytes, size, callbacks_.user_data);
    }
}

} // namespace HALYX
