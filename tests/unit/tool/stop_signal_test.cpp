#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

#include <unistd.h>

#include "stop_signal.hpp"

namespace {

using namespace std::chrono_literals;

// A second handler is refused with an error the caller can catch, and the
// first one stays the one that runs. The test process has no other thread,
// so the signal can only reach the watcher.
TEST(StopSignal, KeepsItsFirstHandler)
{
    halyx_tool::StopSignal stop;
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    stop.onSignal([&](int signal) { first = signal; });
    EXPECT_THROW(stop.onSignal([&](int signal) { second = signal; }), std::logic_error);

    ::kill(::getpid(), SIGTERM);
    // Waits for the watcher, bounded so a lost signal fails instead of hanging.
    for (int i = 0; i < 1000 && first == 0; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(first, SIGTERM);
    EXPECT_EQ(second, 0);
}

} // namespace
