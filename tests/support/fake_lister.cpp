#include "fake_lister.hpp"

#include <utility>

namespace halyx_test {

FakeLister::~FakeLister()
{
    release();
    stop();
}

void FakeLister::setFindings(std::vector<HALYX::event_object> findings)
{
    std::lock_guard lock(mutex_);
    findings_ = std::move(findings);
}

void FakeLister::hold()
{
    std::lock_guard lock(mutex_);
    held_ = true;
}

void FakeLister::release()
{
    {
        std::lock_guard lock(mutex_);
        held_ = false;
    }
    changed_.notify_all();
}

int FakeLister::enumerations() const
{
    std::lock_guard lock(mutex_);
    return enumerations_;
}

std::vector<HALYX::event_object> FakeLister::enumerate()
{
    std::unique_lock lock(mutex_);
    ++enumerations_;
    changed_.wait(lock, [this] { return !held_; });
    if (auto failure = std::exchange(failure_, nullptr)) {
        std::rethrow_exception(failure);
    }
    return findings_;
}

void FakeLister::failNext(std::exception_ptr failure)
{
    std::lock_guard lock(mutex_);
    failure_ = std::move(failure);
}

void FakeLister::start(Arrival arrival, Removal removal)
{
    std::lock_guard lock(mutex_);
    arrival_ = std::move(arrival);
    removal_ = std::move(removal);
    stopping_ = false;
    notifier_ = std::thread([this] { run(); });
}

void FakeLister::stop()
{
    {
        std::lock_guard lock(mutex_);
        if (!notifier_.joinable()) {
            return;
        }
        stopping_ = true;
    }
    changed_.notify_all();
    notifier_.join();
}

void FakeLister::plug(HALYX::event_object finding)
{
    post([this, finding = std::move(finding)] { arrival_(finding, HALYX::ArrivalType::HotPlug); });
}

void FakeLister::unplug(HALYX::event_object finding)
{
    post([this, finding = std::move(finding)] { removal_(finding); });
}

void FakeLister::drain()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return (jobs_.empty() && !busy_) || !notifier_.joinable(); });
}

void FakeLister::post(std::function<void()> job)
{
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    changed_.notify_all();
}

void FakeLister::run()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) {
            jobs_.clear();
            changed_.notify_all();
            return;
        }
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        busy_ = true;
        lock.unlock();
        job();
        lock.lock();
        busy_ = false;
        changed_.notify_all();
    }
}

HALYX::event_object finding(std::optional<std::string> serial_number, HALYX::Traits traits, std::string section_name,
                            std::string section_json)
{
    HALYX::event_object result;
    result.serialNumber = std::move(serial_number);
    result.traits = std::move(traits);
    result.sectionName = std::move(section_name);
    result.sectionJson = std::move(section_json);
    return result;
}

} // namespace halyx_test
