// halyx-sim: runs a command against simulated kits on a umockdev testbed,
// optionally plugging and unplugging one kit while it runs, and can hand
// over what a simulated boot loader stored meanwhile.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "kit.hpp"
#include "smp_simulator.hpp"
#include "testbed.hpp"
#include "wrapper.hpp"

extern char** environ;

namespace {

const char* const kDescription =
    "Runs COMMAND with simulated USB kits attached (under umockdev). Give the command after \"--\".";

const char* const kKitList =
    "Kits (NAME[=SERIAL] gives a kit another serial number):\n"
    "  maker           the maker's kit: two serial ports and the DFU-trigger interface\n"
    "  probe           a kit behind an on-board debug probe: one bridge port and the probe's bulk interface\n"
    "  oldcdc          a maker's device with old CDC firmware\n"
    "  other           another vendor's USB serial adapter\n"
    "  mcuboot         a board in MCUboot serial recovery with a stock boot loader: 128-byte lines,\n"
    "                  1024-byte packets, the slot erased before the first chunk is answered, 4-byte\n"
    "                  flash writes, a reboot after reset (the kit leaves the bus for 0.5 s)\n"
    "  mcuboot-align8  the same with 8-byte flash writes\n"
    "  mcuboot-params  the same answering the MCUmgr parameter query (2048-byte buffer)\n"
    "  cellular        the maker's cellular kit: a forgiving boot loader on the first of two ports that\n"
    "                  answers the \"smp_com\" query (frame 127, packet 4096)\n";

struct Options {
    std::vector<HALYX::SIM::KitModel> kits;
    std::vector<std::string> devices;
    std::optional<HALYX::SIM::KitModel> hotplug;
    long plugAt = 1000;
    long unplugAt = 2000;
    long interruptAt = 0;
    std::map<size_t, std::string> imageOut; // by index into kits
    std::vector<std::string> command;
};

HALYX::SIM::KitModel parseKit(const std::string& option, const std::string& text)
{
    const auto equals = text.find('=');
    auto kit =
        HALYX::SIM::kitByName(text.substr(0, equals), equals == std::string::npos ? "" : text.substr(equals + 1));
    if (!kit) {
        throw CLI::ValidationError(option, "unknown kit: " + text);
    }
    return *kit;
}

bool writeImage(const HALYX::SIM::SmpSimulator& bootloader, const std::string& file)
{
    const auto image = bootloader.image();
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    out.close();
    if (!out) {
        std::fprintf(stderr, "halyx-sim: cannot write %s\n", file.c_str());
        return false;
    }
    std::fprintf(stderr, "halyx-sim: the boot loader on %s stored %zu bytes; written to %s\n",
                 bootloader.port().c_str(), image.size(), file.c_str());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app{kDescription, "halyx-sim"};
    app.footer(kKitList);
    // Kits and --image-out are taken in command-line order: --image-out
    // belongs to the --kit before it.
    app.add_option_function<std::string>(
           "--kit", [&](const std::string& text) { options.kits.push_back(parseKit("--kit", text)); },
           "attach a kit from the start (see below)")
        ->type_name("NAME[=SERIAL]")
        ->trigger_on_parse()
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option_function<long>(
           "--kits",
           [&](long count) {
               for (long k = 0; k < count; ++k) {
                   options.kits.push_back(HALYX::SIM::makerKit("KV1" + std::to_string(1000000 + k).substr(1)));
               }
           },
           "attach N maker kits with serial numbers KV1000000...")
        ->type_name("N")
        ->check(CLI::Range(0L, 40L))
        ->trigger_on_parse();
    app.add_option_function<std::string>(
           "--image-out",
           [&](const std::string& file) {
               if (options.kits.empty() || !options.kits.back().serialRecovery) {
                   throw CLI::ValidationError("--image-out",
                                              "follows a --kit in serial recovery (mcuboot..., cellular)");
               }
               options.imageOut[options.kits.size() - 1] = file;
           },
           "when COMMAND ends, write the application image that the --kit before this option stored to FILE "
           "(empty when none was)")
        ->type_name("FILE")
        ->trigger_on_parse()
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    // One file per --device, so that "--" after it still starts the command.
    app.add_option("--device", options.devices, "attach the devices of a umockdev description file")
        ->type_name("FILE")
        ->allow_extra_args(false)
        ->check(CLI::ExistingFile);
    app.add_option_function<std::string>(
           "--hotplug", [&](const std::string& text) { options.hotplug = parseKit("--hotplug", text); },
           "plug this kit while COMMAND runs (see --plug-at, --unplug-at)")
        ->type_name("NAME[=SERIAL]");
    app.add_option("--plug-at", options.plugAt, "when to plug the hot-plug kit (default 1000)")
        ->type_name("MS")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--unplug-at", options.unplugAt, "when to unplug it (default 2000; 0: never)")
        ->type_name("MS")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--interrupt-at", options.interruptAt, "send COMMAND an interrupt (Ctrl-C) then (default: never)")
        ->type_name("MS")
        ->check(CLI::NonNegativeNumber);
    app.add_option("command", options.command, "the command to run and its arguments")->required();
    CLI11_PARSE(app, argc, argv);

    if (!HALYX::SIM::Testbed::inMockEnvironment()) {
        HALYX::SIM::execUnderWrapper(std::vector<std::string>(argv + 1, argv + argc));
        return 1;
    }

    try {
        HALYX::SIM::Testbed testbed;
        std::vector<unsigned> ids;
        for (const auto& kit : options.kits) {
            ids.push_back(testbed.plug(kit).id);
        }
        for (const auto& file : options.devices) {
            std::ifstream in(file);
            if (!in) {
                std::fprintf(stderr, "halyx-sim: cannot read %s\n", file.c_str());
                return 1;
            }
            std::stringstream text;
            text << in.rdbuf();
            testbed.addDescription(text.str());
        }

        std::vector<char*> command;
        for (auto& arg : options.command) {
            command.push_back(arg.data());
        }
        command.push_back(nullptr);
        pid_t child = 0;
        if (const int error = posix_spawnp(&child, command[0], nullptr, nullptr, command.data(), environ); error != 0) {
            std::fprintf(stderr, "halyx-sim: cannot run %s: %s\n", command[0], std::strerror(error));
            return 127;
        }

        const auto start = std::chrono::steady_clock::now();
        auto elapsed = [&] {
            return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
                .count();
        };
        std::optional<unsigned> plugged;
        bool unplugged = false;
        bool interrupted = false;
        int status = 0;
        for (;;) {
            const pid_t done = waitpid(child, &status, WNOHANG);
            if (done == child) {
                break;
            }
            if (options.hotplug && !plugged && elapsed() >= options.plugAt) {
                plugged = testbed.plug(*options.hotplug).id;
                std::fprintf(stderr, "halyx-sim: plugged %s\n", options.hotplug->name.c_str());
            }
            if (plugged && !unplugged && options.unplugAt > 0 && elapsed() >= options.unplugAt) {
                testbed.unplug(*plugged);
                unplugged = true;
                std::fprintf(stderr, "halyx-sim: unplugged %s\n", options.hotplug->name.c_str());
            }
            if (!interrupted && options.interruptAt > 0 && elapsed() >= options.interruptAt) {
                kill(child, SIGINT);
                interrupted = true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        for (const auto& [index, file] : options.imageOut) {
            if (!writeImage(*testbed.bootloader(ids[index]), file)) {
                return 1;
            }
        }
        if (WIFEXITED(status)) {
            return WEXITSTATUS(status);
        }
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "halyx-sim: %s\n", e.what());
        return 1;
    }
}
