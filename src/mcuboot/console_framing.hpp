#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "mcuboot/smp_packet.hpp"

// The SMP console framing: a packet becomes length, header, payload and a
// CRC-16, base64-encoded and cut into lines that start with a two-byte marker.
namespace HALYX::MCUBOOT::ConsoleFraming {

constexpr uint8_t kStart[2] = {0x06, 0x09};
constexpr uint8_t kContinue[2] = {0x04, 0x14};
constexpr uint8_t kTerminator = 0x0A;
// Marker and terminator around each line's content.
constexpr size_t kFrameOverhead = 3;

// CRC-16/XMODEM: polynomial 0x1021, initial 0, not reflected, no final XOR.
uint16_t crc16(std::span<const uint8_t> bytes, uint16_t crc = 0);

// Standard alphabet with padding.
std::string base64Encode(std::span<const uint8_t> bytes);

// Big-endian length (header + payload + CRC), header, payload, CRC.
std::vector<uint8_t> packetBody(const SmpPacket& packet);

struct EncodedPacket {
    std::vector<std::vector<uint8_t>> frames;
    size_t size = 0; // the base64 text length
};

// Lines of at most mtu bytes, each but the last with a multiple of four
// base64 characters. Throws SmpException for an empty packet or an mtu too
// small for one group of four.
EncodedPacket encode(const SmpPacket& packet, size_t mtu);

// Bytes of packet content that fit in one packet of packet_limit base64
// characters cut into lines of at most line_limit bytes; 0 when either is 0.
int64_t maxFrameContentSize(uint32_t packet_limit, uint32_t line_limit);

} // namespace HALYX::MCUBOOT::ConsoleFraming
