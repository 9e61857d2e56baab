#include "image/intel_hex_writer.hpp"

#include <algorithm>
#include <array>
#include <ostream>

#include "image/binary_image.hpp"
#include "image/intel_hex_record.hpp"

namespace HALYX {
namespace {

using namespace IntelHexRecord;

constexpr size_t kRecordBytes = 16;
constexpr size_t kFlushAt = 64 * 1024;
constexpr char kDigits[] = "0123456789ABCDEF";

} // namespace

void IntelHexWriter::record(uint8_t type, uint16_t address, const uint8_t* data, size_t size)
{
    // ':' + count + address + type + data + checksum + "\r\n"
    std::array<char, 1 + 8 + 2 * 255 + 2 + 2> line;
    char* out = line.data();
    uint8_t sum = 0;
    auto put = [&](uint8_t byte) {
        *out++ = kDigits[byte >> 4];
        *out++ = kDigits[byte & 0x0F];
        sum = static_cast<uint8_t>(sum + byte);
    };
    *out++ = ':';
    put(static_cast<uint8_t>(size));
    put(static_cast<uint8_t>(address >> 8));
    put(static_cast<uint8_t>(address));
    put(type);
    for (size_t i = 0; i < size; ++i) {
        put(data[i]);
    }
    put(static_cast<uint8_t>(-sum));
    *out++ = '\r';
    *out++ = '\n';
    pending_.append(line.data(), out);
    if (pending_.size() >= kFlushAt) {
        flush();
    }
}

void IntelHexWriter::flush()
{
    output_.write(pending_.data(), static_cast<std::streamsize>(pending_.size()));
    pending_.clear();
}

void IntelHexWriter::write(const BinaryImage& image)
{
    pending_.reserve(kFlushAt + 600);
    uint32_t upper = 0;
    for (size_t s = 0; s < image.segmentCount(); ++s) {
        const auto segment = image.segment(s);
        size_t done = 0;
        while (done < segment.bytes.size()) {
            const uint32_t address = static_cast<uint32_t>(segment.address + done);
            if (address >> 16 != upper) {
                upper = address >> 16;
                const uint8_t value[2] = {static_cast<uint8_t>(upper >> 8), static_cast<uint8_t>(upper)};
                record(ExtendedLinearAddress, 0, value, 2);
            }
            const size_t toBoundary = 0x10000 - (address & 0xFFFF);
            const size_t n = std::min({kRecordBytes, segment.bytes.size() - done, toBoundary});
            record(Data, static_cast<uint16_t>(address), segment.bytes.data() + done, n);
            done += n;
        }
    }
    if (const auto& start = image.startAddress()) {
        const uint32_t v = start->value;
        const uint8_t value[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                                  static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
        const bool linear = start->kind == BinaryImage::StartAddress::Kind::Linear;
        record(linear ? StartLinearAddress : StartSegmentAddress, 0, value, 4);
    }
    record(EndOfFile, 0, nullptr, 0);
    flush();
}

} // namespace HALYX
