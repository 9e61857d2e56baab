#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/configuration.hpp"
#include "devices/copy_pool.hpp"
#include "devices/device_access.hpp"
#include "devices/device_event_sink.hpp"
#include "devices/device_filter.hpp"
#include "devices/device_pool.hpp"
#include "devices/device_view.hpp"
#include "devices/enumeration_task.hpp"
#include "devices/hot_plug_router.hpp"
#include "devices/lister.hpp"
#include "devices/plugin_api.hpp"
#include "devices/plugin_followers.hpp"
#include "devices/plugin_pass.hpp"
#include "halyx.h"

namespace HALYX {

// Knows which devices are attached to the host: lists them in a bounded
// background task, merges the listers' findings into one record per device,
// lets the plugins decorate them, filters, hands out copies, and turns
// hot-plug notices into device events. Each of those is a part of its own;
// this class wires them.
//
// Threads: the caller's threads; the enumeration task; the host lister's
// notification thread, which calls onArrival and onRemoval. Locks: the parts
// keep their own (see each); here list_mutex_ guards the list handed out and
// is never held while calling out; settings_mutex_ guards the plugin settings
// applied and is held across the plugins' setInitParameters, so that two
// configurations cannot interleave (a plugin must not configure the lister
// from there). Neither is held while calling the application.
class DeviceLister final : public DeviceAccess {
public:
    DeviceLister(halyx_context* owner, std::unique_ptr<AsyncLister> lister,
                 std::vector<std::shared_ptr<PluginApi>> plugins);
    ~DeviceLister() override;
    DeviceLister(const DeviceLister&) = delete;
    DeviceLister& operator=(const DeviceLister&) = delete;

    // Hands each plugin named in "device_lister" its "init_parameters"; an
    // element without them leaves that plugin as it is. All or nothing: when
    // a plugin refuses its parameters, the ones already handed theirs in this
    // call get their earlier ones back.
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

    // True on the thread that delivers this lister's device events, inside a callback.
    bool inEventCallback() const { return router_.inCallback(); }

    // An operation's plugin instance follows device events while it runs,
    // and may report devices of its own.
    PluginFollowers::Ticket follow(const std::shared_ptr<PluginApi>& plugin);

    // DeviceAccess
    std::optional<nlohmann::json> document(uint64_t id) const override;
    bool controlTransfer(uint64_t id, const DfuTriggerTransfer& transfer, std::vector<uint8_t>& buffer) override;

private:
    std::vector<Device> runEnumeration();
    // Lets the lister and the plugins describe these pooled devices; the ids
    // that changed besides.
    std::vector<uint64_t> describe(const std::vector<uint64_t>& ids);
    void warnAboutDuplicateComNames(const std::vector<Device>& devices) const;

    void onArrival(const event_object& finding);
    void onRemoval(const event_object& finding);
    void announce(uint64_t id, halyx_device_event_type_t type);

    DevicePool pool_;
    CopyPool copies_;
    DeviceEventSink events_;
    DeviceFilter filter_;
    const std::unique_ptr<AsyncLister> lister_;
    PluginPass plugin_pass_;
    PluginFollowers followers_;
    std::vector<PluginFollowers::Ticket> own_plugins_;
    HotPlugRouter router_;
    std::atomic<uint32_t> enumerate_ms_;

    std::mutex list_mutex_;
    std::unique_ptr<DeviceListView> current_list_;

    std::mutex settings_mutex_;
    std::map<const PluginApi*, std::string> applied_settings_;

    // Last: a running enumeration uses everything above, and is waited for first.
    EnumerationTask enumeration_;
};

} // namespace HALYX
