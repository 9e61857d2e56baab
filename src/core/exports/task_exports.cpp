// Waiting for, cancelling and querying asynchronous tasks.
#include <optional>

#include "core/call_guard.hpp"
#include "core/context.hpp"

using HALYX::HALYXException;

namespace {

// A wait reports the task's outcome rather than throwing it: the outcome is
// stored as the last error, except a success and a time-out (12), which
// leave the record untouched.
halyx_errorcode_t waitForTask(halyx_context* context, uint64_t task_id, std::optional<int32_t> timeout_ms) noexcept
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        auto outcome = ctx.tasks.wait(task_id, timeout_ms);
        if (outcome.code != HALYX_SUCCESS && outcome.code != HALYX_ERR_TIMEOUT) {
            ctx.last_error.store(outcome.code, std::move(outcome.message));
        }
        return outcome.code;
    });
}

} // namespace

extern "C" {

HALYX_API halyx_errorcode_t halyx_wait_async_task_complete(halyx_context* context, uint64_t task_id)
{
    return waitForTask(context, task_id, std::nullopt);
}

HALYX_API halyx_errorcode_t halyx_wait_timed_async_task_complete(halyx_context* context, uint64_t task_id,
                                                                 int32_t timeout_ms)
{
    return waitForTask(context, task_id, timeout_ms);
}

HALYX_API halyx_errorcode_t halyx_cancel_async_task(halyx_context* context, uint64_t task_id)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        ctx.tasks.cancel(task_id);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_async_task_exists(halyx_context* context, uint64_t task_id, bool* task_exists)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(task_exists, "halyx_async_task_exists", "task_exists");
        *task_exists = ctx.tasks.exists(task_id);
        return HALYX_SUCCESS;
    });
}

} // extern "C"
