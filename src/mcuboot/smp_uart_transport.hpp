#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "mcuboot/frame_receiver.hpp"
#include "mcuboot/serial_link.hpp"
#include "mcuboot/serial_settings.hpp"
#include "mcuboot/smp_transport.hpp"

namespace HALYX::MCUBOOT {

// SMP over a serial line in the console framing.
//
// Threads: send() and the state calls run on the caller's thread; the serial
// link's work thread feeds received bytes in. Locks: receive_mutex_ guards
// the frame receiver; queue_mutex_ the decoded packets and the port's
// failure, with packet_arrived_ signalled for each packet and for a failure.
// The two are never held together.
class SmpUartTransport : public SmpTransport {
public:
    static constexpr uint32_t kDefaultMtu = 500;
    static constexpr uint32_t kDefaultFrameSize = 65535;

    // Throws std::invalid_argument or std::out_of_range for bad settings.
    explicit SmpUartTransport(SerialSettings settings);
    ~SmpUartTransport() override;

    void open() override;
    void close() override;
    bool isOpen() const override;

    std::string description() const override { return name_; }
    void send(const SmpPacket& packet, const ResponseHandler& handler, Milliseconds wait_time,
              Milliseconds receive_timeout, Milliseconds transmit_timeout) override;
    uint32_t frameSize() const override { return frame_size_; }
    void setFrameSize(uint32_t size) override { frame_size_ = size; }
    uint32_t mtu() const override { return mtu_; }
    void setMtu(uint32_t mtu) override { mtu_ = mtu; }
    int64_t maxFrameContentSize(uint32_t packet_limit, uint32_t line_limit) const override;
    size_t encodedSize(const SmpPacket& packet) const override;
    size_t wireSize(const SmpPacket& packet) const override;

private:
    void onData(std::span<const uint8_t> bytes);
    void onFailure(const std::string& message);
    std::optional<SmpPacket> takeResponse(uint8_t seq);
    // True while part of a packet has been received.
    bool receiving();

    const std::string name_;
    std::atomic<uint32_t> mtu_{kDefaultMtu};
    std::atomic<uint32_t> frame_size_{kDefaultFrameSize};

    std::mutex receive_mutex_;
    FrameReceiver receiver_;

    std::mutex queue_mutex_;
    std::condition_variable packet_arrived_;
    std::deque<SmpPacket> packets_;
    std::optional<std::string> failure_; // why reading stopped

    std::atomic<bool> data_flag_{false};

    // Last: its work thread calls back into the members above.
    SerialLink link_;
};

} // namespace HALYX::MCUBOOT
