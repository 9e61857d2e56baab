#include "test_context.hpp"

#include <algorithm>
#include <memory>

namespace halyx_test {

TestContext::TestContext(std::vector<HALYX::PluginRegistry::Factory> plugins, bool with_lister)
{
    std::unique_ptr<FakeLister> lister;
    if (with_lister) {
        lister = std::make_unique<FakeLister>();
        lister_ = lister.get();
    }
    context_ = new halyx_context(HALYX::ContextParts{std::move(lister), std::move(plugins)});
}

TestContext::~TestContext()
{
    if (context_ != nullptr) {
        if (lister_ != nullptr) {
            lister_->release();
        }
        // A test that left an enumeration running waits for it here.
        while (halyx_release_context(context_) == HALYX_ERR_TIMEOUT) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
}

bool TestContext::release()
{
    if (halyx_release_context(context_) != HALYX_SUCCESS) {
        return false;
    }
    context_ = nullptr;
    return true;
}

LastError lastError(halyx_context* context)
{
    uint32_t code = 0;
    char buffer[4096] = {};
    halyx_get_last_error(context, &code, buffer, sizeof buffer);
    return LastError{code, buffer};
}

LogCapture::LogCapture(halyx_context* context, uint32_t level) : context_(context)
{
    halyx_register_log_event(context, &LogCapture::callback, this);
    halyx_set_log_level(context, level);
}

LogCapture::~LogCapture()
{
    halyx_unregister_log_event(context_);
}

void LogCapture::callback(uint32_t level, const char* message, void* user_data)
{
    auto* self = static_cast<LogCapture*>(user_data);
    {
        std::lock_guard lock(self->mutex_);
        self->lines_.emplace_back(level, message);
    }
    self->arrived_.notify_all();
}

bool LogCapture::waitFor(const std::string& needle, std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, limit, [&] {
        return std::any_of(lines_.begin(), lines_.end(),
                           [&](const auto& line) { return line.second.find(needle) != std::string::npos; });
    });
}

size_t LogCapture::count(const std::string& needle) const
{
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(
        lines_.begin(), lines_.end(), [&](const auto& line) { return line.second.find(needle) != std::string::npos; }));
}

std::vector<std::pair<uint32_t, std::string>> LogCapture::lines() const
{
    std::lock_guard lock(mutex_);
    return lines_;
}

} // namespace halyx_test
