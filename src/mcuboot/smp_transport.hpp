#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "mcuboot/mcuboot_error.hpp"
#include "mcuboot/smp_packet.hpp"

namespace HALYX::MCUBOOT {

// Carries SMP packets to a device and back. Failures are McuBootFailures.
// The order of the virtual operations after the state queries is part of
// the design; append only.
class SmpTransport {
public:
    // Checks a response; throws McuBootFailure when it is not the one wanted.
    using ResponseHandler = std::function<void(const SmpPacket&)>;
    using Milliseconds = std::chrono::milliseconds;

    virtual ~SmpTransport() = default;
    virtual void open() = 0;
    virtual void close() = 0;
    virtual bool isOpen() const = 0;

    virtual std::string description() const = 0;
    // Sends the packet and hands the response with the same sequence number
    // to the handler, sending again when none came within wait_time, until
    // receive_timeout. A wait time below 1 ms does not wait. Throws the
    // handler's failure, Timeout, UartWriteError, UartNotOpenError, or
    // UartReadError when the port went away.
    virtual void send(const SmpPacket& packet, const ResponseHandler& handler, Milliseconds wait_time,
                      Milliseconds receive_timeout, Milliseconds transmit_timeout) = 0;
    virtual uint32_t frameSize() const = 0;
    virtual void setFrameSize(uint32_t size) = 0;
    virtual uint32_t mtu() const = 0;
    virtual void setMtu(uint32_t mtu) = 0;
    virtual int64_t maxFrameContentSize(uint32_t packet_limit, uint32_t line_limit) const = 0;
    // How large the packet is on this transport, in the unit frameSize() limits.
    virtual size_t encodedSize(const SmpPacket& packet) const = 0;
    // Bytes on the wire for the packet, framing included.
    virtual size_t wireSize(const SmpPacket& packet) const = 0;
};

} // namespace HALYX::MCUBOOT
