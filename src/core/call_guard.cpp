#include "core/call_guard.hpp"

#include <fmt/format.h>

#include "core/context.hpp"
#include "core/logging.hpp"

namespace HALYX::detail {

halyx_errorcode_t recordFailure(halyx_context* context, const HALYXException& e) noexcept
{
    Log::exception(spdlog::level::err, e);
    if (context != nullptr) {
        try {
            context->last_error.store(e.code(), e.what());
        } catch (...) {
            // Only exhausted memory gets here; the code still reaches the caller.
        }
    }
    return e.code();
}

halyx_errorcode_t recordFailure(halyx_context* context, const std::exception& e) noexcept
{
    Log::exception(spdlog::level::err, e);
    if (context != nullptr) {
        try {
            context->last_error.store(HALYX_ERR_GENERAL, e.what());
        } catch (...) {
        }
    }
    return HALYX_ERR_GENERAL;
}

halyx_errorcode_t missingContext() noexcept
{
    Log::error("{} HALYXException({}): {}", "", static_cast<uint32_t>(HALYX_ERR_INVALID_ARGUMENT),
               "context cannot be NULL");
    return HALYX_ERR_INVALID_ARGUMENT;
}

} // namespace HALYX::detail

namespace HALYX {

void missingArgument(std::string_view function, std::string_view name)
{
    throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, fmt::format("{}: '{}' cannot be NULL", function, name));
}

} // namespace HALYX
