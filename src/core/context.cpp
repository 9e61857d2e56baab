#include "core/context.hpp"

#include <utility>

#include <fmt/format.h>

#include "core/builtin_plugins.hpp"
#include "core/halyx_exception.hpp"
#include "core/logging.hpp"
#include "devices/device_lister.hpp"
#include "devices/usb_lister.hpp"
#include "platform/host.hpp"

namespace {

std::atomic<uint64_t> context_counter{0};

} // namespace

HALYX::ContextParts HALYX::defaultContextParts()
{
    return ContextParts{std::make_unique<USBLister>(makeHostUsbPlatform()), builtinPlugins()};
}

halyx_context::halyx_context(HALYX::ContextParts parts)
    : number(++context_counter), plugins(parts.plugins),
      lister(std::make_unique<HALYX::DeviceLister>(this, std::move(parts.lister), plugins.plugins())),
      log_subscriber_(std::make_shared<HALYX::LogSubscriber>())
{
    // Fetch (or create) the process-wide logger before anything logs.
    HALYX::Log::logger();
}

halyx_context::~halyx_context()
{
    tasks.cancelAllAndWait();
    unregisterLogCallback();
    log_subscriber_->stop();
}

void halyx_context::shutDown()
{
    // Each of these would wait for the very thread it is called on.
    const char* from = tasks.onWorker()                  ? "an operation's callback"
                       : lister->inEventCallback()       ? "a device event callback"
                       : log_subscriber_->onDispatcher() ? "the log callback"
                                                         : nullptr;
    if (from != nullptr) {
        throw HALYX::HALYXException(HALYX_ERR_INVALID_STATE,
                                    fmt::format("halyx_release_context cannot be called from {} of the same context: "
                                                "it waits for the thread that runs it. Release the context from "
                                                "another thread.",
                                                from));
    }
    tasks.cancelAllAndWait();
    lister->shutDown();
    halyx_shutdown_callback_t callback = nullptr;
    {
        std::lock_guard lock(shutdown_mutex_);
        callback = shutdown_callback_;
    }
    if (callback != nullptr) {
        callback(this);
    }
    // Lines logged up to here still reach the application: the last ones
    // usually say why something ended.
    if (auto sink = HALYX::Log::sink()) {
        sink->unsubscribe(log_subscriber_.get());
    }
    log_subscriber_->stop();
    unregisterLogCallback();
}

halyx_timeout_configuration_t halyx_context::timeouts()
{
    std::lock_guard lock(context_mutex_);
    return timeouts_;
}

void halyx_context::setTimeouts(const halyx_timeout_configuration_t& timeouts)
{
    std::lock_guard lock(context_mutex_);
    timeouts_ = timeouts;
    lister->setTimeouts(timeouts);
}

void halyx_context::setShutdownCallback(halyx_shutdown_callback_t callback)
{
    std::lock_guard lock(shutdown_mutex_);
    shutdown_callback_ = callback;
}

void halyx_context::setConfiguration(HALYX::ConfigurationMap configuration)
{
    std::lock_guard lock(configuration_mutex_);
    // Stored first, then handed on; a configuration the lister refuses (it
    // leaves its plugins as they were) is not kept either.
    auto previous = std::exchange(configuration_, std::move(configuration));
    try {
        lister->configure(configuration_);
    } catch (...) {
        configuration_ = std::move(previous);
        throw;
    }
}

// The lister serialises start and stop itself. The context mutex is not held
// here: stopping joins the notification thread, and a device-event callback on
// that thread may be starting an operation, which takes the context mutex.
void halyx_context::startEvents()
{
    lister->startEvents();
}

void halyx_context::stopEvents()
{
    lister->stopEvents();
}

std::string halyx_context::deviceJson(uint64_t id)
{
    std::lock_guard lock(context_mutex_);
    return lister->deviceJson(id);
}

bool halyx_context::registerLogCallback(halyx_log_callback_t callback, void* user_data)
{
    std::lock_guard lock(log_subscriber_->registrationMutex());
    if (!log_subscriber_->setCallback(callback, user_data)) {
        return false;
    }
    if (auto sink = HALYX::Log::sink()) {
        sink->subscribe(log_subscriber_);
    }
    return true;
}

void halyx_context::unregisterLogCallback()
{
    std::lock_guard lock(log_subscriber_->registrationMutex());
    if (auto sink = HALYX::Log::sink()) {
        sink->unsubscribe(log_subscriber_.get());
    }
    log_subscriber_->clearCallback();
}
