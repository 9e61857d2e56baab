#include "core/async_task.hpp"

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX::ASYNC {

namespace {

thread_local const async_task* running_task = nullptr;

} // namespace

async_task::async_task(uint64_t id, Work work, WorkerPool& pool) : id_(id), future_(done_.get_future().share())
{
    pool.post([this, work = std::move(work)]() mutable {
        const auto code = run(work);
        // What the work holds goes before anyone can see the task finished.
        work = nullptr;
        done_.set_value(code);
    });
}

async_task::~async_task()
{
    future_.wait();
    Log::debug("~async_task id: {}", id_);
}

const async_task* async_task::current()
{
    return running_task;
}

halyx_errorcode_t async_task::run(Work& work) noexcept
{
    running_task = this;
    struct Leave {
        ~Leave() { running_task = nullptr; }
    } leave;
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
