#include "smp_wire.hpp"

#include <algorithm>
#include <array>

#include <nettle/base64.h>

namespace HALYX::SIM {
namespace {

constexpr uint8_t kNewline = 0x0A;

const std::array<uint16_t, 256>& crcTable()
{
    static const auto table = [] {
        std::array<uint16_t, 256> t{};
        for (unsigned i = 0; i < 256; ++i) {
            uint16_t value = static_cast<uint16_t>(i << 8);
            for (int bit = 0; bit < 8; ++bit) {
                value = static_cast<uint16_t>((value & 0x8000) ? (value << 1) ^ 0x1021 : value << 1);
            }
            t[i] = value;
        }
        return t;
    }();
    return table;
}

std::optional<std::vector<uint8_t>> decodeBase64(const std::string& text)
{
    base64_decode_ctx ctx;
    base64_decode_init(&ctx);
    std::vector<uint8_t> out(BASE64_DECODE_LENGTH(text.size()));
    size_t length = out.size();
    if (!base64_decode_update(&ctx, &length, out.data(), text.size(), text.data()) || !base64_decode_final(&ctx)) {
        return std::nullopt;
    }
    out.resize(length);
    return out;
}

// The value of a base64 character, 64 for '=', kNotBase64 for anything else.
constexpr uint8_t kNotBase64 = 0xFF;
uint8_t sextet(uint8_t c)
{
    if (c >= 'A' && c <= 'Z') {
        return static_cast<uint8_t>(c - 'A');
    }
    if (c >= 'a' && c <= 'z') {
        return static_cast<uint8_t>(c - 'a' + 26);
    }
    if (c >= '0' && c <= '9') {
        return static_cast<uint8_t>(c - '0' + 52);
    }
    switch (c) {
    case '+':
        return 62;
    case '/':
        return 63;
    case '=':
        return 64;
    default:
        return kNotBase64;
    }
}

} // namespace

uint16_t crcXmodem(std::span<const uint8_t> bytes)
{
    uint16_t crc = 0;
    for (const uint8_t b : bytes) {
        crc = static_cast<uint16_t>((crc << 8) ^ crcTable()[((crc >> 8) ^ b) & 0xFF]);
    }
    return crc;
}

std::vector<WirePacket> LineDecoder::feed(std::span<const uint8_t> bytes)
{
    std::vector<WirePacket> out;
    for (const uint8_t b : bytes) {
        ++line_length_;
        // The device keeps the first lineMax bytes of a line; the rest, its
        // newline too, never reaches the buffer.
        if (!limits_.perLine || line_.size() < limits_.lineMax) {
            line_.push_back(b);
        }
        if (b == kNewline) {
            onLine(out);
            line_.clear();
            line_length_ = 0;
        }
    }
    return out;
}

void LineDecoder::onLine(std::vector<WirePacket>& out)
{
    if (limits_.perLine) {
        if (line_length_ > limits_.lineMax) {
            ++stats_.linesCut;
        }
        onLinePerLine(out);
    } else {
        onLineJoined(out);
    }
}

void LineDecoder::onLineJoined(std::vector<WirePacket>& out)
{
    const size_t size = line_.size() - 1; // without the newline
    if (size < 2) {
        ++stats_.noise;
        return;
    }
    const bool start = line_[0] == 0x06 && line_[1] == 0x09;
    const bool more = line_[0] == 0x04 && line_[1] == 0x14;
    if (!start && !more) {
        ++stats_.noise; // console output
        return;
    }
    ++stats_.frames;
    stats_.longestFrame = std::max(stats_.longestFrame, line_length_);
    if (start) {
        text_.clear();
        in_packet_ = true;
        packet_longest_ = 0;
    } else if (!in_packet_) {
        ++stats_.malformed;
        return;
    }
    text_.append(line_.begin() + 2, line_.begin() + static_cast<std::ptrdiff_t>(size));
    packet_longest_ = std::max(packet_longest_, line_length_);
    // The length field in the first four characters tells when the packet
    // is complete, so a long packet is decoded once.
    if (text_.size() < 4) {
        return;
    }
    const auto head = decodeBase64(text_.substr(0, 4));
    if (!head || head->size() < 2) {
        ++stats_.malformed;
        in_packet_ = false;
        return;
    }
    const size_t expected = (((static_cast<size_t>((*head)[0]) << 8) | (*head)[1]) + 2 + 2) / 3 * 4;
    if (text_.size() < expected) {
        return;
    }
    const auto body = decodeBase64(text_);
    if (!body) {
        ++stats_.malformed;
        in_packet_ = false;
        return;
    }
    const size_t length = (static_cast<size_t>((*body)[0]) << 8) | (*body)[1];
    stats_.longestPacket = std::max(stats_.longestPacket, text_.size());
    in_packet_ = false;
    if (length < 10 || body->size() != length + 2) {
        ++stats_.malformed;
        return;
    }
    const std::span<const uint8_t> covered(body->data() + 2, length - 2);
    const uint16_t crc = static_cast<uint16_t>(((*body)[length] << 8) | (*body)[length + 1]);
    if (crcXmodem(covered) != crc) {
        ++stats_.crcErrors;
        return;
    }
    const size_t payload_length = (static_cast<size_t>(covered[2]) << 8) | covered[3];
    if (payload_length != covered.size() - 8) {
        ++stats_.malformed;
        return;
    }
    WirePacket packet;
    packet.op = covered[0] & 0x07;
    packet.flags = covered[1];
    packet.group = static_cast<uint16_t>((covered[4] << 8) | covered[5]);
    packet.seq = covered[6];
    packet.id = covered[7];
    packet.payload.assign(covered.begin() + 8, covered.end());
    packet.textSize = text_.size();
    packet.longestLine = packet_longest_;
    out.push_back(std::move(packet));
}

void LineDecoder::onLinePerLine(std::vector<WirePacket>& out)
{
    const bool start = line_.size() >= 2 && line_[0] == 0x06 && line_[1] == 0x09;
    const bool more = line_.size() >= 2 && line_[0] == 0x04 && line_[1] == 0x14;
    if (!start && !more) {
        ++stats_.noise;
        return;
    }
    ++stats_.frames;
    stats_.longestFrame = std::max(stats_.longestFrame, line_length_);
    if (start) {
        buffer_.clear();
        packet_longest_ = 0;
        packet_text_ = 0;
    }
    // What the device decodes is the stored line less its marker and its
    // last byte: the newline, or on a cut line its last character.
    const size_t text_size = line_.size() > 3 ? line_.size() - 3 : 0;
    const std::span<const uint8_t> text(line_.data() + 2, text_size);
    packet_longest_ = std::max(packet_longest_, line_length_);
    packet_text_ += text_size;
    auto decoded = decodeLikeDevice(text, limits_.bufferSize + 1 - buffer_.size());
    if (decoded.status == LineDecoding::Status::Invalid) {
        ++stats_.decodeErrors;
        return;
    }
    if (decoded.status == LineDecoding::Status::NoRoom) {
        ++stats_.overflows;
        return;
    }
    stats_.droppedCharacters += decoded.skippedCharacters;
    buffer_.insert(buffer_.end(), decoded.bytes.begin(), decoded.bytes.end());
    if (buffer_.size() <= 2) {
        return;
    }
    const size_t length = (static_cast<size_t>(buffer_[0]) << 8) | buffer_[1];
    if (length != buffer_.size() - 2) {
        return; // more to come, or more than announced: only a new start helps
    }
    if (length <= 2 || crcXmodem(std::span<const uint8_t>(buffer_).subspan(2)) != 0) {
        ++stats_.crcErrors;
        return;
    }
    // The device steps back over the CRC: a continuation line after this
    // packet is appended where the CRC was.
    buffer_.resize(buffer_.size() - 2);
    stats_.longestPacket = std::max(stats_.longestPacket, packet_text_);
    const std::span<const uint8_t> body = std::span<const uint8_t>(buffer_).subspan(2);
    if (body.size() < 8 || (body[0] != 0 && body[0] != 2) ||
        ((static_cast<size_t>(body[2]) << 8) | body[3]) < body.size() - 8) {
        ++stats_.headerDrops;
        return;
    }
    WirePacket packet;
    packet.op = body[0];
    packet.flags = body[1];
    packet.group = static_cast<uint16_t>((body[4] << 8) | body[5]);
    packet.seq = body[6];
    packet.id = body[7];
    packet.payload.assign(body.begin() + 8, body.end());
    packet.textSize = packet_text_;
    packet.longestLine = packet_longest_;
    out.push_back(std::move(packet));
}

LineDecoding decodeLikeDevice(std::span<const uint8_t> text, size_t room)
{
    LineDecoding result;
    const size_t n = text.size();
    size_t symbols = 0;
    size_t pads = 0;
    size_t i = 0;
    for (; i < n; ++i) {
        size_t spaces = 0;
        while (i < n && text[i] == ' ') {
            ++i;
            ++spaces;
        }
        if (i == n) {
            break; // trailing spaces are fine
        }
        if (n - i >= 2 && text[i] == '\r' && text[i + 1] == kNewline) {
            continue;
        }
        if (text[i] == kNewline) {
            continue;
        }
        if (spaces != 0 || (text[i] == '=' && ++pads > 2)) {
            result.status = LineDecoding::Status::Invalid;
            return result;
        }
        const uint8_t value = sextet(text[i]);
        if (value == kNotBase64 || (value < 64 && pads != 0)) {
            result.status = LineDecoding::Status::Invalid;
            return result;
        }
        ++symbols;
    }
    if (symbols == 0) {
        return result;
    }
    // The room check uses the rounded-up length, before the padding is taken off.
    const size_t needed = 6 * (symbols >> 3) + ((6 * (symbols & 7) + 7) >> 3) - pads;
    if (room < needed) {
        result.status = LineDecoding::Status::NoRoom;
        return result;
    }
    unsigned keep = 3;
    unsigned count = 0;
    uint32_t bits = 0;
    for (size_t k = 0; k < i; ++k) {
        const uint8_t c = text[k];
        if (c == '\r' || c == kNewline || c == ' ') {
            continue;
        }
        const uint8_t value = sextet(c);
        keep -= value == 64 ? 1 : 0;
        bits = (bits << 6) | (value & 0x3F);
        if (++count == 4) {
            count = 0;
            if (keep > 0) {
                result.bytes.push_back(static_cast<uint8_t>(bits >> 16));
            }
            if (keep > 1) {
                result.bytes.push_back(static_cast<uint8_t>(bits >> 8));
            }
            if (keep > 2) {
                result.bytes.push_back(static_cast<uint8_t>(bits));
            }
        }
    }
    result.skippedCharacters = count;
    return result;
}

std::vector<uint8_t> encodeLines(const WirePacket& packet, size_t line_max, bool break_crc)
{
    std::vector<uint8_t> body;
    const size_t length = 8 + packet.payload.size() + 2;
    body.push_back(static_cast<uint8_t>(length >> 8));
    body.push_back(static_cast<uint8_t>(length));
    body.push_back(packet.op);
    body.push_back(packet.flags);
    body.push_back(static_cast<uint8_t>(packet.payload.size() >> 8));
    body.push_back(static_cast<uint8_t>(packet.payload.size()));
    body.push_back(static_cast<uint8_t>(packet.group >> 8));
    body.push_back(static_cast<uint8_t>(packet.group));
    body.push_back(packet.seq);
    body.push_back(packet.id);
    body.insert(body.end(), packet.payload.begin(), packet.payload.end());
    uint16_t crc = crcXmodem(std::span<const uint8_t>(body).subspan(2));
    if (break_crc) {
        crc ^= 0x5A5A;
    }
    body.push_back(static_cast<uint8_t>(crc >> 8));
    body.push_back(static_cast<uint8_t>(crc));

    std::string text(BASE64_ENCODE_RAW_LENGTH(body.size()), '\0');
    base64_encode_raw(text.data(), body.size(), body.data());
    std::vector<uint8_t> wire;
    const size_t per_line = line_max - 3;
    for (size_t pos = 0; pos < text.size(); pos += per_line) {
        if (pos == 0) {
            wire.insert(wire.end(), {0x06, 0x09});
        } else {
            wire.insert(wire.end(), {0x04, 0x14});
        }
        const size_t n = std::min(per_line, text.size() - pos);
        wire.insert(wire.end(), text.begin() + static_cast<std::ptrdiff_t>(pos),
                    text.begin() + static_cast<std::ptrdiff_t>(pos + n));
        wire.push_back(kNewline);
    }
    return wire;
}

} // namespace HALYX::SIM
