// The exported boundary: how failures become codes and last errors.
#include <atomic>
#include <cstring>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/call_guard.hpp"
#include "test_context.hpp"

using HALYX::HALYXException;
using halyx_test::lastError;
using halyx_test::LogCapture;
using halyx_test::TestContext;

TEST(Boundary, ExceptionsBecomeCodesAndLastErrors)
{
    TestContext context;
    LogCapture log(context, HALYX_LOG_LEVEL_ERROR);

    EXPECT_EQ(halyx_set_configuration(context, "[]"), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).code, 50u);
    EXPECT_EQ(lastError(context).message, "Configuration must be a JSON object");
    EXPECT_TRUE(log.waitFor(" HALYXException(50): Configuration must be a JSON object"));

    // A standard exception: code 1 and its what().
    EXPECT_EQ(HALYX::guardedCall(
                  context, [](halyx_context&) -> halyx_errorcode_t { throw std::length_error("vector too long"); }),
              HALYX_ERR_GENERAL);
    EXPECT_EQ(lastError(context).code, 1u);
    EXPECT_EQ(lastError(context).message, "vector too long");
    EXPECT_TRUE(log.waitFor(" Exception: vector too long"));

    // Anything else: code 1, nothing stored.
    EXPECT_EQ(HALYX::guardedCall(context, [](halyx_context&) -> halyx_errorcode_t { throw 42; }), HALYX_ERR_GENERAL);
    EXPECT_EQ(lastError(context).message, "vector too long");

    // A code returned without throwing is passed on but not stored.
    EXPECT_EQ(HALYX::guardedCall(context, [](halyx_context&) { return HALYX_ERR_TIMEOUT; }), HALYX_ERR_TIMEOUT);
    EXPECT_EQ(lastError(context).code, 1u);

    // Success never clears the record.
    halyx_timeout_configuration_t timeouts{};
    EXPECT_EQ(halyx_get_current_timeout_configuration(context, &timeouts), HALYX_SUCCESS);
    EXPECT_EQ(lastError(context).message, "vector too long");
}

TEST(Boundary, LastErrorCopyIsBoundedByTheBuffer)
{
    TestContext context;
    const std::string message = "Configuration must be a JSON object";
    ASSERT_EQ(halyx_set_configuration(context, "1"), HALYX_ERR_INVALID_ARGUMENT);

    std::vector<char> exact(message.size() + 1, 'x');
    uint32_t code = 0;
    EXPECT_EQ(halyx_get_last_error(context, &code, exact.data(), exact.size()), HALYX_SUCCESS);
    EXPECT_EQ(code, 50u);
    EXPECT_EQ(std::string(exact.data()), message);

    // One byte short: the copy is refused as a whole, never truncated.
    std::vector<char> short_by_one(message.size(), 'x');
    code = 0;
    EXPECT_EQ(halyx_get_last_error(context, &code, short_by_one.data(), short_by_one.size()), HALYX_SUCCESS);
    EXPECT_EQ(code, 50u);
    EXPECT_EQ(short_by_one[0], '\0');

    // A fresh context has no failure to report.
    TestContext fresh;
    EXPECT_EQ(lastError(fresh).code, 0u);
    EXPECT_EQ(lastError(fresh).message, "");
}

TEST(Boundary, ExportsWithoutContextFailCleanly)
{
    EXPECT_EQ(halyx_get_version_list_as_document(), HALYX_ERR_NOT_SUPPORTED);
    EXPECT_EQ(halyx_set_log_level(nullptr, 2), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(halyx_enumerate(nullptr, nullptr), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(halyx_create_context(nullptr), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(halyx_fw_release_handle(nullptr), HALYX_SUCCESS);
}

// Failures from many threads at once: each read sees one whole record that
// some thread wrote, never a code from one failure with another's text.
TEST(Boundary, ConcurrentFailuresKeepWholeRecords)
{
    TestContext context;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            while (!stop) {
                if (t % 2 == 0) {
                    halyx_set_configuration(context, "[]");
                    halyx_cancel_async_task(context, 42);
                } else {
                    halyx_timeout_configuration_t timeouts{};
                    halyx_get_current_timeout_configuration(context, &timeouts);
                }
            }
        });
    }
    std::set<std::pair<uint32_t, std::string>> seen;
    for (int i = 0; i < 2000; ++i) {
        const auto last = lastError(context);
        seen.emplace(last.code, last.message);
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    const std::set<std::pair<uint32_t, std::string>> allowed{
        {0, ""},
        {50, "Configuration must be a JSON object"},
        {10, "cancel_async_task: async task not found for id: 42"},
    };
    for (const auto& record : seen) {
        EXPECT_TRUE(allowed.contains(record)) << record.first << " " << record.second;
    }
}
