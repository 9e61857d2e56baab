#include "console.hpp"

#include <cerrno>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace smp_test {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::optional<std::vector<uint8_t>> unbase64(const std::string& text)
{
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<uint8_t> out;
    for (size_t i = 0; i < text.size(); i += 4) {
        uint32_t bits = 0;
        int pads = 0;
        for (size_t k = 0; k < 4; ++k) {
            const char c = text[i + k];
            uint32_t value = 0;
            if (c == '=') {
                ++pads;
            } else {
                const char* at = std::char_traits<char>::find(kAlphabet, 64, c);
                if (at == nullptr || pads != 0) {
                    return std::nullopt;
                }
                value = static_cast<uint32_t>(at - kAlphabet);
            }
            bits = (bits << 6) | value;
        }
        out.push_back(static_cast<uint8_t>(bits >> 16));
        if (pads < 2) {
            out.push_back(static_cast<uint8_t>(bits >> 8));
        }
        if (pads < 1) {
            out.push_back(static_cast<uint8_t>(bits));
        }
    }
    return out;
}

} // namespace

uint16_t crc16(std::span<const uint8_t> bytes)
{
    uint16_t crc = 0;
    for (const uint8_t byte : bytes) {
        crc ^= static_cast<uint16_t>(byte << 8);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000) != 0 ? static_cast<uint16_t>((crc << 1) ^ 0x1021) : static_cast<uint16_t>(crc << 1);
        }
    }
    return crc;
}

std::string base64(std::span<const uint8_t> bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = std::min<size_t>(3, bytes.size() - i);
        uint32_t bits = static_cast<uint32_t>(bytes[i]) << 16;
        if (n > 1) {
            bits |= static_cast<uint32_t>(bytes[i + 1]) << 8;
        }
        if (n > 2) {
            bits |= bytes[i + 2];
        }
        for (size_t k = 0; k < 4; ++k) {
            text += k <= n ? kAlphabet[(bits >> (18 - 6 * k)) & 0x3F] : '=';
        }
    }
    return text;
}

std::string packetText(const Request& r, bool break_crc)
{
    const uint16_t header_length = r.headerLength.value_or(static_cast<uint16_t>(r.payload.size()));
    std::vector<uint8_t> covered{r.op,
                                 0,
                                 static_cast<uint8_t>(header_length >> 8),
                                 static_cast<uint8_t>(header_length),
                                 static_cast<uint8_t>(r.group >> 8),
                                 static_cast<uint8_t>(r.group),
                                 r.seq,
                                 r.id};
    covered.insert(covered.end(), r.payload.begin(), r.payload.end());
    const uint16_t crc = static_cast<uint16_t>(crc16(covered) ^ (break_crc ? 0x0101 : 0));
    const size_t length = covered.size() + 2;
    std::vector<uint8_t> body{static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
    body.insert(body.end(), covered.begin(), covered.end());
    body.push_back(static_cast<uint8_t>(crc >> 8));
    body.push_back(static_cast<uint8_t>(crc));
    return base64(body);
}

std::string consoleLines(const std::string& text, size_t per_line)
{
    std::string wire;
    for (size_t pos = 0; pos < text.size(); pos += per_line) {
        wire += pos == 0 ? "\x06\x09" : "\x04\x14";
        wire += text.substr(pos, per_line);
        wire += '\n';
    }
    return wire;
}

std::string consoleLines(const Request& request, size_t per_line)
{
    return consoleLines(packetText(request), per_line);
}

std::vector<uint8_t> chunk(uint32_t offset, std::span<const uint8_t> data, std::optional<uint32_t> length,
                           std::optional<uint32_t> image)
{
    nlohmann::ordered_json map;
    if (image) {
        map["image"] = *image;
    }
    map["data"] = nlohmann::json::binary_t(std::vector<uint8_t>(data.begin(), data.end()));
    if (length) {
        map["len"] = *length;
    }
    map["off"] = offset;
    return nlohmann::ordered_json::to_cbor(map);
}

std::vector<uint8_t> pattern(size_t size, unsigned seed)
{
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed;
    for (auto& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

Console::Console(const std::string& port)
{
    fd_ = ::open(port.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ >= 0) {
        termios settings{};
        ::tcgetattr(fd_, &settings);
        ::cfmakeraw(&settings);
        ::tcsetattr(fd_, TCSANOW, &settings);
    }
}

Console::~Console()
{
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void Console::write(const std::string& bytes)
{
    size_t done = 0;
    while (fd_ >= 0 && done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd fd{fd_, POLLOUT, 0};
            ::poll(&fd, 1, 100); // the device is busy and the line is full
        } else {
            throw std::runtime_error("the terminal refused the request");
        }
    }
}

std::optional<Answer> Console::read(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        for (size_t end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n')) {
            const std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            if (line.starts_with("\x06\x09")) {
                text_ = line.substr(2);
                lines_ = {line.size() + 1};
            } else if (line.starts_with("\x04\x14")) {
                text_ += line.substr(2);
                lines_.push_back(line.size() + 1);
            } else {
                continue;
            }
            const auto body = unbase64(text_);
            if (!body || body->size() < 2) {
                continue;
            }
            const size_t length = (static_cast<size_t>((*body)[0]) << 8) | (*body)[1];
            if (body->size() != length + 2 || length < 10) {
                continue;
            }
            const std::span<const uint8_t> covered(body->data() + 2, length);
            if (crc16(covered) != 0) {
                continue; // a broken answer is no answer
            }
            Answer answer;
            answer.op = covered[0];
            answer.flags = covered[1];
            answer.group = static_cast<uint16_t>((covered[4] << 8) | covered[5]);
            answer.seq = covered[6];
            answer.id = covered[7];
            answer.payload.assign(covered.begin() + 8, covered.end() - 2);
            answer.map = nlohmann::json::from_cbor(answer.payload);
            answer.lineLengths = lines_;
            text_.clear();
            return answer;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (fd_ < 0 || left.count() <= 0) {
            return std::nullopt;
        }
        pollfd fd{fd_, POLLIN, 0};
        if (::poll(&fd, 1, static_cast<int>(std::min<int64_t>(left.count(), 50))) == 1) {
            char buffer[4096];
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n > 0) {
                pending_.append(buffer, static_cast<size_t>(n));
            } else if (n < 0 && errno != EAGAIN) {
                return std::nullopt; // gone
            }
        }
    }
}

std::optional<Answer> Console::exchange(const Request& request, size_t per_line, std::chrono::milliseconds timeout)
{
    write(consoleLines(request, per_line));
    return read(timeout);
}

bool Console::hangsUp(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd fd{fd_, POLLIN, 0};
        if (::poll(&fd, 1, 20) == 1) {
            if ((fd.revents & (POLLHUP | POLLERR)) != 0) {
                return true;
            }
            char buffer[256];
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n == 0 || (n < 0 && errno == EIO)) {
                return true;
            }
        }
    }
    return false;
}

} // namespace smp_test
