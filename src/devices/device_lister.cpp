#include "devices/device_lister.hpp"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "core/context.hpp"
#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX {
namespace {

// "({file}:{line}:{function}) " before an error caught on a platform thread.
#define HALYX_SOURCE_PREFIX fmt::format("({}:{}:{}) ", __FILE__, __LINE__, __func__)

} // namespace

DeviceLister::DeviceLister(halyx_context* owner, std::unique_ptr<AsyncLister> lister,
                           std::vector<std::shared_ptr<PluginApi>> plugins)
    : events_(owner), lister_(std::move(lister)), plugins_(std::move(plugins)), timeouts_(kDefaultTimeouts)
{
}

DeviceLister::~DeviceLister()
{
    stopEvents();
    // An enumeration still running must not outlive the pools it writes to.
    std::lock_guard lock(task_mutex_);
    if (enumerate_task_.valid()) {
        enumerate_task_.wait();
    }
}

void DeviceLister::configure(const ConfigurationMap& configuration)
{
    const auto entry = configuration.find("device_lister");
    if (entry == configuration.end()) {
        return;
    }
    for (const auto& element : entry->second.get<nlohmann::json::array_t>()) {
        const auto name = element.at("name").get<std::string>();
        for (const auto& plugin : plugins_) {
            if (plugin->getName() != name) {
                continue;
            }
            const auto parameters = element.find("init_parameters");
            plugin->setInitParameters(parameters != element.end() ? parameters->dump() : std::string("null"));
        }
    }
}

void DeviceLister::setTimeouts(const halyx_timeout_configuration_t& timeouts)
{
    std::lock_guard lock(timeouts_mutex_);
    timeouts_ = timeouts;
    if (lister_) {
        lister_->setTimeouts(timeouts);
    }
}

halyx_device_list_t* DeviceLister::enumerate()
{
    if (!Log::logger()) {
        throw HALYXException(HALYX_ERR_LOGGER, "Unable to get logger object when enumerating.");
    }
    {
        std::lock_guard lock(list_mutex_);
        if (current_list_) {
            throw HALYXException(HALYX_ERR_LOGGER, "Device list already exists and must be freed before enumerate.");
        }
    }

    std::shared_future<std::vector<Device>> task;
    {
        std::lock_guard lock(task_mutex_);
        if (enumerate_started_) {
            Log::debug("DeviceLister::enumerate: Checking future_status of enumerate_task_status");
            if (!enumerate_task_.valid()) {
                throw HALYXException(HALYX_ERR_INVALID_STATE, "Unable to validate enumerate task.");
            }
            if (enumerate_task_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
                Log::debug("DeviceLister::enumerate: Statis is not std::future_status::ready");
                throw HALYXException(HALYX_ERR_TIMEOUT, "Previous enumerate task still running.");
            }
            Log::debug("DeviceLister::enumerate: Waiting for resolving of enumerate_task");
            try {
                (void)enumerate_task_.get();
            } catch (const std::exception& e) {
                // Its caller already timed out; a fresh enumeration follows.
                Log::exception(spdlog::level::warn, e, "DeviceLister::enumerate: earlier enumeration failed:");
            }
        }
        enumerate_task_ = std::async(std::launch::async, [this] { return runEnumeration(); }).share();
        enumerate_started_ = true;
        task = enumerate_task_;
    }

    uint32_t limit_ms = 0;
    {
        std::lock_guard lock(timeouts_mutex_);
        limit_ms = timeouts_.enumerate_ms;
    }
    Log::debug("DeviceLister::enumerate: Waiting for enumerate task to complete");
    const auto status = task.wait_for(std::chrono::milliseconds(limit_ms));
    Log::debug("DeviceLister::enumerate: Completed waiting for enumerate task");
    if (status == std::future_status::timeout) {
        Log::debug("DeviceLister::enumerate: waiting timed out");
        throw HALYXException(HALYX_ERR_TIMEOUT, "Enumerate task timed out. Enumeration still running.");
    }
    if (status == std::future_status::deferred) {
        Log::debug("DeviceLister::enumerate: the future is deferred");
        throw HALYXException(HALYX_ERR_INVALID_STATE, "Fatal error. Enumerate task is in an illegal state.");
    }

    if (!task.valid()) {
        Log::debug("DeviceLister::enumerate: enumerate_task is not valid (does not have a valid state)");
        throw HALYXException(HALYX_ERR_INVALID_STATE, "Fatal error. Enumerate task is in an illegal state.");
    }
    const auto& devices = task.get();
    Log::debug("DeviceLister::enumerate: done");

    auto list = std::make_unique<DeviceListView>(devices);
    std::lock_guard lock(list_mutex_);
    if (current_list_) {
        throw HALYXException(HALYX_ERR_LOGGER, "Device list already exists and must be freed before enumerate.");
    }
    current_list_ = std::move(list);
    return current_list_->get();
}

std::vector<Device> DeviceLister::runEnumeration()
{
    Log::debug("DeviceLister::enumerate::enumerate_task: Start");
    // While hot-plug notices run they keep a non-empty pool current; without
    // them the host is listed afresh every time.
    const bool empty = pool_.empty();
    if (empty || !events_running_) {
        if (empty) {
            Log::debug("DeviceLister::enumerate::enumerate_task: Device_pool is empty");
        }
        Log::debug("DeviceLister::enumerate::enumerate_task: Before async_lister->enumarate");
        refreshFromListers();
        Log::debug("DeviceLister::enumerate::enumerate_task: After async_lister->enumarate");
        runPluginPass(pool_.ids());
    }

    const auto snapshot = pool_.snapshot();
    warnAboutDuplicateComNames(snapshot);
    std::vector<Device> listed;
    for (const auto& device : snapshot) {
        Log::debug("DeviceLister::enumerate: Found device with serial number: {}", device.serialNumber.value_or(""));
        if (passesFilter(device)) {
            listed.push_back(device);
            Log::debug("DeviceLister::enumerate: device registered to device list");
        }
    }
    return listed;
}

void DeviceLister::refreshFromListers()
{
    if (!lister_) {
        Log::warn("DeviceLister: this host has no USB lister yet; only plugins can report devices");
        pool_.replaceAll({});
        return;
    }
    pool_.replaceAll(lister_->enumerate());
}

std::vector<uint64_t> DeviceLister::runPluginPass(const std::vector<uint64_t>& ids)
{
    std::lock_guard pass(plugin_pass_mutex_);

    Traits known;
    for (const auto& plugin : plugins_) {
        for (const auto& trait : plugin->getTraits()) {
            known.emplace(trait, false);
        }
    }

    auto document = toDocument(pool_.snapshot(ids));
    std::vector<uint64_t> changed;
    std::vector<event_object> found;
    const PluginApi::DeviceChanged on_changed = [&changed](uint64_t id) { changed.push_back(id); };
    const PluginApi::DeviceFound on_found = [&found](const event_object& finding) { found.push_back(finding); };
    for (const auto& plugin : plugins_) {
        plugin->enumerate(document, on_changed, on_found);
    }

    for (const auto& device : document.at("devices")) {
        pool_.update(device);
    }
    for (const auto& finding : found) {
        changed.push_back(pool_.merge(finding).id);
    }
    pool_.mergeTraitsIntoAll(known);
    return changed;
}

bool DeviceLister::passesFilter(const Device& device) const
{
    std::lock_guard lock(filter_mutex_);
    if (filter_.empty()) {
        return true;
    }
    return std::any_of(filter_.begin(), filter_.end(), [&](const std::string& trait) {
        const auto it = device.traits.find(trait);
        return it != device.traits.end() && it->second;
    });
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
    return device->toJson().dump();
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
    std::lock_guard lock(filter_mutex_);
    filter_ = std::move(traits);
}

void DeviceLister::resetFilter()
{
    std::lock_guard lock(filter_mutex_);
    filter_.clear();
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
    std::lock_guard lock(events_mutex_);
    if (!lister_) {
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED,
                             "Hot-plug events are not available: this build has no USB lister for this host.");
    }
    if (events_running_) {
        return;
    }
    lister_->start([this](const event_object& finding, ArrivalType type) { onArrival(finding, type); },
                   [this](const event_object& finding) { onRemoval(finding); });
    events_running_ = true;
}

void DeviceLister::stopEvents()
{
    std::lock_guard lock(events_mutex_);
    if (!events_running_) {
        return;
    }
    lister_->stop();
    events_running_ = false;
}

void DeviceLister::shutDown()
{
    {
        std::lock_guard lock(task_mutex_);
        if (enumerate_started_) {
            if (!enumerate_task_.valid()) {
                throw HALYXException(HALYX_ERR_INVALID_STATE, "Fatal error. Enumerate task is in an illegal state.");
            }
            if (enumerate_task_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
                throw HALYXException(HALYX_ERR_TIMEOUT, "Unable to shut down. Enumeration is still running.");
            }
        }
    }
    stopEvents();
}

void DeviceLister::onArrival(const event_object& finding, ArrivalType)
{
    try {
        const auto [id, added] = pool_.merge(finding);
        auto changed = runPluginPass({id});
        if (const auto device = pool_.get(id)) {
            const auto type = added ? HALYX_DEVICE_EVENT_ARRIVED : HALYX_DEVICE_EVENT_UPDATED;
            notifyPlugins(*device, type);
            events_.emit(type, id, &*device);
        }
        // A plugin may have touched other devices while looking at this one.
        std::sort(changed.begin(), changed.end());
        changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
        for (const auto other : changed) {
            if (other == id) {
                continue;
            }
            if (const auto device = pool_.get(other)) {
                notifyPlugins(*device, HALYX_DEVICE_EVENT_UPDATED);
                events_.emit(HALYX_DEVICE_EVENT_UPDATED, other, &*device);
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
        notifyPlugins(*removed, HALYX_DEVICE_EVENT_LEFT);
        events_.emit(HALYX_DEVICE_EVENT_LEFT, removed->id, nullptr);
    } catch (const HALYXException& e) {
        Log::exception(spdlog::level::err, e, HALYX_SOURCE_PREFIX + "Failed to process device left event");
    } catch (...) {
        Log::error("{} failed to process left event unknown error occured", HALYX_SOURCE_PREFIX);
    }
}

void DeviceLister::notifyPlugins(const Device& device, halyx_device_event_type_t type)
{
    const auto text = device.toJson().dump();
    for (const auto& plugin : plugins_) {
        plugin->onDeviceEvent(text, static_cast<uint32_t>(type), std::string());
    }
}

} // namespace HALYX
