#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace HALYX::ASYNC {

// The threads that run one context's tasks. A thread is started only when
// work arrives and every thread is busy, up to a limit; it then stays and
// waits for more, so a warm pool starts no thread per task and the memory of
// finished tasks does not pile up however the caller waits. Work beyond the
// limit waits for a free thread.
//
// Threads: post() from any thread; the workers run the work. Lock: mutex_
// with wake_ guards the queue, the thread list and the idle count; it is
// never held while work runs or while the destructor joins.
class WorkerPool {
public:
    explicit WorkerPool(size_t max_threads);
    // Runs what is queued, then joins every worker.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void post(std::function<void()> work);

    // True on one of this pool's workers.
    bool onWorker() const;

    size_t threads() const;

private:
    void run();

    const size_t max_threads_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> threads_;
    size_t idle_ = 0;
    bool stopping_ = false;
};

} // namespace HALYX::ASYNC
