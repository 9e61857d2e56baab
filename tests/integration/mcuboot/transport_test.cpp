#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "files.hpp"
#include "mcuboot/smp_requests.hpp"
#include "mcuboot/smp_uart_transport.hpp"
#include "mcuboot_outcome.hpp"
#include "smp_simulator.hpp"
#include "smp_wire.hpp"

using namespace HALYX::MCUBOOT;
using HALYX::SIM::SmpSimulator;
using halyx_test::outcome;
using namespace std::chrono_literals;

namespace {

// A bare terminal the test plays the device on, decoding with the
// simulator's independent line decoder.
class FakeDevice {
public:
    FakeDevice()
    {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        ::grantpt(master_);
        ::unlockpt(master_);
        char name[128];
        ::ptsname_r(master_, name, sizeof name);
        path_ = name;
        slave_ = ::open(name, O_RDWR | O_NOCTTY);
        termios t{};
        ::tcgetattr(slave_, &t);
        ::cfmakeraw(&t);
        ::tcsetattr(slave_, TCSANOW, &t);
    }
    ~FakeDevice() { unplug(); }

    const std::string& path() const { return path_; }

    // The next request, or nothing within the time.
    std::optional<HALYX::SIM::WirePacket> read(std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (!pending_.empty()) {
                auto p = pending_.front();
                pending_.erase(pending_.begin());
                return p;
            }
            pollfd fd{master_, POLLIN, 0};
            if (::poll(&fd, 1, 20) == 1) {
                uint8_t buffer[4096];
                const auto n = ::read(master_, buffer, sizeof buffer);
                if (n > 0) {
                    for (auto& p : decoder_.feed(std::span<const uint8_t>(buffer, static_cast<size_t>(n)))) {
                        pending_.push_back(std::move(p));
                    }
                }
            }
        }
        return std::nullopt;
    }

    void answer(const HALYX::SIM::WirePacket& request, const nlohmann::json& map, int seq_offset = 0)
    {
        HALYX::SIM::WirePacket response;
        response.op = static_cast<uint8_t>(request.op + 1);
        response.group = request.group;
        response.id = request.id;
        response.seq = static_cast<uint8_t>(request.seq + seq_offset);
        response.payload = nlohmann::json::to_cbor(map);
        const auto wire = HALYX::SIM::encodeLines(response, 128);
        ASSERT_EQ(static_cast<ssize_t>(wire.size()), ::write(master_, wire.data(), wire.size()));
    }

    // Sends raw bytes, as a device that sends whatever it likes; false when
    // the line takes nothing within a while (nobody reads it).
    bool send(const std::vector<uint8_t>& bytes)
    {
        pollfd fd{master_, POLLOUT, 0};
        return ::poll(&fd, 1, 50) == 1 &&
               ::write(master_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }

    void unplug()
    {
        if (master_ >= 0) {
            ::close(master_);
            ::close(slave_);
            master_ = slave_ = -1;
        }
    }

private:
    int master_ = -1;
    int slave_ = -1;
    std::string path_;
    HALYX::SIM::LineDecoder decoder_;
    std::vector<HALYX::SIM::WirePacket> pending_;
};

SerialSettings settingsFor(const std::string& port)
{
    return SerialSettings{port, 115200, 0, 0, 0, 8};
}

} // namespace

TEST(SmpUartTransport, TalksToTheSimulatorAndRefusesWhenClosed)
{
    SmpSimulator device(SmpSimulator::Config::permissive());
    SmpUartTransport transport(settingsFor(device.port()));
    EXPECT_EQ("SMP UART (" + device.port() + "@115200)", transport.description());

    const auto handler = [](const SmpPacket& p) { checkWriteResponse(p); };
    EXPECT_EQ(McuBootError::UartNotOpenError,
              outcome([&] { transport.send(resetRequest(0), handler, 100ms, 1000ms, 1000ms); }));

    transport.open();
    EXPECT_TRUE(transport.isOpen());
    EXPECT_EQ(McuBootError::Ok, outcome([&] { transport.send(resetRequest(1), handler, 500ms, 2000ms, 1000ms); }));
    EXPECT_EQ(1u, device.stats().resets);
    transport.close();
    EXPECT_FALSE(transport.isOpen());

    SmpUartTransport missing(settingsFor("/dev/halyx-no-such-port"));
    EXPECT_EQ(McuBootError::UartNotFound, outcome([&] { missing.open(); }));
}

TEST(SmpUartTransport, MatchesBySequenceNumberAndReSendsUntilTimeout)
{
    FakeDevice device;
    SmpUartTransport transport(settingsFor(device.path()));
    transport.open();

    // A stale answer with another seq is skipped; the right one is taken.
    std::atomic<int> handled_seq{-1};
    std::thread responder([&] {
        const auto request = device.read(2000ms);
        ASSERT_TRUE(request);
        device.answer(*request, {{"rc", 0}}, -1);
        std::this_thread::sleep_for(50ms);
        device.answer(*request, {{"rc", 0}, {"off", 4}});
    });
    const auto result = outcome([&] {
        transport.send(
            resetRequest(77), [&](const SmpPacket& p) { handled_seq = p.header().seq; }, 1000ms, 3000ms, 1000ms);
    });
    responder.join();
    EXPECT_EQ(McuBootError::Ok, result);
    EXPECT_EQ(77, handled_seq);

    // Silence: the request goes out again after every wait until the budget is spent.
    EXPECT_EQ(McuBootError::Timeout, outcome([&] {
                  transport.send(
                      resetRequest(78), [](const SmpPacket&) {}, 100ms, 450ms, 500ms);
              }));
    int copies = 0;
    while (auto request = device.read(100ms)) {
        EXPECT_EQ(78, request->seq);
        ++copies;
    }
    EXPECT_GE(copies, 2);

    // A wait time below 1 ms returns once written; a failing handler fails the send.
    EXPECT_EQ(McuBootError::Ok, outcome([&] {
                  transport.send(
                      resetRequest(79), [](const SmpPacket&) {}, 0ms, 450ms, 500ms);
              }));
    ASSERT_TRUE(device.read(2000ms));
    std::thread refuser([&] {
        const auto request = device.read(2000ms);
        ASSERT_TRUE(request);
        device.answer(*request, {{"rc", 3}});
    });
    EXPECT_EQ(McuBootError::Invalid, outcome([&] {
                  transport.send(
                      resetRequest(80), [](const SmpPacket& p) { checkWriteResponse(p); }, 1000ms, 3000ms, 1000ms);
              }));
    refuser.join();
    transport.close();
}

// The port going away ends the wait at once, as a read failure.
TEST(SmpUartTransport, UnplugEndsTheWait)
{
    FakeDevice device;
    SmpUartTransport transport(settingsFor(device.path()));
    transport.open();
    std::thread unplugger([&] {
        ASSERT_TRUE(device.read(2000ms));
        device.unplug();
    });
    const auto result = outcome([&] {
        transport.send(
            resetRequest(5), [](const SmpPacket&) {}, 60000ms, 60000ms, 1000ms);
    });
    unplugger.join();
    EXPECT_EQ(McuBootError::UartReadError, result);
    transport.close();
}

// A device that streams without ever finishing a frame, or that announces a
// packet far longer than it sends, costs bounded memory, and the request ends
// with its time-out.
TEST(SmpUartTransport, AHostileDeviceCostsBoundedMemoryAndTimesOut)
{
    for (const bool announce : {false, true}) {
        SCOPED_TRACE(announce ? "a huge length announced" : "no line end ever");
        FakeDevice device;
        SmpUartTransport transport(settingsFor(device.path()));
        transport.open();
        std::atomic<bool> stop{false};
        std::thread flood([&] {
            std::vector<uint8_t> start{0x06, 0x09};
            if (announce) {
                start.insert(start.end(), {'/', '/', '8', 'A', '\n'}); // length 0xFFFF
            }
            device.send(start);
            std::vector<uint8_t> filler(4096, 'A');
            if (announce) {
                filler = {0x04, 0x14};
                filler.resize(1002, 'B');
                filler.push_back('\n');
            }
            while (!stop) {
                device.send(filler);
            }
        });
        const auto before = halyx_test::procStatus("VmRSS:");
        EXPECT_EQ(McuBootError::Timeout, outcome([&] {
                      transport.send(
                          resetRequest(9), [](const SmpPacket&) {}, 300ms, 1500ms, 1000ms);
                  }));
        const auto after = halyx_test::procStatus("VmRSS:");
        stop = true;
        flood.join();
        transport.close();
#if !defined(__SANITIZE_ADDRESS__)
        // AddressSanitizer keeps freed memory resident in its quarantine; the
        // receiver's own bound is checked by its unit test in every build.
        EXPECT_LT(after - before, 16 * 1024) << "kB resident more after the flood";
#else
        static_cast<void>(after - before);
#endif
    }
}
