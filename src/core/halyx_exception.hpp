#pragma once

#include <exception>
#include <string>

#include "halyx.h"

namespace HALYX {

// The one exception type that carries a library error code; the exported
// boundary turns it into the return value and the context's last error.
class HALYXException : public std::exception {
public:
    HALYXException(halyx_errorcode_t code, std::string message) : message_(std::move(message)), code_(code) {}

    const char* what() const noexcept override { return message_.c_str(); }
    halyx_errorcode_t code() const noexcept { return code_; }

private:
    std::string message_;
    halyx_errorcode_t code_;
};

} // namespace HALYX
