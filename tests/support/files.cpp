#include "files.hpp"

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <sys/wait.h>

#include <gtest/gtest.h>

namespace halyx_test {

TempDir::TempDir()
{
    std::random_device seed;
    path_ = std::filesystem::temp_directory_path() / ("halyx-test-" + std::to_string(seed()) + std::to_string(seed()));
    std::filesystem::create_directories(path_);
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

CommandResult run(const std::string& command)
{
    CommandResult result;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 4096> buffer;
    size_t got = 0;
    while ((got = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        result.output.append(buffer.data(), got);
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string runOk(const std::string& command)
{
    const auto result = run(command);
    if (result.status != 0) {
        ADD_FAILURE() << "command failed (" << result.status << "): " << command << "\n" << result.output;
        throw std::runtime_error("command failed: " + command);
    }
    return result.output;
}

std::string shellQuote(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

std::vector<uint8_t> readBytes(const std::filesystem::path& path)
{
    std::ifstream input(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
}

void writeBytes(const std::filesystem::path& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream output(path, std::ios::binary);
    output.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void writeText(const std::filesystem::path& path, const std::string& text)
{
    std::ofstream output(path, std::ios::binary);
    output << text;
}

std::filesystem::path dataFile(const std::string& name)
{
    return std::filesystem::path(HALYX_TEST_DATA_DIR) / name;
}

std::string python()
{
    return "/usr/bin/python3";
}

std::string tempPath(const std::string& name)
{
    static const TempDir folder;
    return (folder / name).string();
}

long procStatus(const std::string& key)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with(key)) {
            return std::stol(line.substr(key.size()));
        }
    }
    return -1;
}

} // namespace halyx_test
