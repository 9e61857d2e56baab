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
    size_t longestLine = 0; // its longest line as sent, marker and newline included
};

struct LineStats {
    size_t frames = 0;            // lines that carried a packet marker
    size_t crcErrors = 0;         // complete packets dropped for their CRC
    size_t malformed = 0;         // joined decoding: text or length that made no packet
    size_t longestFrame = 0;      // marker and newline included, as sent
    size_t longestPacket = 0;     // base64 characters of one packet
    size_t linesCut = 0;          // longer than the line limit: the rest and the newline were lost
    size_t decodeErrors = 0;      // lines whose text the decoder refused (character, padding, space)
    size_t droppedCharacters = 0; // characters of incomplete base64 groups that decoding skipped
    size_t overflows = 0;         // lines whose bytes did not fit the receive buffer
    size_t headerDrops = 0;       // complete packets dropped for their header (size, op, length)
    size_t noise = 0;             // lines without a marker
};

// How received lines become packets.
struct DecoderLimits {
    // The device's way: every line is base64-decoded on its own into one
    // buffer; lines are cut at lineMax bytes. Otherwise the text of a
    // packet's lines is joined and decoded once, with no limits here.
    bool perLine = false;
    size_t lineMax = 128;     // newline included
    size_t bufferSize = 1024; // decoded bytes (the device has one byte more)
};

// Cuts received bytes into lines and lines into packets. A packet whose CRC
// does not check out is dropped, as a device does. The default limits are
// the forgiving ones, for tests that play the device themselves.
class LineDecoder {
public:
    LineDecoder() = default;
    explicit LineDecoder(DecoderLimits limits) : limits_(limits) {}

    std::vector<WirePacket> feed(std::span<const uint8_t> bytes);
    const LineStats& stats() const { return stats_; }

private:
    void onLine(std::vector<WirePacket>& out);
    void onLineJoined(std::vector<WirePacket>& out);
    void onLinePerLine(std::vector<WirePacket>& out);

    DecoderLimits limits_;
    std::vector<uint8_t> line_;
    size_t line_length_ = 0; // as sent, including what was cut off
    // Joined decoding.
    std::string text_;
    bool in_packet_ = false;
    // Both: the packet being assembled.
    size_t packet_longest_ = 0;
    size_t packet_text_ = 0;
    // Per-line decoding: the device's receive buffer.
    std::vector<uint8_t> buffer_;
    LineStats stats_;
};

// The device's base64 decoder: a validity pass (alphabet, at most two '='
// and nothing after them, spaces only at the end, CR LF and LF skipped),
// a room check against the rounded-up length, then four characters at a
// time; one to three characters that do not complete a group are skipped.
struct LineDecoding {
    enum class Status {
        Ok,
        Invalid,
        NoRoom
    } status = Status::Ok;
    std::vector<uint8_t> bytes;
    size_t skippedCharacters = 0;
};
LineDecoding decodeLikeDevice(std::span<const uint8_t> text, size_t room);

uint16_t crcXmodem(std::span<const uint8_t> bytes);

// The response as console lines of at most line_max bytes each.
std::vector<uint8_t> encodeLines(const WirePacket& packet, size_t line_max, bool break_crc = false);

} // namespace HALYX::SIM
