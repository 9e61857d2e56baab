#pragma once

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>

#include <spdlog/sinks/ostream_sink.h>

#include "core/logging.hpp"

namespace halyx_test {

// Collects what the library's logger receives while it lives, for tests of
// parts that run without a context (single-threaded tests only). LogCapture
// is the one that listens through a context's log callback.
class LoggerCapture {
public:
    LoggerCapture() : sink_(std::make_shared<spdlog::sinks::ostream_sink_st>(stream_))
    {
        auto logger = HALYX::Log::logger();
        previous_ = logger->level();
        sink_->set_pattern("%l %v");
        logger->sinks().push_back(sink_);
        logger->set_level(spdlog::level::trace);
    }
    ~LoggerCapture()
    {
        auto logger = HALYX::Log::logger();
        auto& sinks = logger->sinks();
        sinks.erase(std::remove(sinks.begin(), sinks.end(), sink_), sinks.end());
        logger->set_level(previous_);
    }
    LoggerCapture(const LoggerCapture&) = delete;
    LoggerCapture& operator=(const LoggerCapture&) = delete;

    std::string text() const { return stream_.str(); }
    bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }
    size_t count(const std::string& part) const
    {
        const auto all = text();
        size_t n = 0;
        for (auto at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) {
            ++n;
        }
        return n;
    }

private:
    std::ostringstream stream_;
    std::shared_ptr<spdlog::sinks::ostream_sink_st> sink_;
    spdlog::level::level_enum previous_ = spdlog::level::off;
};

} // namespace halyx_test
