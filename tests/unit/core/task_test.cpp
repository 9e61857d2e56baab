// Asynchronous tasks through the C boundary, started through the internal interface.
#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "core/halyx_exception.hpp"
#include "test_context.hpp"

using namespace std::chrono_literals;
using HALYX::ASYNC::operation_call_wrapper_t;
using halyx_test::lastError;
using halyx_test::TestContext;

namespace {

// Runs until cancelled, then ends with the code the test gives it.
uint64_t startCancellable(halyx_context* context, std::atomic<bool>& started, halyx_errorcode_t code_on_cancel)
{
    return context->tasks.add([&started, code_on_cancel](operation_call_wrapper_t& task) {
        started = true;
        while (!task.cancelRequested()) {
            std::this_thread::sleep_for(1ms);
        }
        return code_on_cancel;
    });
}

} // namespace

TEST(Tasks, FirstWaitTakesTheOutcomeSecondFindsNothing)
{
    TestContext context;
    const auto id = context.get()->tasks.add([](operation_call_wrapper_t&) { return HALYX_SUCCESS; });
    EXPECT_EQ(halyx_wait_async_task_complete(context, id), HALYX_SUCCESS);
    EXPECT_EQ(halyx_wait_async_task_complete(context, id), HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(lastError(context).message, "async task not found for id: " + std::to_string(id));
    bool exists = true;
    EXPECT_EQ(halyx_async_task_exists(context, id, &exists), HALYX_SUCCESS);
    EXPECT_FALSE(exists);
}

TEST(Tasks, OutcomeTextsByWhatEndedTheWork)
{
    TestContext context;
    auto& tasks = context.get()->tasks;
    const auto halyx = tasks.add([](operation_call_wrapper_t&) -> halyx_errorcode_t {
        throw HALYX::HALYXException(HALYX_ERR_PROTOCOL, "requestCrc protocol error");
    });
    const auto standard =
        tasks.add([](operation_call_wrapper_t&) -> halyx_errorcode_t { throw std::runtime_error("boom"); });
    const auto other = tasks.add([](operation_call_wrapper_t&) -> halyx_errorcode_t { throw 7; });
    const auto returned = tasks.add([](operation_call_wrapper_t&) { return HALYX_ERR_ARCHIVE; });

    EXPECT_EQ(halyx_wait_async_task_complete(context, halyx), HALYX_ERR_PROTOCOL);
    EXPECT_EQ(lastError(context).message,
              "async task failure for id: " + std::to_string(halyx) + " msg: requestCrc protocol error");

    EXPECT_EQ(halyx_wait_async_task_complete(context, standard), HALYX_ERR_GENERAL);
    const auto id = std::to_string(standard);
    EXPECT_EQ(lastError(context).message,
              "async task failure for id: " + id + " msg: async task std::exception for id: " + id + " msg: boom");

    EXPECT_EQ(halyx_wait_async_task_complete(context, other), HALYX_ERR_GENERAL);
    EXPECT_EQ(lastError(context).message, "async task failure for id: " + std::to_string(other) +
                                              " msg: async task generic error for id: " + std::to_string(other));

    EXPECT_EQ(halyx_wait_async_task_complete(context, returned), HALYX_ERR_ARCHIVE);
    EXPECT_EQ(lastError(context).code, 18u);
}

TEST(Tasks, TimedWaitLeavesTheTaskAndTheLastError)
{
    TestContext context;
    ASSERT_EQ(halyx_set_configuration(context, "[]"), HALYX_ERR_INVALID_ARGUMENT);
    std::atomic<bool> started{false};
    const auto id = startCancellable(context, started, HALYX_SUCCESS);

    EXPECT_EQ(halyx_wait_timed_async_task_complete(context, id, 0), HALYX_ERR_TIMEOUT);
    EXPECT_EQ(halyx_wait_timed_async_task_complete(context, id, -5), HALYX_ERR_TIMEOUT);
    EXPECT_EQ(halyx_wait_timed_async_task_complete(context, id, 20), HALYX_ERR_TIMEOUT);
    EXPECT_EQ(lastError(context).message, "Configuration must be a JSON object");

    bool exists = false;
    EXPECT_EQ(halyx_async_task_exists(context, id, &exists), HALYX_SUCCESS);
    EXPECT_TRUE(exists);

    EXPECT_EQ(halyx_cancel_async_task(context, id), HALYX_SUCCESS);
    // A deadline too far to represent is clamped, not overflowed.
    EXPECT_EQ(halyx_wait_timed_async_task_complete(context, id, INT32_MAX), HALYX_SUCCESS);
}

TEST(Tasks, CancelAndExistsArgumentErrors)
{
    TestContext context;
    EXPECT_EQ(halyx_cancel_async_task(context, 42), HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(lastError(context).message, "cancel_async_task: async task not found for id: 42");
    EXPECT_EQ(halyx_async_task_exists(context, 42, nullptr), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "halyx_async_task_exists: 'task_exists' cannot be NULL");
    EXPECT_EQ(halyx_wait_timed_async_task_complete(context, 42, 10), HALYX_ERR_NOT_FOUND);
}

TEST(Tasks, IdsAreUniqueAndGrowEvenWithinOneMicrosecond)
{
    TestContext context;
    std::set<uint64_t> ids;
    for (int i = 0; i < 200; ++i) {
        const auto id = context.get()->tasks.add([](operation_call_wrapper_t&) { return HALYX_SUCCESS; });
        EXPECT_NE(id, 0u);
        // While earlier ids are still in the table, a clash moves to another candidate.
        EXPECT_TRUE(ids.insert(id).second);
    }
    // Ids grow with time: one made later is larger than all of these.
    std::this_thread::sleep_for(2ms);
    const auto later = context.get()->tasks.add([](operation_call_wrapper_t&) { return HALYX_SUCCESS; });
    EXPECT_GT(later, *ids.rbegin());
    ids.insert(later);
    for (const auto id : ids) {
        EXPECT_EQ(halyx_wait_async_task_complete(context, id), HALYX_SUCCESS);
    }
}

TEST(Tasks, ManyWaitersOneWinner)
{
    TestContext context;
    std::atomic<bool> started{false};
    const auto id = startCancellable(context, started, HALYX_SUCCESS);
    std::atomic<int> winners{0};
    std::atomic<int> not_found{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 6; ++i) {
        waiters.emplace_back([&] {
            const auto code = halyx_wait_async_task_complete(context, id);
            (code == HALYX_SUCCESS ? winners : not_found)++;
            EXPECT_TRUE(code == HALYX_SUCCESS || code == HALYX_ERR_NOT_FOUND) << code;
        });
    }
    std::this_thread::sleep_for(20ms);
    halyx_cancel_async_task(context, id);
    for (auto& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(winners, 1);
    EXPECT_EQ(not_found, 5);
}

TEST(Tasks, ReleaseCancelsAndJoinsRunningTasks)
{
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    TestContext context;
    context.get()->tasks.add([&](operation_call_wrapper_t& task) {
        started = true;
        while (!task.cancelRequested()) {
            std::this_thread::sleep_for(1ms);
        }
        std::this_thread::sleep_for(30ms); // reacting to cancellation takes a moment
        finished = true;
        return HALYX_SUCCESS;
    });
    while (!started) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(context.release());
    EXPECT_TRUE(finished);
}
