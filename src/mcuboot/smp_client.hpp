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
// step logs and reports its own progress and throws McuBootFailure when it
// fails. Lives for one program call on that call's thread.
class SmpClient {
public:
    struct Options {
        uint32_t baudRate = 115200;
        std::chrono::milliseconds responseTimeout{30000};
        // The limits used when the device tells none: what a stock MCUboot
        // accepts (128-byte console lines, a 1024-byte receive buffer).
        uint32_t lineLength = 128;
        uint32_t packetSize = 1024;
        // Asked between chunks; a true answer ends the upload.
        std::function<bool()> cancelRequested;
    };

    SmpClient(std::unique_ptr<SmpTransport> transport, SequenceCounter& sequence, Options options,
              ProgressReporter& progress);
    ~SmpClient();
    SmpClient(const SmpClient&) = delete;
    SmpClient& operator=(const SmpClient&) = delete;

    // With query_parameters the device is asked for its limits: first the
    // "smp_com" statistics, then its own parameter query; a device that
    // answers neither gets the options' limits.
    void openDevice(bool query_parameters);
    void closeDevice();
    // False when the device has no erase command: it erases the slot itself
    // when the chunk at offset 0 arrives.
    bool eraseImage();
    // erase_first: erase the image slot before a group 1 upload.
    void uploadImage(ImageFile& image, MgmtGroupId group, std::optional<uint32_t> image_number, bool erase_first,
                     int start_percentage = 0);
    void uploadImages(MultiImageFile& package, MgmtGroupId group);
    // The port going away after the request is the device restarting, not a failure.
    void resetDevice();

    // Chunk sizes for a device with these limits: the first chunk carries
    // "len" and "sha" as well. Zero when the limits leave no room.
    struct ChunkSizes {
        uint32_t first = 0;
        uint32_t following = 0;
    };
    static ChunkSizes chunkSizes(int64_t frame_content_size);

    // How long the device may take to answer the chunk at offset 0 of an
    // image of this length: it erases the whole slot first, which the image
    // may fill only in part. Assumes a slot of at least 1 MiB and at most
    // twice the image, and 100 ms per 4 KiB flash page (internal flash takes
    // 40 to 90): 25.6 s for images up to 512 KiB, 51.2 s for 1 MiB.
    static std::chrono::milliseconds eraseAllowance(size_t image_length);

    ChunkSizes currentChunkSizes() const { return chunks_; }
    bool cancelled() const { return cancelled_; }
    SmpTransport& transport() { return *transport_; }

private:
    enum class Wait {
        Resend,
        Whole
    };

    void send(const SmpPacket& packet, const SmpTransport::ResponseHandler& handler, Wait wait,
              std::chrono::milliseconds extra = std::chrono::milliseconds(0));
    // Reports the step's failure and describes the failure by that report.
    McuBootFailure failed(const McuBootFailure& failure, const std::string& report);
    void negotiateLimits();
    // One short query answered or not at once; what parse makes of the answer.
    template <typename Parse>
    auto query(const SmpPacket& request, Parse parse);
    bool askStatistics();
    bool askParameters();
    // The offset the device answered with.
    uint32_t uploadChunk(std::span<const uint8_t> data, uint32_t offset, uint32_t total, uint32_t address,
                         MgmtGroupId group, std::optional<uint32_t> image_number);
    std::chrono::milliseconds wireTime(size_t bytes) const;

    std::unique_ptr<SmpTransport> transport_;
    SequenceCounter& sequence_;
    const Options options_;
    ProgressReporter& progress_;
    std::chrono::milliseconds response_timeout_;
    ChunkSizes chunks_;
    bool cancelled_ = false;
};

} // namespace HALYX::MCUBOOT
