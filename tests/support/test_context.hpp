#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/context.hpp"
#include "fake_lister.hpp"
#include "halyx.h"

namespace halyx_test {

// A context built from test parts and released through the C boundary.
// The lister (when given) stays owned by the context; lister() reaches it.
class TestContext {
public:
    explicit TestContext(std::vector<HALYX::PluginRegistry::Factory> plugins = {}, bool with_lister = true);
    ~TestContext();
    TestContext(const TestContext&) = delete;
    TestContext& operator=(const TestContext&) = delete;

    halyx_context* get() const { return context_; }
    operator halyx_context*() const { return context_; }
    FakeLister& lister() const { return *lister_; }

    // Releases now; false (and the context kept) when the release failed.
    bool release();

private:
    halyx_context* context_ = nullptr;
    FakeLister* lister_ = nullptr;
};

struct LastError {
    uint32_t code;
    std::string message;
};

LastError lastError(halyx_context* context);

// Collects a context's log lines; waits for them with a bound.
class LogCapture {
public:
    // Registers on the context and sets the process-wide level.
    LogCapture(halyx_context* context, uint32_t level);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool waitFor(const std::string& needle, std::chrono::milliseconds limit = std::chrono::seconds(5));
    size_t count(const std::string& needle) const;
    std::vector<std::pair<uint32_t, std::string>> lines() const;

private:
    static void callback(uint32_t level, const char* message, void* user_data);

    halyx_context* context_;
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::pair<uint32_t, std::string>> lines_;
};

} // namespace halyx_test
