#pragma once

#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace HALYX {

using ConfigurationMap = std::unordered_map<std::string, nlohmann::json>;

// Reads the application's configuration text. Throws HALYXException 50 for a
// text that is not JSON, not an object, or holds an empty key anywhere.
ConfigurationMap parseConfiguration(const char* json);

} // namespace HALYX
