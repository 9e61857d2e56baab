// Waiting for, cancelling and querying asynchronous tasks.
#include <optional>

#include "core/call_guard.hpp"
#include "core/context.hpp"

using HALYX::HALYXException;

namespace {

// The waits are outside the guard: their outcome, not an exception, is what
// they report, and a time-out must leave the last error untouched.
halyx_errorcode_t waitForTask(halyx_context* context, uint64_t task_id, std::optional<int32_t> timeout_ms) noexcept
{
    if (context == nullptr) {
        return HALYX::detail::missingContext();
    }
    try {
        auto outcome = context->tasks.wait(task_id, timeout_ms);
        if (outcome.code != HALYX_SUCCESS && outcome.code != HALYX_ERR_TIMEOUT) {
            context->last_error.store(outcome.code, std::move(outcome.message));
        }
        return outcome.code;
    } catch (const HALYXException& e) {
        return HALYX::detail::recordFailure(context, e);
    } catch (const std::exception& e) {
        return HALYX::detail::recordFailure(context, e);
    } catch (...) {
        return HALYX_ERR_GENERAL;
    }
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
        if (task_exists == nullptr) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "halyx_async_task_exists: 'task_exists' cannot be NULL");
        }
        *task_exists = ctx.tasks.exists(task_id);
        return HALYX_SUCCESS;
    });
}

} // extern "C"
