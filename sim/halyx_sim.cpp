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

#include "kit.hpp"
#include "smp_simulator.hpp"
#include "testbed.hpp"
#include "wrapper.hpp"

extern char** environ;

namespace {

const char* const kUsage =
    "usage: halyx-sim [options] -- COMMAND [ARGS...]\n"
    "\n"
    "Runs COMMAND with simulated USB kits attached (under umockdev).\n"
    "\n"
    "options:\n"
    "  --kit NAME[=SERIAL]     attach a kit from the start; NAME is maker, probe, oldcdc, other,\n"
    "                          mcuboot or cellular (the last two wait in MCUboot serial recovery)\n"
    "  --kits N                attach N maker kits with serial numbers KV1000001...\n"
    "  --device FILE           attach the devices of a umockdev description file\n"
    "  --hotplug NAME[=SERIAL] plug this kit while COMMAND runs (see --plug-at, --unplug-at)\n"
    "  --plug-at MS            when to plug the hot-plug kit (default 1000)\n"
    "  --unplug-at MS          when to unplug it (default 2000; 0: never)\n"
    "  --interrupt-at MS       send COMMAND an interrupt (Ctrl-C) then (default: never)\n"
    "  --image-out FILE        when COMMAND ends, write the application image that the --kit before\n"
    "                          this option (mcuboot or cellular) stored to FILE; empty when none was\n";

struct Options {
    std::vector<HALYX::SIM::KitModel> kits;
    std::vector<std::string> devices;
    std::optional<HALYX::SIM::KitModel> hotplug;
    long plugAt = 1000;
    long unplugAt = 2000;
    long interruptAt = 0;
    std::map<size_t, std::string> imageOut; // by index into kits
    std::vector<char*> command;
};

int usage(const std::string& problem)
{
    std::fprintf(stderr, "halyx-sim: %s\n\n%s", problem.c_str(), kUsage);
    return 2;
}

std::optional<HALYX::SIM::KitModel> parseKit(const std::string& text)
{
    const auto equals = text.find('=');
    return HALYX::SIM::kitByName(text.substr(0, equals), equals == std::string::npos ? "" : text.substr(equals + 1));
}

bool parseNumber(const char* text, long& out)
{
    char* end = nullptr;
    out = std::strtol(text, &end, 10);
    return end != text && *end == '\0' && out >= 0;
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
    int i = 1;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (!has_value) {
            return usage("missing value after " + arg);
        }
        const char* value = argv[++i];
        if (arg == "--kit" || arg == "--hotplug") {
            auto kit = parseKit(value);
            if (!kit) {
                return usage(std::string("unknown kit: ") + value);
            }
            if (arg == "--kit") {
                options.kits.push_back(*kit);
            } else {
                options.hotplug = *kit;
            }
        } else if (arg == "--kits") {
            long count = 0;
            if (!parseNumber(value, count) || count > 40) {
                return usage("--kits takes a number up to 40");
            }
            for (long k = 0; k < count; ++k) {
                options.kits.push_back(HALYX::SIM::makerKit("KV1" + std::to_string(1000000 + k).substr(1)));
            }
        } else if (arg == "--image-out") {
            if (options.kits.empty() || !options.kits.back().serialRecovery) {
                return usage("--image-out follows a --kit in serial recovery (mcuboot or cellular)");
            }
            options.imageOut[options.kits.size() - 1] = value;
        } else if (arg == "--device") {
            options.devices.push_back(value);
        } else if (arg == "--plug-at" || arg == "--unplug-at" || arg == "--interrupt-at") {
            long ms = 0;
            if (!parseNumber(value, ms)) {
                return usage(arg + " takes milliseconds");
            }
            (arg == "--plug-at" ? options.plugAt : arg == "--unplug-at" ? options.unplugAt : options.interruptAt) = ms;
        } else {
            return usage("unknown option: " + arg);
        }
    }
    for (; i < argc; ++i) {
        options.command.push_back(argv[i]);
    }
    if (options.command.empty()) {
        return usage("no command given");
    }
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

        options.command.push_back(nullptr);
        pid_t child = 0;
        if (const int error = posix_spawnp(&child, options.command[0], nullptr, nullptr, options.command.data(),
                                           environ);
            error != 0) {
            std::fprintf(stderr, "halyx-sim: cannot run %s: %s\n", options.command[0], std::strerror(error));
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
