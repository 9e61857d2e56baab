#include <gtest/gtest.h>

#include <stdexcept>

#include <nlohmann/json.hpp>

#include "mcuboot/smp_requests.hpp"
#include "mcuboot_outcome.hpp"
#include "python_oracle.hpp"

using namespace HALYX::MCUBOOT;
using halyx_test::outcome;
using nlohmann::json;

namespace {

// Decodes header and CBOR payload independently; keys keep their wire order.
const char* const kDecodeRequest = R"PY(
import sys, json, cbor2, hashlib
raw = open(sys.argv[1], 'rb').read()
hdr, payload = raw[:8], raw[8:]
m = cbor2.loads(payload)
out = {
  'op': hdr[0], 'flags': hdr[1], 'len': int.from_bytes(hdr[2:4], 'big'),
  'group': int.from_bytes(hdr[4:6], 'big'), 'seq': hdr[6], 'id': hdr[7],
  'payload_len': len(payload), 'keys': list(m.keys()),
  'values': {k: (v.hex() if isinstance(v, bytes) else v) for k, v in m.items()},
}
if 'sha' in m:
  out['sha_matches_data'] = hashlib.sha256(m['data']).digest() == m['sha']
print(json.dumps(out))
)PY";

json decode(const SmpPacket& packet)
{
    return halyx_test::runPythonOracle(kDecodeRequest, packet.headerAndPayload());
}

SmpPacket response(uint8_t op, const json& map)
{
    return SmpPacket::request(static_cast<MgmtOp>(op), 0, MgmtGroup::Image, 7, CommandId::ImageUpload,
                              json::to_cbor(map));
}

} // namespace

TEST(MgmtHeader, WireLayoutAndShortInput)
{
    MgmtHeader header;
    header.op = 10; // only the low three bits survive
    header.flags = 0x5A;
    header.len = 0x1234;
    header.group = 0x0041;
    header.seq = 0xFE;
    header.id = 0x01;
    const auto bytes = header.encode();
    EXPECT_EQ((std::array<uint8_t, 8>{0x02, 0x5A, 0x12, 0x34, 0x00, 0x41, 0xFE, 0x01}), bytes);

    const std::array<uint8_t, 8> incoming{0xFB, 0x00, 0x00, 0x05, 0x00, 0x01, 0x03, 0x05};
    const auto decoded = MgmtHeader::decode(incoming);
    EXPECT_EQ(3, decoded.op); // upper five bits ignored
    EXPECT_EQ(5, decoded.len);
    EXPECT_EQ(1, decoded.group);
    EXPECT_EQ("op:3 flags:0 len:5, group:1, seq:3, id: 5", decoded.toString());

    try {
        MgmtHeader::decode(std::span(incoming).first(7));
        FAIL() << "a 7-byte header was accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ("MgmtHeader size must be 8 bytes, is 7 bytes", e.what());
    }
}

TEST(SmpRequests, HeadersAndPayloadsDecodeIndependently)
{
    const auto reset = decode(resetRequest(9));
    EXPECT_EQ(2, reset["op"]);
    EXPECT_EQ(0, reset["group"]);
    EXPECT_EQ(5, reset["id"]);
    EXPECT_EQ(9, reset["seq"]);
    EXPECT_EQ(json::array(), reset["keys"]);
    EXPECT_EQ(reset["len"], reset["payload_len"]);

    const auto erase = decode(eraseRequest(10));
    EXPECT_EQ(1, erase["group"]);
    EXPECT_EQ(5, erase["id"]);

    const auto query = decode(commParamsRequest(11));
    EXPECT_EQ(0, query["op"]);
    EXPECT_EQ(2, query["group"]);
    EXPECT_EQ(0, query["id"]);
    EXPECT_EQ("smp_com", query["values"]["name"]);
}

TEST(SmpRequests, UploadChunkKeysFollowOffsetGroupAndImage)
{
    const std::vector<uint8_t> data{1, 2, 3, 4, 5, 6, 7, 8};

    ChunkRequest first{data, 0, 1000, 0u, 0x1000};
    const auto a = decode(uploadChunkRequest(1, MgmtGroup::Image, first));
    EXPECT_EQ((json{"len", "sha", "data", "off", "image"}), a["keys"]); // image 0 is still given; no addr in group 1
    EXPECT_EQ(1000, a["values"]["len"]);
    EXPECT_EQ(true, a["sha_matches_data"]); // of this chunk, not of the image
    EXPECT_EQ("0102030405060708", a["values"]["data"]);
    EXPECT_EQ(1, a["group"]);
    EXPECT_EQ(1, a["id"]);
    EXPECT_EQ(a["len"], a["payload_len"]);

    ChunkRequest later{data, 8, 1000, std::nullopt, 0x1000};
    const auto b = decode(uploadChunkRequest(2, MgmtGroup::Image, later));
    EXPECT_EQ((json{"data", "off"}), b["keys"]);
    EXPECT_EQ(8, b["values"]["off"]);

    ChunkRequest modem{data, 8, 1000, 2u, 0x50000};
    const auto c = decode(uploadChunkRequest(3, MgmtGroup::ModemImage, modem));
    EXPECT_EQ((json{"data", "off", "image", "addr"}), c["keys"]);
    EXPECT_EQ(0x41, c["group"]);
    EXPECT_EQ(0x50000, c["values"]["addr"]);

    modem.address = 0;
    EXPECT_EQ((json{"data", "off", "image"}), decode(uploadChunkRequest(4, MgmtGroup::ModemImage, modem))["keys"]);

    EXPECT_THROW(uploadChunkRequest(5, MgmtGroup::Os, later), SmpException);
}

TEST(SmpRequests, WriteAndChunkResponseChecks)
{
    EXPECT_EQ(McuBootError::Ok, outcome([] { checkWriteResponse(response(3, {{"rc", 0}})); }));
    EXPECT_EQ(McuBootError::Ok, outcome([] { checkWriteResponse(response(3, {{"rc", 0}}), WriteRequest::Erase); }));
    EXPECT_EQ(McuBootError::Invalid, outcome([] { checkWriteResponse(response(1, {{"rc", 0}})); })); // a read response
    EXPECT_EQ(McuBootError::Invalid, outcome([] { checkWriteResponse(response(3, {{"off", 0}})); }));
    EXPECT_EQ(McuBootError::Invalid, outcome([] { checkWriteResponse(response(3, {{"rc", 3}})); }));
    EXPECT_EQ(McuBootError::Invalid, outcome([] { checkWriteResponse(response(3, json::array({1, 2}))); }));
    const auto garbage = SmpPacket::request(MgmtOp::WriteResponse, 0, 1, 0, 1, {0xFF, 0x00});
    EXPECT_EQ(McuBootError::Invalid, outcome([&] { checkWriteResponse(garbage); }));
    // A device without the command says so with rc 8, which the erase accepts.
    EXPECT_EQ(8, decodeWriteResponse(response(3, {{"rc", 8}})).rc);

    EXPECT_EQ(128u, chunkResponseOffset(response(3, {{"rc", 0}, {"off", 128}})));
    EXPECT_EQ(McuBootError::BadState, outcome([] { chunkResponseOffset(response(3, {{"rc", 0}})); }));
    EXPECT_EQ(McuBootError::Invalid, outcome([] { chunkResponseOffset(response(3, {{"rc", 1}, {"off", 128}})); }));

    EXPECT_EQ(McuBootError::Ok, outcome([] { checkPacketSize(2048, 2048); }));
    EXPECT_EQ(McuBootError::MsgSize, outcome([] { checkPacketSize(2049, 2048); }));
}

TEST(SmpRequests, CommParamsAndSequenceCounter)
{
    const auto answer = response(1, {{"rc", 0}, {"fields", {{"frame_max", 127}, {"pack_max", 2048}}}});
    const auto params = parseCommParams(answer);
    ASSERT_TRUE(params);
    EXPECT_EQ(127u, params->frameMax);
    EXPECT_EQ(2048u, params->packMax);
    EXPECT_FALSE(parseCommParams(response(1, {{"rc", 8}})));
    EXPECT_FALSE(parseCommParams(response(1, {{"fields", {{"frame_max", -1}, {"pack_max", 2048}}}})));

    // MCUboot's own parameter query: its buffer, no "rc".
    EXPECT_EQ(std::optional<uint32_t>(2048), parseBufferSize(response(1, {{"buf_size", 2048}, {"buf_count", 1}})));
    EXPECT_FALSE(parseBufferSize(response(1, {{"rc", 8}})));

    SequenceCounter counter;
    for (int i = 0; i < 255; ++i) {
        EXPECT_EQ(i, counter.next());
    }
    EXPECT_EQ(255, counter.next());
    EXPECT_EQ(0, counter.next());
}

TEST(McuBootErrorNames, KnownAndUnknownValues)
{
    EXPECT_EQ("Ok", toString(McuBootError::Ok));
    EXPECT_EQ("Timeout", toString(McuBootError::Timeout));
    EXPECT_EQ("UartNotOpenError", toString(McuBootError::UartNotOpenError));
    EXPECT_EQ("ModemFault", toString(McuBootError::ModemFault));
    EXPECT_EQ("Not able to map error to string", toString(static_cast<McuBootError>(616)));
}
