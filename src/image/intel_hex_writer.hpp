#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace HALYX {

class BinaryImage;

// Writes an image as Intel HEX: 16-byte data records that never cross a
// 64 KiB boundary, an extended linear address record whenever the upper half
// of the address changes, the start address if the image has one, and the
// end-of-file record. Lines end in "\r\n".
class IntelHexWriter {
public:
    explicit IntelHexWriter(std::ostream& output) : output_(output) {}

    void write(const BinaryImage& image);

private:
    void record(uint8_t type, uint16_t address, const uint8_t* data, size_t size);
    void flush();

    std::ostream& output_;
    std::string pending_;
};

} // namespace HALYX
