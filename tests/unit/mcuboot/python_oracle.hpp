#pragma once

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <nlohmann/json.hpp>

namespace halyx_test {

// Runs a Python script (Debian's interpreter, which sees python3-cbor2) on
// the bytes, given as a file named by sys.argv[1], and parses its stdout as JSON.
inline nlohmann::json runPythonOracle(const std::string& script, const std::vector<uint8_t>& bytes)
{
    char path[] = "/tmp/halyx-oracle-XXXXXX";
    const int fd = ::mkstemp(path);
    if (fd < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    ::close(fd);
    {
        std::ofstream file(path, std::ios::binary);
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    char script_path[] = "/tmp/halyx-oracle-XXXXXX.py";
    const int sfd = ::mkstemps(script_path, 3);
    ::close(sfd);
    {
        std::ofstream file(script_path);
        file << script;
    }
    const std::string command = std::string("/usr/bin/python3 ") + script_path + " " + path;
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t n = 0;
        while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
            output.append(buffer, n);
        }
        ::pclose(pipe);
    }
    ::unlink(path);
    ::unlink(script_path);
    return nlohmann::json::parse(output);
}

} // namespace halyx_test
