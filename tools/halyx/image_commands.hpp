#pragma once

#include <string>
#include <vector>

namespace halyx_tool {

// "halyx image info FILE [--json] [--base ADDRESS]" and
// "halyx image convert IN OUT [--base ADDRESS]"; args follow "image".
// Works on files only, without a context. Returns the exit status: 0, 1 for
// a file that was refused (its message on stderr), 2 for a usage error.
int image(const std::vector<std::string>& args);

} // namespace halyx_tool
