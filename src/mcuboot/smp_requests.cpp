#include "mcuboot/smp_requests.hpp"

#include <nettle/sha2.h>
#include <nlohmann/json.hpp>

#include <fmt/format.h>

#include "core/json_fields.hpp"
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

uint32_t unsignedField(const json& map, const char* key)
{
    const auto& value = map.at(key);
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
        throw SmpException(std::string(key) + " is not an unsigned 32-bit integer: " + jsonText(value));
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

SmpPacket mcumgrParametersRequest(uint8_t seq)
{
    return SmpPacket::request(MgmtOp::Read, 0, MgmtGroup::Os, seq, CommandId::McumgrParameters, emptyMap());
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

WriteResponse decodeWriteResponse(const SmpPacket& response)
{
    if (response.header().op != static_cast<uint8_t>(MgmtOp::WriteResponse)) {
        Log::error("packet received is not a write_rsp");
        throw McuBootFailure(McuBootError::Invalid, "packet received is not a write_rsp");
    }
    json map;
    try {
        map = json::from_cbor(response.payload());
    } catch (const std::exception& e) {
        Log::error("Error parsing CBOR payload, {}", e.what());
        throw McuBootFailure(McuBootError::Invalid, fmt::format("Error parsing CBOR payload, {}", e.what()));
    }
    Log::debug("rx: {}", jsonText(map));
    const auto rc = map.is_object() ? map.find("rc") : map.end();
    if (!map.is_object() || rc == map.end() || !rc->is_number_integer()) {
        Log::error("CBOR response does not contain attribute rc (mandatory)");
        throw McuBootFailure(McuBootError::Invalid, "CBOR response does not contain attribute rc (mandatory)");
    }
    const auto code = rc->get<int64_t>();
    return WriteResponse{std::move(map), code};
}

json checkWriteResponse(const SmpPacket& response, WriteRequest kind)
{
    auto decoded = decodeWriteResponse(response);
    if (decoded.rc != 0) {
        const auto message = kind == WriteRequest::Erase
                                 ? fmt::format("delete package returns error {}", decoded.rc)
                                 : fmt::format("CBOR response contains non-zero return code, {}", decoded.rc);
        Log::error("{}", message);
        throw McuBootFailure(McuBootError::Invalid, message);
    }
    return std::move(decoded.map);
}

uint32_t chunkResponseOffset(const SmpPacket& response)
{
    const auto map = checkWriteResponse(response);
    const auto off = map.find("off");
    if (off == map.end() || !off->is_number_unsigned() || off->get<uint64_t>() > UINT32_MAX) {
        const auto message = fmt::format("Chunk answered without a valid offset: {}", jsonText(map));
        Log::error("{}", message);
        throw McuBootFailure(McuBootError::BadState, message);
    }
    return off->get<uint32_t>();
}

void checkPacketSize(size_t encoded_size, size_t maximum)
{
    if (encoded_size > maximum) {
        const auto message = fmt::format("Packet size exceeds maximum. Packet size is {}, maximum allowed packet size "
                                         "is {}. Aborting chunk upload.",
                                         encoded_size, maximum);
        Log::error("{}", message);
        throw McuBootFailure(McuBootError::MsgSize, message);
    }
}

std::optional<uint32_t> parseBufferSize(const SmpPacket& response)
{
    try {
        const auto map = json::from_cbor(response.payload());
        const auto size = unsignedField(map, "buf_size");
        Log::info("Device buffer size {} (buf_count {})", size, jsonText(map.value("buf_count", json())));
        return size;
    } catch (const std::exception& e) {
        Log::info("No MCUmgr parameters from the device: {}", e.what());
        return std::nullopt;
    }
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
