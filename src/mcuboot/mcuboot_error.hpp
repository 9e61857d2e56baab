#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "halyx.h"

namespace HALYX::MCUBOOT {

// Result of every SMP step. The numbers are part of the messages users see,
// so they never change.
enum class McuBootError : uint32_t {
    Ok = 0,
    Unknown = 600,
    NoMem = 601,
    Invalid = 602,
    Timeout = 603,
    NoEntry = 604,
    BadState = 605,
    MsgSize = 606,
    NotSupported = 607,
    UartNotFound = 608,
    UartPermissionError = 609,
    UartWriteError = 610,
    UartReadError = 611,
    UartResourceError = 612,
    UartNotOpenError = 613,
    ModemInvalidCommand = 614,
    ModemFault = 615,
};

// The printable name; "Not able to map error to string" for any other value.
std::string toString(McuBootError error);

constexpr uint32_t toNumber(McuBootError error)
{
    return static_cast<uint32_t>(error);
}

// A failed SMP step, on its way from where it happened (transport, response
// check, client, plugin) to the one place that reports it. Each layer that
// knows more about what was being done says so with within(), which keeps
// the error and the innermost cause.
class McuBootFailure : public std::runtime_error {
public:
    // code: what the library reports instead of the code the error maps to,
    // when the cause knows better (an image reader's own code, say).
    McuBootFailure(McuBootError error, std::string message, std::optional<halyx_errorcode_t> code = std::nullopt,
                   std::string cause = {});

    McuBootError error() const { return error_; }
    const std::string& cause() const { return cause_; }
    std::optional<halyx_errorcode_t> code() const { return code_; }

    // The same failure described by the step it ended; what() becomes the
    // step, the earlier description the cause (unless one is already kept).
    McuBootFailure within(std::string step) const;

private:
    McuBootError error_;
    std::string cause_;
    std::optional<halyx_errorcode_t> code_;
};

} // namespace HALYX::MCUBOOT
