#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "core/async_task.hpp"

namespace HALYX::ASYNC {

// A context's running and finished-but-unwaited tasks by id, and the worker
// pool they run on. The mutex guards the map only; it is never held while a
// task runs or is waited for.
class TaskTable {
public:
    // Operations that run at once beyond this many wait for a free worker.
    static constexpr size_t kMaxWorkers = 64;

    explicit TaskTable(size_t max_workers = kMaxWorkers);
    ~TaskTable();
    TaskTable(const TaskTable&) = delete;
    TaskTable& operator=(const TaskTable&) = delete;

    // Starts the work on its own worker and returns the new task's id.
    uint64_t add(async_task::Work work);

    // Waits for the task (at most timeout_ms when given) and, once it has
    // finished, removes it. Never throws for an unknown id or a time-out: those
    // are outcomes (10 and 12); so is a wait from the task's own callbacks
    // (102), which could never end.
    Outcome wait(uint64_t id, std::optional<int32_t> timeout_ms);

    // Throws HALYXException 10 for an unknown id.
    void cancel(uint64_t id);
    bool exists(uint64_t id) const;
    std::size_t size() const;

    // Asks every task to stop and waits until each has ended.
    void cancelAllAndWait();

    // True on a worker of this table: inside an operation or its callbacks.
    bool onWorker() const { return pool_.onWorker(); }

private:
    std::shared_ptr<async_task> find(uint64_t id) const;

    // First: the tasks below wait for their work, which needs the workers.
    WorkerPool pool_;
    mutable std::mutex mutex_;
    std::unordered_map<uint64_t, std::shared_ptr<async_task>> tasks_;
};

} // namespace HALYX::ASYNC
