#include "core/worker_pool.hpp"

#include <algorithm>

namespace HALYX::ASYNC {
namespace {

thread_local const WorkerPool* current_pool = nullptr;

} // namespace

WorkerPool::WorkerPool(size_t max_threads) : max_threads_(std::max<size_t>(max_threads, 1))
{
}

WorkerPool::~WorkerPool()
{
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        threads.swap(threads_);
    }
    wake_.notify_all();
    for (auto& thread : threads) {
        thread.join();
    }
}

void WorkerPool::post(std::function<void()> work)
{
    std::unique_lock lock(mutex_);
    queue_.push_back(std::move(work));
    if (idle_ < queue_.size() && threads_.size() < max_threads_) {
        threads_.emplace_back([this] { run(); });
        return;
    }
    lock.unlock();
    wake_.notify_one();
}

bool WorkerPool::onWorker() const
{
    return current_pool == this;
}

size_t WorkerPool::threads() const
{
    std::lock_guard lock(mutex_);
    return threads_.size();
}

void WorkerPool::run()
{
    current_pool = this;
    std::unique_lock lock(mutex_);
    for (;;) {
        ++idle_;
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        --idle_;
        if (queue_.empty()) {
            return; // stopping, and nothing left to run
        }
        auto work = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        work();
        lock.lock();
    }
}

} // namespace HALYX::ASYNC
