#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "core/configuration.hpp"
#include "core/last_error.hpp"
#include "core/log_subscriber.hpp"
#include "core/task_table.hpp"
#include "halyx.h"

namespace HALYX {

constexpr halyx_timeout_configuration_t kDefaultTimeouts{60000, 60, 30000, 30000};

} // namespace HALYX

// The unit of use of the library. Owns its tasks, log subscription and last
// error; every export reaches its state through here.
//
// Locks: context_mutex guards timeouts and the event-handler calls;
// shutdown_mutex guards the shutdown callback; configuration_mutex the map;
// the task table, last error and log subscriber carry their own.
struct halyx_context {
    halyx_context();
    ~halyx_context();
    halyx_context(const halyx_context&) = delete;
    halyx_context& operator=(const halyx_context&) = delete;

    // Cancels and joins every task, runs the shutdown callback and stops log
    // delivery. Throws (and leaves the context usable) when something that
    // must stop first refuses to.
    void shutDown();

    halyx_timeout_configuration_t timeouts();
    void setTimeouts(const halyx_timeout_configuration_t& timeouts);

    void setShutdownCallback(halyx_shutdown_callback_t callback);

    void setConfiguration(HALYX::ConfigurationMap configuration);

    // Registration of the application's log callback; false when one is
    // already registered.
    bool registerLogCallback(halyx_log_callback_t callback, void* user_data);
    void unregisterLogCallback();

    const uint64_t number;
    HALYX::LastError last_error;
    HALYX::ASYNC::TaskTable tasks;

private:
    std::mutex context_mutex_;
    halyx_timeout_configuration_t timeouts_ = HALYX::kDefaultTimeouts;

    std::mutex shutdown_mutex_;
    halyx_shutdown_callback_t shutdown_callback_ = nullptr;

    std::mutex configuration_mutex_;
    HALYX::ConfigurationMap configuration_;

    std::shared_ptr<HALYX::LogSubscriber> log_subscriber_;
};
