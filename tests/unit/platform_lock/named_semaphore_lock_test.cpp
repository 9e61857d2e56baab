#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/halyx_exception.hpp"
#include "platform/interprocess_lock.hpp"
#include "platform/linux/named_semaphore_lock.hpp"

using namespace std::chrono_literals;

namespace {

// A name of its own per test run, removed afterwards.
class LockName {
public:
    explicit LockName(const std::string& what) : name_("test-" + what + "-" + std::to_string(::getpid()))
    {
        HALYX::Linux::NamedSemaphoreLock::remove(name_);
    }
    ~LockName() { HALYX::Linux::NamedSemaphoreLock::remove(name_); }
    const std::string& operator*() const { return name_; }

private:
    std::string name_;
};

// The child's verdict on taking the lock, as its exit status.
int tryInChild(const std::string& name, std::chrono::milliseconds timeout)
{
    const pid_t child = ::fork();
    if (child == 0) {
        int status = 0;
        try {
            auto lock = HALYX::createInterprocessLock(name);
            HALYX::InterprocessLockGuard guard(*lock, timeout);
        } catch (const HALYX::HALYXException& e) {
            status = static_cast<int>(e.code()) == 100 ? 100 : 1;
        }
        ::_exit(status);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A child that takes the lock and then dies holding it (once killed);
// returns when the child holds it.
pid_t holdAndDie(const std::string& name)
{
    int ready_pipe[2];
    if (::pipe(ready_pipe) != 0) {
        return -1;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        auto lock = HALYX::createInterprocessLock(name);
        lock->lock(1000ms);
        const char ready = 'r';
        [[maybe_unused]] auto n = ::write(ready_pipe[1], &ready, 1);
        ::pause(); // until killed: no unlock ever runs
        ::_exit(0);
    }
    char ready = 0;
    const bool holding = ::read(ready_pipe[0], &ready, 1) == 1;
    ::close(ready_pipe[0]);
    ::close(ready_pipe[1]);
    return holding ? child : -1;
}

} // namespace

TEST(NamedSemaphoreLock, SecondProcessWaitsThenFailsWith100)
{
    LockName name("busy");
    auto lock = HALYX::createInterprocessLock(*name);
    {
        HALYX::InterprocessLockGuard guard(*lock, 1000ms);
        EXPECT_EQ(100, tryInChild(*name, 300ms));

        // Another holder in this very process is refused too, with the message.
        auto other = HALYX::createInterprocessLock(*name);
        try {
            other->lock(50ms);
            FAIL() << "the lock was taken twice";
        } catch (const HALYX::HALYXException& e) {
            EXPECT_EQ(HALYX_ERR_ALREADY_STARTED, e.code());
            EXPECT_STREQ("interprocess lock is held by another process", e.what());
        }
    }
    // Released at the end of the scope: the next process gets it.
    EXPECT_EQ(0, tryInChild(*name, 2000ms));
}

TEST(NamedSemaphoreLock, HolderThatDiesDoesNotKeepTheLock)
{
    LockName name("crash");
    const pid_t holder = holdAndDie(*name);
    ASSERT_GT(holder, 0);

    // Alive: others wait and fail.
    EXPECT_EQ(100, tryInChild(*name, 200ms));

    // Killed, and not yet reaped (a zombie): it holds nothing any more.
    ::kill(holder, SIGKILL);
    auto lock = HALYX::createInterprocessLock(*name);
    EXPECT_NO_THROW(lock->lock(3000ms));
    int status = 0;
    ::waitpid(holder, &status, 0);

    // The taken-over lock is a normal lock: held against others, then released.
    EXPECT_EQ(100, tryInChild(*name, 100ms));
    lock->unlock();
    EXPECT_EQ(0, tryInChild(*name, 500ms));
}

TEST(NamedSemaphoreLock, HolderThatDiesWhileOthersWaitIsNoticedDuringTheWait)
{
    LockName name("crash-during-wait");
    const pid_t holder = holdAndDie(*name);
    ASSERT_GT(holder, 0);

    auto lock = HALYX::createInterprocessLock(*name);
    std::thread killer([holder] {
        std::this_thread::sleep_for(300ms);
        ::kill(holder, SIGKILL);
        int status = 0;
        ::waitpid(holder, &status, 0);
    });
    EXPECT_NO_THROW(lock->lock(5000ms));
    killer.join();
    lock->unlock();
}

bool onHost(const std::string& host_name)
{
    // Named objects of the C library live in /dev/shm; a semaphore's name gets "sem.".
    return ::access(("/dev/shm/" + host_name.substr(1)).c_str(), F_OK) == 0 ||
           ::access(("/dev/shm/sem." + host_name.substr(1)).c_str(), F_OK) == 0;
}

// The last user to release the lock leaves nothing in /dev/shm; a user that
// opened it before keeps excluding others.
TEST(NamedSemaphoreLock, LeavesNothingBehindOnceNobodyUsesIt)
{
    using HALYX::Linux::NamedSemaphoreLock;
    LockName name("cleanup");
    {
        NamedSemaphoreLock lock(*name);
        lock.lock(1000ms);
        EXPECT_TRUE(onHost(NamedSemaphoreLock::semaphoreName(*name)));
        lock.unlock();
    }
    EXPECT_FALSE(onHost(NamedSemaphoreLock::semaphoreName(*name)));
    EXPECT_FALSE(onHost(NamedSemaphoreLock::recordName(*name)));

    // Two users: the first to release keeps it for the second.
    NamedSemaphoreLock first(*name);
    NamedSemaphoreLock second(*name);
    first.lock(1000ms);
    first.unlock();
    EXPECT_TRUE(onHost(NamedSemaphoreLock::recordName(*name)));
    second.lock(1000ms);
    EXPECT_EQ(100, tryInChild(*name, 100ms));
    second.unlock(); // first still has it open
    EXPECT_TRUE(onHost(NamedSemaphoreLock::recordName(*name)));

    // Retired while the other still had it open: that one opens it anew and
    // it is still one lock.
    NamedSemaphoreLock::remove(*name);
    first.lock(1000ms);
    EXPECT_EQ(100, tryInChild(*name, 100ms));
    first.unlock();
}

// A holder of another PID namespace cannot be judged dead from here.
TEST(NamedSemaphoreLock, AHolderOfAnotherPidNamespaceIsNotTakenOver)
{
    using HALYX::Linux::NamedSemaphoreLock;
    LockName name("namespace");
    const pid_t holder = holdAndDie(*name);
    ASSERT_GT(holder, 0);
    ::kill(holder, SIGKILL);
    int status = 0;
    ::waitpid(holder, &status, 0);

    // The dead holder's record, as if it had lived in another namespace.
    const int fd = ::shm_open(NamedSemaphoreLock::recordName(*name).c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0);
    auto* record = static_cast<NamedSemaphoreLock::Record*>(
        ::mmap(nullptr, sizeof(NamedSemaphoreLock::Record), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ::close(fd);
    ASSERT_NE(record, MAP_FAILED);
    record->namespace_.store(NamedSemaphoreLock::pidNamespace() + 1);
    EXPECT_EQ(100, tryInChild(*name, 600ms));

    // Of this namespace it is judged, and taken over.
    record->namespace_.store(NamedSemaphoreLock::pidNamespace());
    EXPECT_EQ(0, tryInChild(*name, 2000ms));
    ::munmap(record, sizeof(NamedSemaphoreLock::Record));
}
