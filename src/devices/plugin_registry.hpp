#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "devices/plugin_api.hpp"

namespace HALYX {

// The plugins of one context, made from factories when the context is built.
// Read-only after construction, so it needs no lock.
class PluginRegistry {
public:
    using Factory = std::function<std::unique_ptr<PluginApi>()>;

    explicit PluginRegistry(const std::vector<Factory>& factories);

    const std::vector<std::shared_ptr<PluginApi>>& plugins() const { return plugins_; }

    // True for one of the registry's own plugins (not an instance made for an operation).
    bool contains(const PluginApi* plugin) const;

    // Registration order, without repeats.
    std::vector<std::string> names() const;
    std::vector<std::string> traits() const;

    // Among the plugins that serve one of the device's true traits (in
    // registration order), the first whose canHandle() agrees, else the first
    // of them; a fresh instance when the plugin makes one. Null if no plugin
    // serves the device.
    std::shared_ptr<PluginApi> select(const std::string& device_json, const OperationOptions& options) const;

private:
    std::vector<std::shared_ptr<PluginApi>> plugins_;
};

} // namespace HALYX
