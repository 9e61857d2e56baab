// Log callback registration, level and pattern.
#include "core/call_guard.hpp"
#include "core/context.hpp"
#include "core/log_levels.hpp"
#include "core/logging.hpp"

using HALYX::HALYXException;

extern "C" {

HALYX_API halyx_errorcode_t halyx_register_log_event(halyx_context* context, halyx_log_callback_t callback,
                                                     void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(callback, "halyx_register_log_event", "callback");
        if (!ctx.registerLogCallback(callback, user_data)) {
            // Reported, not thrown: the first registration stays in place.
            const HALYXException refused(HALYX_ERR_LOGGER, "log event callback is already registered");
            HALYX::Log::exception(spdlog::level::warn, refused);
            ctx.last_error.store(refused.code(), refused.what());
            return refused.code();
        }
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_unregister_log_event(halyx_context* context)
{
    return HALYX::guardedCall(context, [](halyx_context& ctx) {
        ctx.unregisterLogCallback();
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_set_log_level(halyx_context* context, uint32_t level)
{
    return HALYX::guardedCall(context, [&](halyx_context&) {
        if (const auto converted = HALYX::toSpdlogLevel(level)) {
            if (auto logger = HALYX::Log::logger()) {
                logger->set_level(*converted);
            }
        }
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_set_log_pattern(halyx_context* context, const char* pattern)
{
    return HALYX::guardedCall(context, [&](halyx_context&) {
        HALYX::requireArgument(pattern, "halyx_set_log_pattern", "pattern");
        if (auto logger = HALYX::Log::logger()) {
            logger->set_pattern(pattern, spdlog::pattern_time_type::local);
        }
        if (auto sink = HALYX::Log::sink()) {
            sink->set_pattern(pattern);
        }
        return HALYX_SUCCESS;
    });
}

} // extern "C"
