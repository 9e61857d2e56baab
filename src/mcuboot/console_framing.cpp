#include "mcuboot/console_framing.hpp"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <nettle/base64.h>

namespace HALYX::MCUBOOT::ConsoleFraming {

uint16_t crc16(std::span<const uint8_t> bytes, uint16_t crc)
{
    for (const uint8_t byte : bytes) {
        crc ^= static_cast<uint16_t>(byte << 8);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000) != 0 ? static_cast<uint16_t>((crc << 1) ^ 0x1021) : static_cast<uint16_t>(crc << 1);
        }
    }
    return crc;
}

std::string base64Encode(std::span<const uint8_t> bytes)
{
    std::string text(BASE64_ENCODE_RAW_LENGTH(bytes.size()), '\0');
    base64_encode_raw(reinterpret_cast<char*>(text.data()), bytes.size(), bytes.data());
    return text;
}

std::vector<uint8_t> packetBody(const SmpPacket& packet)
{
    if (packet.empty()) {
        throw SmpException("Can't encode empty Packet");
    }
    const auto covered = packet.headerAndPayload();
    const size_t length = covered.size() + 2;
    if (length > 0xFFFF) {
        throw SmpException(fmt::format("SMP packet of {} bytes does not fit the length field", length));
    }
    std::vector<uint8_t> body;
    body.reserve(length + 2);
    body.push_back(static_cast<uint8_t>(length >> 8));
    body.push_back(static_cast<uint8_t>(length & 0xFF));
    body.insert(body.end(), covered.begin(), covered.end());
    const uint16_t crc = crc16(covered);
    body.push_back(static_cast<uint8_t>(crc >> 8));
    body.push_back(static_cast<uint8_t>(crc & 0xFF));
    return body;
}

EncodedPacket encode(const SmpPacket& packet, size_t mtu)
{
    const auto text = base64Encode(packetBody(packet));
    if (mtu <= kFrameOverhead) {
        throw SmpException(fmt::format("Console frame can not be larger than {}, is {}", mtu, kFrameOverhead + 1));
    }
    // A device decodes each line on its own: every line but the last carries
    // whole groups of four characters, or the bits of a cut group are lost.
    const size_t piece = (mtu - kFrameOverhead) / 4 * 4;
    if (piece == 0) {
        throw SmpException(fmt::format("Console frame can not be larger than {}, is {}", mtu, kFrameOverhead + 4));
    }
    EncodedPacket encoded;
    encoded.size = text.size();
    for (size_t pos = 0; pos < text.size(); pos += piece) {
        const size_t count = std::min(piece, text.size() - pos);
        const uint8_t* marker = pos == 0 ? kStart : kContinue;
        std::vector<uint8_t> frame;
        frame.reserve(count + kFrameOverhead);
        frame.insert(frame.end(), marker, marker + 2);
        frame.insert(frame.end(), text.begin() + static_cast<std::ptrdiff_t>(pos),
                     text.begin() + static_cast<std::ptrdiff_t>(pos + count));
        frame.push_back(kTerminator);
        if (frame.size() > mtu) {
            throw SmpException(fmt::format("Console frame can not be larger than {}, is {}", mtu, frame.size()));
        }
        encoded.frames.push_back(std::move(frame));
    }
    return encoded;
}

int64_t maxFrameContentSize(uint32_t packet_limit, uint32_t line_limit)
{
    if (packet_limit == 0 || line_limit == 0) {
        return 0;
    }
    const int64_t p = packet_limit;
    const int64_t lines = (p + line_limit - 1) / line_limit;
    const auto content = static_cast<int64_t>(std::floor(static_cast<double>(p - lines * 3) * 0.75)) - 14;
    return std::max<int64_t>(content, 0);
}

} // namespace HALYX::MCUBOOT::ConsoleFraming
