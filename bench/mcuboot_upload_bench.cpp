// Upload throughput over a serial line: a 1 MiB image to the simulated boot
// loader throttled to a UART's pace, with the transport's default limits and
// with negotiated ones. Each figure is compared with the line-rate bound:
// the bytes the framing put on the wire (both directions, counted by the
// device) at baud/10 bytes per second.
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
    uint32_t baud;
    std::optional<uint32_t> frameMax;
    std::optional<uint32_t> packMax;
};

int measure(const Setup& setup, const std::vector<uint8_t>& payload)
{
    auto config = SmpSimulator::Config::permissive();
    config.baudRate = setup.baud;
    config.frameMax = setup.frameMax;
    config.packMax = setup.packMax;
    config.answerStatistics = setup.frameMax.has_value();
    SmpSimulator device(config);

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
    halyx_bench::printFigure(
        "mcuboot_upload",
        {{"baud", setup.baud},
         {"limits", setup.frameMax ? std::to_string(*setup.frameMax) + "/" + std::to_string(*setup.packMax)
                                   : "defaults 500/65535"},
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
        status |= measure(Setup{baud, std::nullopt, std::nullopt}, payload);
        status |= measure(Setup{baud, 127, 2048}, payload);
    }
    return status;
}
