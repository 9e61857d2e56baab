#include "core/async_task.hpp"

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX::ASYNC {

async_task::async_task(uint64_t id, Work work) : id_(id)
{
    future_ = std::async(std::launch::async, [this, work = std::move(work)]() mutable { return run(work); }).share();
}

async_task::~async_task()
{
    // The shared state of std::async blocks the last owner until the worker ends.
    if (future_.valid()) {
        future_.wait();
    }
    Log::debug("~async_task id: {}", id_);
}

halyx_errorcode_t async_task::run(Work& work) noexcept
{
    try {
        operation_call_wrapper_t wrapper(*this);
        return work(wrapper);
    } catch (const HALYXException& e) {
        message_ = e.what();
        return e.code();
    } catch (const std::exception& e) {
        message_ = fmt::format("async task std::exception for id: {} msg: {}", id_, e.what());
    } catch (...) {
        message_ = fmt::format("async task generic error for id: {}", id_);
    }
    return HALYX_ERR_GENERAL;
}

Outcome async_task::outcome() const
{
    if (!future_.valid()) {
        return Outcome{HALYX_ERR_GENERAL, message_};
    }
    return Outcome{future_.get(), message_};
}

} // namespace HALYX::ASYNC
