// Context lifecycle and configuration.
#include <memory>

#include "core/call_guard.hpp"
#include "core/context.hpp"
#include "core/logging.hpp"

using HALYX::HALYXException;

extern "C" {

HALYX_API halyx_errorcode_t halyx_create_context(halyx_context** context)
{
    return HALYX::guardedCallWithoutContext([&] {
        if (context == nullptr) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "halyx_create_context: 'context' cannot be NULL");
        }
        *context = std::make_unique<halyx_context>().release();
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_release_context(halyx_context* context)
{
    return HALYX::guardedCall(context, [](halyx_context& ctx) {
        ctx.shutDown();
        delete &ctx;
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_set_configuration(halyx_context* context, const char* json)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        ctx.setConfiguration(HALYX::parseConfiguration(json));
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_set_timeout(halyx_context* context, const halyx_timeout_configuration_t* timeouts)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        if (timeouts == nullptr) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "halyx_set_timeout: 'timeouts' cannot be NULL");
        }
        ctx.setTimeouts(*timeouts);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_get_current_timeout_configuration(halyx_context* context,
                                                                    halyx_timeout_configuration_t* timeouts)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        if (timeouts == nullptr) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT,
                                 "halyx_get_current_timeout_configuration: 'timeouts' cannot be NULL");
        }
        *timeouts = ctx.timeouts();
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_register_shutdown_event(halyx_context* context, halyx_shutdown_callback_t callback)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        ctx.setShutdownCallback(callback);
        return HALYX_SUCCESS;
    });
}

} // extern "C"
