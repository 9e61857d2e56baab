#pragma once

#include <cstdint>
#include <string>

namespace HALYX::MCUBOOT {

// How the SMP transport opens its serial port.
struct SerialSettings {
    std::string port;
    uint32_t baudRate = 115200;
    uint32_t flowControl = 0;   // 0 none, 1 software, 2 hardware
    uint32_t parity = 0;        // 0 none, 1 odd, 2 even
    uint32_t stopBits = 0;      // 0 one, 1 one and a half, 2 two
    uint32_t characterSize = 8; // 5 to 8

    // Throws std::invalid_argument or std::out_of_range for a value outside
    // the ranges above.
    void validate() const;

    // "port: {}@{},flow_control:{},parity:{}"
    std::string toString() const;
};

} // namespace HALYX::MCUBOOT
