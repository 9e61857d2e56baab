#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "halyx.h"

namespace HALYX {

struct LogRecord {
    uint32_t level;
    std::string text;
};

// One context's end of the log sink: a queue of formatted lines and the
// dispatcher thread that hands them to the application's callback.
//
// Threads: push() runs on whatever thread logged; the callback runs only on
// the dispatcher thread, started in the constructor and joined by stop().
// Locks: queue_mutex_ guards the queue and the stop flag; registration_mutex_
// guards the callback and is held while the callback runs, so once
// clearCallback() returns the callback is not running and never will again.
// It is recursive so that a callback may (un)register on its own context.
class LogSubscriber {
public:
    LogSubscriber();
    ~LogSubscriber();
    LogSubscriber(const LogSubscriber&) = delete;
    LogSubscriber& operator=(const LogSubscriber&) = delete;

    void push(uint32_t level, std::string text);

    // Both return false when the state was already as asked (no callback to
    // clear, or one already set).
    bool setCallback(halyx_log_callback_t callback, void* user_data);
    bool clearCallback();

    // Delivers what is queued, then ends the dispatcher. Idempotent.
    void stop();

    std::recursive_mutex& registrationMutex() { return registration_mutex_; }

    // True inside the application's log callback.
    bool onDispatcher() const;

private:
    void run();
    void deliver(const LogRecord& record);

    std::mutex queue_mutex_;
    std::condition_variable wake_;
    std::deque<LogRecord> queue_;
    bool stopping_ = false;

    std::recursive_mutex registration_mutex_;
    halyx_log_callback_t callback_ = nullptr;
    void* user_data_ = nullptr;

    std::thread dispatcher_;
};

} // namespace HALYX
