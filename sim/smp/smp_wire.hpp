#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

// The device side of SMP over a console line, written separately from the
// library's client so that the two cannot share a mistake.
namespace HALYX::SIM {

struct WirePacket {
    uint8_t op = 0;
    uint8_t flags = 0;
    uint16_t group = 0;
    uint8_t seq = 0;
    uint8_t id = 0;
    std::vector<uint8_t> payload;
    size_t textSize = 0;    // base64 characters it took on the line
    size_t longestLine = 0; // its longest line, marker and newline included
};

struct LineStats {
    size_t frames = 0;
    size_t crcErrors = 0;
    size_t malformed = 0;
    size_t longestFrame = 0;   // marker and newline included
    size_t longestPacket = 0;  // base64 characters of one packet
};

// Cuts received bytes into lines and lines into packets. A packet whose CRC
// does not check out is dropped, as a device does.
class LineDecoder {
public:
    std::vector<WirePacket> feed(std::span<const uint8_t> bytes);
    const LineStats& stats() const { return stats_; }

private:
    void onLine(const std::vector<uint8_t>& line, std::vector<WirePacket>& out);

    std::vector<uint8_t> line_;
    std::string text_;
    bool in_packet_ = false;
    size_t packet_longest_ = 0;
    LineStats stats_;
};

uint16_t crcXmodem(std::span<const uint8_t> bytes);

// The response as console lines of at most line_max bytes each.
std::vector<uint8_t> encodeLines(const WirePacket& packet, size_t line_max, bool break_crc = false);

} // namespace HALYX::SIM
