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
        if (b != kNewline) {
            line_.push_back(b);
            continue;
        }
        onLine(line_, out);
        line_.clear();
    }
    return out;
}

void LineDecoder::onLine(const std::vector<uint8_t>& line, std::vector<WirePacket>& out)
{
    if (line.size() < 2) {
        return;
    }
    const bool start = line[0] == 0x06 && line[1] == 0x09;
    const bool more = line[0] == 0x04 && line[1] == 0x14;
    if (!start && !more) {
        return; // console noise
    }
    ++stats_.frames;
    stats_.longestFrame = std::max(stats_.longestFrame, line.size() + 1);
    if (start) {
        text_.clear();
        in_packet_ = true;
        packet_longest_ = 0;
    } else if (!in_packet_) {
        ++stats_.malformed;
        return;
    }
    text_.append(line.begin() + 2, line.end());
    packet_longest_ = std::max(packet_longest_, line.size() + 1);
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
    WirePacket packet;
    packet.op = covered[0] & 0x07;
    packet.flags = covered[1];
    const size_t payload_length = (static_cast<size_t>(covered[2]) << 8) | covered[3];
    packet.group = static_cast<uint16_t>((covered[4] << 8) | covered[5]);
    packet.seq = covered[6];
    packet.id = covered[7];
    if (payload_length != covered.size() - 8) {
        ++stats_.malformed;
        return;
    }
    packet.payload.assign(covered.begin() + 8, covered.end());
    packet.textSize = text_.size();
    packet.longestLine = packet_longest_;
    out.push_back(std::move(packet));
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
