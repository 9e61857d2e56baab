#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <vector>

#include "devices/device.hpp"

namespace HALYX {

// The device lister's background enumeration: at most one runs at a time,
// its caller waits for it with a limit, and a run whose caller gave up is
// not lost: the next caller collects what it found (or what it threw).
//
// Threads: the enumeration runs on a thread of its own (std::async); callers
// may come from any thread. Lock: mutex_ guards the task and whether its
// outcome was collected; it is never held while waiting.
class EnumerationTask {
public:
    using Job = std::function<std::vector<Device>()>;

    EnumerationTask() = default;
    // Waits for a run still going: it writes to what its job captured.
    ~EnumerationTask();
    EnumerationTask(const EnumerationTask&) = delete;
    EnumerationTask& operator=(const EnumerationTask&) = delete;

    // Returns the devices of a finished run nobody collected, else starts
    // the job and waits for it up to limit. Throws 12 "Previous enumerate
    // task still running." while an earlier run goes on, 12 "Enumerate task
    // timed out. Enumeration still running." when this one outlasts the
    // limit, and whatever the collected run threw.
    std::vector<Device> run(const Job& job, std::chrono::milliseconds limit);

    // Throws 12 "Unable to shut down. Enumeration is still running." while a
    // run goes on.
    void requireIdle() const;

private:
    mutable std::mutex mutex_;
    std::shared_future<std::vector<Device>> task_;
    bool collected_ = true;
};

} // namespace HALYX
