#pragma once

#include <memory>
#include <string>
#include <vector>

#include "devices/device.hpp"
#include "halyx.h"

namespace HALYX {

// The C view of one device copy: owns every string the halyx_device_t points
// to, so the view stays valid exactly as long as this object.
class DeviceView {
public:
    explicit DeviceView(const Device& device);
    DeviceView(const DeviceView&) = delete;
    DeviceView& operator=(const DeviceView&) = delete;

    const halyx_device_t* get() const { return &view_; }
    halyx_device_t* get() { return &view_; }
    uint64_t id() const { return view_.id; }

private:
    // (implementation-defined owned storage)
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
    // (implementation-defined owned storage)
    halyx_device_list_t view_{};
};

} // namespace HALYX
