#include "mcuboot/smp_client.hpp"

#include <algorithm>

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
constexpr size_t kFlashPage = 4096;
constexpr milliseconds kPageErase{100};
// A slot of 1 MiB, whatever the image: a small image may still sit in a large slot.
constexpr size_t kLeastSlotPages = 256;

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
    : transport_(std::move(transport)), sequence_(sequence), options_(std::move(options)), progress_(progress),
      response_timeout_(options_.responseTimeout)
{
}

SmpClient::~SmpClient()
{
    try {
        if (transport_->isOpen()) {
            transport_->close();
        }
    } catch (const std::exception& e) {
        Log::warn("Error closing MCUBoot transport, {}", e.what());
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

milliseconds SmpClient::eraseAllowance(size_t image_length)
{
    const auto pages = std::max<size_t>(kLeastSlotPages, 2 * ((image_length + kFlashPage - 1) / kFlashPage));
    return static_cast<int64_t>(pages) * kPageErase;
}

milliseconds SmpClient::wireTime(size_t bytes) const
{
    const uint64_t baud = std::max<uint32_t>(options_.baudRate, 1);
    return milliseconds((bytes * 10 * 1000 + baud - 1) / baud);
}

void SmpClient::send(const SmpPacket& packet, const SmpTransport::ResponseHandler& handler, Wait wait,
                     milliseconds extra)
{
    // Time limits grow with what the line needs to carry the request: the
    // response time-out starts once the device can have read it. Room for
    // one re-send on the line, too.
    const auto wire = wireTime(transport_->wireSize(packet) + kResponseAllowance);
    const auto budget = response_timeout_ + extra + 2 * wire;
    const auto transmit = 2 * wire + milliseconds(1000);
    // A lost answer is asked for again soon after it was due, and after the
    // extra time the device needs for this request; a request that is never
    // sent again waits the whole budget.
    const auto slack = std::min(kResendSlack, response_timeout_ / 2);
    const auto wait_time = wait == Wait::Whole ? budget : std::min(budget, wire + extra + slack);
    transport_->send(packet, handler, wait_time, budget, transmit);
}

McuBootFailure SmpClient::failed(const McuBootFailure& failure, const std::string& report)
{
    progress_.report(report, 0, failure.error());
    return failure.within(report);
}

void SmpClient::openDevice(bool query_parameters)
{
    progress_.beginStep(ProgressOperation::OpenDevice, "Open device.");
    progress_.report("Opening " + transport_->description(), 0);
    try {
        transport_->open();
    } catch (const McuBootFailure& f) {
        Log::error("Not able to open MCUBoot transport, error is {}", toString(f.error()));
        throw failed(f, "Not able to open transport.");
    }
    if (query_parameters) {
        negotiateLimits();
    } else {
        transport_->setMtu(options_.lineLength);
        transport_->setFrameSize(options_.packetSize);
    }
    chunks_ = chunkSizes(transport_->maxFrameContentSize(transport_->frameSize(), transport_->mtu()));
    Log::info("Have image upload chunk size of {} (1st packet) and {} (proceeding)", chunks_.first, chunks_.following);
    Log::info("Using MTU {} and frame size {}.", transport_->mtu(), transport_->frameSize());
    if (chunks_.first == 0 || chunks_.following == 0) {
        const char* const message =
            "Estimated max chunk upload sizes must be larger than zero. Consider tuning/increasing MTU or frame size.";
        Log::error("{}", message);
        progress_.report("Not able to open transport.", 0, McuBootError::Invalid);
        transport_->close();
        throw McuBootFailure(McuBootError::Invalid, message);
    }
    Log::info("Transport was opened successfully.");
    progress_.report("Transport was opened successfully.", 100);
}

template <typename Parse>
auto SmpClient::query(const SmpPacket& request, Parse parse)
{
    decltype(parse(request)) answer;
    transport_->send(
        request, [&](const SmpPacket& response) { answer = parse(response); }, kParameterQueryTimeout,
        kParameterQueryTimeout, kParameterQueryTimeout + milliseconds(1000));
    return answer;
}

void SmpClient::negotiateLimits()
{
    response_timeout_ = kParameterQueryTimeout;
    const bool told = askStatistics() || askParameters();
    response_timeout_ = options_.responseTimeout;
    if (!told) {
        transport_->setMtu(options_.lineLength);
        transport_->setFrameSize(options_.packetSize);
        Log::info("Not able to obtain connection parameters. Continuing with defaults, max frame size: {}, mtu: {}",
                  transport_->frameSize(), transport_->mtu());
    }
}

// A device that answers "smp_com" gets exactly the limits it names.
bool SmpClient::askStatistics()
{
    try {
        const auto params = query(commParamsRequest(sequence_.next()), parseCommParams);
        if (!params) {
            return false;
        }
        const auto sizes = chunkSizes(transport_->maxFrameContentSize(params->packMax, params->frameMax));
        if (sizes.first == 0 || sizes.following == 0) {
            Log::warn("Max frame length {} and MTU {} obtained from device results in invalid chunk/payload sizes. "
                      "Using default values instead",
                      params->packMax, params->frameMax);
            return false;
        }
        transport_->setMtu(params->frameMax);
        transport_->setFrameSize(params->packMax);
        Log::info("Obtained connection parameters. Max frame size: {}, mtu: {}", params->packMax, params->frameMax);
        return true;
    } catch (const McuBootFailure& e) {
        Log::info("Error caught in smp_server_stat_communication_parameters: {}", e.what());
        return false;
    }
}

// An MCUboot built with its parameter query names its receive buffer; its
// console lines stay as they are.
bool SmpClient::askParameters()
{
    try {
        const auto buffer = query(mcumgrParametersRequest(sequence_.next()), parseBufferSize);
        if (!buffer) {
            return false;
        }
        const auto sizes = chunkSizes(transport_->maxFrameContentSize(*buffer, options_.lineLength));
        if (sizes.first == 0 || sizes.following == 0) {
            Log::warn("A receive buffer of {} bytes leaves no room for image chunks. Using default values instead",
                      *buffer);
            return false;
        }
        transport_->setMtu(options_.lineLength);
        transport_->setFrameSize(*buffer);
        Log::info("Obtained connection parameters. Max frame size: {}, mtu: {}", *buffer, options_.lineLength);
        return true;
    } catch (const McuBootFailure& e) {
        Log::info("The device did not answer the parameter query: {}", e.what());
        return false;
    }
}

void SmpClient::closeDevice()
{
    progress_.beginStep(ProgressOperation::CloseDevice, "Close device.");
    try {
        transport_->close();
    } catch (const McuBootFailure& f) {
        Log::error("Not able to close MCUBoot transport, error is {}", toString(f.error()));
        throw failed(f, "Not able to close transport.");
    }
    progress_.report("Transport was closed.", 100);
}

bool SmpClient::eraseImage()
{
    progress_.beginStep(ProgressOperation::EraseImage, "Erase image.");
    progress_.report("Starting to erase image on device.", 0);
    Log::info("Sending erase request to device.");
    bool supported = true;
    try {
        // An erase can keep the device long, and a second request would only
        // queue a second erase: it is sent once.
        send(
            eraseRequest(sequence_.next()),
            [&supported](const SmpPacket& response) {
                if (decodeWriteResponse(response).rc == kRcNotSupported) {
                    supported = false;
                    return;
                }
                checkWriteResponse(response, WriteRequest::Erase);
            },
            Wait::Whole);
    } catch (const McuBootFailure& f) {
        Log::error("Error calling eraseSettings, {}", f.what());
        throw failed(f, "Not able to erase image on device.").within("Erasing image failed.");
    }
    if (!supported) {
        Log::info("The device has no image erase command (rc {}); it erases the slot when the upload starts.",
                  kRcNotSupported);
        progress_.report("The device erases the image slot when the upload starts.", 100);
        return false;
    }
    progress_.report("Successfully erased image on device.", 100);
    return true;
}

void SmpClient::resetDevice()
{
    progress_.beginStep(ProgressOperation::EnterApplicationState, "Reset device.");
    Log::info("Sending reset request to device.");
    try {
        send(
            resetRequest(sequence_.next()), [](const SmpPacket& response) { checkWriteResponse(response); },
            Wait::Resend);
    } catch (const McuBootFailure& f) {
        // A re-sent request may meet the port already gone, as a read or a write.
        if (f.error() != McuBootError::UartReadError && f.error() != McuBootError::UartWriteError &&
            f.error() != McuBootError::UartNotOpenError) {
            Log::error("Error calling enterApplicationState, {}", f.what());
            throw failed(f, "Not able to reset device.");
        }
        // Its serial port went away: the device is restarting.
        Log::info("The serial port went away after the reset request: the device restarted.");
    }
    progress_.report("Device was reset.", 100);
}

uint32_t SmpClient::uploadChunk(std::span<const uint8_t> data, uint32_t offset, uint32_t total, uint32_t address,
                                MgmtGroupId group, std::optional<uint32_t> image_number)
{
    Log::info("Uploading chunk offset: {}, len: {}, out of total len {}, target addr: {}", offset, data.size(), total,
              address);
    SmpPacket packet;
    try {
        packet = uploadChunkRequest(sequence_.next(), group, ChunkRequest{data, offset, total, image_number, address});
    } catch (const SmpException& e) {
        Log::error("error in upload_image_chunk, {}", e.what());
        throw McuBootFailure(McuBootError::Unknown, fmt::format("error in upload_image_chunk, {}", e.what()));
    }
    checkPacketSize(transport_->encodedSize(packet), transport_->frameSize());
    uint32_t answered = 0;
    // The chunk at offset 0 is answered once the device has erased the slot.
    const auto extra = offset == 0 ? eraseAllowance(total) : milliseconds(0);
    send(
        packet, [&answered](const SmpPacket& response) { answered = chunkResponseOffset(response); }, Wait::Resend,
        extra);
    return answered;
}

void SmpClient::uploadImage(ImageFile& image, MgmtGroupId group, std::optional<uint32_t> image_number, bool erase_first,
                            int start_percentage)
{
    if (!isUploadGroup(group)) {
        Log::error("Invalid target_mgmt_service in uploadImage: {}", group);
        progress_.report("Invalid smp target service.", start_percentage, McuBootError::Invalid);
        throw McuBootFailure(McuBootError::Invalid, "Invalid smp target service.");
    }
    if (group == MgmtGroup::Image && erase_first) {
        Log::info("Requesting image erase prior to uploading new image.");
        if (eraseImage()) {
            Log::info("Successfully erased image on device.");
        }
    }
    progress_.beginStep(ProgressOperation::UploadImage, "Upload image.");
    progress_.report("Calculating image size.", start_percentage);
    const auto total = static_cast<uint32_t>(image.length());
    progress_.report("Uploading image to device.", start_percentage);
    image.seek(0);
    uint32_t offset = 0;
    int reported = start_percentage;
    const auto started = Clock::now();
    const auto fail = [&](McuBootError error, const std::string& report, const std::string& message) {
        progress_.report(report, reported, error);
        return McuBootFailure(error, message);
    };
    while (true) {
        if (options_.cancelRequested && options_.cancelRequested()) {
            cancelled_ = true;
            Log::warn("Upload cancelled after {} of {} bytes.", offset, total);
            throw fail(McuBootError::Unknown, "Upload cancelled.", "Upload cancelled.");
        }
        ImageChunk chunk;
        try {
            chunk = image.nextChunk(offset == 0 ? chunks_.first : chunks_.following);
        } catch (const std::exception& e) {
            Log::error("Error while reading data from image file: {}", e.what());
            throw fail(McuBootError::Unknown, "Not able to read from image file.",
                       fmt::format("Error while reading data from image file: {}", e.what()));
        }
        if (chunk.bytes.empty()) {
            Log::info("Image was uploaded successfully.");
            progress_.report("Image was uploaded successfully.", 100);
            return;
        }
        const auto chunk_start = Clock::now();
        uint32_t answered = 0;
        try {
            answered = uploadChunk(chunk.bytes, offset, total, chunk.address, group, image_number);
        } catch (const McuBootFailure& f) {
            Log::error("Error during hex file upload. Upload returned an error.");
            progress_.report("Image upload failed. Bad response from device.", reported, f.error());
            throw;
        }
        const auto end = static_cast<uint32_t>(offset + chunk.bytes.size());
        if (answered != end) {
            if (answered <= offset || answered > end) {
                const auto message = fmt::format(
                    "Unexpected offset returned from smp server during chunk upload. Wanted {}, got {}", end, answered);
                Log::error("{}", message);
                throw fail(McuBootError::BadState, "Image upload failed. Bad response from device.", message);
            }
            // Flash takes whole write blocks: the device asks for the rest again.
            Log::debug("The device stored {} of {} bytes; going on from offset {}", answered - offset,
                       chunk.bytes.size(), answered);
            image.seek(answered);
        }
        const auto now = Clock::now();
        Log::debug("Chunk upload took {}ms. Current upload runtime is {}s",
                   std::chrono::duration_cast<milliseconds>(now - chunk_start).count(),
                   std::chrono::duration_cast<std::chrono::seconds>(now - started).count());
        offset = answered;
        const int percentage = start_percentage + static_cast<int>(static_cast<double>(offset) / total * kUploadSpan);
        if (percentage != reported) {
            reported = percentage;
            progress_.report(fmt::format("Uploaded {} of {} bytes.", offset, total), percentage);
        }
    }
}

void SmpClient::uploadImages(MultiImageFile& package, MgmtGroupId group)
{
    Log::info("Upload images.");
    bool first = true;
    for (auto& entry : package.images()) {
        // The erase has no image number, so it always clears the same slot:
        // once, before the first image, or it would undo the last.
        try {
            uploadImage(*entry.image, group, entry.imageIndex, first);
        } catch (const McuBootFailure&) {
            Log::error("Multi image upload failed.");
            throw;
        }
        first = false;
    }
    Log::info("Multi image upload was successful.");
}

} // namespace HALYX::MCUBOOT
