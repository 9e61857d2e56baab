#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace HALYX::SIM {

// The keys of an image upload request that the device reads.
struct UploadFields {
    std::optional<uint32_t> image;
    std::optional<std::vector<uint8_t>> data;
    std::optional<uint32_t> length; // "len"
    std::optional<uint32_t> offset; // "off"
};

// Reads an upload request the way the device's bulk map decoder does: a map
// (definite or not) of text keys; "image", "len" and "off" unsigned and at
// most 32 bits (its size_t), "data" a byte string of definite length; each of
// them at most once; any other key skipped with its value. nullopt where the
// device gives up (it answers rc 3).
std::optional<UploadFields> readUploadMap(std::span<const uint8_t> payload);

} // namespace HALYX::SIM
