#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "mcuboot/image_header.hpp"
#include "mcuboot/image_trailer.hpp"

namespace HALYX::MCUBOOT {

// One piece of an image for the upload loop.
struct ImageChunk {
    std::span<const uint8_t> bytes; // valid until the next call on the file; empty at the end
    size_t offset = 0;              // of bytes[0] within the image
    uint32_t address = 0;           // where bytes[0] goes: the image's target address + offset
};

// An MCUboot image as a source of bytes: its total length, a read position
// and the address it is meant for. Implementations say where the bytes come
// from. Not for concurrent use: the read position is shared state.
//
// Read failures throw std::runtime_error: "Not enough bytes left in image"
// for a read past the end, "Image read failed" when an implementation
// delivers fewer bytes than it holds, "Image file read failed" when the
// underlying file cannot be read.
class ImageFile {
public:
    virtual ~ImageFile() = default;
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;

    size_t length() const { return length_; }
    uint32_t targetAddress() const { return targetAddress_; }
    void setTargetAddress(uint32_t address) { targetAddress_ = address; }

    // Copies up to out.size() bytes from position on and returns how many
    // it copied (fewer only at the end of the image).
    virtual size_t read(size_t position, std::span<uint8_t> out) const = 0;
    // Exactly count bytes from position on.
    std::vector<uint8_t> readAt(size_t position, size_t count) const;

    // The upload loop: the next at most maxLength bytes from the read
    // position, which then moves past them.
    ImageChunk nextChunk(size_t maxLength);
    size_t position() const { return position_; }
    // Moves the read position; a device that stored less than a chunk asks
    // for the rest from where it stopped. Throws std::out_of_range past the end.
    void seek(size_t position);
    void rewind() { seek(0); }

    // The header at offset 0 (std::invalid_argument when there is none).
    ImageHeader header() const;
    // The TLV trailer, read when header size + image size is 33 or more;
    // nullopt otherwise. std::invalid_argument when it cannot be parsed.
    std::optional<ImageTrailer> trailer() const;
    // SHA-256 of the first count bytes, to compare with the trailer's hash
    // (which covers the header, the body and the protected TLV area).
    std::array<uint8_t, 32> digest(size_t count) const;

protected:
    ImageFile(size_t length, uint32_t targetAddress) : length_(length), targetAddress_(targetAddress) {}

private:
    size_t length_;
    uint32_t targetAddress_;
    size_t position_ = 0;
    std::vector<uint8_t> chunk_;
};

} // namespace HALYX::MCUBOOT
