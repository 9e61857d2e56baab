// MCUboot header and TLV trailer parsing, and chunked reading of the image.
#include <stdexcept>
#include <vector>

#include "mcuboot/binary_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace HALYX::MCUBOOT;
    BinaryFile file(std::vector<uint8_t>(data, data + size), 0x1000);
    try {
        const auto header = file.header();
        if (const auto trailer = file.trailer()) {
            const uint64_t hashed = header.trailerOffset() + header.protectedTlvSize;
            if (hashed <= file.length()) {
                (void)file.digest(static_cast<size_t>(hashed));
            }
        }
    } catch (const std::invalid_argument&) {
    }
    try {
        (void)ImageTrailer::parse(std::span(data, size));
    } catch (const std::invalid_argument&) {
    }
    size_t total = 0;
    for (auto chunk = file.nextChunk(size % 61 + 1); !chunk.bytes.empty(); chunk = file.nextChunk(size % 61 + 1)) {
        total += chunk.bytes.size();
    }
    if (total != size) {
        std::abort();
    }
    return 0;
}
