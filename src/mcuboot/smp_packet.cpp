#include "mcuboot/smp_packet.hpp"

#include <algorithm>
#include <limits>

#include <fmt/format.h>

namespace HALYX::MCUBOOT {

SmpPacket::SmpPacket(MgmtHeader header, std::vector<uint8_t> payload)
    : empty_(false), header_(header), payload_(std::move(payload))
{
}

SmpPacket SmpPacket::request(MgmtOp op, uint8_t flags, MgmtGroupId group, uint8_t seq, uint8_t id,
                             std::vector<uint8_t> payload)
{
    if (payload.size() > std::numeric_limits<uint16_t>::max()) {
        throw SmpException(
            fmt::format("SMP payload of {} bytes does not fit the header's length field", payload.size()));
    }
    MgmtHeader header;
    header.op = static_cast<uint8_t>(op);
    header.flags = flags;
    header.len = static_cast<uint16_t>(payload.size());
    header.group = group;
    header.seq = seq;
    header.id = id;
    return SmpPacket(header, std::move(payload));
}

std::vector<uint8_t> SmpPacket::headerAndPayload() const
{
    const auto header = header_.encode();
    std::vector<uint8_t> bytes(header.size() + payload_.size());
    std::copy(header.begin(), header.end(), bytes.begin());
    std::copy(payload_.begin(), payload_.end(), bytes.begin() + static_cast<std::ptrdiff_t>(header.size()));
    return bytes;
}

} // namespace HALYX::MCUBOOT
