#include "mcuboot/smp_requests.hpp"

#include <nettle/sha2.h>
#include <nlohmann/json.hpp>

#include "core/logging.hpp"

namespace HALYX::MCUBOOT {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

std::vector<uint8_t> emptyMap()
{
    return json::to_cbor(json::object());
}

nlohmann::json::binary_t sha256(std::span<const uint8_t> data)
{
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, data.size(), data.data());
    std::vector<uint8_t> digest(SHA256_DIGEST_SIZE);
    sha256_digest(&context, digest.size(), digest.data());
    return nlohmann::json::binary_t(std::move(digest));
}

// The decoded map of a write response, or the failure it amounts to.
std::optional<json> decodeWriteResponse(const SmpPacket& response, WriteRequest kind, McuBootError& result)
{
    result = McuBootError::Invalid;
    if (response.header().op != static_cast<uint8_t>(MgmtOp::WriteResponse)) {
        Log::error("packet received is not a write_rsp");
        return std::nullopt;
    }
    json map;
    try {
        map = json::from_cbor(response.payload());
    } catch (const std::exception& e) {
        Log::error("Error parsing CBOR payload, {}", e.what());
        return std::nullopt;
    }
    Log::debug("rx: {}", map.dump());
    const auto rc = map.is_object() ? map.find("rc") : map.end();
    if (!map.is_object() || rc == map.end()) {
        Log::error("CBOR response does not contain attribute rc (mandatory)");
        return std::nullopt;
    }
    if (!rc->is_number_integer() || rc->get<int64_t>() != 0) {
        if (kind == WriteRequest::Erase) {
            Log::error("delete package returns error {}", rc->dump());
        } else {
            Log::error("CBOR response contains non-zero return code, {}", rc->dump());
        }
        return std::nullopt;
    }
    result = McuBootError::Ok;
    return map;
}

uint32_t unsignedField(const json& map, const char* key)
{
    const auto& value = map.at(key);
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
        throw SmpException(std::string(key) + " is not an unsigned 32-bit integer: " + value.dump());
    }
    return value.get<uint32_t>();
}

} // namespace

SmpPacket resetRequest(uint8_t seq)
{
    return SmpPacket::request(MgmtOp::Write, 0, MgmtGroup::Os, seq, CommandId::Reset, emptyMap());
}

SmpPacket eraseRequest(uint8_t seq)
{
    return SmpPacket::request(MgmtOp::Write, 0, MgmtGroup::Image, seq, CommandId::ImageErase, emptyMap());
}

SmpPacket commParamsRequest(uint8_t seq)
{
    return SmpPacket::request(MgmtOp::Read, 0, MgmtGroup::Statistics, seq, CommandId::StatRead,
                              json::to_cbor(json{{"name", "smp_com"}}));
}

bool isUploadGroup(MgmtGroupId group)
{
    return group == MgmtGroup::Image || group == MgmtGroup::ModemImage;
}

SmpPacket uploadChunkRequest(uint8_t seq, MgmtGroupId group, const ChunkRequest& chunk)
{
    if (!isUploadGroup(group)) {
        throw SmpException("Invalid target_mgmt_service in uploadImage: " + std::to_string(group));
    }
    ordered_json map = ordered_json::object();
    if (chunk.offset == 0) {
        map["len"] = chunk.totalLength;
        map["sha"] = sha256(chunk.data);
    }
    map["data"] = nlohmann::json::binary_t(std::vector<uint8_t>(chunk.data.begin(), chunk.data.end()));
    map["off"] = chunk.offset;
    if (chunk.image) {
        map["image"] = *chunk.image;
    }
    if (group == MgmtGroup::ModemImage && chunk.address != 0) {
        map["addr"] = chunk.address;
    }
    return SmpPacket::request(MgmtOp::Write, 0, group, seq, CommandId::ImageUpload, ordered_json::to_cbor(map));
}

McuBootError checkWriteResponse(const SmpPacket& response, WriteRequest kind)
{
    McuBootError result = McuBootError::Invalid;
    decodeWriteResponse(response, kind, result);
    return result;
}

McuBootError checkChunkResponse(const SmpPacket& response, uint32_t expected_offset)
{
    McuBootError result = McuBootError::Invalid;
    const auto map = decodeWriteResponse(response, WriteRequest::Generic, result);
    if (!map) {
        return result;
    }
    const auto off = map->find("off");
    if (off == map->end() || !off->is_number_unsigned() || off->get<uint64_t>() != expected_offset) {
        Log::error("Unexpected offset returned from smp server during chunk upload. Wanted {}, got {}",
                   expected_offset, off == map->end() ? std::string("nothing") : off->dump());
        return McuBootError::BadState;
    }
    return McuBootError::Ok;
}

McuBootError checkPacketSize(size_t encoded_size, size_t maximum)
{
    if (encoded_size > maximum) {
        Log::error("Packet size exceeds maximum. Packet size is {}, maximum allowed packet size is {}. Aborting "
                   "chunk upload.",
                   encoded_size, maximum);
        return McuBootError::MsgSize;
    }
    return McuBootError::Ok;
}

std::optional<CommParams> parseCommParams(const SmpPacket& response)
{
    try {
        const auto map = json::from_cbor(response.payload());
        const auto& fields = map.at("fields");
        CommParams params;
        params.frameMax = unsignedField(fields, "frame_max");
        params.packMax = unsignedField(fields, "pack_max");
        Log::info("Found max frame length  {} and max package length {}", params.frameMax, params.packMax);
        return params;
    } catch (const std::exception& e) {
        Log::warn("Error caught in parse_stat_response: {}", e.what());
        return std::nullopt;
    }
}

} // namespace HALYX::MCUBOOT
