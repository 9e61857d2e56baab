#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "devices/device.hpp"
#include "halyx.h"

namespace HALYX {

// The C view of one device copy. It owns every string and array the
// halyx_device_t points into, so the view stays valid exactly as long as
// this object and is freed with it.
class DeviceView {
public:
    explicit DeviceView(const Device& device);
    DeviceView(const DeviceView&) = delete;
    DeviceView& operator=(const DeviceView&) = delete;

    const halyx_device_t* get() const { return &view_; }
    halyx_device_t* get() { return &view_; }
    uint64_t id() const { return view_.id; }

    // Writes the view into an already allocated slot (used by list views,
    // whose devices must lie in one array).
    void fill(halyx_device_t& out) const { out = view_; }

private:
    const char* keep(const std::optional<std::string>& text);

    // A deque never moves its elements, so c_str() pointers stay put.
    std::deque<std::string> strings_;
    std::vector<halyx_trait_t> traits_;
    std::vector<halyx_serial_port_t> ports_;
    halyx_device_t view_{};
};

// The C view of a device list; owns its device views.
class DeviceListView {
public:
    explicit DeviceListView(const std::vector<Device>& devices);
    DeviceListView(const DeviceListView&) = delete;
    DeviceListView& operator=(const DeviceListView&) = delete;

    const halyx_device_list_t* get() const { return &view_; }
    halyx_device_list_t* get() { return &view_; }

private:
    std::vector<std::unique_ptr<DeviceView>> views_;
    std::vector<halyx_device_t> devices_;
    halyx_device_list_t view_{};
};

// The record a view describes, for views the application filled in itself
// (without "json"): id, serial number, USB identifier, traits and ports.
Device recordFromView(const halyx_device_t& view);

} // namespace HALYX
