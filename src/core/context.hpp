#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "core/configuration.hpp"
#include "core/handouts.hpp"
#include "core/last_error.hpp"
#include "core/log_subscriber.hpp"
#include "core/task_table.hpp"
#include "core/timeouts.hpp"
#include "core/version_list.hpp"
#include "devices/lister.hpp"
#include "devices/plugin_registry.hpp"
#include "halyx.h"

namespace HALYX {

class DeviceLister;

// What a context is built from: the host's asynchronous lister (none on a
// host without one) and the plugin factories. Tests hand in their own.
struct ContextParts {
    std::unique_ptr<AsyncLister> lister;
    std::vector<PluginRegistry::Factory> plugins;
};

// The parts of this build for this host.
ContextParts defaultContextParts();

} // namespace HALYX

// The unit of use of the library. Owns its tasks, log subscription and last
// error; every export reaches its state through here.
//
// Locks: context_mutex_ guards timeouts and device lookups for operations
// (never held while the event handler starts or stops: see startEvents);
// shutdown_mutex guards the shutdown callback; configuration_mutex the map;
// the task table, last error and log subscriber carry their own.
struct halyx_context {
    explicit halyx_context(HALYX::ContextParts parts);
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

    void startEvents();
    void stopEvents();

    // The device's document, fetched under the context mutex.
    std::string deviceJson(uint64_t id);

    // Registration of the application's log callback; false when one is
    // already registered.
    bool registerLogCallback(halyx_log_callback_t callback, void* user_data);
    void unregisterLogCallback();

    const uint64_t number;
    HALYX::LastError last_error;
    const HALYX::PluginRegistry plugins;
    // Declared before the task table so that tasks, which may use it, end first.
    const std::unique_ptr<HALYX::DeviceLister> lister;
    HALYX::ASYNC::TaskTable tasks;
    HALYX::Handouts<std::string, char> documents;
    HALYX::Handouts<HALYX::VersionListView, halyx_version_list_t> version_lists;

private:
    std::mutex context_mutex_;
    halyx_timeout_configuration_t timeouts_ = HALYX::kDefaultTimeouts;

    std::mutex shutdown_mutex_;
    halyx_shutdown_callback_t shutdown_callback_ = nullptr;

    std::mutex configuration_mutex_;
    HALYX::ConfigurationMap configuration_;

    std::shared_ptr<HALYX::LogSubscriber> log_subscriber_;
};
