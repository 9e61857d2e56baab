#pragma once

// A client of the simulated boot loader written for these tests alone: its
// own base64, CRC and framing, so that neither the library's client nor the
// simulator's wire code can hide a mistake of the other.
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace smp_test {

uint16_t crc16(std::span<const uint8_t> bytes);
std::string base64(std::span<const uint8_t> bytes);

struct Request {
    uint8_t op = 2; // write
    uint16_t group = 0;
    uint8_t id = 0;
    uint8_t seq = 0;
    std::vector<uint8_t> payload;
    std::optional<uint16_t> headerLength; // the header's payload length, when it should lie
};

// The packet's base64 text: length, header, payload and CRC.
std::string packetText(const Request& request, bool break_crc = false);
// That text as console lines carrying at most per_line characters each.
std::string consoleLines(const std::string& text, size_t per_line);
std::string consoleLines(const Request& request, size_t per_line = 124);

// An image chunk as clients send it.
std::vector<uint8_t> chunk(uint32_t offset, std::span<const uint8_t> data, std::optional<uint32_t> length = {},
                           std::optional<uint32_t> image = {});
std::vector<uint8_t> pattern(size_t size, unsigned seed);

struct Answer {
    uint8_t op = 0;
    uint8_t flags = 0;
    uint16_t group = 0;
    uint8_t seq = 0;
    uint8_t id = 0;
    std::vector<uint8_t> payload;
    nlohmann::json map;
    std::vector<size_t> lineLengths; // newline included
};

// A raw terminal on the device's port.
class Console {
public:
    explicit Console(const std::string& port);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    void write(const std::string& bytes);
    // The next complete answer, or nothing within the time.
    std::optional<Answer> read(std::chrono::milliseconds timeout);
    // Sends one request in lines of per_line characters and waits for an answer.
    std::optional<Answer> exchange(const Request& request, size_t per_line = 124,
                                   std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
    // True once the terminal has gone away under the client.
    bool hangsUp(std::chrono::milliseconds timeout);

private:
    int fd_ = -1;
    std::string pending_;
    std::string text_;
    std::vector<size_t> lines_;
};

} // namespace smp_test
