#include "core/dispatch.hpp"

#include "core/call_guard.hpp"
#include "core/context.hpp"
#include "core/halyx_exception.hpp"
#include "core/logging.hpp"
#include "devices/device_lister.hpp"

namespace HALYX {
namespace {

void complete(const DispatchRequest& request, uint64_t task_id, halyx_errorcode_t code, const std::string& message)
{
    if (request.complete == nullptr) {
        return;
    }
    try {
        request.complete(request.callbacks.context,
                         halyx_complete_t{task_id, code, message.c_str(), request.callbacks.user_data});
    } catch (...) {
        // An application callback that throws must not change the outcome.
    }
}

} // namespace

void dispatch(halyx_context& context, DispatchRequest request, OperationBody body)
{
    requireArgument(request.taskId, request.options.operation, "task_id");
    auto device = context.deviceJson(request.deviceId);
    auto plugin = context.plugins.select(device, request.options);
    if (!plugin) {
        throw HALYXException(HALYX_ERR_NO_MATCHING_TRAIT, "no matching trait found");
    }
    Log::debug("dispatch: {} on device {} through plugin {}", request.options.operation, request.deviceId,
               plugin->getName());

    request.callbacks.context = &context;
    const Operation::Environment environment{context.timeouts(), context.lister.get()};
    // A plugin made for this operation follows device events from now until
    // it is done (its device may restart); the context's own plugins always do.
    auto following = context.plugins.contains(plugin.get())
                         ? nullptr
                         : std::make_shared<PluginFollowers::Ticket>(context.lister->follow(plugin));
    uint64_t* const task_id_out = request.taskId;
    *task_id_out = context.tasks.add(
        [request = std::move(request), device = std::move(device), plugin = std::move(plugin), body = std::move(body),
         environment, following = std::move(following)](ASYNC::operation_call_wrapper_t& task) -> halyx_errorcode_t {
            Operation operation(task, request.options, request.mcuEndState, request.callbacks, environment);
            try {
                operation.throwIfCancelled();
                body(*plugin, device, operation);
            } catch (const HALYXException& e) {
                complete(request, task.id(), e.code(), e.what());
                throw;
            } catch (const std::exception& e) {
                complete(request, task.id(), HALYX_ERR_GENERAL, e.what());
                throw;
            } catch (...) {
                complete(request, task.id(), HALYX_ERR_GENERAL, "unknown error");
                throw;
            }
            complete(request, task.id(), HALYX_SUCCESS, std::string());
            return HALYX_SUCCESS;
        });
}

} // namespace HALYX
