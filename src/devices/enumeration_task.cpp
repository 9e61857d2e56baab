#include "devices/enumeration_task.hpp"

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX {

EnumerationTask::~EnumerationTask()
{
    std::shared_future<std::vector<Device>> task;
    {
        std::lock_guard lock(mutex_);
        task = task_;
    }
    if (task.valid()) {
        task.wait();
    }
}

std::vector<Device> EnumerationTask::run(const Job& job, std::chrono::milliseconds limit)
{
    std::shared_future<std::vector<Device>> task;
    {
        std::lock_guard lock(mutex_);
        if (task_.valid()) {
            Log::debug("DeviceLister::enumerate: Checking future_status of enumerate_task_status");
            if (task_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
                Log::debug("DeviceLister::enumerate: Statis is not std::future_status::ready");
                throw HALYXException(HALYX_ERR_TIMEOUT, "Previous enumerate task still running.");
            }
            if (!collected_) {
                // Its caller timed out; what it found is the answer now.
                Log::debug("DeviceLister::enumerate: Waiting for resolving of enumerate_task");
                collected_ = true;
                auto devices = task_.get();
                Log::debug("DeviceLister::enumerate: done");
                return devices;
            }
        }
        task_ = std::async(std::launch::async, job).share();
        collected_ = false;
        task = task_;
    }

    Log::debug("DeviceLister::enumerate: Waiting for enumerate task to complete");
    const auto status = task.wait_for(limit);
    Log::debug("DeviceLister::enumerate: Completed waiting for enumerate task");
    if (status == std::future_status::timeout) {
        Log::debug("DeviceLister::enumerate: waiting timed out");
        throw HALYXException(HALYX_ERR_TIMEOUT, "Enumerate task timed out. Enumeration still running.");
    }
    if (status == std::future_status::deferred) {
        Log::debug("DeviceLister::enumerate: the future is deferred");
        throw HALYXException(HALYX_ERR_INVALID_STATE, "Fatal error. Enumerate task is in an illegal state.");
    }
    {
        std::lock_guard lock(mutex_);
        collected_ = true;
    }
    auto devices = task.get();
    Log::debug("DeviceLister::enumerate: done");
    return devices;
}

void EnumerationTask::requireIdle() const
{
    std::lock_guard lock(mutex_);
    if (task_.valid() && task_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        throw HALYXException(HALYX_ERR_TIMEOUT, "Unable to shut down. Enumeration is still running.");
    }
}

} // namespace HALYX
