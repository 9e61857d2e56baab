#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>

#include "mcuboot/mcuboot_error.hpp"
#include "mcuboot/smp_packet.hpp"

#include <nlohmann/json.hpp>

// The SMP requests this library sends and the checks of their responses.
namespace HALYX::MCUBOOT {

namespace CommandId {
constexpr uint8_t Reset = 5;            // OS group
constexpr uint8_t McumgrParameters = 6; // OS group: buffer size, where the device offers it
constexpr uint8_t ImageErase = 5;       // image group
constexpr uint8_t ImageUpload = 1;      // image and modem-image groups
constexpr uint8_t StatRead = 0;         // statistics group
} // namespace CommandId

// The "rc" of a device that has no handler for the request.
constexpr int64_t kRcNotSupported = 8;

// One counter per plugin instance; the value before the increment is used,
// wrapping from 255 to 0.
class SequenceCounter {
public:
    uint8_t next() { return value_.fetch_add(1, std::memory_order_relaxed); }

private:
    std::atomic<uint8_t> value_{0};
};

struct ChunkRequest {
    std::span<const uint8_t> data;
    uint32_t offset = 0;
    uint32_t totalLength = 0;
    std::optional<uint32_t> image;
    uint32_t address = 0;
};

struct CommParams {
    uint32_t frameMax = 0;
    uint32_t packMax = 0;
};

SmpPacket resetRequest(uint8_t seq);
SmpPacket eraseRequest(uint8_t seq);
SmpPacket commParamsRequest(uint8_t seq);
SmpPacket mcumgrParametersRequest(uint8_t seq);

// Keys in wire order: "len" and "sha" (first chunk only; the digest covers
// this chunk's data, not the image), "data", "off", "image" (when given),
// "addr" (modem group with a non-zero address). Throws SmpException for a
// group other than the image or modem-image group.
SmpPacket uploadChunkRequest(uint8_t seq, MgmtGroupId group, const ChunkRequest& chunk);

bool isUploadGroup(MgmtGroupId group);

enum class WriteRequest {
    Generic,
    Erase
};

// A write response's CBOR map and its "rc".
struct WriteResponse {
    nlohmann::json map;
    int64_t rc = 0;
};

// Throws McuBootFailure (Invalid) for a packet that is not a write response
// with a CBOR map holding an integer "rc".
WriteResponse decodeWriteResponse(const SmpPacket& response);

// decodeWriteResponse, and "rc" must be 0; the map.
nlohmann::json checkWriteResponse(const SmpPacket& response, WriteRequest kind = WriteRequest::Generic);

// The "off" a chunk was answered with (after checkWriteResponse); throws
// McuBootFailure (BadState) when there is none.
uint32_t chunkResponseOffset(const SmpPacket& response);

// Throws McuBootFailure (MsgSize) when the encoded request is larger than the device accepts.
void checkPacketSize(size_t encoded_size, size_t maximum);

// "frame_max" and "pack_max" from the statistics response; nothing when the
// response does not carry them.
std::optional<CommParams> parseCommParams(const SmpPacket& response);

// "buf_size" from the answer to the parameter query; nothing without it.
std::optional<uint32_t> parseBufferSize(const SmpPacket& response);

} // namespace HALYX::MCUBOOT
