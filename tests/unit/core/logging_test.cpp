// Log levels, registration and delivery through the C boundary. Each test
// runs in a process of its own, so the process-wide level starts at off.
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "core/logging.hpp"
#include "test_context.hpp"

using namespace std::chrono_literals;
using halyx_test::lastError;
using halyx_test::LogCapture;
using halyx_test::TestContext;

TEST(Logging, NothingIsDeliveredBeforeALevelIsSet)
{
    TestContext context;
    std::atomic<int> delivered{0};
    ASSERT_EQ(
        halyx_register_log_event(
            context, [](uint32_t, const char*, void* count) { ++*static_cast<std::atomic<int>*>(count); }, &delivered),
        HALYX_SUCCESS);
    HALYX::Log::critical("should not be seen");
    halyx_set_configuration(context, "[]"); // logs its failure at error level
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(delivered, 0);
    halyx_unregister_log_event(context);
}

TEST(Logging, LevelsFilterAndUnknownLevelsAreIgnored)
{
    TestContext context;
    LogCapture log(context, HALYX_LOG_LEVEL_WARNING);
    HALYX::Log::info("info line");
    HALYX::Log::warn("warning line");
    ASSERT_TRUE(log.waitFor("warning line"));

    // 7 is not a level: the call succeeds and nothing changes.
    EXPECT_EQ(halyx_set_log_level(context, 7), HALYX_SUCCESS);
    HALYX::Log::info("second info line");
    HALYX::Log::error("error line");
    ASSERT_TRUE(log.waitFor("error line"));
    EXPECT_EQ(log.count("info line"), 0u);

    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].first, 3u);
    EXPECT_EQ(lines[1].first, 4u);

    EXPECT_EQ(halyx_set_log_level(context, HALYX_LOG_LEVEL_TRACE), HALYX_SUCCESS);
    HALYX::Log::trace("trace line");
    EXPECT_TRUE(log.waitFor("trace line"));
}

TEST(Logging, SecondRegistrationIsRefusedAndTheFirstStays)
{
    TestContext context;
    LogCapture log(context, HALYX_LOG_LEVEL_DEBUG);
    auto other = [](uint32_t, const char*, void*) { ADD_FAILURE() << "second callback called"; };
    EXPECT_EQ(halyx_register_log_event(context, other, nullptr), HALYX_ERR_LOGGER);
    EXPECT_EQ(lastError(context).code, 22u);
    EXPECT_EQ(lastError(context).message, "log event callback is already registered");
    // The refusal is itself logged, at warning level, to the first callback.
    EXPECT_TRUE(log.waitFor(" HALYXException(22): log event callback is already registered"));
}

TEST(Logging, UnregisterStopsDeliveryAndPatternShapesTheLine)
{
    TestContext context;
    std::mutex mutex;
    std::vector<std::string> lines;
    auto collect = [](uint32_t, const char* message, void* user) {
        auto* state = static_cast<std::pair<std::mutex*, std::vector<std::string>*>*>(user);
        std::lock_guard lock(*state->first);
        state->second->push_back(message);
    };
    std::pair<std::mutex*, std::vector<std::string>*> state{&mutex, &lines};
    ASSERT_EQ(halyx_register_log_event(context, collect, &state), HALYX_SUCCESS);
    halyx_set_log_level(context, HALYX_LOG_LEVEL_INFO);
    ASSERT_EQ(halyx_set_log_pattern(context, "<%l> %v"), HALYX_SUCCESS);
    HALYX::Log::info("patterned");
    for (int i = 0; i < 500; ++i) {
        std::lock_guard lock(mutex);
        if (!lines.empty()) {
            break;
        }
        std::this_thread::sleep_for(2ms);
    }
    {
        std::lock_guard lock(mutex);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0], "<info> patterned");
    }
    ASSERT_EQ(halyx_unregister_log_event(context), HALYX_SUCCESS);
    HALYX::Log::info("after unregister");
    std::this_thread::sleep_for(50ms);
    std::lock_guard lock(mutex);
    EXPECT_EQ(lines.size(), 1u);
}

// Two contexts at once: each sees every line, in order, on one thread that is
// never the logging thread, and its callback never runs twice at once.
TEST(Logging, TwoContextsReceiveEveryLineInOrder)
{
    struct Receiver {
        std::mutex mutex;
        std::vector<std::string> lines;
        std::set<std::thread::id> threads;
        std::atomic<int> inside{0};
        std::atomic<bool> overlapped{false};
    };
    auto callback = [](uint32_t, const char* message, void* user) {
        auto* r = static_cast<Receiver*>(user);
        if (r->inside.fetch_add(1) != 0) {
            r->overlapped = true;
        }
        {
            std::lock_guard lock(r->mutex);
            r->lines.emplace_back(message);
            r->threads.insert(std::this_thread::get_id());
        }
        r->inside.fetch_sub(1);
    };
    TestContext first;
    TestContext second;
    Receiver a;
    Receiver b;
    ASSERT_EQ(halyx_register_log_event(first, callback, &a), HALYX_SUCCESS);
    ASSERT_EQ(halyx_register_log_event(second, callback, &b), HALYX_SUCCESS);
    halyx_set_log_pattern(first, "%v");
    halyx_set_log_level(first, HALYX_LOG_LEVEL_INFO);

    constexpr int kPerThread = 300;
    std::vector<std::thread> loggers;
    std::set<std::thread::id> logging_threads;
    for (int t = 0; t < 3; ++t) {
        loggers.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                HALYX::Log::info("t{} n{}", t, i);
            }
        });
        logging_threads.insert(loggers.back().get_id());
    }
    for (auto& logger : loggers) {
        logger.join();
    }
    for (auto* r : {&a, &b}) {
        for (int i = 0; i < 1000; ++i) {
            std::lock_guard lock(r->mutex);
            if (r->lines.size() == 3 * kPerThread) {
                break;
            }
            r->mutex.unlock();
            std::this_thread::sleep_for(2ms);
            r->mutex.lock();
        }
        std::lock_guard lock(r->mutex);
        ASSERT_EQ(r->lines.size(), static_cast<size_t>(3 * kPerThread));
        EXPECT_EQ(r->threads.size(), 1u);
        EXPECT_FALSE(logging_threads.contains(*r->threads.begin()));
        EXPECT_FALSE(r->overlapped);
        // Per logging thread, lines arrive in the order they were logged.
        std::map<std::string, int> next;
        for (const auto& line : r->lines) {
            const auto space = line.find(' ');
            const auto thread = line.substr(0, space);
            const int n = std::stoi(line.substr(space + 2));
            EXPECT_EQ(n, next[thread]++) << line;
        }
    }
    halyx_unregister_log_event(first);
    halyx_unregister_log_event(second);
}

// Releasing a context while other threads log must neither crash nor lose the
// other context's lines.
TEST(Logging, ReleaseWhileAnotherThreadLogs)
{
    halyx_test::TestContext survivor;
    LogCapture kept(survivor, HALYX_LOG_LEVEL_INFO);
    std::atomic<bool> stop{false};
    std::thread logger([&] {
        int i = 0;
        while (!stop) {
            HALYX::Log::info("busy {}", i++);
        }
    });
    std::atomic<int> delivered{0};
    auto count = [](uint32_t, const char*, void* user) { ++*static_cast<std::atomic<int>*>(user); };
    for (int round = 0; round < 20; ++round) {
        // Released with its callback still registered: release detaches it.
        TestContext doomed;
        ASSERT_EQ(halyx_register_log_event(doomed, count, &delivered), HALYX_SUCCESS);
        std::this_thread::sleep_for(2ms);
        ASSERT_TRUE(doomed.release());
    }
    EXPECT_GT(delivered, 0);
    stop = true;
    logger.join();
    HALYX::Log::info("after the storm");
    EXPECT_TRUE(kept.waitFor("after the storm"));
}

// What was logged before a release reaches the callback before release returns.
TEST(Logging, ReleaseDeliversWhatIsQueued)
{
    std::atomic<int> delivered{0};
    TestContext context;
    ASSERT_EQ(halyx_register_log_event(
                  context, [](uint32_t, const char*, void* n) { ++*static_cast<std::atomic<int>*>(n); }, &delivered),
              HALYX_SUCCESS);
    halyx_set_log_level(context, HALYX_LOG_LEVEL_INFO);
    for (int i = 0; i < 1000; ++i) {
        HALYX::Log::info("line {}", i);
    }
    ASSERT_TRUE(context.release());
    EXPECT_EQ(delivered, 1000);
}
