// Device operations: each finds its device and plugin and runs as a task.
#include <optional>
#include <string>
#include <vector>

#include "core/call_guard.hpp"
#include "core/context.hpp"
#include "core/dispatch.hpp"
#include "core/firmware.hpp"

using HALYX::DispatchRequest;
using HALYX::HALYXException;
using HALYX::Operation;
using HALYX::PluginApi;

namespace {

template <typename T>
std::optional<T> optionalFrom(const T* value)
{
    return value != nullptr ? std::optional<T>(*value) : std::nullopt;
}

std::optional<uint32_t> coreFrom(const halyx_device_core_t* core)
{
    return core != nullptr ? std::optional<uint32_t>(static_cast<uint32_t>(*core)) : std::nullopt;
}

DispatchRequest request(const char* operation, uint32_t device_id, uint64_t* task_id, const halyx_device_core_t* core,
                        halyx_complete_callback_t complete, void* user_data)
{
    DispatchRequest r;
    r.deviceId = device_id;
    r.taskId = task_id;
    r.options = HALYX::OperationOptions{operation, coreFrom(core)};
    r.complete = complete;
    r.callbacks.user_data = user_data;
    return r;
}

// The task keeps its own copy, so the caller may release the handle at once.
halyx_firmware firmwareCopy(const halyx_firmware* firmware, const char* operation)
{
    HALYX::requireArgument(firmware, operation, "firmware");
    return *firmware;
}

} // namespace

extern "C" {

HALYX_API halyx_errorcode_t halyx_fw_program(halyx_context* context, uint32_t device_id, halyx_firmware* firmware,
                                             uint64_t* task_id, const halyx_program_fw_optionals_t* optionals,
                                             const halyx_device_core_t* core, halyx_progress_callback_t progress,
                                             halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        auto image = firmwareCopy(firmware, "program");
        auto r = request("program", device_id, task_id, core, complete, user_data);
        r.callbacks.progress = progress;
        HALYX::ProgramOptions options;
        if (optionals != nullptr) {
            options.verify = optionals->verify;
            options.recoverBeforeProgram = optionals->recover_before_program;
            r.mcuEndState = optionalFrom(optionals->mcu_end_state);
        }
        HALYX::dispatch(
            ctx, std::move(r),
            [image = std::move(image), options](PluginApi& plugin, const std::string& device, Operation& op) {
                plugin.program(device, image, options, op);
            });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_fw_read(halyx_context* context, uint32_t device_id, halyx_firmware* firmware,
                                          uint64_t* task_id, const halyx_mcu_state_t* mcu_end_state,
                                          const halyx_device_core_t* core, halyx_data_callback_t data,
                                          halyx_progress_callback_t progress, halyx_complete_callback_t complete,
                                          void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        auto image = firmwareCopy(firmware, "fw_read");
        auto r = request("fw_read", device_id, task_id, core, complete, user_data);
        r.callbacks.progress = progress;
        r.callbacks.data = data;
        r.mcuEndState = optionalFrom(mcu_end_state);
        HALYX::dispatch(ctx, std::move(r),
                        [image = std::move(image)](PluginApi& plugin, const std::string& device, Operation& op) {
                            plugin.readFw(device, image, op);
                        });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_fw_read_info(halyx_context* context, uint64_t* task_id, uint32_t device_id,
                                               const halyx_mcu_state_t* mcu_end_state,
                                               halyx_fw_read_info_callback_t result, halyx_complete_callback_t complete,
                                               void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        auto r = request("fw_read_info", device_id, task_id, nullptr, complete, user_data);
        r.mcuEndState = optionalFrom(mcu_end_state);
        HALYX::dispatch(
            ctx, std::move(r), [result, user_data](PluginApi& plugin, const std::string& device, Operation& op) {
                const auto images = plugin.readFwInfo(device, op);
                if (result == nullptr) {
                    return;
                }
                std::vector<halyx_image_info_t> infos;
                infos.reserve(images.size());
                for (const auto& image : images) {
                    infos.push_back(halyx_image_info_t{image.imageType, image.imageLocation, image.address, image.size,
                                                       image.bootloaderType,
                                                       image.version ? image.version->c_str() : nullptr});
                }
                result(op.context(), halyx_firmware_device_firmware_images_t{infos.data(), infos.size()}, user_data);
            });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_fw_verify(halyx_context* context, uint32_t device_id, halyx_firmware* firmware,
                                            const halyx_device_core_t* core, uint64_t* task_id,
                                            halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        auto image = firmwareCopy(firmware, "fw_verify");
        HALYX::dispatch(ctx, request("fw_verify", device_id, task_id, core, complete, user_data),
                        [image = std::move(image)](PluginApi& plugin, const std::string& device, Operation& op) {
                            plugin.verify(device, image, op);
                        });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_fw_erase(halyx_context* context, uint32_t device_id, const halyx_device_core_t* core,
                                           uint64_t* task_id, halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::dispatch(ctx, request("erase", device_id, task_id, core, complete, user_data),
                        [](PluginApi& plugin, const std::string& device, Operation& op) { plugin.erase(device, op); });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_device_control_reset(halyx_context* context, uint32_t device_id,
                                                       const halyx_device_core_t* core, uint64_t* task_id,
                                                       halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::dispatch(ctx, request("reset", device_id, task_id, core, complete, user_data),
                        [](PluginApi& plugin, const std::string& device, Operation& op) { plugin.reset(device, op); });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_device_control_recover(halyx_context* context, uint64_t* task_id, uint32_t device_id,
                                                         const halyx_device_core_t* core,
                                                         halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::dispatch(
            ctx, request("recover", device_id, task_id, core, complete, user_data),
            [](PluginApi& plugin, const std::string& device, Operation& op) { plugin.recover(device, op); });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_device_control_set_mcu_state(halyx_context* context, uint32_t device_id,
                                                               uint64_t* task_id, halyx_mcu_state_t state,
                                                               halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::dispatch(ctx, request("set_mcu_state", device_id, task_id, nullptr, complete, user_data),
                        [state](PluginApi& plugin, const std::string& device, Operation& op) {
                            plugin.setMcuState(device, state, op);
                        });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_device_control_set_protection(halyx_context* context, uint32_t device_id,
                                                                const halyx_device_core_t* core, uint64_t* task_id,
                                                                halyx_protection_status_t status,
                                                                halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::dispatch(ctx, request("set_protection", device_id, task_id, core, complete, user_data),
                        [status](PluginApi& plugin, const std::string& device, Operation& op) {
                            plugin.setProtection(device, status, op);
                        });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_device_control_get_protection_status(
    halyx_context* context, uint32_t device_id, const halyx_device_core_t* core, uint64_t* task_id,
    halyx_protection_status_callback_t result, halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::dispatch(ctx, request("get_protection_status", device_id, task_id, core, complete, user_data),
                        [result, user_data](PluginApi& plugin, const std::string& device, Operation& op) {
                            const auto status = plugin.getProtectionStatus(device, op);
                            if (result != nullptr) {
                                result(op.context(), op.taskId(), status, user_data);
                            }
                        });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_get_device_core_info(halyx_context* context, uint32_t device_id,
                                                       const halyx_device_core_t* core,
                                                       halyx_core_info_callback_t result, uint64_t* task_id,
                                                       halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::dispatch(ctx, request("core_info", device_id, task_id, core, complete, user_data),
                        [result, user_data](PluginApi& plugin, const std::string& device, Operation& op) {
                            const auto info = plugin.getCoreInfo(device, op);
                            if (result != nullptr) {
                                result(op.context(), op.taskId(), &info, user_data);
                            }
                        });
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_read_register(halyx_context* context, uint32_t device_id, const char* register_path,
                                                halyx_register_callback_t result, uint64_t* task_id,
                                                halyx_complete_callback_t complete, void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(register_path, "read_register", "register_path");
        HALYX::dispatch(ctx, request("read_register", device_id, task_id, nullptr, complete, user_data),
                        [path = std::string(register_path), result,
                         user_data](PluginApi& plugin, const std::string& device, Operation& op) {
                            const auto value = plugin.readRegister(device, path, op);
                            if (result != nullptr) {
                                result(op.context(), op.taskId(), value.c_str(), user_data);
                            }
                        });
        return HALYX_SUCCESS;
    });
}

} // extern "C"
