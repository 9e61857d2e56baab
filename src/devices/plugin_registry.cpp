#include "devices/plugin_registry.hpp"

#include <algorithm>

namespace HALYX {
namespace {

void appendUnique(std::vector<std::string>& list, const std::string& value)
{
    if (std::find(list.begin(), list.end(), value) == list.end()) {
        list.push_back(value);
    }
}

} // namespace

PluginRegistry::PluginRegistry(const std::vector<Factory>& factories)
{
    for (const auto& factory : factories) {
        if (auto plugin = factory()) {
            plugins_.push_back(std::move(plugin));
        }
    }
}

bool PluginRegistry::contains(const PluginApi* plugin) const
{
    return std::any_of(plugins_.begin(), plugins_.end(), [plugin](const auto& own) { return own.get() == plugin; });
}

std::vector<std::string> PluginRegistry::names() const
{
    std::vector<std::string> names;
    for (const auto& plugin : plugins_) {
        appendUnique(names, plugin->getName());
    }
    return names;
}

std::vector<std::string> PluginRegistry::traits() const
{
    std::vector<std::string> traits;
    for (const auto& plugin : plugins_) {
        for (const auto& trait : plugin->getTraits()) {
            appendUnique(traits, trait);
        }
    }
    return traits;
}

std::shared_ptr<PluginApi> PluginRegistry::select(const std::string& device_json, const OperationOptions& options) const
{
    const auto device = nlohmann::json::parse(device_json);
    std::shared_ptr<PluginApi> chosen;
    for (const auto& plugin : plugins_) {
        const auto served = plugin->getTraits();
        const bool eligible =
            std::any_of(served.begin(), served.end(), [&](const std::string& t) { return hasTrueTrait(device, t); });
        if (!eligible) {
            continue;
        }
        if (plugin->canHandle(device_json, options.operation, options)) {
            chosen = plugin;
            break;
        }
        // A plugin that serves the device but not this operation still
        // answers it, with its own "not supported" message, unless a later
        // one can do better.
        if (!chosen) {
            chosen = plugin;
        }
    }
    if (!chosen) {
        return nullptr;
    }
    if (auto instance = chosen->createInstance()) {
        return instance;
    }
    return chosen;
}

} // namespace HALYX
