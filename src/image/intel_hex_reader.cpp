#include "image/intel_hex_reader.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <istream>
#include <vector>

#include <fmt/format.h>

#include "image/intel_hex_record.hpp"

namespace HALYX {
namespace {

using namespace IntelHexRecord;

constexpr uint8_t kNotHex = 0xFF;
constexpr size_t kChunk = 1u << 20;
// A valid line has at most 521 characters; longer ones are cut in messages.
constexpr size_t kQuotedLineLimit = 600;

constexpr std::array<uint8_t, 256> makeNibbles()
{
    std::array<uint8_t, 256> table{};
    for (auto& entry : table) {
        entry = kNotHex;
    }
    for (int c = '0'; c <= '9'; ++c) {
        table[static_cast<size_t>(c)] = static_cast<uint8_t>(c - '0');
    }
    for (int c = 'a'; c <= 'f'; ++c) {
        table[static_cast<size_t>(c)] = static_cast<uint8_t>(c - 'a' + 10);
        table[static_cast<size_t>(c - 'a' + 'A')] = static_cast<uint8_t>(c - 'a' + 10);
    }
    return table;
}
constexpr auto kNibbles = makeNibbles();

inline uint8_t nibble(char c)
{
    return kNibbles[static_cast<unsigned char>(c)];
}

// Two characters already known to be hex digits.
inline uint8_t byteAt(const char* text)
{
    return static_cast<uint8_t>(nibble(text[0]) << 4 | nibble(text[1]));
}

bool isTrimmed(char c)
{
    return c == '\t' || c == '\r' || c == '\n';
}

std::string_view trim(std::string_view text)
{
    while (!text.empty() && isTrimmed(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isTrimmed(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::string quoted(std::string_view line)
{
    if (line.size() <= kQuotedLineLimit) {
        return std::string(line);
    }
    return std::string(line.substr(0, kQuotedLineLimit)) + "...";
}

BinaryImage sealed(BinaryImage image, const std::string& name)
{
    if (image.empty()) {
        throw BinaryImage::file_error(fmt::format("BinaryImage {} is empty.", name));
    }
    return image;
}

} // namespace

size_t IntelHexReader::byteOrderMark(std::span<const char> head) const
{
    auto startsWith = [&](std::initializer_list<uint8_t> mark) {
        if (head.size() < mark.size()) {
            return false;
        }
        return std::equal(mark.begin(), mark.end(), head.begin(),
                          [](uint8_t m, char c) { return m == static_cast<uint8_t>(c); });
    };
    if (startsWith({0xFE, 0xFF})) {
        throw BinaryImage::format_error(fmt::format("BinaryImage {} contains a UTF-16BE BOM.", name_));
    }
    if (startsWith({0xFF, 0xFE})) {
        throw BinaryImage::format_error(fmt::format("BinaryImage {} contains a UTF-16LE BOM.", name_));
    }
    return startsWith({0xEF, 0xBB, 0xBF}) ? 3 : 0;
}

void IntelHexReader::feed(std::span<const char> text)
{
    const char* at = text.data();
    const char* const end = text.data() + text.size();
    while (at < end) {
        const char* newline = static_cast<const char*>(std::memchr(at, '\n', static_cast<size_t>(end - at)));
        if (newline == nullptr) {
            carry_.append(at, end);
            return;
        }
        if (carry_.empty()) {
            line(std::string_view(at, static_cast<size_t>(newline - at)));
        } else {
            carry_.append(at, newline);
            line(carry_);
            carry_.clear();
        }
        at = newline + 1;
    }
}

void IntelHexReader::finish()
{
    if (!carry_.empty()) {
        line(carry_);
        carry_.clear();
    }
    if (!ended_) {
        throw BinaryImage::format_error(fmt::format("Unexpected end of file {}.", name_));
    }
    image_.setStartAddress(start_);
    image_.finalize();
}

void IntelHexReader::line(std::string_view text)
{
    ++lineNumber_;
    const std::string_view content = trim(text);
    // Only records count; tools put comments and banners on lines of their own.
    if (content.empty() || content.front() != ':') {
        return;
    }
    if (ended_) {
        throw BinaryImage::format_error(fmt::format("Found end of content before end of file in {}.", name_));
    }
    try {
        record(content);
    } catch (const BinaryImage::format_error& e) {
        throw BinaryImage::parse_error(fmt::format("Failed to parse line {} : \"{}\"", lineNumber_, quoted(content)),
                                       e.what());
    }
}

void IntelHexReader::record(std::string_view text)
{
    using format_error = BinaryImage::format_error;
    const std::string_view body = text.substr(1);
    for (char c : body) {
        if (nibble(c) == kNotHex) {
            throw format_error("Line does not end in valid hex.");
        }
    }
    if (body.size() < 2) {
        throw format_error("Could not parse hex file line length tag.");
    }
    const uint8_t count = byteAt(body.data());
    const size_t expected = size_t{count} * 2 + 11;
    if (text.size() != expected) {
        throw format_error(
            fmt::format("Line is not of the expected length. Expected {} characters, got {}.", expected, text.size()));
    }
    // The length check guarantees the address, type, data and checksum fields.
    const char* field = body.data() + 2;
    const uint8_t addressHigh = byteAt(field);
    const uint8_t addressLow = byteAt(field + 2);
    const uint8_t type = byteAt(field + 4);
    if (type > StartLinearAddress) {
        throw format_error(fmt::format("Invalid record type / linear address record tag {}.", type));
    }
    if (type == EndOfFile && count != 0) {
        throw format_error("Line is longer than expected for an EOF record.");
    }
    if (type == ExtendedSegmentAddress && count != 2) {
        throw format_error("Line is longer than expected for an extended segment address record.");
    }
    if (type == ExtendedLinearAddress && count != 2) {
        throw format_error("Line is longer than expected for a linear address record.");
    }

    const char* data = field + 6;
    uint32_t sum = count + addressHigh + addressLow + type;
    const uint32_t address = base_ + (uint32_t{addressHigh} << 8 | addressLow);
    if (type == Data) {
        if (uint64_t{address} + count > uint64_t{1} << 32) {
            throw format_error("Record runs past the end of the 32-bit address space.");
        }
        // Decoded straight into the image; a bad checksum below discards it all.
        uint8_t* target = image_.append(address, count);
        for (size_t i = 0; i < count; ++i) {
            target[i] = byteAt(data + 2 * i);
            sum += target[i];
        }
    } else {
        for (size_t i = 0; i < count; ++i) {
            sum += byteAt(data + 2 * i);
        }
    }
    const uint8_t checksum = byteAt(data + 2 * size_t{count});
    const uint8_t wanted = static_cast<uint8_t>(-sum);
    if (checksum != wanted) {
        throw format_error(
            fmt::format("Checksum for line is not correct. Expected 0x{:02X}, got 0x{:02X}.", wanted, checksum));
    }

    auto value = [&](size_t index) { return byteAt(data + 2 * index); };
    auto big32 = [&] {
        return uint32_t{value(0)} << 24 | uint32_t{value(1)} << 16 | uint32_t{value(2)} << 8 | value(3);
    };
    switch (type) {
    case EndOfFile:
        ended_ = true;
        break;
    case ExtendedSegmentAddress:
        base_ = (uint32_t{value(0)} << 8 | value(1)) << 4;
        break;
    case ExtendedLinearAddress:
        base_ = (uint32_t{value(0)} << 8 | value(1)) << 16;
        break;
    case StartSegmentAddress:
        // Records of another length carry no usable address and are ignored.
        if (count == 4) {
            start_ = BinaryImage::StartAddress{BinaryImage::StartAddress::Kind::Segmented, big32()};
        }
        break;
    case StartLinearAddress:
        if (count == 4) {
            start_ = BinaryImage::StartAddress{BinaryImage::StartAddress::Kind::Linear, big32()};
        }
        break;
    default:
        break;
    }
}

BinaryImage BinaryImage::fromHex(std::span<const uint8_t> text, const std::string& name)
{
    if (text.empty()) {
        throw file_error(fmt::format("BinaryImage {} is empty.", name));
    }
    BinaryImage image;
    image.reserve(text.size() / 2);
    IntelHexReader reader(name, image);
    const std::span<const char> chars(reinterpret_cast<const char*>(text.data()), text.size());
    reader.feed(chars.subspan(reader.byteOrderMark(chars)));
    reader.finish();
    return sealed(std::move(image), name);
}

BinaryImage BinaryImage::fromHex(std::istream& input, const std::string& name)
{
    BinaryImage image;
    // Every data byte takes two characters, so half the input bounds the
    // payload; untouched reserved pages cost no memory.
    const auto here = input.tellg();
    if (here != std::streampos(-1) && input.seekg(0, std::ios::end)) {
        const auto end = input.tellg();
        input.seekg(here);
        if (end != std::streampos(-1) && end > here) {
            image.reserve(static_cast<size_t>(end - here) / 2);
        }
    }
    input.clear();

    IntelHexReader reader(name, image);
    std::vector<char> buffer(kChunk);
    bool first = true;
    size_t total = 0;
    while (input) {
        input.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        const size_t got = static_cast<size_t>(input.gcount());
        if (got == 0) {
            break;
        }
        std::span<const char> piece(buffer.data(), got);
        if (first) {
            piece = piece.subspan(reader.byteOrderMark(piece));
            first = false;
        }
        total += got;
        reader.feed(piece);
    }
    if (input.bad()) {
        throw file_error(fmt::format("BinaryImage access error, could not read {}.", name));
    }
    if (total == 0) {
        throw file_error(fmt::format("BinaryImage {} is empty.", name));
    }
    reader.finish();
    return sealed(std::move(image), name);
}

BinaryImage BinaryImage::fromHexFile(const std::filesystem::path& path)
{
    auto input = openFile(path);
    return fromHex(input, path.string());
}

} // namespace HALYX
