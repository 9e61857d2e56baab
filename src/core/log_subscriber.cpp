#include "core/log_subscriber.hpp"

namespace HALYX {

LogSubscriber::LogSubscriber() : dispatcher_([this] { run(); })
{
}

LogSubscriber::~LogSubscriber()
{
    stop();
}

void LogSubscriber::push(uint32_t level, std::string text)
{
    {
        std::lock_guard lock(queue_mutex_);
        if (stopping_) {
            return;
        }
        queue_.push_back(LogRecord{level, std::move(text)});
    }
    wake_.notify_one();
}

bool LogSubscriber::setCallback(halyx_log_callback_t callback, void* user_data)
{
    std::lock_guard lock(registration_mutex_);
    if (callback_ != nullptr) {
        return false;
    }
    callback_ = callback;
    user_data_ = user_data;
    return true;
}

bool LogSubscriber::clearCallback()
{
    std::lock_guard lock(registration_mutex_);
    const bool had = callback_ != nullptr;
    callback_ = nullptr;
    user_data_ = nullptr;
    std::lock_guard queue_lock(queue_mutex_);
    queue_.clear();
    return had;
}

void LogSubscriber::stop()
{
    {
        std::lock_guard lock(queue_mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (!dispatcher_.joinable()) {
        return;
    }
    if (dispatcher_.get_id() == std::this_thread::get_id()) {
        // Stopped from inside its own callback: it cannot join itself.
        dispatcher_.detach();
    } else {
        dispatcher_.join();
    }
}

void LogSubscriber::run()
{
    for (;;) {
        std::deque<LogRecord> batch;
        {
            std::unique_lock lock(queue_mutex_);
            wake_.wait(lock, [this] { return !queue_.empty() || stopping_; });
            batch.swap(queue_);
            if (batch.empty()) {
                return; // stopping, and everything delivered
            }
        }
        for (const auto& record : batch) {
            deliver(record);
        }
    }
}

bool LogSubscriber::onDispatcher() const
{
    return dispatcher_.get_id() == std::this_thread::get_id();
}

void LogSubscriber::deliver(const LogRecord& record)
{
    std::lock_guard lock(registration_mutex_);
    if (callback_ == nullptr) {
        return;
    }
    try {
        callback_(record.level, record.text.c_str(), user_data_);
    } catch (...) {
        // An application callback that throws must not end log delivery.
    }
}

} // namespace HALYX
