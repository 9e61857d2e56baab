#include "core/task_table.hpp"

#include <chrono>
#include <limits>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"

namespace HALYX::ASYNC {
namespace {

using Clock = std::chrono::steady_clock;

uint64_t microsecondsNow()
{
    return static_cast<uint64_t>(Clock::now().time_since_epoch().count() / 1000);
}

Clock::time_point deadlineAfter(int32_t timeout_ms)
{
    const auto now = Clock::now();
    if (timeout_ms <= 0) {
        return now;
    }
    const auto limit = std::chrono::duration_cast<Clock::duration>(
        std::chrono::nanoseconds(static_cast<int64_t>(timeout_ms) * 1'000'000));
    if (now.time_since_epoch().count() > Clock::time_point::max().time_since_epoch().count() - limit.count()) {
        return Clock::time_point::max();
    }
    return now + limit;
}

} // namespace

TaskTable::TaskTable(size_t max_workers) : pool_(max_workers)
{
}

TaskTable::~TaskTable()
{
    cancelAllAndWait();
}

uint64_t TaskTable::add(async_task::Work work)
{
    std::lock_guard lock(mutex_);
    // Time-based ids grow with time; the attempt count separates tasks made
    // in the same microsecond.
    uint64_t attempt = 0;
    uint64_t id = 0;
    do {
        ++attempt;
        id = microsecondsNow() + attempt;
    } while (tasks_.contains(id));
    tasks_.emplace(id, std::make_shared<async_task>(id, std::move(work), pool_));
    return id;
}

std::shared_ptr<async_task> TaskTable::find(uint64_t id) const
{
    std::lock_guard lock(mutex_);
    const auto it = tasks_.find(id);
    return it == tasks_.end() ? nullptr : it->second;
}

Outcome TaskTable::wait(uint64_t id, std::optional<int32_t> timeout_ms)
{
    auto task = find(id);
    if (!task) {
        return Outcome{HALYX_ERR_NOT_FOUND, fmt::format("async task not found for id: {}", id)};
    }
    if (async_task::current() == task.get()) {
        return Outcome{HALYX_ERR_INVALID_STATE,
                       fmt::format("async task {} cannot be waited for from its own callbacks: they run on its worker, "
                                   "which finishes the task only after they return. Wait from another thread.",
                                   id)};
    }
    auto future = task->future();
    if (future.valid()) {
        if (timeout_ms) {
            if (future.wait_until(deadlineAfter(*timeout_ms)) == std::future_status::timeout) {
                return Outcome{HALYX_ERR_TIMEOUT, fmt::format("async task timeout for id: {}", id)};
            }
        } else {
            future.wait();
        }
    }
    auto outcome = task->outcome();
    std::shared_ptr<async_task> removed;
    {
        std::lock_guard lock(mutex_);
        const auto it = tasks_.find(id);
        if (it == tasks_.end() || it->second != task) {
            // Another waiter saw it finished first.
            return Outcome{HALYX_ERR_NOT_FOUND, fmt::format("async task not found for id: {}", id)};
        }
        removed = std::move(it->second);
        tasks_.erase(it);
    }
    if (outcome.code == HALYX_SUCCESS) {
        return Outcome{};
    }
    return Outcome{outcome.code, fmt::format("async task failure for id: {} msg: {}", id, outcome.message)};
}

void TaskTable::cancel(uint64_t id)
{
    auto task = find(id);
    if (!task) {
        throw HALYXException(HALYX_ERR_NOT_FOUND,
                             "cancel_async_task: async task not found for id: " + std::to_string(id));
    }
    task->requestCancel();
}

bool TaskTable::exists(uint64_t id) const
{
    return find(id) != nullptr;
}

std::size_t TaskTable::size() const
{
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

void TaskTable::cancelAllAndWait()
{
    std::vector<std::shared_ptr<async_task>> running;
    {
        std::lock_guard lock(mutex_);
        for (auto& [id, task] : tasks_) {
            task->requestCancel();
            running.push_back(task);
        }
    }
    // Waiting outside the lock lets a finishing task's callbacks use the table.
    for (auto& task : running) {
        if (auto future = task->future(); future.valid()) {
            future.wait();
        }
    }
}

} // namespace HALYX::ASYNC
