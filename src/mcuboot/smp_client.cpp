#include "mcuboot/smp_client.hpp"

#include <fmt/format.h>

#include "core/logging.hpp"
#include "mcuboot/image_file.hpp"
#include "mcuboot/multi_image_file.hpp"

namespace HALYX::MCUBOOT {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kParameterQueryTimeout{400};
// Room for an answer ({"rc", "off"} in one or two lines) in the wire-time estimate.
constexpr size_t kResponseAllowance = 64;
constexpr int kUploadSpan = 90;
constexpr milliseconds kResendSlack{1000};

uint32_t validChunk(int64_t size)
{
    if (size < 0 || size >= 65536) {
        Log::warn("Estimated chunk length not valid: {}", size);
        return 0;
    }
    return static_cast<uint32_t>(size - size % 4);
}

} // namespace

SmpClient::SmpClient(std::unique_ptr<SmpTransport> transport, SequenceCounter& sequence, Options options,
                     ProgressReporter& progress)
    : transport_(std::move(transport)),
      sequence_(sequence),
      options_(std::move(options)),
      progress_(progress),
      response_timeout_(options_.responseTimeout)
{
}

SmpClient::~SmpClient()
{
    if (transport_->isOpen()) {
        transport_->close();
    }
}

SmpClient::ChunkSizes SmpClient::chunkSizes(int64_t frame_content_size)
{
    if (frame_content_size == 0) {
        Log::warn("Estimated max frame content size is zero");
        return {};
    }
    return ChunkSizes{validChunk(frame_content_size - 92), validChunk(frame_content_size - 38)};
}

milliseconds SmpClient::wireTime(size_t bytes) const
{
    const uint64_t baud = std::max<uint32_t>(options_.baudRate, 1);
    return milliseconds((bytes * 10 * 1000 + baud - 1) / baud);
}

McuBootError SmpClient::send(const SmpPacket& packet, const SmpTransport::ResponseHandler& handler, Wait wait)
{
    // Time limits grow with what the line needs to carry the request: the
    // response time-out starts once the device can have read it.
    // Room for one re-send on the line, too.
    const auto wire = wireTime(transport_->wireSize(packet) + kResponseAllowance);
    const auto budget = response_timeout_ + 2 * wire;
    const auto transmit = 2 * wire + milliseconds(1000);
    // A lost answer is asked for again soon after it was due; but an erase
    // can take the device long, and sending it again only queues a second one.
    const auto slack = std::min(kResendSlack, response_timeout_ / 2);
    const auto wait_time = wait == Wait::Whole ? budget : std::min(budget, wire + slack);
    return transport_->send(packet, handler, wait_time, budget, transmit);
}

McuBootError SmpClient::openDevice(bool query_parameters)
{
    progress_.beginStep(ProgressOperation::OpenDevice, "Open device.");
    progress_.report("Opening " + transport_->description(), 0);
    if (const auto opened = transport_->open(); opened != McuBootError::Ok) {
        Log::error("Not able to open MCUBoot transport, error is {}", toString(opened));
        progress_.report("Not able to open transport.", 0, opened);
        return opened;
    }
    if (query_parameters) {
        response_timeout_ = kParameterQueryTimeout;
        const auto queried = queryParameters();
        response_timeout_ = options_.responseTimeout;
        if (queried != McuBootError::Ok) {
            Log::info("Not able to obtain connection parameters. Continuing with defaults, max frame size: {}, mtu: {}",
                      transport_->frameSize(), transport_->mtu());
        }
    }
    chunks_ = chunkSizes(transport_->maxFrameContentSize(transport_->frameSize(), transport_->mtu()));
    Log::info("Have image upload chunk size of {} (1st packet) and {} (proceeding)", chunks_.first, chunks_.following);
    Log::info("Using MTU {} and frame size {}.", transport_->mtu(), transport_->frameSize());
    if (chunks_.first == 0 || chunks_.following == 0) {
        Log::error("Estimated max chunk upload sizes must be larger than zero. Consider tuning/increasing MTU or frame "
                   "size.");
        progress_.report("Not able to open transport.", 0, McuBootError::Invalid);
        transport_->close();
        return McuBootError::Invalid;
    }
    open_status_ = McuBootError::Ok;
    Log::info("Transport was opened successfully.");
    progress_.report("Transport was opened successfully.", 100);
    return McuBootError::Ok;
}

McuBootError SmpClient::queryParameters()
{
    try {
        std::optional<CommParams> params;
        const auto handler = [&params](const SmpPacket& response) {
            params = parseCommParams(response);
            return params ? McuBootError::Ok : McuBootError::Invalid;
        };
        const auto packet = commParamsRequest(sequence_.next());
        const auto result =
            transport_->send(packet, handler, kParameterQueryTimeout, kParameterQueryTimeout,
                             wireTime(transport_->wireSize(packet)) + milliseconds(1000));
        if (result != McuBootError::Ok || !params) {
            return result == McuBootError::Ok ? McuBootError::Invalid : result;
        }
        const auto sizes = chunkSizes(transport_->maxFrameContentSize(params->packMax, params->frameMax));
        if (sizes.first == 0 || sizes.following == 0) {
            Log::warn("Max frame length {} and MTU {} obtained from device results in invalid chunk/payload sizes. "
                      "Using default values instead",
                      params->packMax, params->frameMax);
            return McuBootError::Invalid;
        }
        transport_->setMtu(params->frameMax);
        transport_->setFrameSize(params->packMax);
        Log::info("Obtained connection parameters. Max frame size: {}, mtu: {}", params->packMax, params->frameMax);
        return McuBootError::Ok;
    } catch (const std::exception& e) {
        Log::warn("Error caught in smp_server_stat_communication_parameters: {}", e.what());
        return McuBootError::Unknown;
    }
}

McuBootError SmpClient::closeDevice()
{
    progress_.beginStep(ProgressOperation::CloseDevice, "Close device.");
    try {
        const auto closed = transport_->close();
        if (closed != McuBootError::Ok) {
            Log::error("Not able to close MCUBoot transport, error is {}", toString(closed));
            progress_.report("Not able to close transport.", 0, closed);
            return closed;
        }
    } catch (const std::exception& e) {
        Log::error("Error closing MCUBoot transport, {}", e.what());
        progress_.report("Not able to close transport.", 0, McuBootError::Unknown);
        return McuBootError::Unknown;
    }
    open_status_ = McuBootError::UartResourceError;
    progress_.report("Transport was closed.", 100);
    return McuBootError::Ok;
}

McuBootError SmpClient::eraseImage()
{
    progress_.beginStep(ProgressOperation::EraseImage, "Erase image.");
    progress_.report("Starting to erase image on device.", 0);
    Log::info("Sending erase request to device.");
    McuBootError result = McuBootError::Unknown;
    try {
        result = send(eraseRequest(sequence_.next()),
                      [](const SmpPacket& p) { return checkWriteResponse(p, WriteRequest::Erase); }, Wait::Whole);
    } catch (const std::exception& e) {
        Log::error("Error calling eraseSettings, {}", e.what());
    }
    if (result != McuBootError::Ok) {
        progress_.report("Not able to erase image on device.", 0, result);
        return result;
    }
    progress_.report("Successfully erased image on device.", 100);
    return McuBootError::Ok;
}

McuBootError SmpClient::resetDevice()
{
    progress_.beginStep(ProgressOperation::EnterApplicationState, "Reset device.");
    Log::info("Sending reset request to device.");
    McuBootError result = McuBootError::Unknown;
    try {
        result = send(resetRequest(sequence_.next()), [](const SmpPacket& p) { return checkWriteResponse(p); },
                      Wait::Resend);
    } catch (const std::exception& e) {
        Log::error("Error calling enterApplicationState, {}", e.what());
    }
    progress_.report(result == McuBootError::Ok ? "Device was reset." : "Not able to reset device.",
                     result == McuBootError::Ok ? 100 : 0, result);
    return result;
}

McuBootError SmpClient::uploadChunk(std::span<const uint8_t> data, uint32_t offset, uint32_t total, uint32_t address,
                                    MgmtGroupId group, std::optional<uint32_t> image_number)
{
    try {
        Log::info("Uploading chunk offset: {}, len: {}, out of total len {}, target addr: {}", offset, data.size(),
                  total, address);
        const auto packet =
            uploadChunkRequest(sequence_.next(), group, ChunkRequest{data, offset, total, image_number, address});
        if (const auto size = checkPacketSize(transport_->encodedSize(packet), transport_->frameSize());
            size != McuBootError::Ok) {
            return size;
        }
        const auto expected = static_cast<uint32_t>(offset + data.size());
        return send(packet, [expected](const SmpPacket& p) { return checkChunkResponse(p, expected); }, Wait::Resend);
    } catch (const std::exception& e) {
        Log::error("error in upload_image_chunk, {}", e.what());
        return McuBootError::Unknown;
    }
}

McuBootError SmpClient::uploadImage(ImageFile& image, MgmtGroupId group, std::optional<uint32_t> image_number,
                                    bool erase_first, int start_percentage)
{
    if (!isUploadGroup(group)) {
        Log::error("Invalid target_mgmt_service in uploadImage: {}", group);
        progress_.report("Invalid smp target service.", start_percentage, McuBootError::Invalid);
        return McuBootError::Invalid;
    }
    if (group == MgmtGroup::Image && erase_first) {
        Log::info("Requesting image erase prior to uploading new image.");
        if (const auto erased = eraseImage(); erased != McuBootError::Ok) {
            Log::error("Erasing image failed.");
            return erased;
        }
        Log::info("Successfully erased image on device.");
    }
    progress_.beginStep(ProgressOperation::UploadImage, "Upload image.");
    try {
        progress_.report("Calculating image size.", start_percentage);
        const auto total = static_cast<uint32_t>(image.length());
        progress_.report("Uploading image to device.", start_percentage);
        image.rewind();
        uint32_t offset = 0;
        size_t chunk_size = chunks_.first;
        int reported = start_percentage;
        const auto started = Clock::now();
        while (true) {
            if (options_.cancelRequested && options_.cancelRequested()) {
                cancelled_ = true;
                Log::warn("Upload cancelled after {} of {} bytes.", offset, total);
                progress_.report("Upload cancelled.", reported, McuBootError::Unknown);
                return McuBootError::Unknown;
            }
            ImageChunk chunk;
            try {
                chunk = image.nextChunk(chunk_size);
            } catch (const std::exception& e) {
                Log::error("Error while reading data from image file: {}", e.what());
                progress_.report("Not able to read from image file.", reported, McuBootError::Unknown);
                return McuBootError::Unknown;
            }
            if (chunk.bytes.empty()) {
                Log::info("Image was uploaded successfully.");
                progress_.report("Image was uploaded successfully.", 100);
                return McuBootError::Ok;
            }
            const auto chunk_start = Clock::now();
            const auto sent = uploadChunk(chunk.bytes, offset, total, chunk.address, group, image_number);
            if (sent != McuBootError::Ok) {
                Log::error("Error during hex file upload. Upload returned an error.");
                progress_.report("Image upload failed. Bad response from device.", reported, sent);
                return sent;
            }
            const auto now = Clock::now();
            Log::debug("Chunk upload took {}ms. Current upload runtime is {}s",
                       std::chrono::duration_cast<milliseconds>(now - chunk_start).count(),
                       std::chrono::duration_cast<std::chrono::seconds>(now - started).count());
            offset += static_cast<uint32_t>(chunk.bytes.size());
            chunk_size = chunks_.following;
            const int percentage = start_percentage + static_cast<int>(static_cast<double>(offset) / total * kUploadSpan);
            if (percentage != reported) {
                reported = percentage;
                progress_.report(fmt::format("Uploaded {} of {} bytes.", offset, total), percentage);
            }
        }
    } catch (const std::exception& e) {
        Log::error("Exception caught in uploadImage, {}", e.what());
        progress_.report("Image upload failed.", start_percentage, McuBootError::Unknown);
        return McuBootError::Unknown;
    }
}

McuBootError SmpClient::uploadImages(MultiImageFile& package, MgmtGroupId group)
{
    try {
        Log::info("Upload images.");
        bool first = true;
        for (auto& entry : package.images()) {
            // The erase has no image number, so it always clears the same
            // slot: once, before the first image, or it would undo the last.
            const auto result = uploadImage(*entry.image, group, entry.imageIndex, first);
            first = false;
            if (result != McuBootError::Ok) {
                Log::error("Multi image upload failed.");
                return result;
            }
        }
        Log::info("Multi image upload was successful.");
        return McuBootError::Ok;
    } catch (const std::exception& e) {
        Log::error("Exception caught in uploadImage(HALYX::MCUBOOT::MultiImageFile&, HALYX::MCUBOOT::MgmtGroupId): {}",
                   e.what());
        return McuBootError::Unknown;
    }
}

} // namespace HALYX::MCUBOOT
