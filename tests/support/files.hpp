#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace halyx_test {

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

// A file kept under tests/data, named relative to it.
std::filesystem::path dataFile(const std::string& name);
// Debian's Python, which sees the modules the oracles import (intelhex, cbor2).
std::string python();
// A path in a folder of this test process's own, removed when it exits.
std::string tempPath(const std::string& name);
// A field of this process's /proc/self/status ("VmRSS:", "Threads:"), in
// its own unit (kB for memory); -1 when absent.
long procStatus(const std::string& key);

} // namespace halyx_test
