#include "mcuboot/frame_receiver.hpp"

#include <algorithm>

#include <fmt/format.h>
#include <nettle/base64.h>

#include "core/byte_order.hpp"
#include "core/logging.hpp"
#include "mcuboot/console_framing.hpp"

namespace HALYX::MCUBOOT {
namespace {

using namespace ConsoleFraming;

constexpr uint8_t kCarriageReturn = 0x0D;

bool isMarkerAt(const std::vector<uint8_t>& bytes, size_t pos)
{
    if (pos + 1 >= bytes.size()) {
        return false;
    }
    return (bytes[pos] == kStart[0] && bytes[pos + 1] == kStart[1]) ||
           (bytes[pos] == kContinue[0] && bytes[pos + 1] == kContinue[1]);
}

bool mayStartMarker(uint8_t byte)
{
    return byte == kStart[0] || byte == kContinue[0];
}

std::vector<uint8_t> base64Decode(std::string_view text)
{
    base64_decode_ctx context;
    base64_decode_init(&context);
    std::vector<uint8_t> bytes(BASE64_DECODE_LENGTH(text.size()));
    size_t length = bytes.size();
    if (base64_decode_update(&context, &length, bytes.data(), text.size(), text.data()) == 0 ||
        base64_decode_final(&context) == 0) {
        throw SmpException(
            fmt::format("Padding error decoding base64 data, {} characters are not valid base64", text.size()));
    }
    bytes.resize(length);
    return bytes;
}

} // namespace

void FrameReceiver::clear()
{
    buffer_.clear();
    scanned_ = 0;
    frames_.clear();
    text_size_ = 0;
    expected_text_size_.reset();
}

bool FrameReceiver::alignToMarker()
{
    if (!buffer_.empty() && buffer_.front() == kCarriageReturn) {
        buffer_.erase(buffer_.begin());
        scanned_ = 0;
        Log::debug("Removing late carriage return");
    }
    if (buffer_.empty() || isMarkerAt(buffer_, 0)) {
        return !buffer_.empty();
    }
    if (buffer_.size() == 1 && mayStartMarker(buffer_.front())) {
        return false; // the rest of the marker is still on its way
    }
    // Drop everything before the next marker; a frame that follows noise in
    // the same read is not lost with it.
    size_t keep_from = buffer_.size();
    for (size_t pos = 1; pos < buffer_.size(); ++pos) {
        if (isMarkerAt(buffer_, pos)) {
            keep_from = pos;
            break;
        }
    }
    const char* const what = "StartOfPacket or ContinuationFrame not found, discarding data received on UART (if any)";
    if (keep_from == buffer_.size() && mayStartMarker(buffer_.back())) {
        Log::debug("{}. {} bytes discarded; retaining 1 byte", what, buffer_.size() - 1);
        buffer_.erase(buffer_.begin(), buffer_.end() - 1);
        scanned_ = 0;
        return false;
    }
    Log::debug("{}. {} bytes discarded", what, keep_from);
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(keep_from));
    scanned_ = 0;
    return !buffer_.empty();
}

std::vector<SmpPacket> FrameReceiver::feed(std::span<const uint8_t> bytes)
{
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    std::vector<SmpPacket> packets;
    while (alignToMarker()) {
        const auto from = buffer_.begin() + static_cast<std::ptrdiff_t>(std::max<size_t>(scanned_, 2));
        const auto end = std::find(from, buffer_.end(), kTerminator);
        if (end == buffer_.end()) {
            scanned_ = buffer_.size();
            if (buffer_.size() > kMaxLine) {
                Log::warn("Discarding {} bytes received without a line end", buffer_.size());
                buffer_.clear();
                scanned_ = 0;
            }
            break;
        }
        scanned_ = 0;
        Frame frame;
        frame.start = buffer_[0] == kStart[0];
        frame.content.assign(buffer_.begin() + 2, end);
        buffer_.erase(buffer_.begin(), end + 1);
        Log::trace("Frame type after decode: {}", frame.start ? "START" : "CONT");
        addFrame(std::move(frame), packets);
    }
    return packets;
}

void FrameReceiver::addFrame(Frame frame, std::vector<SmpPacket>& packets)
{
    if (frame.start && !frames_.empty()) {
        Log::debug("Start of frame found before previous frame was decoded. Clearing {} frames from the frame buffer.",
                   frames_.size());
        frames_.clear();
        text_size_ = 0;
        expected_text_size_.reset();
    }
    text_size_ += frame.content.size();
    frames_.push_back(std::move(frame));
    if (text_size_ > kMaxPacketText) {
        Log::warn("Discarding {} frames: more text than any packet has", frames_.size());
        frames_.clear();
        text_size_ = 0;
        expected_text_size_.reset();
        return;
    }
    try {
        auto packet = decodeFrames();
        if (packet.empty()) {
            return;
        }
        packets.push_back(std::move(packet));
    } catch (const std::exception& e) {
        Log::warn("Not able to decode packet, {}", e.what());
    }
    frames_.clear();
    text_size_ = 0;
    expected_text_size_.reset();
}

SmpPacket FrameReceiver::decodeFrames()
{
    if (frames_.empty()) {
        throw SmpException("No frames provided");
    }
    for (size_t i = 0; i < frames_.size(); ++i) {
        if (frames_[i].start != (i == 0)) {
            throw SmpException(fmt::format("Frame type is not of expected type. Wanted {}",
                                           i == 0 ? "Frame Start" : "Frame Continue"));
        }
    }
    // The length field in the first three decoded bytes says how much text
    // the packet takes, so a long packet is decoded once, not once per frame.
    if (!expected_text_size_) {
        std::string head;
        for (const auto& f : frames_) {
            head += f.content;
            if (head.size() >= 4) {
                break;
            }
        }
        if (head.size() < 4) {
            return {};
        }
        const auto prefix = base64Decode(std::string_view(head).substr(0, 4));
        if (prefix.size() < 2) {
            throw SmpException("Not enough data");
        }
        const size_t length = readBe16(prefix, 0);
        expected_text_size_ = (length + 2 + 2) / 3 * 4;
    }
    Log::trace("Attempting to decode frames vector with {} frames", frames_.size());
    if (text_size_ < *expected_text_size_) {
        return {};
    }
    std::string text;
    text.reserve(text_size_);
    for (const auto& f : frames_) {
        text += f.content;
    }
    const auto body = base64Decode(text);
    if (body.size() < 2) {
        throw SmpException("Not enough data");
    }
    const size_t length = readBe16(body, 0);
    if (body.size() < length + 2) {
        return {};
    }
    const auto header = MgmtHeader::decode(std::span(body).subspan(2));
    // What the length field leaves for the payload once header and CRC are off.
    const size_t available = length >= MgmtHeader::kSize + 2 ? length - MgmtHeader::kSize - 2 : 0;
    if (available < header.len) {
        throw SmpException("Size of remaining data does not match header length");
    }
    const auto payload_begin = body.begin() + 2 + MgmtHeader::kSize;
    return SmpPacket(header, std::vector<uint8_t>(payload_begin, payload_begin + header.len));
}

} // namespace HALYX::MCUBOOT
