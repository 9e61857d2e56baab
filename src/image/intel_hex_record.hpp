#pragma once

#include <cstdint>

namespace HALYX::IntelHexRecord {

// Record types of Intel HEX lines.
enum Type : uint8_t {
    Data = 0,
    EndOfFile = 1,
    ExtendedSegmentAddress = 2, // base = value x 16
    StartSegmentAddress = 3,    // CS:IP
    ExtendedLinearAddress = 4,  // base = value x 65536
    StartLinearAddress = 5,     // 32-bit entry point
};

} // namespace HALYX::IntelHexRecord
