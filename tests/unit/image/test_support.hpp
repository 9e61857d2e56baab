#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace HALYX::TestSupport {

// A directory of its own under the system's temporary folder, removed with
// everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

struct CommandResult {
    int status = -1;    // exit status, -1 if it did not exit normally
    std::string output; // stdout and stderr together
};

// Runs a shell command; its output is collected.
CommandResult run(const std::string& command);
// Runs a command that must succeed; fails the test (and throws) otherwise.
std::string runOk(const std::string& command);
// Quotes text as one shell word.
std::string shellQuote(const std::string& text);

std::vector<uint8_t> readBytes(const std::filesystem::path& path);
void writeBytes(const std::filesystem::path& path, const std::vector<uint8_t>& bytes);
void writeText(const std::filesystem::path& path, const std::string& text);

// The oracle scripts and sources kept with the test data.
std::filesystem::path dataFile(const std::string& name);
// Debian's Python, which sees the intelhex module.
std::string python();

} // namespace HALYX::TestSupport
