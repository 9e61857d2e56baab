#pragma once

#include <vector>

#include "devices/plugin_registry.hpp"

namespace HALYX {

// The plugins built into this library, in the order in which they decorate
// devices and are offered operations.
std::vector<PluginRegistry::Factory> builtinPlugins();

} // namespace HALYX
