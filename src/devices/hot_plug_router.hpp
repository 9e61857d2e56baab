#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "devices/lister.hpp"

namespace HALYX {

// Starts and stops the host lister's hot-plug notices, and routes each
// notice to the device lister inside a callback scope, so that a device
// event callback can be told apart from every other thread.
//
// Threads: start() and stop() from any thread, including from inside a
// device event callback on the notification thread. Lock: mutex_ with
// changed_ guards the state; it is never held while the lister starts or
// stops, because stopping joins the notification thread and a callback on
// it may call start() or stop() itself. A callback never waits: a stop from
// it takes effect when it returns.
class HotPlugRouter {
public:
    explicit HotPlugRouter(AsyncLister* lister);

    // Throws 19 without a host lister, 102 from a device event callback
    // while notices are being stopped or after it stopped them.
    void start(AsyncLister::Arrival arrival, AsyncLister::Removal removal);
    void stop();
    bool running() const;

    // True on a thread that is delivering one of this router's device events.
    bool inCallback() const;

private:
    // Marks the current thread as delivering this router's event while it lives.
    class CallbackScope {
    public:
        explicit CallbackScope(const HotPlugRouter* router);
        ~CallbackScope();
        CallbackScope(const CallbackScope&) = delete;
        CallbackScope& operator=(const CallbackScope&) = delete;

    private:
        const HotPlugRouter* outer_;
    };

    // Runs the lister's start or stop outside the lock, marked as changing
    // meanwhile; `running` is the state it leaves behind when it succeeds.
    void change(std::unique_lock<std::mutex>& lock, bool running, const std::function<void()>& action);

    AsyncLister* const lister_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool running_ = false;
    bool changing_ = false; // a start or stop is under way outside the lock
};

} // namespace HALYX
