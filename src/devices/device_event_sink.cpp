#include "devices/device_event_sink.hpp"

#include <memory>

#include "devices/device_view.hpp"

namespace HALYX {

bool DeviceEventSink::set(halyx_device_event_callback_t callback, void* user_data)
{
    std::lock_guard lock(mutex_);
    if (callback_ != nullptr) {
        return false;
    }
    callback_ = callback;
    user_data_ = user_data;
    return true;
}

void DeviceEventSink::clear()
{
    std::lock_guard lock(mutex_);
    callback_ = nullptr;
    user_data_ = nullptr;
}

void DeviceEventSink::emit(halyx_device_event_type_t type, uint64_t id, const Device* device)
{
    std::lock_guard lock(mutex_);
    if (callback_ == nullptr) {
        return;
    }
    std::unique_ptr<DeviceView> view;
    if (device != nullptr) {
        view = std::make_unique<DeviceView>(*device);
    }
    const halyx_device_event_t event{type, id, view ? view->get() : nullptr};
    callback_(context_, &event, user_data_);
}

} // namespace HALYX
