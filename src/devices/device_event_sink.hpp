#pragma once

#include <mutex>

#include "devices/device.hpp"
#include "halyx.h"

namespace HALYX {

// The application's one device-event callback. The mutex is held while the
// callback runs, so once clear() returns it is not running and will not be
// called again; it is recursive so the callback may unregister itself.
class DeviceEventSink {
public:
    explicit DeviceEventSink(halyx_context* context) : context_(context) {}

    // False when a callback is already registered.
    bool set(halyx_device_event_callback_t callback, void* user_data);
    void clear();

    // Calls the callback (if any) with a copy of the device that is valid
    // during the call; device is null for a removal.
    void emit(halyx_device_event_type_t type, uint64_t id, const Device* device);

private:
    halyx_context* const context_;
    std::recursive_mutex mutex_;
    halyx_device_event_callback_t callback_ = nullptr;
    void* user_data_ = nullptr;
};

} // namespace HALYX
