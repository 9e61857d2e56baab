#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include <semaphore.h>

#include "platform/interprocess_lock.hpp"

namespace HALYX::Linux {

// The inter-process lock: a POSIX named semaphore with an initial count of 1.
//
// A semaphore is not released when its holder dies, so the holder also
// records itself (process id and start time) in a small named shared-memory
// word beside it. A waiter that finds the semaphore taken looks at that
// record; when the recorded process no longer runs (or is a zombie, or its
// id now belongs to a later process) the waiter takes the lock over with a
// compare-and-swap on the record, leaving the count at 0 for itself. The
// check is made at once and then every 250 ms of the wait, so a crashed
// holder delays the next one by at most that much.
//
// One object is one holder: lock and unlock from one thread at a time.
class NamedSemaphoreLock : public InterprocessLock {
public:
    // Throws HALYXException 17 when the semaphore or its record cannot be
    // created or opened.
    explicit NamedSemaphoreLock(const std::string& name);
    ~NamedSemaphoreLock() override;
    NamedSemaphoreLock(const NamedSemaphoreLock&) = delete;
    NamedSemaphoreLock& operator=(const NamedSemaphoreLock&) = delete;

    void lock(std::chrono::milliseconds timeout) override;
    void unlock() noexcept override;

    // The host names used for this lock name ("/halyx-..."), for tools and tests.
    static std::string semaphoreName(const std::string& name);
    static std::string recordName(const std::string& name);
    // Unlinks both; processes that have them open keep working on theirs.
    static void remove(const std::string& name) noexcept;

private:
    bool takeOverFromDeadHolder();

    const std::string name_;
    sem_t* semaphore_ = SEM_FAILED;
    std::atomic<uint64_t>* owner_ = nullptr; // in shared memory
    const uint64_t self_;
    bool held_ = false;
};

} // namespace HALYX::Linux
