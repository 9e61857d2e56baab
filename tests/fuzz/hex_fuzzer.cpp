// Intel HEX reader: any input is read or refused with a BinaryImage error;
// whatever is read survives a write and a second read unchanged.
#include <cstdlib>
#include <sstream>

#include "image/binary_image.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using HALYX::BinaryImage;
    BinaryImage image;
    try {
        image = BinaryImage::fromHex(std::span(data, size), "fuzz.hex");
    } catch (const BinaryImage::error&) {
        return 0;
    }
    std::ostringstream written;
    image.writeHex(written);
    const std::string text = written.str();
    const auto again =
        BinaryImage::fromHex(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()), "again");
    if (again.segmentCount() != image.segmentCount() || again.startAddress() != image.startAddress()) {
        std::abort();
    }
    for (size_t i = 0; i < image.segmentCount(); ++i) {
        const auto a = image.segment(i);
        const auto b = again.segment(i);
        if (a.address != b.address || !std::equal(a.bytes.begin(), a.bytes.end(), b.bytes.begin(), b.bytes.end())) {
            std::abort();
        }
    }
    return 0;
}
