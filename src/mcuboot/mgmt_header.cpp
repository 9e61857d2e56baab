#include "mcuboot/mgmt_header.hpp"

#include <stdexcept>

#include <fmt/format.h>

namespace HALYX::MCUBOOT {
namespace {

// Big-endian reads over a byte range that say how short it fell.
class BigEndianReader {
public:
    explicit BigEndianReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    uint8_t u8()
    {
        require(1);
        return bytes_[pos_++];
    }

    uint16_t u16()
    {
        require(2);
        const auto value = static_cast<uint16_t>((bytes_[pos_] << 8) | bytes_[pos_ + 1]);
        pos_ += 2;
        return value;
    }

private:
    void require(size_t count) const
    {
        if (bytes_.size() - pos_ < count) {
            throw std::invalid_argument(
                fmt::format("provided {} bytes, require {} bytes", bytes_.size() - pos_, count));
        }
    }

    std::span<const uint8_t> bytes_;
    size_t pos_ = 0;
};

} // namespace

std::array<uint8_t, MgmtHeader::kSize> MgmtHeader::encode() const
{
    return {static_cast<uint8_t>(op & 0x07),
            flags,
            static_cast<uint8_t>(len >> 8),
            static_cast<uint8_t>(len & 0xFF),
            static_cast<uint8_t>(group >> 8),
            static_cast<uint8_t>(group & 0xFF),
            seq,
            id};
}

MgmtHeader MgmtHeader::decode(std::span<const uint8_t> bytes)
{
    if (bytes.size() < kSize) {
        throw std::invalid_argument(fmt::format("MgmtHeader size must be {} bytes, is {} bytes", kSize, bytes.size()));
    }
    BigEndianReader reader(bytes.first(kSize));
    MgmtHeader header;
    header.op = reader.u8() & 0x07;
    header.flags = reader.u8();
    header.len = reader.u16();
    header.group = reader.u16();
    header.seq = reader.u8();
    header.id = reader.u8();
    return header;
}

std::string MgmtHeader::toString() const
{
    return fmt::format("op:{} flags:{} len:{}, group:{}, seq:{}, id: {}", op, flags, len, group, seq, id);
}

} // namespace HALYX::MCUBOOT
