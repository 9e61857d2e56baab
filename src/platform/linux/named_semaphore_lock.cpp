#include "platform/linux/named_semaphore_lock.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX::Linux {
namespace {

static_assert(std::atomic<uint64_t>::is_always_lock_free, "the owner record is shared between processes");

constexpr auto kRecheckInterval = std::chrono::milliseconds(250);

[[noreturn]] void createFailed(const std::string& what)
{
    Log::error("unable to create semaphore {}: {}", what, std::strerror(errno));
    throw HALYXException(HALYX_ERR_OPEN_FAILED, "unable to create semaphore");
}

[[noreturn]] void waitFailed()
{
    Log::error("waiting for the interprocess lock failed: {}", std::strerror(errno));
    throw HALYXException(HALYX_ERR_GENERAL, "owner_dead_error");
}

std::string sanitize(const std::string& name)
{
    std::string safe;
    for (const char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                           c == '_' || c == '.';
        safe += plain ? c : '_';
    }
    // Room for "/halyx-", ".owner" and the "sem." the C library adds.
    return safe.substr(0, 200);
}

struct ProcessState {
    bool exists = false;
    bool zombie = false;
    uint64_t startTime = 0;
};

// Field 3 (state) and field 22 (start time in clock ticks) of /proc/PID/stat;
// the command name in parentheses may itself hold spaces and parentheses.
ProcessState processState(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!file || !std::getline(file, line)) {
        return {};
    }
    const auto close = line.rfind(')');
    if (close == std::string::npos) {
        return {};
    }
    std::istringstream fields(line.substr(close + 1));
    ProcessState state;
    std::string field;
    for (int index = 3; fields >> field; ++index) {
        if (index == 3) {
            state.zombie = field == "Z" || field == "X";
        } else if (index == 22) {
            state.startTime = std::stoull(field);
            state.exists = true;
            break;
        }
    }
    return state;
}

// Process id in the high half, the low half of its start time below, so a
// recycled process id does not pass for the holder.
uint64_t identity(pid_t pid, uint64_t start_time)
{
    return (static_cast<uint64_t>(static_cast<uint32_t>(pid)) << 32) | (start_time & 0xFFFFFFFFu);
}

uint64_t selfIdentity()
{
    const pid_t pid = ::getpid();
    return identity(pid, processState(pid).startTime);
}

bool isAlive(uint64_t owner)
{
    const auto pid = static_cast<pid_t>(owner >> 32);
    const auto state = processState(pid);
    return state.exists && !state.zombie && identity(pid, state.startTime) == owner;
}

timespec monotonicDeadline(std::chrono::steady_clock::time_point deadline)
{
    const auto since_epoch = deadline.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_epoch);
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(seconds.count());
    ts.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch - seconds).count());
    return ts;
}

} // namespace

std::string NamedSemaphoreLock::semaphoreName(const std::string& name)
{
    return "/halyx-" + sanitize(name);
}

std::string NamedSemaphoreLock::recordName(const std::string& name)
{
    return "/halyx-" + sanitize(name) + ".owner";
}

void NamedSemaphoreLock::remove(const std::string& name) noexcept
{
    // Marked first, so that whoever has the old objects open moves to new ones.
    const int fd = ::shm_open(recordName(name).c_str(), O_RDWR, 0);
    if (fd >= 0) {
        struct stat info {};
        if (::fstat(fd, &info) == 0 && static_cast<size_t>(info.st_size) >= sizeof(Record)) {
            void* mapping = ::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (mapping != MAP_FAILED) {
                static_cast<Record*>(mapping)->retired.store(1);
                ::munmap(mapping, sizeof(Record));
            }
        }
        ::close(fd);
    }
    ::sem_unlink(semaphoreName(name).c_str());
    ::shm_unlink(recordName(name).c_str());
}

uint64_t NamedSemaphoreLock::pidNamespace()
{
    struct stat info {};
    return ::stat("/proc/self/ns/pid", &info) == 0 ? static_cast<uint64_t>(info.st_ino) : 0;
}

NamedSemaphoreLock::NamedSemaphoreLock(const std::string& name)
    : name_(name), self_(selfIdentity()), namespace_(pidNamespace())
{
    open();
}

NamedSemaphoreLock::~NamedSemaphoreLock()
{
    unlock();
    close();
}

void NamedSemaphoreLock::open()
{
    // Every user of the device must be able to open the lock, whatever their umask.
    const mode_t previous = ::umask(0);
    semaphore_ = ::sem_open(semaphoreName(name_).c_str(), O_CREAT, 0666, 1);
    const int fd = ::shm_open(recordName(name_).c_str(), O_CREAT | O_RDWR, 0666);
    ::umask(previous);
    if (semaphore_ == SEM_FAILED) {
        if (fd >= 0) {
            ::close(fd);
        }
        createFailed(semaphoreName(name_));
    }
    if (fd < 0) {
        ::sem_close(semaphore_);
        createFailed(recordName(name_));
    }
    // A fresh record reads as zero: no holder, no users, not retired.
    void* mapping = MAP_FAILED;
    if (::ftruncate(fd, sizeof(Record)) == 0) {
        mapping = ::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    ::close(fd);
    if (mapping == MAP_FAILED) {
        ::sem_close(semaphore_);
        createFailed(recordName(name_));
    }
    record_ = static_cast<Record*>(mapping);
    record_->users.fetch_add(1);
}

void NamedSemaphoreLock::close() noexcept
{
    record_->users.fetch_sub(1);
    ::munmap(record_, sizeof(Record));
    ::sem_close(semaphore_);
}

bool NamedSemaphoreLock::takeOverFromDeadHolder()
{
    uint64_t owner = record_->owner.load();
    const uint64_t owner_namespace = record_->namespace_.load();
    if (owner == 0 || owner == self_ || record_->owner.load() != owner) {
        return false;
    }
    if (owner_namespace != 0 && owner_namespace != namespace_) {
        if (!judged_foreign_) {
            judged_foreign_ = true;
            Log::warn("The interprocess lock {} is held by process {} of another PID namespace, whose life cannot be "
                      "seen from here; waiting for it to release the lock.",
                      name_, owner >> 32);
        }
        return false;
    }
    if (isAlive(owner) || !record_->owner.compare_exchange_strong(owner, self_)) {
        return false;
    }
    record_->namespace_.store(namespace_);
    // The dead holder never closed its lock.
    record_->users.fetch_sub(1);
    Log::warn("The interprocess lock {} was held by process {}, which ended without releasing it; taking it over.",
              name_, owner >> 32);
    return true;
}

void NamedSemaphoreLock::lock(std::chrono::milliseconds timeout)
{
    using Clock = std::chrono::steady_clock;
    if (held_) {
        return;
    }
    const auto deadline = Clock::now() + timeout;
    while (true) {
        bool taken = false;
        bool took_over = false;
        if (::sem_trywait(semaphore_) == 0) {
            taken = true;
        } else if (errno != EAGAIN && errno != EINTR) {
            waitFailed();
        } else if (takeOverFromDeadHolder()) {
            taken = took_over = true;
        }
        if (!taken) {
            const auto now = Clock::now();
            if (now >= deadline) {
                Log::error("interprocess lock {} is held by process {}", name_, record_->owner.load() >> 32);
                throw HALYXException(HALYX_ERR_ALREADY_STARTED, "interprocess lock is held by another process");
            }
            const auto until = monotonicDeadline(std::min(deadline, now + kRecheckInterval));
            if (::sem_clockwait(semaphore_, CLOCK_MONOTONIC, &until) == 0) {
                taken = true;
            } else if (errno != ETIMEDOUT && errno != EINTR) {
                waitFailed();
            }
        }
        if (!taken) {
            continue;
        }
        if (record_->retired.load() != 0) {
            // Its last user removed it while this one waited: open it anew.
            if (!took_over) {
                ::sem_post(semaphore_);
            }
            close();
            open();
            continue;
        }
        break;
    }
    record_->namespace_.store(namespace_);
    record_->owner.store(self_);
    held_ = true;
}

void NamedSemaphoreLock::unlock() noexcept
{
    if (!held_) {
        return;
    }
    held_ = false;
    if (record_->users.load() == 1) {
        // Nobody else has it open: leave nothing behind. A process that opens
        // it from now on until the post below finds it retired.
        record_->owner.store(0);
        remove(name_);
        ::sem_post(semaphore_);
        return;
    }
    // Post first: a holder that dies between the two leaves a stale record
    // beside a free semaphore, which the next holder simply overwrites.
    ::sem_post(semaphore_);
    uint64_t expected = self_;
    record_->owner.compare_exchange_strong(expected, 0);
}

} // namespace HALYX::Linux

std::unique_ptr<HALYX::InterprocessLock> HALYX::createInterprocessLock(const std::string& name)
{
    return std::make_unique<Linux::NamedSemaphoreLock>(name);
}
