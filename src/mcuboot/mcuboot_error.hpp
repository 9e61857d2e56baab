#pragma once

#include <cstdint>
#include <string>

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

} // namespace HALYX::MCUBOOT
