// Reading the last error.
#include <cstring>

#include "core/context.hpp"

extern "C" {

HALYX_API halyx_errorcode_t halyx_get_last_error(halyx_context* context, uint32_t* code, char* buffer,
                                                 size_t buffer_size)
{
    if (context == nullptr) {
        return HALYX_ERR_INVALID_ARGUMENT;
    }
    HALYX::LastError::Snapshot last;
    try {
        last = context->last_error.read();
    } catch (...) {
        return HALYX_ERR_GENERAL;
    }
    if (code != nullptr) {
        *code = static_cast<uint32_t>(last.code);
    }
    if (buffer == nullptr || buffer_size == 0) {
        return HALYX_SUCCESS;
    }
    // Bounded copy: a message that does not fit with its terminator leaves an
    // empty text rather than a truncated one.
    if (last.message.size() + 1 > buffer_size) {
        buffer[0] = '\0';
        return HALYX_SUCCESS;
    }
    std::memcpy(buffer, last.message.c_str(), last.message.size() + 1);
    return HALYX_SUCCESS;
}

} // extern "C"
