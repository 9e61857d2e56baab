#include "mcuboot/serial_link.hpp"

#include <array>
#include <cerrno>
#include <optional>
#include <thread>
#include <vector>

#include <termios.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/serial_port.hpp>
#include <asio/use_future.hpp>
#include <asio/write.hpp>
#include <fmt/format.h>

#include "core/logging.hpp"

namespace HALYX::MCUBOOT {

struct SerialLink::Session {
    asio::io_context io;
    asio::serial_port port{io};
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
    std::thread thread;
    std::array<uint8_t, 4096> read_buffer{};
    std::atomic<bool> closing{false};
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

SerialLink::SerialLink(SerialSettings settings, DataHandler on_data, FailureHandler on_failure)
    : settings_(std::move(settings)), on_data_(std::move(on_data)), on_failure_(std::move(on_failure))
{
    settings_.validate();
}

SerialLink::~SerialLink()
{
    close();
}

void SerialLink::open()
{
    std::lock_guard lock(session_mutex_);
    if (session_) {
        return;
    }
    auto session = std::make_unique<Session>();
    Log::debug("{}", settings_.toString());
    const auto failed = [this](McuBootError error, const std::string& why) {
        auto message = fmt::format("Error setting up serial port {}. {}", settings_.port, why);
        Log::error("{}", message);
        return McuBootFailure(error, std::move(message));
    };
    try {
        session->port.open(settings_.port);
    } catch (const std::system_error& e) {
        throw failed(openFailure(e.code()), e.what());
    }
    try {
        applySettings(session->port, settings_);
    } catch (const std::exception& e) {
        throw failed(McuBootError::UartResourceError, e.what());
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
        auto message =
            fmt::format("Error starting serial port work thread. {} on serial port {}.", e.what(), settings_.port);
        Log::error("{}", message);
        throw McuBootFailure(McuBootError::UartResourceError, std::move(message));
    }
    session_ = std::move(session);
    open_ = true;
    Log::info("Successfully opened {}.", settings_.port);
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
        // End of file or EIO: the device went away. Reading stops here.
        Log::error("serial port read failed on port {}. Error {} [{}]", settings_.port, error.value(), error.message());
        if (on_failure_) {
            on_failure_(error.message());
        }
    });
}

void SerialLink::write(std::span<const uint8_t> bytes, std::chrono::milliseconds timeout)
{
    std::lock_guard lock(session_mutex_);
    if (!session_ || !open_) {
        Log::error("Trying to send packets to device when serial device is closed is not supported");
        throw McuBootFailure(McuBootError::UartNotOpenError,
                             "Trying to send packets to device when serial device is closed is not supported");
    }
    Session& session = *session_;
    const std::vector<uint8_t> data(bytes.begin(), bytes.end());
    // Started on the work thread, where the port's reads are: asio's objects
    // are not to be used from two threads at once.
    auto written = asio::post(session.io, asio::use_future([&session, &data] {
                                  return asio::async_write(session.port, asio::buffer(data), asio::use_future);
                              }))
                       .get();
    if (written.wait_for(timeout) != std::future_status::ready) {
        Log::error("error writing data to UART, the write did not finish within {}ms", timeout.count());
        asio::post(session.io, [&session] {
            asio::error_code ignored;
            session.port.cancel(ignored);
        });
        // The cancelled write ends promptly; it must not outlive its data.
        written.wait();
        throw McuBootFailure(McuBootError::UartWriteError,
                             fmt::format("The write did not finish within {}ms", timeout.count()));
    }
    try {
        written.get();
    } catch (const std::system_error& e) {
        Log::error("error writing data to UART, {}", e.what());
        throw McuBootFailure(e.code() == asio::error::bad_descriptor ? McuBootError::UartNotOpenError
                                                                     : McuBootError::UartWriteError,
                             fmt::format("error writing data to UART, {}", e.what()));
    }
}

void SerialLink::close()
{
    std::lock_guard lock(session_mutex_);
    if (!session_) {
        return;
    }
    Session& session = *session_;
    session.closing = true;
    open_ = false;
    asio::post(session.io, [&session, this] {
        asio::error_code error;
        session.port.cancel(error);
        session.port.close(error);
        if (error) {
            Log::warn("Error closing serial port {}: {}", settings_.port, error.message());
        }
    });
    session.work.reset();
    if (session.thread.joinable()) {
        session.thread.join();
    }
    session_.reset();
    Log::info("serial port {} closed.", settings_.port);
}

} // namespace HALYX::MCUBOOT
