#pragma once

#include <string>
#include <vector>

#include "halyx.h"
#include "stop_signal.hpp"

namespace halyx_tool {

// A failed library call: its code and the context's last error.
struct Failure {
    halyx_errorcode_t code;
    std::string message;
};

// Throws Failure when code is not success.
void check(halyx_context* context, halyx_errorcode_t code, const char* what);

enum class ListFormat {
    Table,
    Json,
    Csv
};

int list(halyx_context* context, ListFormat format, const std::vector<std::string>& filter);
int watch(halyx_context* context, StopSignal& stop);
int plugins(halyx_context* context);
int traits(halyx_context* context);
int version(halyx_context* context);

} // namespace halyx_tool
