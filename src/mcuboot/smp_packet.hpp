#pragma once

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "mcuboot/mgmt_header.hpp"

namespace HALYX::MCUBOOT {

// Thrown by SMP encoding and decoding; the operations turn it into "Unknown".
class SmpException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One SMP message: header and CBOR payload. A default-constructed packet is
// empty and cannot be encoded.
class SmpPacket {
public:
    SmpPacket() = default;
    SmpPacket(MgmtHeader header, std::vector<uint8_t> payload);

    // A request whose header len is the payload size.
    static SmpPacket request(MgmtOp op, uint8_t flags, MgmtGroupId group, uint8_t seq, uint8_t id,
                             std::vector<uint8_t> payload);

    bool empty() const { return empty_; }
    const MgmtHeader& header() const { return header_; }
    const std::vector<uint8_t>& payload() const { return payload_; }

    // Header then payload, the bytes the CRC covers.
    std::vector<uint8_t> headerAndPayload() const;

private:
    bool empty_ = true;
    MgmtHeader header_;
    std::vector<uint8_t> payload_;
};

} // namespace HALYX::MCUBOOT
