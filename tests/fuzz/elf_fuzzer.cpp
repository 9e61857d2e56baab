// ELF loader: any input is loaded or refused with a BinaryImage error.
#include "image/binary_image.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using HALYX::BinaryImage;
    try {
        const auto image = BinaryImage::fromElf(std::span(data, size), "fuzz.elf");
        for (const auto& segment : image.segments()) {
            // Every byte of every segment is readable at its address.
            (void)image.read(segment.address, segment.bytes.size());
        }
    } catch (const BinaryImage::error&) {
    }
    return 0;
}
