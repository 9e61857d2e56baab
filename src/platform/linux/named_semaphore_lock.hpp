#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include <semaphore.h>

#include "platform/interprocess_lock.hpp"

namespace HALYX::Linux {

// The inter-process lock: a POSIX named semaphore with an initial count of 1,
// and beside it a small named shared-memory record.
//
// A semaphore is not released when its holder dies, so the holder records
// itself (process id, start time, PID namespace) in the record. A waiter
// that finds the semaphore taken looks at that record; when the recorded
// process no longer runs (or is a zombie, or its id now belongs to a later
// process) the waiter takes the lock over with a compare-and-swap on the
// record, leaving the count at 0 for itself. The check is made at once and
// then every 250 ms of the wait, so a crashed holder delays the next one by at
// most that much. A holder in another PID namespace (another container) can
// not be judged from here: it is never taken over, and a waiter times out.
//
// Nothing is left in /dev/shm once nobody uses the lock: the record counts
// the objects that have it open, and the last one to release it, still
// holding the semaphore, marks the record retired and removes both names.
// A process that opened the old objects just before (it waits on the old
// semaphore) sees the mark once it gets the semaphore and opens the lock
// anew, so two holders can never hold two different semaphores of one name.
//
// One object is one holder: lock and unlock from one thread at a time.
class NamedSemaphoreLock : public InterprocessLock {
public:
    // The shared record (zero when created).
    struct Record {
        std::atomic<uint64_t> owner;      // process id << 32 | low half of its start time; 0: none
        std::atomic<uint64_t> namespace_; // the owner's PID namespace (its /proc/self/ns/pid inode)
        std::atomic<uint32_t> users;      // objects that have the lock open
        std::atomic<uint32_t> retired;    // removed by its last user: open it anew
    };

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
    // Retires the lock and unlinks both names: whoever has them open moves to
    // new ones before holding it.
    static void remove(const std::string& name) noexcept;
    // This process's PID namespace, as recorded.
    static uint64_t pidNamespace();

private:
    void open();
    void close() noexcept;
    bool takeOverFromDeadHolder();
    // Releases the semaphore, retiring the lock when nobody else uses it.
    void release() noexcept;

    const std::string name_;
    sem_t* semaphore_ = SEM_FAILED;
    Record* record_ = nullptr; // in shared memory
    const uint64_t self_;
    const uint64_t namespace_;
    bool held_ = false;
    bool judged_foreign_ = false;
};

} // namespace HALYX::Linux
