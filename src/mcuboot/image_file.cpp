#include "mcuboot/image_file.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

#include <nettle/sha2.h>

namespace HALYX::MCUBOOT {
namespace {

// Below this a trailer cannot follow a header.
constexpr uint64_t kSmallestTrailerOffset = 33;
// A trailer is the protected area and the main area, each at most 64 KiB;
// what lies beyond (slot padding, unrelated HEX segments) is never needed.
constexpr size_t kTrailerLimit = 2 * 65536;

} // namespace

std::vector<uint8_t> ImageFile::readAt(size_t position, size_t count) const
{
    if (position > length_ || count > length_ - position) {
        throw std::runtime_error("Not enough bytes left in image");
    }
    std::vector<uint8_t> bytes(count);
    if (read(position, bytes) != count) {
        throw std::runtime_error("Image read failed");
    }
    return bytes;
}

ImageChunk ImageFile::nextChunk(size_t maxLength)
{
    const size_t count = std::min(maxLength, length_ - position_);
    chunk_.resize(count);
    if (count > 0 && read(position_, chunk_) != count) {
        throw std::runtime_error("Image read failed");
    }
    ImageChunk chunk{chunk_, position_, static_cast<uint32_t>(targetAddress_ + position_)};
    position_ += count;
    return chunk;
}

void ImageFile::seek(size_t position)
{
    if (position > length_) {
        throw std::out_of_range("Cannot read an image of " + std::to_string(length_) + " bytes from " +
                                std::to_string(position));
    }
    position_ = position;
}

ImageHeader ImageFile::header() const
{
    return ImageHeader::parse(readAt(0, std::min(length_, ImageHeader::kSize)));
}

std::optional<ImageTrailer> ImageFile::trailer() const
{
    const ImageHeader parsed = header();
    const uint64_t offset = parsed.trailerOffset();
    if (offset < kSmallestTrailerOffset) {
        return std::nullopt;
    }
    // A body that claims more than the file holds leaves an empty trailer,
    // which the parser reports.
    const size_t start = static_cast<size_t>(std::min<uint64_t>(offset, length_));
    return ImageTrailer::parse(readAt(start, std::min(length_ - start, kTrailerLimit)));
}

std::array<uint8_t, 32> ImageFile::digest(size_t count) const
{
    if (count > length_) {
        throw std::runtime_error("Not enough bytes left in image");
    }
    sha256_ctx context;
    sha256_init(&context);
    std::vector<uint8_t> buffer(std::min<size_t>(count, 64 * 1024));
    for (size_t done = 0; done < count;) {
        const size_t n = std::min(buffer.size(), count - done);
        if (read(done, std::span(buffer).first(n)) != n) {
            throw std::runtime_error("Image read failed");
        }
        sha256_update(&context, n, buffer.data());
        done += n;
    }
    std::array<uint8_t, 32> out;
    sha256_digest(&context, out.size(), out.data());
    return out;
}

} // namespace HALYX::MCUBOOT
