#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "image/binary_image.hpp"

namespace HALYX {

// Reads Intel HEX text into an image. Text can be fed in pieces of any size;
// lines may be split between pieces. Records of type 02 and 04 move the base
// address of the data records that follow (segment base x 16, linear base x
// 65536); 03 and 05 carry the start address. Data records that continue the
// previous one extend its segment, so a typical file becomes a few segments.
// Lines that do not begin with ':' (after tabs and CRs) are not records and
// are skipped.
//
// Any failure is thrown at once; the image being filled must then be thrown
// away. One reader per image, used by one thread.
class IntelHexReader {
public:
    IntelHexReader(std::string name, BinaryImage& image) : name_(std::move(name)), image_(image) {}

    // Number of bytes of a leading UTF-8 byte-order mark (0 or 3); a UTF-16
    // mark is refused.
    size_t byteOrderMark(std::span<const char> head) const;

    void feed(std::span<const char> text);
    // Ends the input: checks the end-of-file record and seals the image.
    void finish();

private:
    void line(std::string_view text);
    void record(std::string_view text);

    std::string name_;
    BinaryImage& image_;
    std::string carry_; // a line split between two pieces
    size_t lineNumber_ = 0;
    uint32_t base_ = 0;
    bool ended_ = false;
    std::optional<BinaryImage::StartAddress> start_;
};

} // namespace HALYX
