#include "devices/plugin_pass.hpp"

#include <algorithm>

namespace HALYX {

PluginPass::PluginPass(std::vector<std::shared_ptr<PluginApi>> plugins) : plugins_(std::move(plugins))
{
}

std::vector<uint64_t> PluginPass::run(DevicePool& pool, const std::vector<uint64_t>& ids)
{
    std::lock_guard pass(mutex_);

    Traits known;
    for (const auto& plugin : plugins_) {
        for (const auto& trait : plugin->getTraits()) {
            known.emplace(trait, false);
        }
    }

    auto document = toDocument(pool.snapshot(ids));
    std::vector<uint64_t> changed;
    std::vector<event_object> found;
    const PluginApi::DeviceChanged on_changed = [&changed](uint64_t id) { changed.push_back(id); };
    const PluginApi::DeviceFound on_found = [&found](const event_object& finding) { found.push_back(finding); };
    for (const auto& plugin : plugins_) {
        plugin->enumerate(document, on_changed, on_found);
    }

    for (const auto& device : document.at("devices")) {
        pool.update(device);
    }
    for (const auto& finding : found) {
        changed.push_back(pool.merge(finding).id);
    }
    pool.mergeTraitsIntoAll(known);

    std::sort(changed.begin(), changed.end());
    changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
    return changed;
}

} // namespace HALYX
