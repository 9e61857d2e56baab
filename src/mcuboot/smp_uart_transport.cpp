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
          [this](const std::string& message) { onFailure(message); })
{
}

SmpUartTransport::~SmpUartTransport()
{
    link_.close();
}

void SmpUartTransport::open()
{
    {
        std::lock_guard lock(receive_mutex_);
        receiver_.clear();
    }
    {
        std::lock_guard lock(queue_mutex_);
        packets_.clear();
        failure_.reset();
    }
    link_.open();
}

void SmpUartTransport::close()
{
    link_.close();
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

void SmpUartTransport::onFailure(const std::string& message)
{
    Log::warn("Got corrupt data. {}", message);
    {
        // Under the queue mutex so a waiter cannot miss the wake-up.
        std::lock_guard lock(queue_mutex_);
        failure_ = message;
    }
    packet_arrived_.notify_all();
}

bool SmpUartTransport::receiving()
{
    std::lock_guard lock(receive_mutex_);
    return receiver_.pendingFrames() > 0 || receiver_.bufferedBytes() > 0;
}

std::optional<SmpPacket> SmpUartTransport::takeResponse(uint8_t seq)
{
    // Caller holds queue_mutex_.
    const auto match =
        std::find_if(packets_.begin(), packets_.end(), [seq](const SmpPacket& p) { return p.header().seq == seq; });
    if (match == packets_.end()) {
        return std::nullopt;
    }
    SmpPacket packet = std::move(*match);
    packets_.erase(match);
    return packet;
}

void SmpUartTransport::send(const SmpPacket& packet, const ResponseHandler& handler, Milliseconds wait_time,
                            Milliseconds receive_timeout, Milliseconds transmit_timeout)
{
    using Clock = std::chrono::steady_clock;
    if (!link_.isOpen()) {
        // Let the link say why in its own words.
        link_.write({}, transmit_timeout);
    }
    ConsoleFraming::EncodedPacket encoded;
    try {
        encoded = ConsoleFraming::encode(packet, mtu_);
    } catch (const std::exception& e) {
        Log::error("Not able to encode packet, {}", e.what());
        throw McuBootFailure(McuBootError::Unknown, fmt::format("Not able to encode packet, {}", e.what()));
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
    }

    const auto write = [&] {
        Log::trace("UART TX({})", bytes.size());
        link_.write(bytes, transmit_timeout);
    };
    write();
    if (wait_time < Milliseconds(1)) {
        return;
    }

    const auto deadline = Clock::now() + receive_timeout;
    while (true) {
        std::optional<SmpPacket> response;
        std::optional<std::string> failure;
        {
            std::unique_lock lock(queue_mutex_);
            const auto until = std::min(Clock::now() + wait_time, deadline);
            Log::trace("Waiting with timeout {}ms",
                       std::chrono::duration_cast<Milliseconds>(until - Clock::now()).count());
            packet_arrived_.wait_until(lock, until, [&] {
                response = takeResponse(seq);
                return response.has_value() || failure_.has_value();
            });
            failure = failure_;
        }
        if (response) {
            handler(*response);
            return;
        }
        if (failure) {
            // Nothing more can come: the device went away or the port broke.
            throw McuBootFailure(McuBootError::UartReadError,
                                 fmt::format("The serial port stopped delivering data: {}", *failure));
        }
        const bool data = data_flag_.exchange(false);
        Log::debug("Got uart flags: DATA {}, CORRUPT {}", data, false);
        const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            Log::error("No time left to wait for data. Timeout");
            throw McuBootFailure(McuBootError::Timeout, "No time left to wait for data. Timeout");
        }
        if (data && receiving()) {
            // Part of an answer is in: the rest is on its way, and a re-send
            // would only queue a second one behind it.
            continue;
        }
        Log::info("Re-sending package. {}ms left before timeout.", left.count());
        write();
    }
}

} // namespace HALYX::MCUBOOT
