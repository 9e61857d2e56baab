#pragma once

#include <string>
#include <vector>

namespace HALYX::SIM {

// Replaces this process with this program run again under umockdev-wrapper
// with the given arguments (without argv[0]). Returns only on failure, after
// saying why on stderr.
void execUnderWrapper(const std::vector<std::string>& arguments);

} // namespace HALYX::SIM
