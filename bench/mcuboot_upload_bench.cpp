// Upload throughput over a serial line: a 1 MiB image to the simulated boot
// loader throttled to a UART's pace. The boot loaders: a stock MCUboot (it
// tells no limits, so the client uses 128-byte lines and 1024-byte packets;
// its slot erase is device time, not line time, and is left out), one that
// names a 2048-byte buffer in its parameter query, and the cellular kit's
// forgiving one, which names its limits in "smp_com". Each figure is compared
// with the line-rate bound: the bytes the framing put on the wire (both
// directions, counted by the device, the three framing bytes of every line
// included) at baud/10 bytes per second.
//
// usage: mcuboot_upload_bench [image bytes]   (one JSON line per figure)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench_json.hpp"
#include "mcuboot/binary_file.hpp"
#include "mcuboot/smp_client.hpp"
#include "mcuboot/smp_uart_transport.hpp"
#include "smp_simulator.hpp"

using namespace HALYX::MCUBOOT;
using HALYX::SIM::SmpSimulator;

namespace {

struct Setup {
    const char* device;
    uint32_t baud;
    SmpSimulator::Config config;
};

SmpSimulator::Config stock()
{
    auto config = SmpSimulator::Config::mcuboot();
    config.pageEraseTime = std::chrono::microseconds(0);
    config.slotSize = 2 * 1024 * 1024;
    config.rebootOnReset = false;
    return config;
}

SmpSimulator::Config withParameters()
{
    auto config = stock();
    config.answerParameters = true;
    config.receiveBufferSize = 2048;
    return config;
}

SmpSimulator::Config cellular(uint32_t pack_max)
{
    auto config = SmpSimulator::Config::permissive();
    config.frameMax = 127;
    config.packMax = pack_max;
    return config;
}

int measure(Setup setup, const std::vector<uint8_t>& payload)
{
    setup.config.baudRate = setup.baud;
    SmpSimulator device(setup.config);

    SequenceCounter sequence;
    ProgressReporter progress;
    SmpClient::Options options;
    options.baudRate = setup.baud;
    SmpClient client(std::make_unique<SmpUartTransport>(SerialSettings{device.port(), setup.baud, 0, 0, 0, 8}),
                     sequence, options, progress);
    BinaryFile image(payload);
    SmpSimulator::Stats before;
    SmpSimulator::Stats after;
    double seconds = 0;
    try {
        client.openDevice(true);
        before = device.stats();
        const auto start = std::chrono::steady_clock::now();
        client.uploadImage(image, MgmtGroup::Image, std::nullopt, false);
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        after = device.stats();
        client.closeDevice();
    } catch (const McuBootFailure& failure) {
        std::fprintf(stderr, "upload failed: %s (%s)\n", failure.what(), failure.cause().c_str());
        return 1;
    }
    if (device.image(1, 0) != payload) {
        std::fprintf(stderr, "the device stored something else than was sent\n");
        return 1;
    }
    const size_t wire = (after.rxBytes - before.rxBytes) + (after.txBytes - before.txBytes);
    const double bound_seconds = static_cast<double>(wire) * 10.0 / setup.baud;
    const double payload_rate = static_cast<double>(payload.size()) / seconds;
    const double bound_rate = static_cast<double>(payload.size()) / bound_seconds;
    const auto sizes = client.currentChunkSizes();
    halyx_bench::printFigure("mcuboot_upload", {{"device", setup.device},
                                                {"baud", setup.baud},
                                                {"line_bytes", client.transport().mtu()},
                                                {"packet_chars", client.transport().frameSize()},
                                                {"chunk_first", sizes.first},
                                                {"chunk_following", sizes.following},
                                                {"payload_bytes", payload.size()},
                                                {"wire_bytes", wire},
                                                {"chunks", after.uploads - before.uploads},
                                                {"seconds", seconds},
                                                {"payload_rate_Bps", payload_rate},
                                                {"bound_rate_Bps", bound_rate},
                                                {"fraction_of_bound", payload_rate / bound_rate},
                                                {"resends", after.repeatedChunks - before.repeatedChunks}});
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const size_t size = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024 * 1024;
    std::vector<uint8_t> payload(size);
    uint32_t state = 12345;
    for (auto& byte : payload) {
        state = state * 1103515245 + 12345;
        byte = static_cast<uint8_t>(state >> 16);
    }
    int status = 0;
    for (const uint32_t baud : {115200u, 1000000u}) {
        status |= measure(Setup{"mcuboot", baud, stock()}, payload);
        status |= measure(Setup{"mcuboot-params", baud, withParameters()}, payload);
        status |= measure(Setup{"cellular", baud, cellular(4096)}, payload);
        status |= measure(Setup{"cellular-2048", baud, cellular(2048)}, payload);
    }
    return status;
}
