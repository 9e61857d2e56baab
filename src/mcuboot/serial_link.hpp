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
// limit. Never throws; results are McuBootError.
//
// Threads: open, close and write come from the caller's thread and are
// serialised by session_mutex_; the data and status handlers run on the work
// thread only, which close() joins.
class SerialLink {
public:
    using DataHandler = std::function<void(std::span<const uint8_t>)>;
    using StatusHandler = std::function<void(McuBootError status, const std::string& message)>;

    SerialLink(SerialSettings settings, DataHandler on_data, StatusHandler on_status);
    ~SerialLink();
    SerialLink(const SerialLink&) = delete;
    SerialLink& operator=(const SerialLink&) = delete;

    McuBootError open();
    McuBootError close();
    bool isOpen() const { return open_; }

    // Writes all bytes or reports why not: UartNotOpenError on a closed port,
    // UartWriteError when the write fails or does not finish within timeout.
    McuBootError write(std::span<const uint8_t> bytes, std::chrono::milliseconds timeout);

    const SerialSettings& settings() const { return settings_; }

private:
    struct Session;

    void startRead(Session& session);
    void reportStatus(McuBootError status, const std::string& message);

    const SerialSettings settings_;
    const DataHandler on_data_;
    const StatusHandler on_status_;

    std::mutex session_mutex_;
    std::unique_ptr<Session> session_;
    std::atomic<bool> open_{false};
};

} // namespace HALYX::MCUBOOT
