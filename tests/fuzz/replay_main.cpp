// Runs a fuzz target over files, as the test suite does with the inputs that
// once crashed and the seeds: usage: fuzz_replay_TARGET DIR_OR_FILE...
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void replay(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

} // namespace

int main(int argc, char** argv)
{
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path = argv[i];
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
                if (entry.is_regular_file()) {
                    replay(entry.path());
                    ++inputs;
                }
            }
        } else if (std::filesystem::exists(path)) {
            replay(path);
            ++inputs;
        }
    }
    std::printf("%zu inputs replayed\n", inputs);
    return 0;
}
