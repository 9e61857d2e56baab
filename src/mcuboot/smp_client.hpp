#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "mcuboot/mcuboot_error.hpp"
#include "mcuboot/mcuboot_progress.hpp"
#include "mcuboot/smp_requests.hpp"
#include "mcuboot/smp_transport.hpp"

namespace HALYX::MCUBOOT {

class ImageFile;
class MultiImageFile;

// One connection to an MCUboot device: opens the transport, learns the
// device's limits, erases, uploads chunk by chunk, resets and closes. Every
// step returns its McuBootError and logs its own failure. Lives for one
// program call on that call's thread.
class SmpClient {
public:
    struct Options {
        uint32_t baudRate = 115200;
        std::chrono::milliseconds responseTimeout{30000};
        // Asked between chunks; a true answer ends the upload.
        std::function<bool()> cancelRequested;
    };

    SmpClient(std::unique_ptr<SmpTransport> transport, SequenceCounter& sequence, Options options,
              ProgressReporter& progress);
    ~SmpClient();
    SmpClient(const SmpClient&) = delete;
    SmpClient& operator=(const SmpClient&) = delete;

    McuBootError openDevice(bool query_parameters);
    McuBootError closeDevice();
    McuBootError eraseImage();
    // erase_first: erase the image slot before a group 1 upload.
    McuBootError uploadImage(ImageFile& image, MgmtGroupId group, std::optional<uint32_t> image_number,
                             bool erase_first, int start_percentage = 0);
    McuBootError uploadImages(MultiImageFile& package, MgmtGroupId group);
    McuBootError resetDevice();

    // Chunk sizes for a device with these limits: the first chunk carries
    // "len" and "sha" as well. Zero when the limits leave no room.
    struct ChunkSizes {
        uint32_t first = 0;
        uint32_t following = 0;
    };
    static ChunkSizes chunkSizes(int64_t frame_content_size);

    ChunkSizes currentChunkSizes() const { return chunks_; }
    McuBootError openStatus() const { return open_status_; }
    bool cancelled() const { return cancelled_; }
    SmpTransport& transport() { return *transport_; }

private:
    enum class Wait { Resend, Whole };

    McuBootError send(const SmpPacket& packet, const SmpTransport::ResponseHandler& handler, Wait wait);
    McuBootError queryParameters();
    McuBootError uploadChunk(std::span<const uint8_t> data, uint32_t offset, uint32_t total, uint32_t address,
                             MgmtGroupId group, std::optional<uint32_t> image_number);
    std::chrono::milliseconds wireTime(size_t bytes) const;

    std::unique_ptr<SmpTransport> transport_;
    SequenceCounter& sequence_;
    const Options options_;
    ProgressReporter& progress_;
    McuBootError open_status_ = McuBootError::UartResourceError;
    std::chrono::milliseconds response_timeout_;
    ChunkSizes chunks_;
    bool cancelled_ = false;
};

} // namespace HALYX::MCUBOOT
