#pragma once

#include <exception>
#include <string_view>
#include <utility>

#include "core/halyx_exception.hpp"
#include "halyx.h"

namespace HALYX::detail {

// Log at error level and store as the context's last error (when there is one).
halyx_errorcode_t recordFailure(halyx_context* context, const HALYXException& e) noexcept;
halyx_errorcode_t recordFailure(halyx_context* context, const std::exception& e) noexcept;
halyx_errorcode_t missingContext() noexcept;

} // namespace HALYX::detail

namespace HALYX {

// Runs one export's body: no exception leaves it. A HALYXException becomes its
// code, any other standard exception code 1, anything else code 1 with
// nothing stored. A code the body returns without throwing is not stored.
// Without a context (the exports that have none) failures are only logged.
template <typename Body>
halyx_errorcode_t guarded(halyx_context* context, Body&& body) noexcept
{
    try {
        return std::forward<Body>(body)();
    } catch (const HALYXException& e) {
        return detail::recordFailure(context, e);
    } catch (const std::exception& e) {
        return detail::recordFailure(context, e);
    } catch (...) {
        return HALYX_ERR_GENERAL;
    }
}

// For the exports that take a context: the body gets it by reference.
template <typename Body>
halyx_errorcode_t guardedCall(halyx_context* context, Body&& body) noexcept
{
    if (context == nullptr) {
        return detail::missingContext();
    }
    return guarded(context, [&] { return std::forward<Body>(body)(*context); });
}

[[noreturn]] void missingArgument(std::string_view function, std::string_view name);

// Throws 50 "{function}: '{name}' cannot be NULL" for a missing argument.
template <typename T>
void requireArgument(T* pointer, std::string_view function, std::string_view name)
{
    if (pointer == nullptr) {
        missingArgument(function, name);
    }
}

template <typename Body>
halyx_errorcode_t guardedCallWithoutContext(Body&& body) noexcept
{
    return guarded(nullptr, std::forward<Body>(body));
}

} // namespace HALYX
