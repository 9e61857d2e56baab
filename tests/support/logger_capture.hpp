#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>

#include <spdlog/sinks/base_sink.h>

#include "core/logging.hpp"

namespace halyx_test {

// Collects what the library's logger receives while it lives, from any
// thread, for tests of parts that run without a log callback. LogCapture is
// the one that listens through a context's log callback. Adding the sink to
// the process-wide logger is not itself thread-safe: construct and destroy
// it while the library logs from no other thread.
class LoggerCapture {
public:
    LoggerCapture() : sink_(std::make_shared<Sink>())
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

    std::string text() const { return sink_->text(); }
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
    // Lines as formatted, read under the sink's own lock.
    class Sink final : public spdlog::sinks::base_sink<std::mutex> {
    public:
        std::string text()
        {
            std::lock_guard lock(mutex_);
            return text_;
        }

    protected:
        void sink_it_(const spdlog::details::log_msg& message) override
        {
            spdlog::memory_buf_t formatted;
            formatter_->format(message, formatted);
            text_.append(formatted.data(), formatted.size());
        }
        void flush_() override {}

    private:
        std::string text_;
    };

    std::shared_ptr<Sink> sink_;
    spdlog::level::level_enum previous_ = spdlog::level::off;
};

} // namespace halyx_test
