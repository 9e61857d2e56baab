#include "mcuboot/image_trailer.hpp"

#include <stdexcept>

#include <fmt/format.h>

#include "core/byte_order.hpp"

namespace HALYX::MCUBOOT {
namespace {

constexpr size_t kHeaderSize = 4;
constexpr size_t kSha256Size = 32;

} // namespace

ImageTrailer ImageTrailer::parse(std::span<const uint8_t> bytes)
{
    ImageTrailer trailer;
    const std::vector<uint8_t>* hash = nullptr;
    size_t at = 0;
    do {
        if (bytes.size() - at < kHeaderSize) {
            throw std::invalid_argument("Unable to parse TLV area: remaining bytes are less than TLV area header");
        }
        Area area;
        area.magic = readLe16(bytes, at);
        area.length = readLe16(bytes, at + 2);
        if (area.length < kHeaderSize) {
            throw std::invalid_argument("Unable to parse TLV area: invalid size in TLV area header");
        }
        if (bytes.size() - at - kHeaderSize < area.length - kHeaderSize) {
            throw std::invalid_argument("Unable to parse TLV area: remaining bytes are less than TLV area length");
        }
        const size_t end = at + area.length;
        at += kHeaderSize;
        while (at < end) {
            if (end - at < kHeaderSize) {
                throw std::invalid_argument("Unable to parse TLV entry: remaining bytes are less than TLV header size");
            }
            Entry entry;
            entry.type = readLe16(bytes, at);
            const size_t length = readLe16(bytes, at + 2);
            at += kHeaderSize;
            if (end - at < length) {
                throw std::invalid_argument("Unable to parse TLV entry: remaining bytes are less than TLV length");
            }
            entry.value.assign(bytes.begin() + static_cast<ptrdiff_t>(at),
                               bytes.begin() + static_cast<ptrdiff_t>(at + length));
            at += length;
            area.entries.push_back(std::move(entry));
        }
        trailer.areas.push_back(std::move(area));
    } while (trailer.areas.back().magic != kAreaMagic && at < bytes.size());

    const Area& last = trailer.areas.back();
    if (last.magic == kAreaMagic) {
        for (const auto& entry : last.entries) {
            if (entry.type == kSha256Type) {
                hash = &entry.value;
                break;
            }
        }
    }
    if (hash == nullptr) {
        throw std::invalid_argument("Image missing SHA256 hash in trailer");
    }
    if (hash->size() != kSha256Size) {
        throw std::invalid_argument(
            fmt::format("Image SHA256 hash in trailer has {} bytes instead of {}", hash->size(), kSha256Size));
    }
    trailer.sha256 = *hash;
    return trailer;
}

} // namespace HALYX::MCUBOOT
