#include "devices/plugin_followers.hpp"

#include <vector>

#include "core/json_fields.hpp"
#include "core/logging.hpp"

namespace HALYX {

PluginFollowers::Ticket::Ticket(PluginFollowers* owner, std::list<std::weak_ptr<PluginApi>>::iterator entry)
    : owner_(owner), entry_(entry)
{
}

PluginFollowers::Ticket::~Ticket()
{
    if (owner_ != nullptr) {
        std::lock_guard lock(owner_->mutex_);
        owner_->plugins_.erase(entry_);
    }
}

PluginFollowers::Ticket::Ticket(Ticket&& other) noexcept
    : owner_(std::exchange(other.owner_, nullptr)), entry_(other.entry_)
{
}

PluginFollowers::Ticket& PluginFollowers::Ticket::operator=(Ticket&& other) noexcept
{
    if (this != &other) {
        Ticket dropped(std::move(*this));
        owner_ = std::exchange(other.owner_, nullptr);
        entry_ = other.entry_;
    }
    return *this;
}

PluginFollowers::Ticket PluginFollowers::follow(const std::shared_ptr<PluginApi>& plugin)
{
    std::lock_guard lock(mutex_);
    plugins_.push_back(plugin);
    return Ticket(this, std::prev(plugins_.end()));
}

void PluginFollowers::tell(const Device& device, halyx_device_event_type_t type)
{
    std::vector<std::shared_ptr<PluginApi>> plugins;
    {
        std::lock_guard lock(mutex_);
        for (const auto& weak : plugins_) {
            if (auto plugin = weak.lock()) {
                plugins.push_back(std::move(plugin));
            }
        }
    }
    const auto text = jsonText(device.toJson());
    for (const auto& plugin : plugins) {
        try {
            plugin->onDeviceEvent(text, static_cast<uint32_t>(type), std::string());
        } catch (const std::exception& e) {
            Log::exception(spdlog::level::err, e,
                           fmt::format("Plugin {} failed on a device event:", plugin->getName()));
        }
    }
}

} // namespace HALYX
