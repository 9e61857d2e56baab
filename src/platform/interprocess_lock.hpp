#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace HALYX {

// A lock shared by every process on the host, named after what it protects
// (a device). Serialises programming of one device across processes.
class InterprocessLock {
public:
    virtual ~InterprocessLock() = default;

    // Waits up to timeout. Throws HALYXException: 100 "interprocess lock is
    // held by another process" when the time runs out, 1 "owner_dead_error"
    // for any other failure of the wait.
    virtual void lock(std::chrono::milliseconds timeout) = 0;
    virtual void unlock() noexcept = 0;
};

// The host's lock for this name (any text; it is made safe for the host).
// Throws HALYXException 17 "unable to create semaphore" when the lock cannot
// be created or opened.
std::unique_ptr<InterprocessLock> createInterprocessLock(const std::string& name);

// Holds the lock for its own lifetime, so every way out releases it.
class InterprocessLockGuard {
public:
    InterprocessLockGuard(InterprocessLock& lock, std::chrono::milliseconds timeout) : lock_(lock)
    {
        lock_.lock(timeout);
    }
    ~InterprocessLockGuard() { lock_.unlock(); }
    InterprocessLockGuard(const InterprocessLockGuard&) = delete;
    InterprocessLockGuard& operator=(const InterprocessLockGuard&) = delete;

private:
    InterprocessLock& lock_;
};

} // namespace HALYX
