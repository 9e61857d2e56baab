#pragma once

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/configuration.hpp"
#include "devices/copy_pool.hpp"
#include "devices/device_event_sink.hpp"
#include "devices/device_pool.hpp"
#include "devices/device_view.hpp"
#include "devices/lister.hpp"
#include "devices/plugin_api.hpp"
#include "halyx.h"

namespace HALYX {

// Knows which devices are attached to the host: runs enumeration as a
// bounded background task, merges the listers' findings into one record per
// device, lets the plugins decorate them, filters, hands out copies, and
// turns hot-plug notices into device events.
//
// Threads: the caller's threads; the enumeration task (std::async, one at a
// time); the async lister's notification thread, which calls onArrival and
// onRemoval. Locks: task_mutex_ guards the enumeration task's state (never
// held while waiting for it); list_mutex_ the list handed out; filter_mutex_
// the filter; timeouts_mutex_ the time limits; plugin_pass_mutex_ serialises
// plugin passes; the pools and the event sink have their own. No two of the
// pool mutexes are held at once, and none is held while calling out.
class DeviceLister {
public:
    DeviceLister(halyx_context* owner, std::unique_ptr<AsyncLister> lister,
                 std::vector<std::shared_ptr<PluginApi>> plugins);
    ~DeviceLister();
    DeviceLister(const DeviceLister&) = delete;
    DeviceLister& operator=(const DeviceLister&) = delete;

    void configure(const ConfigurationMap& configuration);
    void setTimeouts(const halyx_timeout_configuration_t& timeouts);

    halyx_device_list_t* enumerate();
    void freeDeviceList(const halyx_device_list_t* list);

    halyx_device_t* getDevice(uint64_t id);
    void freeDevice(const halyx_device_t* device);

    // The device's document as compact JSON; throws 10 "device not found".
    std::string deviceJson(uint64_t id) const;

    // The pooled record a device document names by "serialNumber"; throws 10
    // "serialnumber not present" or 10 "device not found".
    Device findDevice(const nlohmann::json& device) const;

    void setFilter(std::vector<std::string> traits);
    void resetFilter();

    void registerDeviceEvent(halyx_device_event_callback_t callback, void* user_data);
    void unregisterDeviceEvent();

    void startEvents();
    void stopEvents();

    // Refuses (12) while an enumeration runs; stops hot-plug notices.
    void shutDown();

private:
    std::vector<Device> runEnumeration();
    void refreshFromListers();
    std::vector<uint64_t> runPluginPass(const std::vector<uint64_t>& ids);
    bool passesFilter(const Device& device) const;
    void warnAboutDuplicateComNames(const std::vector<Device>& devices) const;

    void onArrival(const event_object& finding, ArrivalType type);
    void onRemoval(const event_object& finding);
    void notifyPlugins(const Device& device, halyx_device_event_type_t type);

    DevicePool pool_;
    CopyPool copies_;
    DeviceEventSink events_;
    const std::unique_ptr<AsyncLister> lister_;
    const std::vector<std::shared_ptr<PluginApi>> plugins_;

    std::mutex list_mutex_;
    std::unique_ptr<DeviceListView> current_list_;

    std::mutex task_mutex_;
    // Shared so every caller waits on its own copy while another may already
    // start the next enumeration.
    std::shared_future<std::vector<Device>> enumerate_task_;
    bool enumerate_started_ = false;

    mutable std::mutex filter_mutex_;
    std::vector<std::string> filter_;

    std::mutex timeouts_mutex_;
    halyx_timeout_configuration_t timeouts_;

    std::mutex plugin_pass_mutex_;

    std::mutex events_mutex_; // start/stop of hot-plug notices
    std::atomic<bool> events_running_{false};
};

} // namespace HALYX
