#include "devices/device_lister.hpp"

#include <algorithm>
#include <chrono>
#include <set>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "core/halyx_exception.hpp"
#include "core/json_fields.hpp"
#include "core/logging.hpp"
#include "core/timeouts.hpp"

namespace HALYX {
namespace {

// "({file}:{line}:{function}) " before an error caught on a platform thread.
#define HALYX_SOURCE_PREFIX fmt::format("({}:{}:{}) ", __FILE__, __LINE__, __func__)

} // namespace

DeviceLister::DeviceLister(halyx_context* owner, std::unique_ptr<AsyncLister> lister,
                           std::vector<std::shared_ptr<PluginApi>> plugins)
    : events_(owner), lister_(std::move(lister)), plugin_pass_(std::move(plugins)), router_(lister_.get()),
      enumerate_ms_(kDefaultTimeouts.enumerate_ms)
{
    for (const auto& plugin : plugin_pass_.plugins()) {
        own_plugins_.push_back(follow(plugin));
    }
}

DeviceLister::~DeviceLister()
{
    try {
        router_.stop();
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::err, e, "DeviceLister: hot-plug notices did not stop:");
    }
}

PluginFollowers::Ticket DeviceLister::follow(const std::shared_ptr<PluginApi>& plugin)
{
    // What a plugin reports is an arrival like any other.
    plugin->setEventCallback([this](const event_object& finding) { onArrival(finding); });
    return followers_.follow(plugin);
}

void DeviceLister::configure(const ConfigurationMap& configuration)
{
    const auto entry = configuration.find("device_lister");
    if (entry == configuration.end()) {
        return;
    }
    // Read the whole entry before any plugin is touched.
    std::vector<std::pair<std::shared_ptr<PluginApi>, std::string>> changes;
    for (const auto& element : entry->second.get<nlohmann::json::array_t>()) {
        const auto name = element.at("name").get<std::string>();
        const auto parameters = element.find("init_parameters");
        if (parameters == element.end()) {
            continue;
        }
        for (const auto& plugin : plugin_pass_.plugins()) {
            if (plugin->getName() == name) {
                changes.emplace_back(plugin, parameters->dump());
            }
        }
    }

    std::lock_guard lock(settings_mutex_);
    std::vector<std::pair<std::shared_ptr<PluginApi>, std::string>> applied;
    try {
        for (const auto& [plugin, parameters] : changes) {
            const auto earlier = applied_settings_.find(plugin.get());
            auto before = earlier != applied_settings_.end() ? earlier->second : std::string("null");
            plugin->setInitParameters(parameters);
            applied_settings_[plugin.get()] = parameters;
            applied.emplace_back(plugin, std::move(before));
        }
    } catch (...) {
        for (auto it = applied.rbegin(); it != applied.rend(); ++it) {
            try {
                it->first->setInitParameters(it->second);
                applied_settings_[it->first.get()] = it->second;
            } catch (const std::exception& e) {
                Log::exception(spdlog::level::err, e,
                               fmt::format("Plugin {} did not take back its earlier settings:", it->first->getName()));
            }
        }
        throw;
    }
}

void DeviceLister::setTimeouts(const halyx_timeout_configuration_t& timeouts)
{
    enumerate_ms_ = timeouts.enumerate_ms;
    if (lister_) {
        lister_->setTimeouts(timeouts);
    }
}

halyx_device_list_t* DeviceLister::enumerate()
{
    if (!Log::logger()) {
        throw HALYXException(HALYX_ERR_LOGGER, "Unable to get logger object when enumerating.");
    }
    const auto alreadyOut = [this] {
        if (current_list_) {
            throw HALYXException(HALYX_ERR_LOGGER, "Device list already exists and must be freed before enumerate.");
        }
    };
    {
        std::lock_guard lock(list_mutex_);
        alreadyOut();
    }
    const auto devices =
        enumeration_.run([this] { return runEnumeration(); }, std::chrono::milliseconds(enumerate_ms_.load()));
    auto list = std::make_unique<DeviceListView>(devices);
    std::lock_guard lock(list_mutex_);
    alreadyOut();
    current_list_ = std::move(list);
    return current_list_->get();
}

std::vector<Device> DeviceLister::runEnumeration()
{
    Log::debug("DeviceLister::enumerate::enumerate_task: Start");
    // While hot-plug notices run they keep a non-empty pool current; without
    // them the host is listed afresh every time.
    const bool empty = pool_.empty();
    if (empty || !router_.running()) {
        if (empty) {
            Log::debug("DeviceLister::enumerate::enumerate_task: Device_pool is empty");
        }
        Log::debug("DeviceLister::enumerate::enumerate_task: Before async_lister->enumarate");
        if (lister_) {
            pool_.replaceAll(lister_->enumerate());
        } else {
            Log::warn("DeviceLister: this host has no USB lister yet; only plugins can report devices");
            pool_.replaceAll({});
        }
        Log::debug("DeviceLister::enumerate::enumerate_task: After async_lister->enumarate");
        describe(pool_.ids());
    }

    const auto snapshot = pool_.snapshot();
    warnAboutDuplicateComNames(snapshot);
    std::vector<Device> listed;
    for (const auto& device : snapshot) {
        Log::debug("DeviceLister::enumerate: Found device with serial number: {}", device.serialNumber.value_or(""));
        if (filter_.passes(device)) {
            listed.push_back(device);
            Log::debug("DeviceLister::enumerate: device registered to device list");
        }
    }
    return listed;
}

std::vector<uint64_t> DeviceLister::describe(const std::vector<uint64_t>& ids)
{
    std::vector<uint64_t> changed;
    if (lister_) {
        for (const auto& finding : lister_->describe(*this, ids)) {
            changed.push_back(pool_.merge(finding).id);
        }
    }
    const auto decorated = plugin_pass_.run(pool_, ids);
    changed.insert(changed.end(), decorated.begin(), decorated.end());
    std::sort(changed.begin(), changed.end());
    changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
    return changed;
}

void DeviceLister::warnAboutDuplicateComNames(const std::vector<Device>& devices) const
{
    std::map<std::string, std::set<uint64_t>> owners;
    for (const auto& device : devices) {
        for (const auto& port : device.serialPorts) {
            if (port.comName) {
                owners[*port.comName].insert(device.id);
            }
        }
    }
    for (const auto& [com_name, ids] : owners) {
        if (ids.size() > 1) {
            Log::warn("The COM name '{}' is duplicated by one or more devices.", com_name);
        }
    }
}

void DeviceLister::freeDeviceList(const halyx_device_list_t* list)
{
    std::unique_ptr<DeviceListView> released;
    std::lock_guard lock(list_mutex_);
    if (!current_list_ || list == nullptr || current_list_->get() != list) {
        throw HALYXException(HALYX_ERR_UNKNOWN_HANDLE, "Could not free non-existing device list.");
    }
    released = std::move(current_list_);
}

halyx_device_t* DeviceLister::getDevice(uint64_t id)
{
    auto device = pool_.get(id);
    if (!device) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, fmt::format("Device with ID={} is not existing in device pool.", id));
    }
    return copies_.add(*device);
}

void DeviceLister::freeDevice(const halyx_device_t* device)
{
    copies_.free(device);
}

std::string DeviceLister::deviceJson(uint64_t id) const
{
    const auto device = pool_.get(id);
    if (!device) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, "device not found");
    }
    return jsonText(device->toJson());
}

std::optional<nlohmann::json> DeviceLister::document(uint64_t id) const
{
    const auto device = pool_.get(id);
    if (!device) {
        return std::nullopt;
    }
    return device->toJson();
}

bool DeviceLister::controlTransfer(uint64_t id, const DfuTriggerTransfer& transfer, std::vector<uint8_t>& buffer)
{
    const auto device = pool_.get(id);
    if (!device || !device->usbIdentifier) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, fmt::format("Device with ID={} is not connected.", id));
    }
    try {
        if (!lister_) {
            throw HALYXException(HALYX_ERR_NOT_SUPPORTED, "this host has no USB lister");
        }
        return lister_->dfuTriggerTransfer(*device->usbIdentifier, transfer, buffer);
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::debug, e, fmt::format("DeviceLister: control transfer to device {}:", id));
        throw HALYXException(HALYX_ERR_GENERAL, "Unable to send control transfer to USB device. Check that correct "
                                                "drivers are installed for the device.");
    }
}

Device DeviceLister::findDevice(const nlohmann::json& device) const
{
    const auto serial_number = device.find("serialNumber");
    if (serial_number == device.end() || !serial_number->is_string()) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, "serialnumber not present");
    }
    auto found = pool_.findBySerialNumber(serial_number->get<std::string>());
    if (!found) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, "device not found");
    }
    return std::move(*found);
}

void DeviceLister::setFilter(std::vector<std::string> traits)
{
    filter_.set(std::move(traits));
}

void DeviceLister::resetFilter()
{
    filter_.reset();
}

void DeviceLister::registerDeviceEvent(halyx_device_event_callback_t callback, void* user_data)
{
    if (!events_.set(callback, user_data)) {
        throw HALYXException(HALYX_ERR_LOGGER, "device event callback is already registered");
    }
}

void DeviceLister::unregisterDeviceEvent()
{
    events_.clear();
}

void DeviceLister::startEvents()
{
    router_.start([this](const event_object& finding, ArrivalType) { onArrival(finding); },
                  [this](const event_object& finding) { onRemoval(finding); });
}

void DeviceLister::stopEvents()
{
    router_.stop();
}

void DeviceLister::shutDown()
{
    enumeration_.requireIdle();
    router_.stop();
}

void DeviceLister::announce(uint64_t id, halyx_device_event_type_t type)
{
    if (const auto device = pool_.get(id)) {
        followers_.tell(*device, type);
        events_.emit(type, id, &*device);
    }
}

void DeviceLister::onArrival(const event_object& finding)
{
    try {
        const auto [id, added] = pool_.merge(finding);
        const auto changed = describe({id});
        announce(id, added ? HALYX_DEVICE_EVENT_ARRIVED : HALYX_DEVICE_EVENT_UPDATED);
        // The lister or a plugin may have touched other devices while looking at this one.
        for (const auto other : changed) {
            if (other != id) {
                announce(other, HALYX_DEVICE_EVENT_UPDATED);
            }
        }
    } catch (const HALYXException& e) {
        Log::exception(spdlog::level::err, e, HALYX_SOURCE_PREFIX + "Failed to process device arrival event");
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::err, e, HALYX_SOURCE_PREFIX + "Failed to process device arrival event");
    } catch (...) {
        Log::error("{} failed to process arrival event unknown error occured", HALYX_SOURCE_PREFIX);
    }
}

void DeviceLister::onRemoval(const event_object& finding)
{
    try {
        const auto id = pool_.find(finding);
        auto removed = id ? pool_.remove(*id) : std::nullopt;
        if (!removed) {
            Log::warn("unknown device removed id: {} sn: {} id_list: {}", finding.usbIdentifier.value_or(""),
                      finding.serialNumber.value_or(""), pool_.ids());
            return;
        }
        followers_.tell(*removed, HALYX_DEVICE_EVENT_LEFT);
        events_.emit(HALYX_DEVICE_EVENT_LEFT, removed->id, nullptr);
    } catch (const HALYXException& e) {
        Log::exception(spdlog::level::err, e, HALYX_SOURCE_PREFIX + "Failed to process device left event");
    } catch (...) {
        Log::error("{} failed to process left event unknown error occured", HALYX_SOURCE_PREFIX);
    }
}

} // namespace HALYX
