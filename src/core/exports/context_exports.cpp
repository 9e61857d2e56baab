// Context lifecycle and configuration.
#include <memory>

#include <nlohmann/json.hpp>

#include "core/call_guard.hpp"
#include "core/context.hpp"
#include "core/json_fields.hpp"
#include "core/logging.hpp"

using HALYX::HALYXException;

extern "C" {

HALYX_API halyx_errorcode_t halyx_create_context(halyx_context** context)
{
    return HALYX::guardedCallWithoutContext([&] {
        HALYX::requireArgument(context, "halyx_create_context", "context");
        *context = std::make_unique<halyx_context>(HALYX::defaultContextParts()).release();
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
        HALYX::requireArgument(timeouts, "halyx_set_timeout", "timeouts");
        ctx.setTimeouts(*timeouts);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_get_current_timeout_configuration(halyx_context* context,
                                                                    halyx_timeout_configuration_t* timeouts)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(timeouts, "halyx_get_current_timeout_configuration", "timeouts");
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

HALYX_API halyx_errorcode_t halyx_start_eventhandler(halyx_context* context)
{
    return HALYX::guardedCall(context, [](halyx_context& ctx) {
        ctx.startEvents();
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_stop_eventhandler(halyx_context* context)
{
    return HALYX::guardedCall(context, [](halyx_context& ctx) {
        ctx.stopEvents();
        return HALYX_SUCCESS;
    });
}

namespace {

halyx_errorcode_t reportNames(halyx_context* context, halyx_json_callback_t callback, void* user_data,
                              std::vector<std::string> (HALYX::PluginRegistry::*names)() const, const char* function)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(callback, function, "callback");
        const auto text = HALYX::jsonText(nlohmann::json((ctx.plugins.*names)()));
        callback(user_data, text.c_str());
        return HALYX_SUCCESS;
    });
}

} // namespace

HALYX_API halyx_errorcode_t halyx_available_plugins(halyx_context* context, halyx_json_callback_t callback,
                                                    void* user_data)
{
    return reportNames(context, callback, user_data, &HALYX::PluginRegistry::names, "halyx_available_plugins");
}

HALYX_API halyx_errorcode_t halyx_available_traits(halyx_context* context, halyx_json_callback_t callback,
                                                   void* user_data)
{
    return reportNames(context, callback, user_data, &HALYX::PluginRegistry::traits, "halyx_available_traits");
}

} // extern "C"
