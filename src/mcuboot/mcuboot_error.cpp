#include "mcuboot/mcuboot_error.hpp"

namespace HALYX::MCUBOOT {

std::string toString(McuBootError error)
{
    switch (error) {
    case McuBootError::Ok: return "Ok";
    case McuBootError::Unknown: return "Unknown";
    case McuBootError::NoMem: return "NoMem";
    case McuBootError::Invalid: return "Invalid";
    case McuBootError::Timeout: return "Timeout";
    case McuBootError::NoEntry: return "NoEntry";
    case McuBootError::BadState: return "BadState";
    case McuBootError::MsgSize: return "MsgSize";
    case McuBootError::NotSupported: return "NotSupported";
    case McuBootError::UartNotFound: return "UartNotFound";
    case McuBootError::UartPermissionError: return "UartPermissionError";
    case McuBootError::UartWriteError: return "UartWriteError";
    case McuBootError::UartReadError: return "UartReadError";
    case McuBootError::UartResourceError: return "UartResourceError";
    case McuBootError::UartNotOpenError: return "UartNotOpenError";
    case McuBootError::ModemInvalidCommand: return "ModemInvalidCommand";
    case McuBootError::ModemFault: return "ModemFault";
    }
    return "Not able to map error to string";
}

} // namespace HALYX::MCUBOOT
