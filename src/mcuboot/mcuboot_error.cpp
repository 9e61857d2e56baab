#include "mcuboot/mcuboot_error.hpp"

namespace HALYX::MCUBOOT {

std::string toString(McuBootError error)
{
    switch (error) {
    case McuBootError::Ok:
        return "Ok";
    case McuBootError::Unknown:
        return "Unknown";
    case McuBootError::NoMem:
        return "NoMem";
    case McuBootError::Invalid:
        return "Invalid";
    case McuBootError::Timeout:
        return "Timeout";
    case McuBootError::NoEntry:
        return "NoEntry";
    case McuBootError::BadState:
        return "BadState";
    case McuBootError::MsgSize:
        return "MsgSize";
    case McuBootError::NotSupported:
        return "NotSupported";
    case McuBootError::UartNotFound:
        return "UartNotFound";
    case McuBootError::UartPermissionError:
        return "UartPermissionError";
    case McuBootError::UartWriteError:
        return "UartWriteError";
    case McuBootError::UartReadError:
        return "UartReadError";
    case McuBootError::UartResourceError:
        return "UartResourceError";
    case McuBootError::UartNotOpenError:
        return "UartNotOpenError";
    case McuBootError::ModemInvalidCommand:
        return "ModemInvalidCommand";
    case McuBootError::ModemFault:
        return "ModemFault";
    }
    return "Not able to map error to string";
}

McuBootFailure::McuBootFailure(McuBootError error, std::string message, std::optional<halyx_errorcode_t> code,
                               std::string cause)
    : std::runtime_error(std::move(message)), error_(error), cause_(std::move(cause)), code_(code)
{
}

McuBootFailure McuBootFailure::within(std::string step) const
{
    return McuBootFailure(error_, std::move(step), code_, cause_.empty() ? std::string(what()) : cause_);
}

} // namespace HALYX::MCUBOOT
