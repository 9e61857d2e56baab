#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string_view>

#include <spdlog/logger.h>

#include "core/halyx_exception.hpp"
#include "core/logger_sink.hpp"

namespace HALYX::Log {

using Sink = LoggerSink<std::mutex>;

// The process-wide "halyx" logger, created at level off on first use and kept
// for the life of the process. It is deliberately not in spdlog's global
// registry: an application that uses spdlog itself must not be able to drop
// it or change its level by accident.
std::shared_ptr<spdlog::logger> logger() noexcept;

// The sink every context subscribes to.
std::shared_ptr<Sink> sink() noexcept;

// Logging never throws: a failure to format or deliver is swallowed.
template <typename... Args>
void log(spdlog::level::level_enum level, fmt::format_string<Args...> format, Args&&... args) noexcept
{
    try {
        if (auto l = logger()) {
            l->log(level, format, std::forward<Args>(args)...);
        }
    } catch (...) {
    }
}

template <typename... Args>
void trace(fmt::format_string<Args...> f, Args&&... a) noexcept
{
    log(spdlog::level::trace, f, std::forward<Args>(a)...);
}
template <typename... Args>
void debug(fmt::format_string<Args...> f, Args&&... a) noexcept
{
    log(spdlog::level::debug, f, std::forward<Args>(a)...);
}
template <typename... Args>
void info(fmt::format_string<Args...> f, Args&&... a) noexcept
{
    log(spdlog::level::info, f, std::forward<Args>(a)...);
}
template <typename... Args>
void warn(fmt::format_string<Args...> f, Args&&... a) noexcept
{
    log(spdlog::level::warn, f, std::forward<Args>(a)...);
}
template <typename... Args>
void error(fmt::format_string<Args...> f, Args&&... a) noexcept
{
    log(spdlog::level::err, f, std::forward<Args>(a)...);
}
template <typename... Args>
void critical(fmt::format_string<Args...> f, Args&&... a) noexcept
{
    log(spdlog::level::critical, f, std::forward<Args>(a)...);
}

// "{prefix} HALYXException({code}): {what}" and "{prefix} Exception: {what}".
void exception(spdlog::level::level_enum level, const HALYXException& e, std::string_view prefix = {}) noexcept;
void exception(spdlog::level::level_enum level, const std::exception& e, std::string_view prefix = {}) noexcept;

// Logs "[->] {name}" now and "[<-] {name} [took {}ms]" when it goes out of scope.
class ScopeTimer {
public:
    explicit ScopeTimer(std::string_view name) noexcept;
    ~ScopeTimer();
    ScopeTimer(const ScopeTimer&) = delete;
    ScopeTimer& operator=(const ScopeTimer&) = delete;

private:
    std::string_view name_;
    std::chrono::steady_clock::time_point start_;
};

} // namespace HALYX::Log
