#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <spdlog/sinks/base_sink.h>

#include "core/log_levels.hpp"
#include "core/log_subscriber.hpp"

namespace HALYX {

// Forwards every formatted line to the subscribed contexts. Subscribers are
// held weakly so a context can be released while another thread logs; one
// being destroyed is skipped.
//
// Locks: spdlog's sink mutex (Mutex) is held around sink_it_; subscribers_mutex_
// guards the list. Order: sink mutex, then subscribers_mutex_, then a
// subscriber's queue mutex.
template <typename Mutex>
class LoggerSink final : public spdlog::sinks::base_sink<Mutex> {
public:
    void subscribe(const std::shared_ptr<LogSubscriber>& subscriber)
    {
        std::lock_guard lock(subscribers_mutex_);
        prune();
        subscribers_.push_back(subscriber);
    }

    void unsubscribe(const LogSubscriber* subscriber)
    {
        std::lock_guard lock(subscribers_mutex_);
        std::erase_if(subscribers_, [subscriber](const std::weak_ptr<LogSubscriber>& weak) {
            auto strong = weak.lock();
            return !strong || strong.get() == subscriber;
        });
    }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        const auto level = fromSpdlogLevel(msg.level);
        if (!level || *level == 6) {
            return;
        }
        spdlog::memory_buf_t formatted; // inline capacity 250, grows as needed
        this->formatter_->format(msg, formatted);
        std::string text(formatted.data(), formatted.size());
        // The application gets the line, not the pattern's end-of-line.
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.pop_back();
        }

        std::lock_guard lock(subscribers_mutex_);
        for (const auto& weak : subscribers_) {
            if (auto subscriber = weak.lock()) {
                subscriber->push(*level, text);
            }
        }
    }

    void flush_() override {}

private:
    void prune()
    {
        std::erase_if(subscribers_, [](const std::weak_ptr<LogSubscriber>& weak) { return weak.expired(); });
    }

    std::mutex subscribers_mutex_;
    std::vector<std::weak_ptr<LogSubscriber>> subscribers_;
};

} // namespace HALYX
