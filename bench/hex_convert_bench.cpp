// Intel HEX to binary: "halyx image convert" against srec_cat on the same
// 16 MiB random payload, measured in the same run. One JSON line per figure.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "bench_json.hpp"
#include "image/binary_image.hpp"

namespace {

constexpr size_t kPayload = 16u << 20;
constexpr int kRounds = 3;

struct Run {
    double seconds = 0;
    long peakKib = 0;
};

// Runs argv to completion; its wall time and peak resident memory.
Run spawn(const std::vector<std::string>& argv)
{
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        std::freopen("/dev/null", "w", stdout);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    const auto end = std::chrono::steady_clock::now();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(argv[0] + " failed");
    }
    return {std::chrono::duration<double>(end - start).count(), usage.ru_maxrss};
}

Run best(const std::vector<std::string>& argv)
{
    Run result{1e9, 0};
    for (int i = 0; i < kRounds; ++i) {
        const Run r = spawn(argv);
        result.seconds = std::min(result.seconds, r.seconds);
        result.peakKib = std::max(result.peakKib, r.peakKib);
    }
    return result;
}

std::vector<char> slurp(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

} // namespace

int main(int argc, char** argv)
{
    const std::string tool = argc > 1 ? argv[1] : HALYX_TOOL_PATH;
    const auto dir = std::filesystem::temp_directory_path() / ("halyx-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    const auto input = dir / "payload.hex";
    int status = 0;
    try {
        std::mt19937_64 random(2024);
        std::vector<uint8_t> payload(kPayload);
        for (size_t i = 0; i < payload.size(); i += 8) {
            const uint64_t value = random();
            std::copy_n(reinterpret_cast<const uint8_t*>(&value), 8, payload.begin() + static_cast<ptrdiff_t>(i));
        }
        HALYX::BinaryImage::fromBytes(payload, 0).save(input, "hex");
        payload = {};
        const double inputMb = static_cast<double>(std::filesystem::file_size(input)) / 1e6;

        const Run ours = best({tool, "image", "convert", input.string(), (dir / "halyx.bin").string()});
        const Run peer = best({"srec_cat", input.string(), "-intel", "-o", (dir / "srec.bin").string(), "-binary"});
        if (slurp(dir / "halyx.bin") != slurp(dir / "srec.bin")) {
            throw std::runtime_error("halyx and srec_cat wrote different binaries");
        }

        const double mib = static_cast<double>(kPayload) / (1u << 20);
        auto figure = [&](const char* who, const Run& r) {
            halyx_bench::printFigure("hex_to_bin", {{"tool", who},
                                                    {"payload_mib", mib},
                                                    {"input_mb", inputMb},
                                                    {"seconds", r.seconds},
                                                    {"payload_mib_per_s", mib / r.seconds},
                                                    {"input_mb_per_s", inputMb / r.seconds},
                                                    {"peak_rss_mib", static_cast<double>(r.peakKib) / 1024}});
        };
        figure("halyx image convert", ours);
        figure("srec_cat", peer);
        const double speedup = peer.seconds / ours.seconds;
        halyx_bench::printFigure(
            "hex_to_bin_throughput_ratio",
            {{"value", speedup}, {"peer", "srec_cat"}, {"bound", ">= 2.0"}, {"met", speedup >= 2.0}});
        const double memory = static_cast<double>(ours.peakKib) * 1024 / static_cast<double>(kPayload);
        halyx_bench::printFigure(
            "hex_to_bin_peak_memory_per_payload",
            {{"value", memory},
             {"peer_value", static_cast<double>(peer.peakKib) * 1024 / static_cast<double>(kPayload)},
             {"bound", "<= 2.5"},
             {"met", memory <= 2.5}});
    } catch (const std::exception& e) {
        std::fprintf(stderr, "hex_convert_bench: %s\n", e.what());
        status = 1;
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return status;
}
