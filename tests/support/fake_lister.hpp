#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "devices/lister.hpp"

namespace halyx_test {

// An AsyncLister the test drives: what enumerate() finds, how long it takes,
// and arrivals and removals at run time. Like a host lister, it reports
// hot-plug events from one notification thread of its own, started by
// start() and joined by stop().
class FakeLister final : public HALYX::AsyncLister {
public:
    ~FakeLister() override;

    void setFindings(std::vector<HALYX::event_object> findings);
    // Holds every enumerate() until release() is called.
    void hold();
    void release();
    int enumerations() const;
    // The next enumerate() throws this instead of finding anything.
    void failNext(std::exception_ptr failure);

    // Queued to the notification thread (the lister must be started).
    void plug(HALYX::event_object finding);
    void unplug(HALYX::event_object finding);
    // Returns once the notification thread has handled everything queued.
    void drain();

    std::vector<HALYX::event_object> enumerate() override;
    void start(Arrival arrival, Removal removal) override;
    void stop() override;

private:
    void post(std::function<void()> job);
    void run();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<HALYX::event_object> findings_;
    bool held_ = false;
    std::exception_ptr failure_;
    int enumerations_ = 0;

    Arrival arrival_;
    Removal removal_;
    std::deque<std::function<void()>> jobs_;
    bool busy_ = false;
    bool stopping_ = false;
    std::thread notifier_;
};

// A finding as a lister reports it.
HALYX::event_object finding(std::optional<std::string> serial_number, HALYX::Traits traits = {},
                            std::string section_name = {}, std::string section_json = {});

} // namespace halyx_test
