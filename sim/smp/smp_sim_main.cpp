// halyx-sim-smp: a boot loader in serial recovery on a pseudo-terminal, for
// trying the tools by hand and for the demo. Prints the terminal's name (and
// the new one each time it is back from a reboot), serves until SIGINT or
// SIGTERM, then prints what it received as one JSON line.
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>

#include <pthread.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "smp_simulator.hpp"

using HALYX::SIM::SmpSimulator;

int main(int argc, char** argv)
{
    CLI::App app{"A boot loader in MCUboot serial recovery on a pseudo-terminal. Prints the terminal's name (again "
                 "after each reboot), serves until interrupted, then prints a JSON summary.",
                 "halyx-sim-smp"};
    std::string profile = "mcuboot";
    uint32_t baud = 0;
    std::optional<uint32_t> write_block;
    std::optional<size_t> buffer_size;
    std::optional<size_t> line_max;
    std::optional<size_t> slot_size;
    std::optional<uint32_t> page_erase_us;
    std::optional<uint32_t> frame_max;
    std::optional<uint32_t> pack_max;
    bool params = false;
    bool no_reboot = false;
    std::string image_out;
    app.add_option("--profile", profile, "mcuboot: a stock boot loader (default); permissive: the forgiving one")
        ->check(CLI::IsMember({"mcuboot", "permissive"}));
    app.add_option("--baud", baud, "throttle the line to this baud rate (default: as fast as the terminal goes)");
    app.add_option("--write-block", write_block, "flash write block in bytes (mcuboot: 4)")
        ->check(CLI::Range(1u, 4096u));
    app.add_option("--buffer-size", buffer_size, "receive buffer in decoded bytes (mcuboot: 1024)")
        ->check(CLI::Range(size_t{16}, size_t{65535}));
    app.add_option("--line-max", line_max, "console line limit, newline included (mcuboot: 128)")
        ->check(CLI::Range(size_t{3}, size_t{65535}));
    app.add_option("--slot-size", slot_size, "image slot in bytes (mcuboot: 1048576)")
        ->check(CLI::Range(size_t{1}, size_t{64} << 20));
    app.add_option("--page-erase-us", page_erase_us, "time to erase one 4 KiB page in microseconds (mcuboot: 45000)");
    app.add_flag("--params", params, "answer the MCUmgr parameter query (group 0, id 6) with the buffer size");
    auto* frame =
        app.add_option("--frame-max", frame_max, "answer the \"smp_com\" statistics query with this frame_max");
    auto* pack = app.add_option("--pack-max", pack_max, "... and this pack_max");
    frame->needs(pack);
    pack->needs(frame);
    app.add_flag("--no-reboot", no_reboot, "stay on the same terminal after a reset");
    app.add_option("--image-out", image_out, "when stopped, write what image 0's slot holds to this file");
    CLI11_PARSE(app, argc, argv);

    auto config = profile == "permissive" ? SmpSimulator::Config::permissive() : SmpSimulator::Config::mcuboot();
    config.baudRate = baud;
    config.writeBlockSize = write_block.value_or(config.writeBlockSize);
    config.receiveBufferSize = buffer_size.value_or(config.receiveBufferSize);
    config.lineMax = line_max.value_or(config.lineMax);
    config.slotSize = slot_size.value_or(config.slotSize);
    if (page_erase_us) {
        config.pageEraseTime = std::chrono::microseconds(*page_erase_us);
    }
    config.answerParameters = config.answerParameters || params;
    if (frame_max) {
        config.answerStatistics = true;
        config.frameMax = frame_max;
        config.packMax = pack_max;
    }
    config.rebootOnReset = config.rebootOnReset && !no_reboot;

    // Only sigtimedwait below sees the stop signals, not the server thread.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    SmpSimulator device(config);
    std::string announced;
    const timespec tick{0, 100'000'000};
    while (true) {
        const auto port = device.port();
        if (device.plugged() && port != announced) {
            std::printf("%s\n", port.c_str());
            std::fflush(stdout);
            announced = port;
        }
        if (sigtimedwait(&signals, nullptr, &tick) >= 0) {
            break;
        }
    }

    const auto image = device.image(1, 0);
    if (!image_out.empty()) {
        std::ofstream out(image_out, std::ios::binary);
        out.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
        if (!out) {
            std::fprintf(stderr, "halyx-sim-smp: cannot write %s\n", image_out.c_str());
            return 1;
        }
    }
    const auto stats = device.stats();
    const nlohmann::ordered_json summary{
        {"uploads", stats.uploads},
        {"repeated_chunks", stats.repeatedChunks},
        {"erases", stats.erases},
        {"slot_erases", stats.slotErasesCompleted},
        {"resets", stats.resets},
        {"reboots", stats.reboots},
        {"rejected", stats.rejected},
        {"unaligned_tails", stats.unalignedTails},
        {"lines_cut", stats.line.linesCut},
        {"decode_errors", stats.line.decodeErrors},
        {"overflows", stats.line.overflows},
        {"crc_errors", stats.line.crcErrors},
        {"oversized", stats.oversized},
        {"image_bytes", image.size()},
    };
    std::printf("%s\n", summary.dump().c_str());
    return 0;
}
