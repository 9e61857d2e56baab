#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "mcuboot/mcuboot_error.hpp"
#include "mcuboot/serial_settings.hpp"

namespace HALYX::MCUBOOT {

// One serial port opened for SMP: asynchronous reads on a work thread of its
// own (one io_context per open port), writes from the caller with a time
// limit. Failures are McuBootFailures.
//
// Threads: open, close and write come from the caller's thread and are
// serialised by session_mutex_; the data and failure handlers run on the
// work thread only, which close() joins.
class SerialLink {
public:
    using DataHandler = std::function<void(std::span<const uint8_t>)>;
    // Reading failed: the device went away (a USB device that restarts) or
    // the port broke. Nothing more is read.
    using FailureHandler = std::function<void(const std::string& message)>;

    SerialLink(SerialSettings settings, DataHandler on_data, FailureHandler on_failure);
    ~SerialLink();
    SerialLink(const SerialLink&) = delete;
    SerialLink& operator=(const SerialLink&) = delete;

    // Throws UartNotFound, UartPermissionError or UartResourceError.
    void open();
    // Never throws: a port that went away closes all the same.
    void close();
    bool isOpen() const { return open_; }

    // Writes all bytes; throws UartNotOpenError on a closed port, UartWriteError
    // when the write fails or does not finish within timeout.
    void write(std::span<const uint8_t> bytes, std::chrono::milliseconds timeout);

    const SerialSettings& settings() const { return settings_; }

private:
    struct Session;

    void startRead(Session& session);

    const SerialSettings settings_;
    const DataHandler on_data_;
    const FailureHandler on_failure_;

    std::mutex session_mutex_;
    std::unique_ptr<Session> session_;
    std::atomic<bool> open_{false};
};

} // namespace HALYX::MCUBOOT
