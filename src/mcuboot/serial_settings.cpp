#include "mcuboot/serial_settings.hpp"

#include <stdexcept>

#include <fmt/format.h>

namespace HALYX::MCUBOOT {

void SerialSettings::validate() const
{
    if (flowControl > 2) {
        throw std::invalid_argument("Invalid flowControl argument");
    }
    if (parity > 2) {
        throw std::invalid_argument("Invalid parity argument");
    }
    if (stopBits > 2) {
        // The placeholder stays unfilled: this text is matched as it stands.
        throw std::invalid_argument("Invalid stopBits argument {}");
    }
    if (characterSize < 5 || characterSize > 8) {
        throw std::out_of_range("invalid character_size value");
    }
}

std::string SerialSettings::toString() const
{
    return fmt::format("port: {}@{},flow_control:{},parity:{}", port, baudRate, flowControl, parity);
}

} // namespace HALYX::MCUBOOT
