#include "mcuboot/serial_link.hpp"

#include <array>
#include <cerrno>
#include <condition_variable>
#include <optional>
#include <thread>
#include <vector>

#include <termios.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/serial_port.hpp>
#include <asio/write.hpp>

#include "core/logging.hpp"

namespace HALYX::MCUBOOT {

struct SerialLink::Session {
    asio::io_context io;
    asio::serial_port port{io};
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
    std::thread thread;
    std::array<uint8_t, 4096> read_buffer{};
    std::atomic<bool> closing{false};

    // Completion of the one write in flight (writes are serialised).
    std::mutex write_mutex;
    std::condition_variable write_done;
};

namespace {

McuBootError openFailure(const std::error_code& code)
{
    switch (code.value()) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
    case ENOTDIR:
        return McuBootError::UartNotFound;
    case EACCES:
    case EPERM:
        return McuBootError::UartPermissionError;
    default:
        return McuBootError::UartResourceError;
    }
}

void applySettings(asio::serial_port& port, const SerialSettings& settings)
{
    using base = asio::serial_port_base;
    static constexpr base::flow_control::type flow[] = {base::flow_control::none, base::flow_control::software,
                                                         base::flow_control::hardware};
    static constexpr base::parity::type parity[] = {base::parity::none, base::parity::odd, base::parity::even};
    static constexpr base::stop_bits::type stop[] = {base::stop_bits::one, base::stop_bits::onepointfive,
                                                     base::stop_bits::two};
    port.set_option(base::baud_rate(settings.baudRate));
    port.set_option(base::flow_control(flow[settings.flowControl]));
    port.set_option(base::parity(parity[settings.parity]));
    port.set_option(base::stop_bits(stop[settings.stopBits]));
    port.set_option(base::character_size(settings.characterSize));
}

} // namespace

SerialLink::SerialLink(SerialSettings settings, DataHandler on_data, StatusHandler on_status)
    : settings_(std::move(settings)), on_data_(std::move(on_data)), on_status_(std::move(on_status))
{
    settings_.validate();
}

SerialLink::~SerialLink()
{
    close();
}

void SerialLink::reportStatus(McuBootError status, const std::string& message)
{
    Log::debug("status:{}, message:{}", toNumber(status), message);
    if (on_status_) {
        on_status_(status, message);
    }
}

McuBootError SerialLink::open()
{
    std::lock_guard lock(session_mutex_);
    if (session_) {
        return McuBootError::Ok;
    }
    auto session = std::make_unique<Session>();
    Log::debug("{}", settings_.toString());
    try {
        session->port.open(settings_.port);
    } catch (const std::system_error& e) {
        Log::error("Error setting up serial port {}. {}", settings_.port, e.what());
        return openFailure(e.code());
    }
    try {
        applySettings(session->port, settings_);
    } catch (const std::exception& e) {
        Log::error("Error setting up serial port {}. {}", settings_.port, e.what());
        return McuBootError::UartResourceError;
    }
    // Whatever the device said before we listened belongs to nobody.
    if (::tcflush(session->port.native_handle(), TCIOFLUSH) != 0) {
        Log::warn("Error purging UART {}", settings_.port);
    }
    session->work.emplace(session->io.get_executor());
    startRead(*session);
    try {
        session->thread = std::thread([io = &session->io] {
            const auto handlers = io->run();
            Log::debug("serial io_context executed {} handlers.", handlers);
        });
    } catch (const std::system_error& e) {
        Log::error("Error starting serial port work thread. {} on serial port {}.", e.what(), settings_.port);
        return McuBootError::UartResourceError;
    }
    session_ = std::move(session);
    open_ = true;
    Log::info("Successfully opened {}.", settings_.port);
    return McuBootError::Ok;
}

void SerialLink::startRead(Session& session)
{
    session.port.async_read_some(asio::buffer(session.read_buffer), [this, &session](const asio::error_code& error,
                                                                                     size_t count) {
        if (count > 0 && on_data_) {
            try {
                on_data_(std::span<const uint8_t>(session.read_buffer.data(), count));
            } catch (const std::exception& e) {
                Log::error("serial port data handler failed on port {}: {}", settings_.port, e.what());
            }
        }
        if (!error) {
            startRead(session);
            return;
        }
        if (error == asio::error::operation_aborted) {
            Log::debug("serial port read on port {} aborted", settings_.port);
            // A timed-out write cancels the read too; keep listening.
            if (!session.closing && session.port.is_open()) {
                startRead(session);
            }
            return;
        }
        // End of file or EIO: the device went away. Reading stops here; the
        // next write reports the failure.
        Log::error("serial port read failed on port {}. Error {} [{}]", settings_.port, error.value(),
                   error.message());
        reportStatus(McuBootError::UartReadError, error.message());
    });
}

McuBootError SerialLink::write(std::span<const uint8_t> bytes, std::chrono::milliseconds timeout)
{
    std::lock_guard lock(session_mutex_);
    if (!session_ || !open_) {
        Log::error("Trying to send packets to device when serial device is closed is not supported");
        reportStatus(McuBootError::UartNotOpenError, "serial port is not open");
        return McuBootError::UartNotOpenError;
    }
    Session& session = *session_;
    struct Pending {
        std::vector<uint8_t> data;
        bool done = false;
        asio::error_code error;
    };
    auto pending = std::make_shared<Pending>();
    pending->data.assign(bytes.begin(), bytes.end());
    asio::post(session.io, [&session, pending] {
        asio::async_write(session.port, asio::buffer(pending->data),
                          [&session, pending](const asio::error_code& error, size_t) {
                              {
                                  std::lock_guard done_lock(session.write_mutex);
                                  pending->error = error;
                                  pending->done = true;
                              }
                              session.write_done.notify_all();
                          });
    });

    std::unique_lock done_lock(session.write_mutex);
    if (!session.write_done.wait_for(done_lock, timeout, [&] { return pending->done; })) {
        Log::error("error writing data to UART, the write did not finish within {}ms", timeout.count());
        asio::post(session.io, [&session] {
            asio::error_code ignored;
            session.port.cancel(ignored);
        });
        // The cancelled write completes promptly; never leave it running
        // over the next one.
        session.write_done.wait_for(done_lock, std::chrono::seconds(2), [&] { return pending->done; });
        return McuBootError::UartWriteError;
    }
    if (pending->error) {
        Log::error("error writing data to UART, {}", pending->error.message());
        return pending->error == asio::error::bad_descriptor ? McuBootError::UartNotOpenError
                                                             : McuBootError::UartWriteError;
    }
    return McuBootError::Ok;
}

McuBootError SerialLink::close()
{
    std::lock_guard lock(session_mutex_);
    if (!session_) {
        return McuBootError::Ok;
    }
    Session& session = *session_;
    session.closing = true;
    open_ = false;
    auto result = McuBootError::Ok;
    asio::post(session.io, [&session, &result, this] {
        asio::error_code error;
        session.port.cancel(error);
        session.port.close(error);
        if (error) {
            Log::error("Error closing serial port {}: {}", settings_.port, error.message());
            result = McuBootError::UartResourceError;
        }
    });
    session.work.reset();
    if (session.thread.joinable()) {
        session.thread.join();
    }
    session_.reset();
    Log::info("serial port {} closed.", settings_.port);
    return result;
}

} // namespace HALYX::MCUBOOT
