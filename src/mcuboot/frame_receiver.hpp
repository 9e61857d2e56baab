#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "mcuboot/smp_packet.hpp"

namespace HALYX::MCUBOOT {

// Turns the bytes read from a serial line into SMP packets: cuts console
// frames out of the raw bytes, collects the frames of one packet and decodes
// it once its last frame is in. Noise between frames is dropped. The CRC is
// deliberately not checked: devices in the field send packets whose CRC is
// computed over a different range, and the header and CBOR are checked anyway.
// Memory is bounded whatever the device sends: a line longer than kMaxLine
// and a packet longer than its length field allows are dropped.
// Not thread-safe; the owner serialises calls.
class FrameReceiver {
public:
    // No console line of a device comes near this.
    static constexpr size_t kMaxLine = 8192;
    // The base64 text of the largest packet the 16-bit length field allows.
    static constexpr size_t kMaxPacketText = (0xFFFF + 2 + 2) / 3 * 4;

    // Appends bytes and returns every packet they complete, in order.
    std::vector<SmpPacket> feed(std::span<const uint8_t> bytes);

    // Frames whose packet is not complete yet.
    size_t pendingFrames() const { return frames_.size(); }
    size_t bufferedBytes() const { return buffer_.size(); }

    void clear();

private:
    struct Frame {
        bool start = false;
        std::string content;
    };

    // Drops leading noise; false when no frame can start in what is left.
    bool alignToMarker();
    void addFrame(Frame frame, std::vector<SmpPacket>& packets);
    // An empty packet while more frames are needed; throws SmpException for
    // frames that can never make a packet.
    SmpPacket decodeFrames();

    std::vector<uint8_t> buffer_;
    size_t scanned_ = 0; // bytes of buffer_ known to hold no terminator
    std::vector<Frame> frames_;
    size_t text_size_ = 0;
    std::optional<size_t> expected_text_size_;
};

} // namespace HALYX::MCUBOOT
