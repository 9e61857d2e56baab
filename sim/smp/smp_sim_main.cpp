// halyx-sim-smp: a boot loader in serial recovery on a pseudo-terminal, for
// trying the tools by hand and for the demo. Prints the terminal's name,
// serves until SIGINT or SIGTERM, then prints what it received as JSON.
//
// usage: halyx-sim-smp [--baud N] [--frame-max N --pack-max N] [--image-out FILE]
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <pthread.h>

#include "smp_simulator.hpp"

namespace {

int usage()
{
    std::fprintf(stderr, "usage: halyx-sim-smp [--baud N] [--frame-max N --pack-max N] [--image-out FILE]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    HALYX::SIM::SmpSimulator::Config config;
    std::string image_out;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            return usage();
        }
        const std::string value = argv[++i];
        if (arg == "--baud") {
            config.baudRate = static_cast<uint32_t>(std::stoul(value));
        } else if (arg == "--frame-max") {
            config.frameMax = static_cast<uint32_t>(std::stoul(value));
        } else if (arg == "--pack-max") {
            config.packMax = static_cast<uint32_t>(std::stoul(value));
        } else if (arg == "--image-out") {
            image_out = value;
        } else {
            return usage();
        }
    }
    if (config.frameMax.has_value() != config.packMax.has_value()) {
        return usage();
    }

    // Only sigwait below sees the stop signals, not the server thread.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    HALYX::SIM::SmpSimulator device(config);
    std::printf("%s\n", device.port().c_str());
    std::fflush(stdout);
    int received = 0;
    sigwait(&signals, &received);

    const auto image = device.image(1, 0);
    if (!image_out.empty()) {
        std::ofstream(image_out, std::ios::binary)
            .write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    }
    const auto stats = device.stats();
    std::printf("{\"uploads\":%zu,\"erases\":%zu,\"resets\":%zu,\"rejected\":%zu,\"image_bytes\":%zu}\n",
                stats.uploads, stats.erases, stats.resets, stats.rejected, image.size());
    return 0;
}
