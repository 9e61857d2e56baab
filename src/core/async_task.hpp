#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <string>

#include "core/worker_pool.hpp"
#include "halyx.h"

namespace HALYX::ASYNC {

struct Outcome {
    halyx_errorcode_t code = HALYX_SUCCESS;
    std::string message;
};

// One asynchronous operation: its work, run on a worker of the context's
// pool, a cooperative cancel flag, and the message of a failed run.
//
// Threads: the worker writes message_ before its future becomes ready; readers
// take it only after waiting on the future, which orders the two.
class async_task {
public:
    // The handle an operation body gets to reach its task.
    class operation_call_wrapper_t {
    public:
        explicit operation_call_wrapper_t(const async_task& task) : task_(task) {}
        uint64_t id() const noexcept { return task_.id(); }
        bool cancelRequested() const noexcept { return task_.cancelRequested(); }

    private:
        const async_task& task_;
    };

    using Work = std::function<halyx_errorcode_t(operation_call_wrapper_t&)>;

    // Posts the work to the pool; the task must outlive it (the destructor waits).
    async_task(uint64_t id, Work work, WorkerPool& pool);
    ~async_task();
    async_task(const async_task&) = delete;
    async_task& operator=(const async_task&) = delete;

    uint64_t id() const noexcept { return id_; }
    bool cancelRequested() const noexcept { return cancel_.load(); }
    void requestCancel() noexcept { cancel_.exchange(true); }

    // Each waiter works on its own copy of the shared future.
    std::shared_future<halyx_errorcode_t> future() const { return future_; }

    // The outcome once the future is ready.
    Outcome outcome() const;

    // The task whose work runs on this thread, if any (its callbacks run there too).
    static const async_task* current();

private:
    halyx_errorcode_t run(Work& work) noexcept;

    const uint64_t id_;
    std::atomic<bool> cancel_{false};
    std::string message_;
    std::promise<halyx_errorcode_t> done_;
    std::shared_future<halyx_errorcode_t> future_;
};

using operation_call_wrapper_t = async_task::operation_call_wrapper_t;

} // namespace HALYX::ASYNC
