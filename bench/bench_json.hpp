#pragma once

#include <cstdio>
#include <string_view>

#include <nlohmann/json.hpp>

namespace halyx_bench {

// Prints one figure as one JSON line: its name under "benchmark", then fields
// in the order given. Flushed, so a reader sees each figure as it is measured.
inline void printFigure(std::string_view name, const nlohmann::ordered_json& fields)
{
    nlohmann::ordered_json line{{"benchmark", name}};
    line.update(fields);
    std::printf("%s\n", line.dump().c_str());
    std::fflush(stdout);
}

} // namespace halyx_bench
