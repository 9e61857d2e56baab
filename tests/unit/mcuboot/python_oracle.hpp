#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "files.hpp"

namespace halyx_test {

// Runs a Python script (Debian's interpreter, which sees python3-cbor2) on
// the bytes, given as a file named by sys.argv[1], and parses its stdout as JSON.
inline nlohmann::json runPythonOracle(const std::string& script, const std::vector<uint8_t>& bytes)
{
    const TempDir dir;
    writeText(dir / "oracle.py", script);
    writeBytes(dir / "input.bin", bytes);
    const auto quoted = [&](const char* name) { return shellQuote((dir / name).string()); };
    return nlohmann::json::parse(runOk(python() + " " + quoted("oracle.py") + " " + quoted("input.bin")));
}

} // namespace halyx_test
