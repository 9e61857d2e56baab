#pragma once

#include <optional>
#include <string>

#include "halyx.h"
#include "stop_signal.hpp"

namespace halyx_tool {

struct ProgramRequest {
    std::optional<std::string> serialNumber;
    std::optional<uint64_t> id;
    std::string file;
    bool json = false;
};

// Programs FILE into the chosen device through whichever plugin serves it,
// showing progress; Ctrl-C cancels the task. Returns the exit status.
int program(halyx_context* context, const ProgramRequest& request, StopSignal& stop);

} // namespace halyx_tool
