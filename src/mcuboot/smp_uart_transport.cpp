#include "mcuboot/smp_uart_transport.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "core/logging.hpp"
#include "mcuboot/console_framing.hpp"

namespace HALYX::MCUBOOT {
namespace {

std::vector<uint8_t> joinFrames(const ConsoleFraming::EncodedPacket& encoded)
{
    std::vector<uint8_t> bytes;
    for (const auto& frame : encoded.frames) {
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    return bytes;
}

} // namespace

SmpUartTransport::SmpUartTransport(SerialSettings settings)
    : name_(fmt::format("SMP UART ({}@{})", settings.port, settings.baudRate)),
      link_(
          std::move(settings), [this](std::span<const uint8_t> bytes) { onData(bytes); },
          [this](McuBootError status, const std::string& message) { onStatus(status, message); })
{
}

SmpUartTransport::~SmpUartTransport()
{
    link_.close();
}

McuBootError SmpUartTransport::open()
{
    {
        std::lock_guard lock(receive_mutex_);
        receiver_.clear();
    }
    return link_.open();
}

McuBootError SmpUartTransport::close()
{
    return link_.close();
}

bool SmpUartTransport::isOpen() const
{
    return link_.isOpen();
}

int64_t SmpUartTransport::maxFrameContentSize(uint32_t packet_limit, uint32_t line_limit) const
{
    return ConsoleFraming::maxFrameContentSize(packet_limit, line_limit);
}

size_t SmpUartTransport::encodedSize(const SmpPacket& packet) const
{
    return ConsoleFraming::encode(packet, mtu_).size;
}

size_t SmpUartTransport::wireSize(const SmpPacket& packet) const
{
    const auto encoded = ConsoleFraming::encode(packet, mtu_);
    return encoded.size + encoded.frames.size() * ConsoleFraming::kFrameOverhead;
}

void SmpUartTransport::onData(std::span<const uint8_t> bytes)
{
    data_flag_ = true;
    std::vector<SmpPacket> packets;
    {
        std::lock_guard lock(receive_mutex_);
        packets = receiver_.feed(bytes);
    }
    if (packets.empty()) {
        return;
    }
    {
        std::lock_guard lock(queue_mutex_);
        for (auto& packet : packets) {
            packets_.push_back(std::move(packet));
        }
    }
    packet_arrived_.notify_all();
}

void SmpUartTransport::onStatus(McuBootError status, const std::string& message)
{
    if (status == McuBootError::UartReadError) {
        Log::warn("Got corrupt data. {}", message);
        {
            // Under the queue mutex so a waiter cannot miss the wake-up.
            std::lock_guard lock(queue_mutex_);
            corrupt_flag_ = true;
        }
        packet_arrived_.notify_all();
    }
}

bool SmpUartTransport::receiving()
{
    std::lock_guard lock(receive_mutex_);
    return receiver_.pendingFrames() > 0 || receiver_.bufferedBytes() > 0;
}

std::optional<SmpPacket> SmpUartTransport::takeResponse(uint8_t seq)
{
    // Caller holds queue_mutex_.
    const auto match = std::find_if(packets_.begin(), packets_.end(),
                                    [seq](const SmpPacket& p) { return p.header().seq == seq; });
    if (match == packets_.end()) {
        return std::nullopt;
    }
    SmpPacket packet = std::move(*match);
    packets_.erase(match);
    return packet;
}

McuBootError SmpUartTransport::send(const SmpPacket& packet, const ResponseHandler& handler, Milliseconds wait_time,
                                    Milliseconds receive_timeout, Milliseconds transmit_timeout)
{
    using Clock = std::chrono::steady_clock;
    if (!link_.isOpen()) {
        // Let the link say why in its own words.
        return link_.write({}, transmit_timeout);
    }
    ConsoleFraming::EncodedPacket encoded;
    try {
        encoded = ConsoleFraming::encode(packet, mtu_);
    } catch (const std::exception& e) {
        Log::error("Not able to encode packet, {}", e.what());
        return McuBootError::Unknown;
    }
    const auto bytes = joinFrames(encoded);
    const uint8_t seq = packet.header().seq;
    Log::debug("TX pkt with header: {}, total size: {}, wait time: {}, timeout rx: {}, timeout tx: {}",
               packet.header().toString(), encoded.size, wait_time.count(), receive_timeout.count(),
               transmit_timeout.count());
    {
        std::lock_guard lock(queue_mutex_);
        if (!packets_.empty()) {
            Log::debug("Removed {} packets in packet buffer before send function.", packets_.size());
            packets_.clear();
        }
        data_flag_ = false;
        corrupt_flag_ = false;
    }

    const auto write = [&] {
        Log::trace("UART TX({})", bytes.size());
        return link_.write(bytes, transmit_timeout);
    };
    if (const auto written = write(); written != McuBootError::Ok) {
        return written;
    }
    if (wait_time < Milliseconds(1)) {
        return McuBootError::Ok;
    }

    const auto start = Clock::now();
    const auto deadline = start + receive_timeout;
    while (true) {
        std::optional<SmpPacket> response;
        {
            std::unique_lock lock(queue_mutex_);
            const auto until = std::min(Clock::now() + wait_time, deadline);
            Log::trace("Waiting with timeout {}ms",
                       std::chrono::duration_cast<Milliseconds>(until - Clock::now()).count());
            packet_arrived_.wait_until(lock, until, [&] {
                response = takeResponse(seq);
                return response.has_value() || corrupt_flag_.load();
            });
        }
        if (response) {
            try {
                return handler(*response);
            } catch (const std::exception& e) {
                Log::error("Exception occured while handling the response, {}", e.what());
                return McuBootError::Unknown;
            }
        }
        const bool data = data_flag_.exchange(false);
        const bool corrupt = corrupt_flag_.exchange(false);
        Log::debug("Got uart flags: DATA {}, CORRUPT {}", data, corrupt);
        const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            Log::error("No time left to wait for data. Timeout");
            return McuBootError::Timeout;
        }
        if (data && !corrupt && receiving()) {
            // Part of an answer is in: the rest is on its way, and a re-send
            // would only queue a second one behind it.
            continue;
        }
        Log::info("Re-sending package. {}ms left before timeout.", left.count());
        if (const auto written = write(); written != McuBootError::Ok) {
            return written;
        }
    }
}

} // namespace HALYX::MCUBOOT
