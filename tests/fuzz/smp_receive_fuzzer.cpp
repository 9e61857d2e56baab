// The SMP receive path: whatever a device sends, in pieces of any size, goes
// through the frame receiver, and every packet that forms through the
// response checks. Failures must be the library's own; memory stays bounded.
#include <cstdlib>

#include "mcuboot/frame_receiver.hpp"
#include "mcuboot/smp_requests.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace HALYX::MCUBOOT;
    if (size == 0) {
        return 0;
    }
    // The first byte sizes the pieces the bytes arrive in, as reads of a port do.
    const size_t piece = data[0] % 64 + 1;
    const std::span<const uint8_t> bytes(data + 1, size - 1);
    FrameReceiver receiver;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        for (const auto& packet : receiver.feed(bytes.subspan(at, std::min(piece, bytes.size() - at)))) {
            try {
                (void)chunkResponseOffset(packet);
            } catch (const McuBootFailure&) {
            }
            try {
                (void)decodeWriteResponse(packet);
            } catch (const McuBootFailure&) {
            }
            (void)parseCommParams(packet);
            (void)parseBufferSize(packet);
        }
        if (receiver.bufferedBytes() > FrameReceiver::kMaxLine + piece ||
            receiver.pendingFrames() > FrameReceiver::kMaxPacketText) {
            std::abort();
        }
    }
    return 0;
}
