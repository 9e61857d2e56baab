#include "devices/hot_plug_router.hpp"

#include "core/halyx_exception.hpp"

namespace HALYX {
namespace {

thread_local const HotPlugRouter* delivering = nullptr;

} // namespace

HotPlugRouter::CallbackScope::CallbackScope(const HotPlugRouter* router) : outer_(delivering)
{
    delivering = router;
}

HotPlugRouter::CallbackScope::~CallbackScope()
{
    delivering = outer_;
}

bool HotPlugRouter::inCallback() const
{
    return delivering == this;
}

HotPlugRouter::HotPlugRouter(AsyncLister* lister) : lister_(lister)
{
}

bool HotPlugRouter::running() const
{
    std::lock_guard lock(mutex_);
    return running_;
}

void HotPlugRouter::start(AsyncLister::Arrival arrival, AsyncLister::Removal removal)
{
    if (lister_ == nullptr) {
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED,
                             "Hot-plug events are not available: this build has no USB lister for this host.");
    }
    std::unique_lock lock(mutex_);
    if (inCallback()) {
        if (changing_ || !running_) {
            throw HALYXException(HALYX_ERR_INVALID_STATE,
                                 "Hot-plug events cannot be started from a device event callback once they are being "
                                 "stopped; start them from another thread.");
        }
        return;
    }
    changed_.wait(lock, [this] { return !changing_; });
    if (running_) {
        return;
    }
    change(lock, true, [&] {
        lister_->start(
            [this, arrival = std::move(arrival)](const event_object& finding, ArrivalType type) {
                CallbackScope scope(this);
                arrival(finding, type);
            },
            [this, removal = std::move(removal)](const event_object& finding) {
                CallbackScope scope(this);
                removal(finding);
            });
    });
}

void HotPlugRouter::stop()
{
    std::unique_lock lock(mutex_);
    if (inCallback()) {
        // The notification thread cannot wait for itself: the lister ends it
        // once this callback returns. A stop already under way ends it anyway.
        if (!running_ || changing_) {
            return;
        }
    } else {
        changed_.wait(lock, [this] { return !changing_; });
        if (!running_) {
            return;
        }
    }
    change(lock, false, [this] { lister_->stop(); });
}

void HotPlugRouter::change(std::unique_lock<std::mutex>& lock, bool running, const std::function<void()>& action)
{
    changing_ = true;
    lock.unlock();
    try {
        action();
    } catch (...) {
        lock.lock();
        changing_ = false;
        changed_.notify_all();
        throw;
    }
    lock.lock();
    running_ = running;
    changing_ = false;
    changed_.notify_all();
}

} // namespace HALYX
